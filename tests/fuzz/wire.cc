// wire.cc - see wire.hh.
#include "tests/fuzz/wire.hh"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/runtime.h"

namespace fuzz {
namespace {

constexpr uint8_t kLarge = 255;
constexpr size_t kLargeSize = 4080;

thread_local Wire* present;

long Fail(int code) {
  errno = code;
  return -1;
}

}  // namespace

// The descriptor is one that can be closed, and told to block or not.
Wire::Wire(const Arrivals& arrivals) : what_(arrivals), fd_(open("/dev/null", O_RDWR | O_CLOEXEC)) {
  HOLDS(fd_ > 0);
  if (!what_.blocking) HOLDS(fcntl(fd_, F_SETFL, O_RDWR | O_NONBLOCK) == 0);
  if (!what_.datagram) Arrive();
  present = this;
}

Wire::~Wire() {
  present = nullptr;
  HOLDS(fcntl(fd_, F_GETFD) == -1);
}

void Wire::Arrive() {
  const size_t coming = what_.bytes.size() - taken_ - arrived_;
  size_t size = coming;
  if (cut_ < what_.cuts.size()) {
    const uint8_t cut = what_.cuts[cut_++];
    size = cut == kLarge ? kLargeSize : cut;
  }
  arrived_ += std::min(size, coming);
}

// A connection that nobody closes would let a blocking reader wait for ever.
long Wire::AtEnd() const {
  if (what_.end == Arrivals::End::kReset) return Fail(ECONNRESET);
  if (what_.end == Arrivals::End::kOpen && !what_.blocking) return Fail(EAGAIN);
  return 0;
}

long Wire::Receive(uint8_t* to, size_t size, int flags) {
  if (what_.datagram) return ReceiveDatagram(to, size, flags);
  while (arrived_ == 0) {
    if (over()) return AtEnd();
    Arrive();
    if (!what_.blocking) return Fail(EAGAIN);
  }
  const size_t got = std::min(size, arrived_);
  std::copy_n(what_.bytes.data() + taken_, got, to);
  if ((flags & MSG_PEEK) != 0) return static_cast<long>(got);
  taken_ += got;
  arrived_ -= got;
  return static_cast<long>(got);
}

// One datagram, of which a small place gets the part that fits.
long Wire::ReceiveDatagram(uint8_t* to, size_t size, int flags) {
  if (over()) return Fail(what_.end == Arrivals::End::kReset ? ECONNREFUSED : EAGAIN);
  const size_t cut = cut_;
  Arrive();
  const size_t length = arrived_;
  const size_t padding = taken_ + length == what_.bytes.size() ? what_.padding : 0;
  std::copy_n(what_.bytes.data() + taken_, std::min(size, length), to);
  if (size > length) memset(to + length, 0, std::min(size - length, padding));
  arrived_ = 0;
  if ((flags & MSG_PEEK) != 0) {
    cut_ = cut;
  } else {
    taken_ += length;
  }
  return static_cast<long>(std::min(size, length + padding));
}

short Wire::Events() const {
  if (taken_ + arrived_ < what_.bytes.size() || what_.end == Arrivals::End::kOpen) return 0;
  return what_.end == Arrivals::End::kReset ? POLLERR | POLLHUP : POLLRDHUP;
}

}  // namespace fuzz

using fuzz::present;

extern "C" {

ssize_t recvfrom(int fd, void* __restrict to, size_t size, int flags, sockaddr* __restrict from,
                 socklen_t* __restrict length) {
  if (present == nullptr || fd != present->fd()) return syscall(SYS_recvfrom, fd, to, size, flags, from, length);
  const long got = present->Receive(static_cast<uint8_t*>(to), size, flags);
  sockaddr_in peer = {};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(4711);
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (got >= 0 && from != nullptr) {
    memcpy(from, &peer, std::min<size_t>(*length, sizeof peer));
    *length = sizeof peer;
  }
  return got;
}

// Under a name of its own: the system's declaration says that poll only writes to fds.
int PollWire(pollfd* fds, nfds_t count, int milliseconds) __asm__("poll");
int PollWire(pollfd* fds, nfds_t count, int milliseconds) {
  if (present == nullptr || count != 1 || fds->fd != present->fd()) {
    return static_cast<int>(syscall(SYS_poll, fds, count, milliseconds));
  }
  fds->revents = static_cast<short>(present->Events() & (fds->events | POLLERR | POLLHUP));
  return fds->revents != 0;
}

int nanosleep(const timespec* wanted, timespec* left) {
  if (present == nullptr) return static_cast<int>(syscall(SYS_nanosleep, wanted, left));
  present->Pause();
  return 0;
}

hostent* gethostbyname(const char* name) {
  static char host[] = "localhost";
  static in_addr address = {htonl(INADDR_LOOPBACK)};
  static char* aliases[] = {nullptr};
  static char* addresses[] = {reinterpret_cast<char*>(&address), nullptr};
  static hostent entry = {host, aliases, AF_INET, sizeof address, addresses};
  return strcmp(name, host) == 0 ? &entry : nullptr;
}

servent* getservbyname(const char* name, const char* protocol) {
  static char service[] = "mq";
  static char tcp[] = "tcp";
  static char* aliases[] = {nullptr};
  static servent entry = {service, aliases, htons(4711), tcp};
  return strcmp(name, service) == 0 && strcmp(protocol, tcp) == 0 ? &entry : nullptr;
}

int GetUserName(char* buf, int* len) {
  constexpr char kUser[] = "alice";
  if (*len < static_cast<int>(sizeof kUser)) return 0;
  memcpy(buf, kUser, sizeof kUser);
  *len = sizeof kUser - 1;
  return 1;
}

}  // extern "C"
