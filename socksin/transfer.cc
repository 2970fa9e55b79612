// transfer.cc - moves bytes between one socket and one buffer, one system call at a time.
// Not here: whole messages (mqnode/read.cc), queued writes (mqnode/deliver.cc).
// Invariant: rec->buffer is set exactly between the two trace points of a call.
#include "socksin/transfer.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "socksin/record.hh"
#include "socksin/resolve.h"

namespace {

void BeginTransfer(SockRec* rec, IoBuffer* buf, const char* point) {
  rec->buffer = buf;
  mq::RunSocketTrace(point, rec);
}

void EndTransfer(SockRec* rec, const char* point) {
  // Only now, after the error callback saw the errno itself.
  if (rec->error == EINPROGRESS) rec->error = SOCK_WOULD_BLOCK;
  mq::RunSocketTrace(point, rec);
  rec->buffer = nullptr;
}

ssize_t SendTo(SockRec* rec, const IoBuffer* buf, SockAddrRec* destination) {
  sockaddr_in to;
  if (destination == nullptr || !AddrToIP(rec, destination, &to)) {
    errno = EDESTADDRREQ;
    return -1;
  }
  return sendto(rec->fd, buf->data + buf->sent, buf->length - buf->sent, static_cast<int>(buf->flags),
                reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

}  // namespace

int ReadSocket(SockRec* rec, IoBuffer* buf) {
  BeginTransfer(rec, buf, "ReadSocket:Before");
  sockaddr_in peer = {};
  socklen_t peerLength = sizeof peer;
  const ssize_t got = recvfrom(rec->fd, buf->data + buf->received, buf->length - buf->received,
                               static_cast<int>(buf->flags), reinterpret_cast<sockaddr*>(&peer), &peerLength);
  int result = 1;
  if (got > 0) {
    rec->error = 0;
    buf->received += static_cast<uint32_t>(got);
    rec->bytesReceived += static_cast<uint64_t>(got);
    if (peerLength != 0 && rec->type == SOCK_TYPE_DATAGRAM) IpAddrToSocketAddr(&rec->from, &peer, rec->from.protocol);
  } else {
    result = mq::ReportFailure(rec, got == 0 ? SOCK_PEER_CLOSED : errno);
  }
  EndTransfer(rec, "ReadSocket:After");
  return result;
}

int WriteSocket(SockRec* rec, IoBuffer* buf, SockAddrRec* destination) {
  BeginTransfer(rec, buf, "WriteSocket:Before");
  const ssize_t taken = rec->type == SOCK_TYPE_STREAM ? send(rec->fd, buf->data + buf->sent, buf->length - buf->sent,
                                                             static_cast<int>(buf->flags))
                                                      : SendTo(rec, buf, destination);
  int result = 1;
  if (taken >= 0) {
    rec->error = 0;
    buf->sent += static_cast<uint32_t>(taken);
    rec->bytesSent += static_cast<uint64_t>(taken);
  } else {
    result = mq::ReportFailure(rec, errno);
  }
  EndTransfer(rec, "WriteSocket:After");
  return result;
}
