// server.cc - starts, watches and ends the server under attack.
// Invariant: the child never outlives this process, and is the only one that is ever signalled.
#include "tests/hostile/server.hh"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace hostile {
namespace {

constexpr int kStartMsec = 20000;
constexpr int kStopSeconds = 30;
constexpr const char* kPatience = "4";  // seconds that the server waits for a client that owes something
constexpr const char* kMostClients = "1000";

[[noreturn]] void Become(const std::string& program, rlim_t descriptors, int out, int log) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const rlimit limit{descriptors, descriptors};
  if (descriptors != 0) setrlimit(RLIMIT_NOFILE, &limit);
  dup2(out, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  close_range(STDERR_FILENO + 1, ~0u, 0);
  execl(program.c_str(), program.c_str(), "127.0.0.1", "0", kMostClients, kPatience, static_cast<char*>(nullptr));
  _exit(127);
}

// The first line of a pipe as a number; 0 when none comes.
int ReadPort(int pipe) {
  char text[16] = "";
  pollfd state = {pipe, POLLIN, 0};
  if (poll(&state, 1, kStartMsec) != 1 || read(pipe, text, sizeof text - 1) <= 0) return 0;
  return atoi(text);
}

}  // namespace

Server::Server(const std::string& program, rlim_t descriptors) {
  int out[2];
  log_ = memfd_create("log", MFD_CLOEXEC);
  if (log_ < 0 || pipe2(out, O_CLOEXEC) != 0) return;
  pid_ = fork();
  if (pid_ == 0) Become(program, descriptors, out[1], log_);
  close(out[1]);
  if (pid_ > 0) port_ = ReadPort(out[0]);
  close(out[0]);
}

Server::~Server() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (log_ >= 0) close(log_);
}

Usage Server::Look() const {
  Usage usage;
  const std::string place = fmt::format("/proc/{}/", pid_);
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
  if (clock_getcpuclockid(pid_, &clock) == 0 && clock_gettime(clock, &time) == 0) {
    usage.cpuSeconds = static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }
  return usage;
}

std::string Server::Log() const {
  std::string text;
  char part[4096];
  for (ssize_t got; (got = pread(log_, part, sizeof part, static_cast<off_t>(text.size()))) > 0;) {
    text.append(part, static_cast<size_t>(got));
  }
  return text;
}

std::string Server::Stop() {
  if (pid_ <= 0) return "it did not start";
  int status = 0;
  kill(pid_, SIGTERM);
  for (int i = 0; i < kStopSeconds * 100; ++i) {
    const pid_t ended = waitpid(pid_, &status, WNOHANG);
    if (ended == 0) {
      usleep(10000);
      continue;
    }
    pid_ = -1;
    if (WIFSIGNALED(status)) return fmt::format("it was ended by signal {}", WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? "" : fmt::format("it ended with code {}", WEXITSTATUS(status));
  }
  return fmt::format("it does not end within {} s", kStopSeconds);
}

}  // namespace hostile
