// children.cc - forks, reads what the children say through a pipe each, ends those that take too long.
#include "tests/faults/children.hh"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace faults {

namespace {

constexpr size_t kMostSaid = 16384;

struct Child {
  size_t index;
  pid_t pid;
  int fd;
  double deadline;
  std::string said;
};

double Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

[[noreturn]] void Work(int fd, const std::function<std::string(size_t)>& job, size_t index) {
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);
  dup2(fd, STDERR_FILENO);
  close(nowhere);
  close(fd);
  const std::string text = job(index);
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) _exit(2);
  if (kCountsBranches) exit(0);
  _exit(0);
}

Child Start(size_t index, unsigned seconds, const std::function<std::string(size_t)>& job) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) abort();
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) abort();
  if (pid == 0) {
    close(ends[0]);
    Work(ends[1], job, index);
  }
  close(ends[1]);
  return {index, pid, ends[0], Now() + seconds, {}};
}

// True when the child has ended.
bool Listen(Child* child) {
  char piece[4096];
  const ssize_t got = read(child->fd, piece, sizeof piece);
  if (got > 0 && child->said.size() < kMostSaid) child->said.append(piece, static_cast<size_t>(got));
  return got <= 0;
}

std::string HowEnded(const Child& child, bool hung, unsigned seconds) {
  close(child.fd);
  if (hung) kill(child.pid, SIGKILL);
  int status = 0;
  waitpid(child.pid, &status, 0);
  if (hung) return "hangs: not over after " + std::to_string(seconds) + " s";
  if (WIFSIGNALED(status)) return std::string("crashes: ") + strsignal(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "" : "ends with code " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

void RunInChildren(size_t count, unsigned jobs, unsigned seconds, const std::function<std::string(size_t)>& job,
                   const std::function<void(size_t, const std::string&, const std::string&)>& done) {
  std::vector<Child> running;
  for (size_t next = 0; next < count || !running.empty();) {
    while (next < count && running.size() < jobs) running.push_back(Start(next++, seconds, job));
    std::vector<pollfd> fds;
    for (const Child& child : running) fds.push_back({child.fd, POLLIN, 0});
    poll(fds.data(), fds.size(), 200);
    std::vector<Child> left;
    for (size_t i = 0; i < fds.size(); ++i) {
      Child& child = running[i];
      const bool ended = fds[i].revents != 0 && Listen(&child);
      const bool hung = !ended && Now() > child.deadline;
      if (ended || hung) {
        const std::string how = HowEnded(child, hung, seconds);
        done(child.index, child.said, how);
      } else {
        left.push_back(std::move(child));
      }
    }
    running = std::move(left);
  }
}

}  // namespace faults
