// relay.cc - one loop over bare sockets. A stream is passed on in pieces of random sizes with pauses between some of
// them, and ends in the middle of anything; a datagram is passed on once, twice, later or never.
// Invariant: what is passed on is what came in, byte for byte.
#include "tests/soak/relay.hh"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <list>
#include <vector>

#include "tests/soak/content.hh"

namespace soak {
namespace {

constexpr size_t kMostHeld = 128 << 10;  // bytes that a stream's way holds
constexpr int kSocketBuffer = 16 << 10;  // its own: what a stream's way holds beside is the system's
constexpr int kTurnMsec = 20;            // how long the parent's wishes may be overlooked

sockaddr_in Local(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Accepted sockets have their listener's.
void SetBuffers(int fd) {
  for (const int which : {SO_RCVBUF, SO_SNDBUF})
    setsockopt(fd, SOL_SOCKET, which, &kSocketBuffer, sizeof kSocketBuffer);
}

// A socket bound to a port that the kernel picks; ends the process when there is none.
int Bound(int type, int* port) {
  const int fd = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address = Local(0);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (fd < 0 || bind(fd, generic, size) != 0 || getsockname(fd, generic, &size) != 0) _exit(1);
  if (type == SOCK_STREAM) SetBuffers(fd);
  if (type == SOCK_STREAM && listen(fd, SOMAXCONN) != 0) _exit(1);
  *port = ntohs(address.sin_port);
  return fd;
}

// One way of a stream.
struct Way {
  std::vector<uint8_t> held;
  double due = 0;      // when the next piece may go
  size_t reads = 0;    // that what is held came in with
  bool begun = false;  // a piece of it has gone already
  bool full = false;   // the socket takes no more now
  bool ended = false, passedEnd = false;
};

struct Stream {
  int fds[2];   // the side that connected, the side that was connected to
  Way ways[2];  // ways[i] goes from fds[i] to the other
  uint64_t untilCut;
  bool over = false;
};

struct Letter {
  double due;
  int socket;
  int to;
  int kind;
  std::vector<uint8_t> bytes;
};

class Relay {
 public:
  Relay(Shared* shared, uint64_t seed) : shared_(*shared), dice_(seed) {}
  [[noreturn]] void Run();

 private:
  void Open();
  void Wait();
  void Accept(int listener, int target);
  void Take(Stream* stream, int side);
  void PassOn(Stream* stream, int side);
  void Cut(Stream* stream);
  void Close(Stream* stream, bool reset, int side);
  void TakeDatagrams(int pair);
  void Deliver(double now);
  size_t PieceSize();
  double Pause();

  Shared& shared_;
  Dice dice_;
  int listeners_[kKinds] = {};
  std::vector<int> sockets_;  // of the datagram pairs
  std::list<Stream> streams_;
  std::list<Letter> letters_;
};

void Relay::Open() {
  for (const int kind : {kStream, kSignedStream}) listeners_[kind] = Bound(SOCK_STREAM, &shared_.ports[kind]);
  for (int i = 0; i < shared_.pairs; ++i) sockets_.push_back(Bound(SOCK_DGRAM, &shared_.datagrams[i].relay));
  shared_.ready = true;
}

size_t Relay::PieceSize() {
  const uint64_t roll = dice_.Below(10);
  if (roll == 0) return 1 + dice_.Below(3);
  return 1 + dice_.Below(roll < 4 ? 300 : kMostHeld);
}

// Seconds. Most pieces follow at once; now and then a connection stalls.
double Relay::Pause() {
  const uint64_t roll = dice_.Below(2000);
  if (roll >= 200) return 0;
  ++shared_.pauses;
  return static_cast<double>(dice_.Below(roll == 0 ? 1000 : roll < 20 ? 100 : 5)) * 1e-3;
}

void Relay::Accept(int listener, int target) {
  const int in = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (in < 0) return;
  const int out = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const sockaddr_in address = Local(target);
  const int one = 1;
  if (out < 0) _exit(1);
  SetBuffers(out);
  for (const int fd : {in, out}) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (connect(out, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 && errno != EINPROGRESS) _exit(1);
  ++shared_.connections;
  Stream stream{};
  stream.fds[0] = in;
  stream.fds[1] = out;
  stream.untilCut = 1 + dice_.Below(dice_.Once(4) ? 2000 : 6 << 20);
  streams_.push_back(std::move(stream));
}

void Relay::Close(Stream* stream, bool reset, int side) {
  const linger none = {1, 0};
  if (reset) setsockopt(stream->fds[side], SOL_SOCKET, SO_LINGER, &none, sizeof none);
  close(stream->fds[side]);
}

// Ends a connection on both sides, each in one of two ways. What is held is lost.
void Relay::Cut(Stream* stream) {
  ++shared_.cuts;
  for (const int side : {0, 1}) Close(stream, dice_.Once(2), side);
  stream->over = true;
}

void Relay::Take(Stream* stream, int side) {
  Way& way = stream->ways[side];
  uint8_t part[16384];
  const ssize_t got = recv(stream->fds[side], part, sizeof part, 0);
  if (got > 0) {
    way.held.insert(way.held.end(), part, part + got);
    ++way.reads;
  } else if (got == 0) {
    way.ended = true;
  } else if (errno != EAGAIN && errno != ENOTCONN) {
    // A node has closed: nodes reset when they close. The other one learns of it.
    for (const int each : {0, 1}) Close(stream, true, each);
    stream->over = true;
  }
}

void Relay::PassOn(Stream* stream, int side) {
  Way& way = stream->ways[side];
  const int to = stream->fds[1 - side];
  if (way.held.empty()) {
    if (way.ended && !way.passedEnd) shutdown(to, SHUT_WR);
    way.passedEnd = way.ended;
    stream->over = stream->over || (stream->ways[0].passedEnd && stream->ways[1].passedEnd);
    if (stream->over) {
      for (const int each : {0, 1}) Close(stream, false, each);
    }
    return;
  }
  const size_t piece = std::min(PieceSize(), way.held.size());
  const ssize_t sent = send(to, way.held.data(), piece, MSG_NOSIGNAL);
  if (sent < 0) {
    way.full = errno == EAGAIN || errno == ENOTCONN;
    way.ended = way.ended || !way.full;
    if (!way.full) way.held.clear();
    return;
  }
  way.held.erase(way.held.begin(), way.held.begin() + sent);
  way.due = Now() + Pause();
  shared_.joins += way.held.empty() && way.reads > 1 && !way.begun;
  shared_.splits += !way.held.empty();
  way.begun = !way.held.empty();
  if (way.held.empty()) way.reads = 0;
  ++shared_.pieces;
  shared_.bytes += static_cast<uint64_t>(sent);
  stream->untilCut -= std::min(stream->untilCut, static_cast<uint64_t>(sent));
  if (stream->untilCut == 0 && shared_.cutting) Cut(stream);
}

void Relay::TakeDatagrams(int pair) {
  const auto& between = shared_.datagrams[pair];
  DatagramCounts& counts = shared_.counts[between.kind];
  uint8_t bytes[65536];
  for (sockaddr_in from{};;) {
    socklen_t size = sizeof from;
    const ssize_t got = recvfrom(sockets_[static_cast<size_t>(pair)], bytes, sizeof bytes, 0,
                                 reinterpret_cast<sockaddr*>(&from), &size);
    if (got < 0) return;
    ++counts.taken;
    if (dice_.Once(40)) {
      ++counts.dropped;
      continue;
    }
    const bool repeat = dice_.Once(30);
    counts.repeated += repeat;
    for (int copies = repeat ? 2 : 1; copies > 0; --copies) {
      const bool late = dice_.Once(10);
      counts.late += late;
      ++shared_.held;
      letters_.push_back({late ? Now() + static_cast<double>(1 + dice_.Below(30)) * 1e-3 : 0,
                          pair,
                          between.ends[ntohs(from.sin_port) == between.ends[0] ? 1 : 0],
                          between.kind,
                          {bytes, bytes + got}});
    }
  }
}

void Relay::Deliver(double now) {
  for (auto it = letters_.begin(); it != letters_.end();) {
    if (it->due > now) {
      ++it;
      continue;
    }
    const sockaddr_in to = Local(it->to);
    if (sendto(sockets_[static_cast<size_t>(it->socket)], it->bytes.data(), it->bytes.size(), 0,
               reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) {
      if (errno == EAGAIN) return;
      _exit(1);
    }
    ++shared_.counts[it->kind].forwarded;
    it = letters_.erase(it);
    --shared_.held;
  }
}

// Waits until there is something to do, and does it.
void Relay::Wait() {
  std::vector<pollfd> polls;
  double due = Now() + kTurnMsec * 1e-3;
  for (const int kind : {kStream, kSignedStream}) polls.push_back({listeners_[kind], POLLIN, 0});
  for (const int fd : sockets_) polls.push_back({fd, POLLIN, 0});
  for (const Stream& stream : streams_) {
    for (const int side : {0, 1}) {
      const Way& in = stream.ways[side];
      const Way& out = stream.ways[1 - side];
      const bool reads = in.held.size() < kMostHeld && !in.ended;
      polls.push_back({reads || out.full ? stream.fds[side] : -1,
                       static_cast<short>((reads ? POLLIN : 0) | (out.full ? POLLOUT : 0)), 0});
      if (!in.held.empty() && !in.full) due = std::min(due, in.due);
    }
  }
  for (const Letter& letter : letters_) due = std::min(due, letter.due);
  poll(polls.data(), polls.size(), std::max(0, static_cast<int>((due - Now()) * 1e3 + 0.999)));

  const double now = Now();
  size_t at = 2 + sockets_.size();
  for (Stream& stream : streams_) {
    for (const int side : {0, 1}) {
      const pollfd& state = polls[at++];
      if (state.revents & POLLOUT) stream.ways[1 - side].full = false;
      if (!stream.over && (state.revents & ~POLLOUT)) Take(&stream, side);
    }
    for (const int side : {0, 1}) {
      const Way& way = stream.ways[side];
      if (!stream.over && !way.full && way.due <= now) PassOn(&stream, side);
    }
  }
  streams_.remove_if([](const Stream& stream) { return stream.over; });
  for (size_t i = 0; i < sockets_.size(); ++i) {
    if (polls[2 + i].revents != 0) TakeDatagrams(static_cast<int>(i));
  }
  Deliver(now);
  for (const int kind : {kStream, kSignedStream}) {
    if (polls[static_cast<size_t>(kind)].revents != 0) Accept(listeners_[kind], shared_.targets[kind]);
  }
}

[[noreturn]] void Relay::Run() {
  Open();
  while (!shared_.stop) Wait();
  _exit(0);
}

}  // namespace

double Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

pid_t StartRelay(Shared* shared, uint64_t seed) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  close_range(STDERR_FILENO + 1, ~0u, 0);
  Relay(shared, seed).Run();
}

}  // namespace soak
