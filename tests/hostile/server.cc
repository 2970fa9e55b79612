// server.cc - starts, watches and ends the server under attack.
// Invariant: the child never outlives this process, and is the only one that is ever signalled.
#include "tests/hostile/server.hh"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/hostile/peer.hh"

namespace hostile {
namespace {

constexpr int kStartSeconds = 20;
constexpr int kStopSeconds = 30;

// The examples serve 1000 clients and wait 4 seconds for one that owes something.
const Target kTargets[] = {
    {"multi_server", kExample, "multi_server", {"127.0.0.1", "0", "1000", "4"}},
    {"cpp_server", kExample, "cpp_server", {"127.0.0.1", "0", "1000", "4"}},
    {"datagram_server", kDatagrams, "datagram_server", {"127.0.0.1", "0"}},
    {"mqcat", kMqcat, "mqcat", {"listen", "0", "--echo", "--format", "quiet"}},
    {"mqcat_signed", kSigned, "mqcat", {"listen", "0", "--echo", "--format", "quiet", "--ring", kRing}},
    {"mqcat_udp", kDatagrams, "mqcat", {"listen", "0", "--echo", "--format", "quiet", "--udp"}},
};

[[noreturn]] void Become(const std::string& folder, const Target& target, rlim_t descriptors, int log,
                         const std::string& ring) {
  const std::string program = folder + "/" + target.program;
  std::vector<char*> arguments = {const_cast<char*>(program.c_str())};
  for (const char* argument : target.arguments) {
    arguments.push_back(const_cast<char*>(std::string_view(argument) == kRing ? ring.c_str() : argument));
  }
  arguments.push_back(nullptr);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const rlimit limit{descriptors, descriptors};
  if (descriptors != 0) setrlimit(RLIMIT_NOFILE, &limit);
  dup2(log, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  close_range(STDERR_FILENO + 1, ~0u, 0);
  execv(program.c_str(), arguments.data());
  _exit(127);
}

std::string MakeRing() {
  std::string path = (std::filesystem::temp_directory_path() / "mqhostile-XXXXXX").string();
  close(mkstemp(path.data()));
  std::ofstream file(path);
  for (const char* user : {kHonest, kHostile}) {
    file << user << ' ';
    for (const uint8_t byte : PublicKeyOf(user)) file << fmt::format("{:02x}", byte);
    file << '\n';
  }
  return path;
}

// The number at the end of the first line; 0 when there is none yet.
int PortIn(const std::string& log) {
  const size_t end = log.find('\n');
  if (end == std::string::npos) return 0;
  const size_t before = log.find_last_not_of("0123456789", end - 1);
  return atoi(log.c_str() + (before == std::string::npos ? 0 : before + 1));
}

}  // namespace

std::span<const Target> Targets() { return kTargets; }

Server::Server(const std::string& folder, const Target& target, rlim_t descriptors)
    : log_(memfd_create("log", MFD_CLOEXEC)), ring_(MakeRing()) {
  if (log_ < 0) return;
  pid_ = fork();
  if (pid_ == 0) Become(folder, target, descriptors, log_, ring_);
  for (int i = 0; i < kStartSeconds * 100 && port_ == 0; ++i) {
    usleep(10000);
    port_ = PortIn(Log());
  }
}

Server::~Server() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (log_ >= 0) close(log_);
  unlink(ring_.c_str());
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
