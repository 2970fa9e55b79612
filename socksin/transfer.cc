// transfer.cc - moves bytes between one socket and one buffer, one system call at a time.
// Not here: whole messages (mqnode/read.cc), queued writes (mqnode/deliver.cc).
#include "socksin/transfer.hh"

namespace mq {

int FailTransfer(SockRec* rec, const char* point, int code) {
  ReportFailure(rec, code);
  // Only after ReportFailure: the error callback gets EINPROGRESS itself.
  if (rec->error == EINPROGRESS) rec->error = SOCK_WOULD_BLOCK;
  return EndTransfer(rec, point, 0);
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

}  // namespace mq

int ReadSocket(SockRec* rec, IoBuffer* buf) { return mq::Receive<true>(rec, buf); }

int WriteSocket(SockRec* rec, IoBuffer* buf, SockAddrRec* destination) { return mq::Send(rec, buf, destination); }
