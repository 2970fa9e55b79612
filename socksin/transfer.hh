// transfer.hh - one receive and one send: the bodies of ReadSocket and WriteSocket, inline for the fast paths.
// Invariant: rec->buffer is set exactly between the two trace points of a call.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "socksin/record.hh"
#include "socksin/resolve.h"
#include "socksin/transfer.h"

namespace mq {

inline void BeginTransfer(SockRec* rec, IoBuffer* buf, const char* point) {
  rec->buffer = buf;
  RunSocketTrace(point, rec);
}

inline int EndTransfer(SockRec* rec, const char* point, int result) {
  RunSocketTrace(point, rec);
  rec->buffer = nullptr;
  return result;
}

// Ends a failed transfer. Always returns 0.
int FailTransfer(SockRec* rec, const char* point, int code);

// Resolves the destination and calls sendto. Result and errno as for send; errno is 89 if the destination is null or
// cannot be resolved.
ssize_t SendTo(SockRec* rec, const IoBuffer* buf, SockAddrRec* destination);

// kAnyType: rec->type, read after the receive, decides whether rec->from is set; otherwise it is a stream socket.
template <bool kAnyType>
int Receive(SockRec* rec, IoBuffer* buf) {
  constexpr const char* kAfter = "ReadSocket:After";
  BeginTransfer(rec, buf, "ReadSocket:Before");
  sockaddr_in peer;
  if (kAnyType) peer = {};
  socklen_t peerLength = sizeof peer;
  const ssize_t got = recvfrom(rec->fd, buf->data + buf->received, buf->length - buf->received,
                               static_cast<int>(buf->flags), reinterpret_cast<sockaddr*>(&peer), &peerLength);
  if (got <= 0) [[unlikely]]
    return FailTransfer(rec, kAfter, got == 0 ? SOCK_PEER_CLOSED : errno);
  rec->error = 0;
  buf->received += static_cast<uint32_t>(got);
  rec->bytesReceived += static_cast<uint64_t>(got);
  if (kAnyType && rec->type == SOCK_TYPE_DATAGRAM && peerLength != 0) {
    IpAddrToSocketAddr(&rec->from, &peer, rec->from.protocol);
  }
  return EndTransfer(rec, kAfter, 1);
}

// ReadSocket for a stream socket. Without a trace callback, its type cannot change during the call and is not checked
// again.
inline int ReceiveStream(SockRec* rec, IoBuffer* buf) {
  return rec->onTrace == nullptr ? Receive<false>(rec, buf) : ReadSocket(rec, buf);
}

inline int Send(SockRec* rec, IoBuffer* buf, SockAddrRec* destination) {
  constexpr const char* kAfter = "WriteSocket:After";
  BeginTransfer(rec, buf, "WriteSocket:Before");
  ssize_t taken;
  if (rec->type == SOCK_TYPE_STREAM) [[likely]] {
    taken = send(rec->fd, buf->data + buf->sent, buf->length - buf->sent, static_cast<int>(buf->flags));
  } else {
    taken = SendTo(rec, buf, destination);
  }
  if (taken < 0) [[unlikely]]
    return FailTransfer(rec, kAfter, errno);
  rec->error = 0;
  buf->sent += static_cast<uint32_t>(taken);
  rec->bytesSent += static_cast<uint64_t>(taken);
  return EndTransfer(rec, kAfter, 1);
}

}  // namespace mq
