#include "demo/chaos.hh"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>

#include "demo/author.hh"

namespace demo {
namespace {

struct Line {
  bool datagrams;
  Tally* tally;
  uint64_t untilCut;  // bytes, both ways
  double stalledUntil = 0;
  bool cut = false;
};

std::optional<Dice> dice;  // empty: no simulation
std::map<int, Line> lines;

Line* Find(int fd) {
  const auto found = dice ? lines.find(fd) : lines.end();
  return found != lines.end() ? &found->second : nullptr;
}

// Either resets the connection or ends it as if the peer had closed it.
void Cut(int fd, Line* line) {
  const sockaddr nowhere = {AF_UNSPEC, {}};
  if (dice->Once(2)) {
    (void)connect(fd, &nowhere, sizeof nowhere);  // fails if it has ended already
  } else {
    shutdown(fd, SHUT_RDWR);
  }
  line->cut = true;
  ++line->tally->at(kCut);
}

// True if no bytes can move now; errno has the reason.
bool Stops(int fd, Line* line) {
  if (!line->cut && line->untilCut == 0) Cut(fd, line);
  if (line->cut) {
    errno = ECONNRESET;
    return true;
  }
  if (line->stalledUntil == 0 && dice->Once(100)) {
    line->stalledUntil = Now() + static_cast<double>(dice->Below(dice->Once(20) ? 200 : 5)) * 1e-3;
    ++line->tally->at(kStalls);
  }
  if (line->stalledUntil > Now()) {
    errno = EAGAIN;
    return true;
  }
  line->stalledUntil = 0;
  return false;
}

size_t Piece(size_t most, Line* line) {
  const uint64_t roll = dice->Below(10);
  const size_t piece = roll == 0 ? 1 + dice->Below(3) : 1 + dice->Below(roll < 4 ? 300 : 128 << 10);
  if (piece < most) ++line->tally->at(kShort);
  return std::min(piece, most);
}

void Moved(Line* line, ssize_t bytes) {
  if (bytes > 0) line->untilCut -= std::min(line->untilCut, static_cast<uint64_t>(bytes));
}

}  // namespace

void BeginChaos(uint64_t seed) { dice.emplace(seed); }

void WatchLine(int fd, uint64_t mostBytes, Tally* tally) {
  if (!dice) return;
  const uint64_t most = mostBytes == 0 || dice->Once(4) ? 4000 : mostBytes;
  lines[fd] = Line{mostBytes == 0, tally, 1 + dice->Below(most)};
}

bool ForgetLine(int fd) {
  const auto found = lines.find(fd);
  if (found == lines.end()) return false;
  const bool cut = found->second.cut;
  lines.erase(found);
  return cut;
}

}  // namespace demo

extern "C" {

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length) {
  using namespace demo;
  const auto real = [=](size_t part) { return syscall(SYS_sendto, fd, data, part, flags, to, length); };
  Line* const line = Find(fd);
  if (line == nullptr) return real(size);
  if (!line->datagrams) {
    if (Stops(fd, line)) return -1;
    const ssize_t sent = real(Piece(size, line));
    Moved(line, sent);
    return sent;
  }
  if (dice->Once(40)) {
    ++line->tally->at(kDropped);
    return static_cast<ssize_t>(size);
  }
  const ssize_t sent = real(size);
  if (sent > 0 && dice->Once(30) && real(size) > 0) ++line->tally->at(kDoubled);
  return sent;
}

ssize_t send(int fd, const void* data, size_t size, int flags) { return sendto(fd, data, size, flags, nullptr, 0); }

ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* length) {
  using namespace demo;
  const auto real = [=](size_t part) { return syscall(SYS_recvfrom, fd, data, part, flags, from, length); };
  Line* const line = Find(fd);
  if (line == nullptr) return real(size);
  if (!line->datagrams) {
    if (Stops(fd, line)) return -1;
    const ssize_t got = real(Piece(size, line));
    Moved(line, got);
    return got;
  }
  const ssize_t got = real(size);
  if (got < 0 || !dice->Once(40)) return got;
  ++line->tally->at(kDropped);
  errno = EAGAIN;
  return -1;
}

}  // extern "C"
