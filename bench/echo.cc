// echo.cc - the clients of an echo server, and the process that it runs in.
#include "bench/echo.hh"

#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>

#include "bench/bare.hh"
#include "bench/measure.hh"
#include "mqnode/mqnode.h"

namespace bench {
namespace {

constexpr size_t kLongestRequest = 4096;
constexpr size_t kReserve = 64;  // descriptors reserved for other purposes than connections
constexpr int kAcceptMsec = 50;

void Pause(int milliseconds) {
  const timespec time = {0, milliseconds * 1000000L};
  nanosleep(&time, nullptr);
}

}  // namespace

Wire PlainWire() { return {sizeof(MsgHeader), PlainMessage, nullptr}; }

size_t RaiseConnectionLimit(size_t wanted) {
  rlimit limit = {};
  Check(getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
  const rlimit more = {wanted + kReserve, std::max<rlim_t>(wanted + kReserve, limit.rlim_max)};
  if (setrlimit(RLIMIT_NOFILE, &more) == 0) return wanted;  // the hard limit too, if permitted
  limit.rlim_cur = limit.rlim_max;
  Check(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
  return std::min<size_t>(wanted, limit.rlim_cur - kReserve);
}

EchoClients::EchoClients(const EchoServer& server, size_t connections, size_t body)
    : request_(server.wire.request(body)), head_(server.wire.head) {
  Check(request_.size() <= kLongestRequest, "a short request");
  Start(server);
  Connect(server, connections);
}

EchoClients::~EchoClients() {
  for (const Client& client : clients_) close(client.fd);
  close(epoll_);
  kill(server_, SIGKILL);
  waitpid(server_, nullptr, 0);
}

void EchoClients::Start(const EchoServer& server) {
  int pipe_ends[2];
  Check(pipe(pipe_ends) == 0, "pipe");
  fflush(stdout);
  server_ = fork();
  Check(server_ != -1, "fork");
  if (server_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(pipe_ends[0]);
    PinToProcessor(1);
    server.serve([&](uint16_t port) {
      Check(write(pipe_ends[1], &port, sizeof port) == sizeof port, "write");
      close(pipe_ends[1]);
    });
    _exit(1);
  }
  close(pipe_ends[1]);
  Check(read(pipe_ends[0], &port_, sizeof port_) == sizeof port_, server.name);
  close(pipe_ends[0]);
}

void EchoClients::Connect(const EchoServer& server, size_t connections) {
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  Check(epoll_ != -1, "epoll_create1");
  // Measured after the first connection, to exclude the server's one-time allocations.
  double before = 0;
  for (size_t i = 0; i < connections; ++i) {
    clients_.push_back({ConnectBare(port_), 0, 0});
    if (server.wire.greet != nullptr) server.wire.greet(clients_[i].fd);
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = i;
    Check(epoll_ctl(epoll_, EPOLL_CTL_ADD, clients_[i].fd, &event) == 0, "epoll_ctl");
    if (i != 0 && i != connections - 1) continue;
    Run(i + 1, 0);  // the echo shows that this connection and all earlier ones were accepted
    if (i == 0) before = ServerMemory();
  }
  if (connections > 1) server_bytes_ = (ServerMemory() - before) / static_cast<double>(connections - 1);
}

void EchoClients::Send(size_t client) {
  clients_[client].received = 0;
  clients_[client].sent = Seconds();
  const ssize_t sent = send(clients_[client].fd, request_.data(), request_.size(), MSG_NOSIGNAL);
  Check(sent == static_cast<ssize_t>(request_.size()), "send");
}

// True when the whole answer has arrived.
bool EchoClients::Receive(size_t client) {
  uint8_t answer[kLongestRequest];
  Client& own = clients_[client];
  const ssize_t got = recv(own.fd, answer, request_.size() - own.received, MSG_DONTWAIT);
  if (got == -1 && errno == EAGAIN) return false;
  Check(got > 0, "the server closed a connection");
  for (size_t i = std::max(own.received, head_); i < own.received + static_cast<size_t>(got); ++i) {
    Check(answer[i - own.received] == request_[i], "another message came back");
  }
  own.received += static_cast<size_t>(got);
  return own.received == request_.size();
}

EchoClients::Outcome EchoClients::Run(size_t active, double seconds) {
  times_.clear();
  const double server_start = ServerTime();
  const double start = Seconds();
  for (size_t i = 0; i < active; ++i) Send(i * clients_.size() / active);
  epoll_event events[256];
  double now = start;
  for (size_t outstanding = active; outstanding > 0;) {
    const int ready = epoll_wait(epoll_, events, std::size(events), -1);
    for (int i = 0; i < ready; ++i) {
      const auto client = static_cast<size_t>(events[i].data.u64);
      if (!Receive(client)) continue;
      now = Seconds();
      times_.push_back(now - clients_[client].sent);
      if (now - start < seconds) {
        Send(client);
      } else {
        --outstanding;
      }
    }
  }
  const auto count = static_cast<double>(times_.size());
  const auto at = [&](double part) {
    const auto place = times_.begin() + static_cast<std::ptrdiff_t>(part * (count - 1));
    std::nth_element(times_.begin(), place, times_.end());
    return *place;
  };
  return {count / (now - start), at(0.5), at(0.99), (ServerTime() - server_start) / count};
}

double EchoClients::ServerTime() const {
  clockid_t clock;
  timespec time = {};
  Check(clock_getcpuclockid(server_, &clock) == 0, "clock_getcpuclockid");
  Check(clock_gettime(clock, &time) == 0, "clock_gettime");
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double EchoClients::ServerMemory() const {
  Pause(kAcceptMsec);
  std::ifstream file("/proc/" + std::to_string(server_) + "/statm");
  double total = 0;
  double resident = 0;
  Check(bool(file >> total >> resident), "statm");
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

}  // namespace bench
