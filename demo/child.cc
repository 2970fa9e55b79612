#include "demo/child.hh"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <utility>

namespace demo {
namespace {

// The signal that asked the program to end; 0 before. Shared with the children, as only their parent gets the signal.
std::atomic<int>* interrupt;
double interruptedAt;

// Ctrl-C may arrive twice, sent to the process and to its group. Only a later signal ends the program at once.
void OnInterrupt(int number) {
  if (*interrupt == 0) {
    *interrupt = number;
    interruptedAt = Now();
  } else if (Now() > interruptedAt + 0.5) {
    signal(number, SIG_DFL);
    raise(number);
  }
}

[[noreturn]] void Live(pid_t parent, const std::function<int()>& work, int log, rlim_t descriptors) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  setpgid(0, 0);
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  const rlimit limit{descriptors, descriptors};
  if (descriptors != 0) setrlimit(RLIMIT_NOFILE, &limit);
  if (log >= 0) {
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
  }
  int code = 1;
  try {
    code = work();
  } catch (const std::exception& error) {
    fmt::print(stderr, "mqdemo: {}\n", error.what());
  }
  exit(code);
}

}  // namespace

Child::Child(std::string name, const std::function<int()>& work, bool logs, rlim_t descriptors)
    : name_(std::move(name)), log_(logs ? memfd_create("log", MFD_CLOEXEC) : -1) {
  fflush(nullptr);
  const pid_t self = getpid();
  pid_ = fork();
  if (pid_ == 0) Live(self, work, log_, descriptors);
  if (pid_ < 0) throw std::runtime_error(fmt::format("cannot start the {}: {}", name_, strerror(errno)));
}

Child::~Child() {
  if (!ended_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (log_ >= 0) close(log_);
}

bool Child::HasEnded() {
  ended_ = ended_ || waitpid(pid_, &status_, WNOHANG) == pid_;
  return ended_;
}

std::string Child::Failure() const {
  if (WIFSIGNALED(status_)) {
    return fmt::format("the {} was ended by signal {} ({})", name_, WTERMSIG(status_), strsignal(WTERMSIG(status_)));
  }
  return WEXITSTATUS(status_) == 0 ? "" : fmt::format("the {} ended with code {}", name_, WEXITSTATUS(status_));
}

std::string Child::Stop() {
  if (HasEnded()) return Failure().empty() ? fmt::format("the {} ended before it was asked to", name_) : Failure();
  kill(pid_, SIGTERM);
  for (const double end = Now() + 30; Now() < end; Sleep(0.01)) {
    if (HasEnded()) return Failure();
  }
  return fmt::format("the {} does not end", name_);
}

std::string Child::Log() const {
  std::string text;
  char part[4096];
  for (ssize_t got; (got = pread(log_, part, sizeof part, static_cast<off_t>(text.size()))) > 0;) {
    text.append(part, static_cast<size_t>(got));
  }
  return text;
}

MqcMemory MemoryInUse() {
  MqcMemory all, accepted;
  mqc_memory(nullptr, &all);
  mqc_memory("replay", &accepted);
  all.live_blocks -= accepted.live_blocks;
  return all;
}

Usage UsageOf(pid_t pid) {
  Usage usage{};
  const std::string place = fmt::format("/proc/{}/", pid);
  std::ifstream status(place + "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) usage.residentKb = atol(line.c_str() + 6);
    if (line.starts_with("VmHWM:")) usage.peakKb = atol(line.c_str() + 6);
  }
  std::error_code error;
  for (std::filesystem::directory_iterator it(place + "fd", error), end; it != end; it.increment(error)) {
    ++usage.descriptors;
  }
  timespec time{};
  clockid_t clock{};
  if (clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &time) == 0) {
    usage.processor = static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }
  return usage;
}

bool Await(const std::function<bool()>& done, double seconds) {
  for (const double end = Now() + seconds; !done(); Sleep(0.005)) {
    if (Now() > end || IsInterrupted()) return false;
  }
  return true;
}

void CatchInterrupts() {
  void* const area = mmap(nullptr, sizeof *interrupt, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) throw std::bad_alloc();
  interrupt = static_cast<std::atomic<int>*>(area);
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int Interrupt() { return *interrupt; }

void Sleep(double seconds) { usleep(static_cast<useconds_t>(seconds * 1e6)); }

}  // namespace demo
