// supervise.cc - forks one server, the processes of honest clients and one process for each misbehaving client.
// Invariant: every child that was forked is waited for before Supervise returns; only these are ever killed.
#include "demo/supervise.hh"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "demo/clients.hh"
#include "demo/rogues.hh"
#include "demo/server.hh"

namespace demo {
namespace {

constexpr double kStartSeconds = 5;     // for the server to listen
constexpr double kConnectSeconds = 20;  // for all clients to connect; a lost connection request costs one to three
constexpr double kEndSeconds = 20;      // for the last answers, beyond the time that clients talk
constexpr double kStopSeconds = 5;      // for the server to delete its nodes
constexpr int kTickMicroseconds = 20000;
constexpr double kWatchSeconds = 0.1;

volatile sig_atomic_t interrupted;

struct Child {
  std::string name;
  pid_t pid;
  bool ended = false;
};

class Supervisor {
 public:
  Supervisor(Shared* shared, const Author& author, const Keys& keys, const Options& options,
             const std::function<void(double)>& watch)
      : shared_(shared), author_(author), keys_(keys), options_(options), watch_(watch), beganAt_(Now()) {}
  ~Supervisor() { KillAll(); }

  Course Run();

 private:
  bool Start(std::string name, const std::function<int()>& work);
  bool StartClients();
  bool StartRogues();
  bool WaitFor(const char* what, double seconds, const std::function<bool()>& done);
  void Reap();
  void KillAll();
  bool AllConnected() const;
  bool OnlyServerLeft() const;
  bool Stages();

  Shared* const shared_;
  const Author& author_;
  const Keys& keys_;
  const Options& options_;
  const std::function<void(double)>& watch_;
  const double beganAt_;
  double watchedAt_ = 0;
  std::vector<Child> children_;  // the server first
  Course course_;
};

// The life of a child: it does its work and ends, whatever happens, and never outlives its parent.
[[noreturn]] void Live(pid_t parent, const std::function<int()>& work) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  int code = 1;
  try {
    code = work();
  } catch (const std::exception& error) {
    fmt::print(stderr, "mqdemo: {}\n", error.what());
  }
  exit(code);
}

bool Supervisor::Start(std::string name, const std::function<int()>& work) {
  fflush(nullptr);
  const pid_t self = getpid();
  const pid_t pid = fork();
  if (pid == 0) Live(self, work);
  if (pid < 0) {
    course_.problems.push_back(fmt::format("cannot start the {}: {}", name, strerror(errno)));
    return false;
  }
  children_.push_back(Child{std::move(name), pid});
  return true;
}

bool Supervisor::StartClients() {
  for (int i = 0; i < options_.processes; ++i) {
    if (!Start(fmt::format("client process {}", i + 1),
               [=, this] { return RunClients(shared_, i, author_, keys_, options_); })) {
      return false;
    }
  }
  return true;
}

bool Supervisor::StartRogues() {
  if (options_.honestOnly) return true;
  for (int i = 0; i < static_cast<int>(Rogues().size()); ++i) {
    if (!Start(fmt::format("client that {}", Rogues()[static_cast<size_t>(i)].name),
               [=, this] { return RunRogue(shared_, i, author_, keys_); })) {
      return false;
    }
  }
  return true;
}

// Notes who has ended, and how when that was not by itself and in order.
void Supervisor::Reap() {
  for (Child& child : children_) {
    int status = 0;
    if (child.ended || waitpid(child.pid, &status, WNOHANG) != child.pid) continue;
    child.ended = true;
    if (WIFSIGNALED(status)) {
      course_.problems.push_back(
          fmt::format("the {} was ended by signal {} ({})", child.name, WTERMSIG(status), strsignal(WTERMSIG(status))));
    } else if (WEXITSTATUS(status) != 0) {
      course_.problems.push_back(fmt::format("the {} ended with code {}", child.name, WEXITSTATUS(status)));
    } else if (&child == &children_.front() && !shared_->stop) {
      course_.problems.push_back("the server ended before it was asked to");
    }
  }
}

// Waits until done. False when a child failed, time is over or a signal came.
bool Supervisor::WaitFor(const char* what, double seconds, const std::function<bool()>& done) {
  const double deadline = Now() + seconds;
  while (!done()) {
    Reap();
    if (interrupted) course_.problems.push_back("interrupted");
    const double now = Now();
    if (now > deadline) course_.problems.push_back(fmt::format("{}: not within {} seconds", what, seconds));
    if (!course_.problems.empty()) return false;
    if (now - watchedAt_ >= kWatchSeconds) {
      watchedAt_ = now;
      watch_(now - beganAt_);
    }
    usleep(kTickMicroseconds);
  }
  return true;
}

bool Supervisor::AllConnected() const {
  uint32_t connected = 0;
  for (const WorkerTally& worker : shared_->workers) connected += worker.connected;
  return connected == static_cast<uint32_t>(options_.clients);
}

bool Supervisor::OnlyServerLeft() const {
  return std::all_of(children_.begin() + 1, children_.end(), [](const Child& child) { return child.ended; });
}

bool Supervisor::Stages() {
  if (!Start("server", [this] { return RunServer(shared_, keys_, options_); })) return false;
  if (!WaitFor("the server listens", kStartSeconds, [this] { return shared_->ready.load(); })) return false;
  const double connecting = Now();
  if (!StartClients()) return false;
  if (!WaitFor("all clients are connected", kConnectSeconds, [this] { return AllConnected(); })) return false;
  course_.connecting = Now() - connecting;
  shared_->go = true;
  if (!StartRogues()) return false;
  const auto over = [this] {
    Reap();
    return OnlyServerLeft();
  };
  if (!WaitFor("all clients have ended", options_.seconds + kEndSeconds, over)) return false;
  shared_->stop = true;
  return WaitFor("the server has ended", kStopSeconds, [this] {
    Reap();
    return children_.front().ended;
  });
}

Course Supervisor::Run() {
  Stages();
  KillAll();
  return course_;
}

void Supervisor::KillAll() {
  for (Child& child : children_) {
    if (child.ended) continue;
    kill(child.pid, SIGKILL);
    waitpid(child.pid, nullptr, 0);
    child.ended = true;
  }
}

}  // namespace

Course Supervise(Shared* shared, const Author& author, const Keys& keys, const Options& options,
                 const std::function<void(double)>& watch) {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  return Supervisor(shared, author, keys, options, watch).Run();
}

}  // namespace demo
