// record.cc - the life cycle of a socket record: initialised, created or adopted, configured, deleted.
// Not here: addresses (resolve.cc, connect.cc), transfers (transfer.cc), options (options.cc).
// Invariant: a record whose fd is -1 owns no file descriptor.
#include "socksin/record.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "socksin/record.hh"
#include "sockutil/text.hh"

SockTraceFn G_socket_trace = nullptr;

namespace {

constexpr int kNoDescriptor = -1;
constexpr char kFromProtocol[] = "tcp";

// Offset of the time of day, hh:mm:ss, in the result of ctime.
constexpr size_t kClockInCtime = 11;

void PrintCloseFailure(int fd, int result, int code) {
  const time_t now = time(nullptr);
  const char* const text = ctime(&now);
  printf("%.8s SOCKSIN::DeleteSocket close(%d) failed RC(%d) errno(%d)\n",
         text != nullptr ? text + kClockInCtime : "??:??:??", fd, result, code);
}

// Sets and clears file status flags.
int ChangeFlags(SockRec* rec, int set, int clear, const char* point) {
  rec->error = 0;
  const int flags = fcntl(rec->fd, F_GETFL, 0);
  const int changed = fcntl(rec->fd, F_SETFL, (flags | set) & ~clear);
  const int result = changed == -1 ? mq::ReportFailure(rec, errno) : 1;
  mq::RunSocketTrace(point, rec);
  return result;
}

}  // namespace

namespace mq {

// Preserves errno: a failed lookup reports the value that an earlier call left there.
void CloseOnExec(int fd) {
  const int saved = errno;
  ioctl(fd, FIOCLEX);
  errno = saved;
}

}  // namespace mq

int InitSocket(SockRec* rec) {
  memset(rec, 0, sizeof *rec);
  rec->fd = kNoDescriptor;
  return 1;
}

int OSInitSocket(SockRec*) { return 1; }

int CreateAnySocket(SockRec* rec, int domain, int type) {
  InitSocket(rec);
  if (!OSInitSocket(rec)) return 0;
  rec->onTrace = G_socket_trace;
  mq::CopyText(rec->from.protocol, kFromProtocol);
  rec->domain = static_cast<uint32_t>(domain);
  rec->type = static_cast<uint32_t>(type);
  rec->fd = socket(domain, type, static_cast<int>(rec->protocol));
  int result = 1;
  if (rec->fd == -1) {
    result = mq::ReportFailure(rec, errno);
  } else {
    mq::CloseOnExec(rec->fd);
  }
  mq::RunSocketTrace("CreateAnySocket", rec);
  return result;
}

int CreateSocket(SockRec* rec) { return CreateAnySocket(rec, AF_INET, SOCK_STREAM); }

int CreateUDPSocket(SockRec* rec) { return CreateAnySocket(rec, AF_INET, SOCK_DGRAM); }

int CreateSocketFromExisting(SockRec* rec, int descriptor) {
  InitSocket(rec);
  rec->onTrace = G_socket_trace;
  rec->domain = AF_INET;
  rec->type = SOCK_STREAM;
  rec->fd = descriptor;
  mq::CopyText(rec->from.protocol, kFromProtocol);
  mq::RunSocketTrace("CreateSocketFromExisting", rec);
  return 1;
}

int DeleteSocket(SockRec* rec) {
  mq::RunSocketTrace("DeleteSocket", rec);
  const int fd = rec->fd;
  if (fd <= 0) return 1;
  const int closed = close(fd);
  if (closed != 0) PrintCloseFailure(fd, closed, errno);
  rec->fd = kNoDescriptor;  // the system may reuse the number from now on
  return 1;
}

int NoblockSocket(SockRec* rec) { return ChangeFlags(rec, O_NONBLOCK, 0, "NoblockSocket"); }

int BlockSocket(SockRec* rec) { return ChangeFlags(rec, 0, O_NONBLOCK, "BlockSocket"); }

int OnSocketError(SockRec* rec, SockErrorFn fn) {
  rec->onError = fn;
  return 1;
}

int OnSocketTrace(SockRec* rec, SockTraceFn fn) {
  rec->onTrace = fn;
  return 1;
}

int OnGSocketTrace(SockTraceFn fn) {
  G_socket_trace = fn;
  return 1;
}

int GetSocketName(SockRec* rec, SockAddrRec* out) {
  *out = rec->name;
  return 1;
}

int GetFromAddr(SockRec* rec, SockAddrRec* out) {
  *out = rec->from;
  return 1;
}

int GetHostIP(SockAddrRec* addr) {
  mq::CopyText(addr->ip, "0.0.0.0");
  return 1;
}
