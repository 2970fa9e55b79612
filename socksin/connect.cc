// connect.cc - connects, binds, listens and accepts, and updates the addresses in the records accordingly.
// Not here: name resolution (resolve.cc), waiting for a pending connect (wait.cc).
// Invariant: connected is set to 1 only after a connect, bind or accept has succeeded.
#include "socksin/connect.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "socksin/record.hh"
#include "socksin/resolve.h"
#include "sockutil/text.hh"

namespace {

const sockaddr* Address(const sockaddr_in* in) { return reinterpret_cast<const sockaddr*>(in); }

// The result of a socket call, and errno when it failed.
struct Outcome {
  bool failed;
  int code;
};

// Only the result shows whether a call failed: errno may stem from an earlier call, and may be 0 after a failure.
Outcome Judge(int result) { return result == -1 ? Outcome{true, errno} : Outcome{false, 0}; }

// EISCONN counts as success.
Outcome Connect(SockRec* rec, const SockAddrRec* target, const sockaddr_in* sin) {
  Outcome outcome = Judge(connect(rec->fd, Address(sin), sizeof *sin));
  rec->from = *target;
  rec->name = *target;
  rec->error = outcome.code;
  if (outcome.code == EISCONN) outcome = {false, 0};
  if (!outcome.failed) IpAddrToSocketAddr(&rec->from, sin, rec->from.protocol);
  return outcome;
}

Outcome Bind(SockRec* rec, const sockaddr_in* sin) {
  const Outcome outcome = Judge(bind(rec->fd, Address(sin), sizeof *sin));
  if (!outcome.failed) IpAddrToSocketAddr(&rec->name, sin, rec->name.protocol);
  return outcome;
}

}  // namespace

int SockAction(SockRec* rec, SockAddrRec* addrRec, int action) {
  addrRec->host[sizeof addrRec->host - 1] = '\0';
  addrRec->ip[sizeof addrRec->ip - 1] = '\0';
  sockaddr_in sin;
  if (!AddrToIP(rec, addrRec, &sin)) return 0;

  utsname info;
  GetSysInfo(&info);
  mq::CopyField(rec->name.host, info.nodename);
  mq::CopyField(rec->name.protocol, addrRec->protocol);

  Outcome outcome = {false, 0};
  if (action == SOCK_ACTION_CONNECT) outcome = Connect(rec, addrRec, &sin);
  if (action == SOCK_ACTION_BIND) outcome = Bind(rec, &sin);

  *addrRec = rec->name;
  rec->error = outcome.code == EINPROGRESS ? SOCK_WOULD_BLOCK : outcome.code;
  return !outcome.failed || outcome.code == EISCONN;
}

int ConnectSocket(SockRec* rec, SockAddrRec* target) {
  mq::RunSocketTrace("ConnectSocket:Before", rec);
  const int result = SockAction(rec, target, SOCK_ACTION_CONNECT);
  if (!result) mq::CallErrorCallback(rec);
  rec->connected = static_cast<uint32_t>(result);
  mq::RunSocketTrace("ConnectSocket:After", rec);
  return result;
}

int BindSocketName(SockRec* rec, SockAddrRec* bindAddr) {
  mq::RunSocketTrace("BindSocket:Before", rec);
  const int result = SockAction(rec, bindAddr, SOCK_ACTION_BIND);
  if (result) {
    rec->name = *bindAddr;
  } else {
    mq::CallErrorCallback(rec);
  }
  rec->connected = static_cast<uint32_t>(result);
  mq::RunSocketTrace("BindSocket:After", rec);
  return result;
}

int ListenSocket(SockRec* rec, int backlog) {
  const int result = listen(rec->fd, backlog) == -1 ? mq::ReportFailure(rec, errno) : 1;
  mq::RunSocketTrace("ListenSocket", rec);
  return result;
}

int AcceptClient(SockRec* listener, SockRec* child) {
  mq::RunSocketTrace("AcceptClient:Before", listener);
  sockaddr_in peer = {};
  socklen_t length = sizeof peer;
  const int fd = accept(listener->fd, reinterpret_cast<sockaddr*>(&peer), &length);
  if (fd == -1) {
    mq::ReportFailure(listener, errno);
    mq::RunSocketTrace("AcceptClient:After", listener);
    return 0;
  }
  mq::CloseOnExec(fd);
  InitSocket(child);
  child->fd = fd;
  IpAddrToSocketAddr(&child->name, &peer, child->name.protocol);
  child->domain = listener->domain;
  child->type = listener->type;
  child->protocol = listener->protocol;
  child->connected = 1;
  mq::RunSocketTrace("AcceptClient:After", listener);
  mq::RunSocketTrace("AcceptClient:After:Client", child);
  return 1;
}
