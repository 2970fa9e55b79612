// calls.cc - counts every system call of a message and of a wait by tracing a second process, and the allocations.
#include <fmt/format.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "bench/end.hh"
#include "bench/sections.hh"
#include "companion/host.h"

namespace bench {
namespace {

constexpr size_t kBody = 64;
constexpr size_t kCount = 100;

using Histogram = std::map<long, size_t>;

const char* NameOf(long number) {
  switch (number) {
    case SYS_sendto:
      return "send";
    case SYS_recvfrom:
      return "recvfrom";
    case SYS_select:
      return "select";
    case SYS_pselect6:
      return "pselect";
    case SYS_poll:
      return "poll";
    case SYS_epoll_wait:
      return "epoll_wait";
    case SYS_brk:
      return "brk";
    case SYS_mmap:
      return "mmap";
    case SYS_munmap:
      return "munmap";
    default:
      return nullptr;
  }
}

// The system calls that the work program makes between its two calls of getppid. Empty when tracing is not allowed.
Histogram Trace(std::vector<std::string> args) {
  args.insert(args.begin(), WorkProgram());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t child = fork();
  Check(child != -1, "fork");
  if (child == 0) {
    if (ptrace(PTRACE_TRACEME, 0, 0, 0) == 0) execv(argv[0], argv.data());
    _exit(1);
  }
  Histogram calls;
  bool counting = false;
  int status;
  waitpid(child, &status, 0);
  const bool traced =
      WIFSTOPPED(status) && ptrace(PTRACE_SETOPTIONS, child, 0, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) == 0;
  while (traced && ptrace(PTRACE_SYSCALL, child, 0, 0) == 0 && waitpid(child, &status, 0) == child &&
         WIFSTOPPED(status)) {
    __ptrace_syscall_info info = {};
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) continue;
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
    const auto number = static_cast<long>(info.entry.nr);
    if (number == SYS_getppid)
      counting = !counting;
    else if (counting)
      ++calls[number];
  }
  Check(!traced || (WIFEXITED(status) && WEXITSTATUS(status) == 0), "mqbench_work");
  return calls;
}

std::string Describe(const Histogram& calls) {
  std::string text;
  for (const auto& [number, count] : calls) {
    const char* const name = NameOf(number);
    text += fmt::format("{}{:g} {}", text.empty() ? "" : ", ", double(count) / kCount,
                        name != nullptr ? name : fmt::format("call {}", number));
  }
  return text.empty() ? "not counted: tracing is not allowed here" : text;
}

struct Allocations {
  double write;
  double read;
};

Allocations CountAllocations(const Contestant& contestant) {
  const auto far = contestant.make(Pattern::kOneWay);
  const auto near = contestant.make(Pattern::kOneWay);
  near->Connect(far->Listen());
  far->Accept();
  near->Prepare(kBody);
  far->Prepare(kBody);
  uint64_t written = 0;
  uint64_t read = 0;
  near->Write();
  far->Read();
  for (size_t i = 0; i < kCount; ++i) {
    const uint64_t before = mqc_allocations();
    near->Write();
    const uint64_t between = mqc_allocations();
    far->Read();
    written += between - before;
    read += mqc_allocations() - between;
  }
  return {double(written) / kCount, double(read) / kCount};
}

}  // namespace

void MeasureCalls(Report* report) {
  Section section = {
      "calls",
      "System calls and allocations of one message written and read, 64 B body, and of one wait over 10 nodes",
      {"what", "allocations, write", "allocations, read", "system calls"},
      {},
      {"allocations: of the companion, a record and an area for each message written"}};
  const std::string count = std::to_string(kCount);
  for (const Contestant& contestant : {Nodes(), BareSockets()}) {
    const Allocations made = CountAllocations(contestant);
    const Histogram calls = Trace({"message", contestant.name, std::to_string(kBody), count});
    const bool nodes = std::string(contestant.name) == "nodes";
    section.rows.push_back({Text(contestant.name), nodes ? Number(made.write, 2) : Text("-"),
                            nodes ? Number(made.read, 2) : Text("-"), Text(Describe(calls))});
  }
  for (const char* kind : {"mnPost", "mnNPost", "select"}) {
    section.rows.push_back({Text(kind), Text("-"), Text("-"), Text(Describe(Trace({"wait", kind, "10", count})))});
  }
  report->Add(std::move(section));
}

}  // namespace bench
