// options.cc - maps option ids to those of the system, and sets or gets one option at a time.
// Not here: which options a node gets (mqnode/create.cc).
// Invariant: error is the errno of the last call, 0 if it succeeded.
#include "socksin/options.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>

#include "socksin/record.hh"

namespace {

constexpr int kSystemOption[] = {SO_DEBUG,     SO_REUSEADDR, SO_KEEPALIVE, SO_DONTROUTE, SO_LINGER, SO_BROADCAST,
                                 SO_OOBINLINE, SO_SNDBUF,    SO_RCVBUF,    SO_TYPE,      SO_ERROR};
constexpr int kMapped = sizeof kSystemOption / sizeof kSystemOption[0];

template <typename Value>
int Set(SockRec* rec, int level, int option, const Value& value) {
  if (setsockopt(rec->fd, level, option, &value, sizeof value) == -1) return mq::ReportFailure(rec, errno);
  return 1;
}

}  // namespace

int MapSockOption(int id) {
  if (id < 0) return -1;
  return id < kMapped ? kSystemOption[id] : id;
}

int SetSocketOptions(SockRec* rec, SockOption* option) {
  rec->error = 0;
  const int mapped = MapSockOption(option->id);
  if (option->id == SOCK_OPT_LINGER) {
    const linger pair = {option->value2, option->value1};
    return Set(rec, SOL_SOCKET, mapped, pair);
  }
  const bool isSize = option->id == SOCK_OPT_SNDBUF || option->id == SOCK_OPT_RCVBUF;
  return Set(rec, SOL_SOCKET, mapped, isSize ? option->value1 : option->value2);
}

int GetSocketOptions(SockRec* rec, SockOption* option) {
  rec->error = 0;
  socklen_t length = sizeof option->value1;
  if (getsockopt(rec->fd, SOL_SOCKET, MapSockOption(option->id), &option->value1, &length) == -1) {
    return mq::ReportFailure(rec, errno);
  }
  return 1;
}

int SetTcpNoDelay(SockRec* rec, int on) {
  rec->error = 0;
  return Set(rec, IPPROTO_TCP, TCP_NODELAY, on);
}

int SetTcpBuffer(SockRec* rec, int size) {
  rec->error = 0;
  return Set(rec, SOL_SOCKET, SO_SNDBUF, size) && Set(rec, SOL_SOCKET, SO_RCVBUF, size);
}

int ReuseSocket(SockRec* rec, int on) {
  SockOption option = {SOCK_OPT_REUSEADDR, 0, on == 1};
  return SetSocketOptions(rec, &option);
}
