// main.cc - mqfaults: runs each scenario with one call after another failing, all in this process, and prints failures.
// What a run leaves behind is compared with the state before it. A run that crashes or hangs ends the program.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "tests/faults/scenarios.hh"

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*)());  // of the sanitizers

namespace {

using namespace faults;
using Counts = std::map<std::string, size_t, std::less<>>;

// Clean runs of each scenario, to detect occasional failures as well.
constexpr int kCleanRuns = 64;
constexpr size_t kMostFell = 20;
constexpr unsigned kHangs = 20;  // seconds

struct Situation {
  const Scenario* scenario;
  std::string call;  // empty: none fails
  uint64_t nth;      // from 1
  int code;
  bool onwards;  // the nth and all later ones
};

std::string only;  // options: only, every
size_t every = 1;
std::string now;  // the current situation
size_t situations, fell;

void Arm(const Situation& tried) {
  for (const char* call : {"send", "recvfrom"}) {
    if (tried.scenario->cut != 0) Platform::LimitAll(call, tried.scenario->cut);
  }
  if (tried.call == "allocation") {
    mqc_fail_allocation(tried.nth, tried.onwards);
  } else if (tried.code == kCut) {
    std::vector<size_t> sizes(tried.nth, SIZE_MAX);
    sizes.back() = 1;
    Platform::Limit(tried.call, sizes);
  } else if (!tried.call.empty()) {
    Platform::Fail(tried.call, static_cast<int>(tried.nth), tried.code, tried.onwards ? Platform::kOnwards : 1);
  }
}

// What must be the same before and after a scenario.
std::string WhatIsLeft() {
  std::string text = format("{} blocks of the library", Platform::LibraryBlocks());
  for (const auto& [tag, count] : LiveBlocks()) text += format(", {} of the companion: {}", count, tag);
  return format("{}, descriptors {}", text, fmt::join(OpenDescriptors(), " "));
}

// Runs a situation, and adds what is wrong afterwards to verdicts. Returns the number of calls by name.
Counts Try(const Situation& tried, const std::string& when, Lines* verdicts) {
  alarm(kHangs);
  Platform::Reset();
  Platform::SkipPauses();
  Platform::AddService("faults", "tcp", 0);
  mqc_reset_replay(0);
  const std::string before = WhatIsLeft();
  const uint64_t allocations = mqc_allocations();
  Counts counts;
  {
    App app(tried.call.empty() ? Run::kClean : tried.onwards ? Run::kOnwards : Run::kOnce, tried.scenario->cut != 0);
    Platform::StartCounting();
    Arm(tried);
    tried.scenario->run(&app);
    mqc_fail_allocation(0, 0);
    counts = Platform::Counts();
    counts["allocation"] = mqc_allocations() - allocations;
    for (const std::string& verdict : app.verdicts) verdicts->push_back(when + verdict);
  }
  const std::string after = WhatIsLeft();
  if (after != before) verdicts->push_back(format("{}left are {}; before {}", when, after, before));
  alarm(0);
  return counts;
}

void Report(const Lines& verdicts) {
  if (verdicts.empty()) return;
  ++fell;
  fmt::print(stderr, "FAILED: {}\n  {}\n", now, fmt::join(verdicts, "\n  "));
}

void Fail(const Situation& tried) {
  static uint32_t turn = 0;
  now = format("{}/{}/{}/{}/{}", tried.scenario->name, tried.call, tried.nth, CodeName(tried.code),
               tried.onwards ? "onwards" : "once");
  if (!now.starts_with(only) || fell == kMostFell) return;
  // Runs one of `every` situations, without a period that the lists of errors could share.
  if ((turn++ * 2654435761u >> 16) % every != 0) return;
  Lines verdicts;
  Try(tried, "", &verdicts);
  Try({tried.scenario, "", 0, 0, false}, "in the clean run after it: ", &verdicts);
  ++situations;
  Report(verdicts);
}

// Fails each occurrence of a call in each way.
void FailCall(const Scenario& scenario, const std::string& call, uint64_t last, const std::vector<int>& codes) {
  for (uint64_t nth = 1; nth <= last; ++nth) {
    for (const int code : codes) {
      if (code != kCut || scenario.streams) Fail({&scenario, call, nth, code, false});
      if (code != kCut) Fail({&scenario, call, nth, code, true});
    }
  }
}

// Runs a scenario many times without failures, then with each call failing.
void RunScenario(const Scenario& scenario) {
  const Situation clean = {&scenario, "", 0, 0, false};
  Lines verdicts;
  now = scenario.name + "/";
  Counts counts = Try(clean, "", &verdicts);
  for (int i = 1; i < kCleanRuns && verdicts.empty(); ++i) Try(clean, "", &verdicts);
  Report(verdicts);
  for (const FailingCalls& calls : kFailing) {
    for (const std::string& call : calls.names) {
      if (verdicts.empty()) FailCall(scenario, call, counts[call], calls.codes);
    }
  }
}

void Die(int number) {
  fmt::print(stderr, "FAILED: {}\n  {}\n", now, number == SIGALRM ? "hangs" : sigdescr_np(number));
  _exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Runs whole scenarios of the library again and again while one of its calls, or one of the allocations, fails:\n"
      "the 1st, the 2nd, the 3rd ..., once and from there on, in each way that it can. After each, the outcome must "
      "be\n"
      "as documented, nothing leaked, and a clean run of the scenario must pass. Exits with 1 if a situation failed.");
  app.add_option("--only", only, "only names that begin with this: plain, plain/send, plain/send/8/EAGAIN/once");
  app.add_option("--every", every, "only one of this many situations")->check(CLI::PositiveNumber);
  CLI11_PARSE(app, argc, argv);
  signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) signal(number, Die);
  if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback([] { Die(SIGABRT); });
  const rlimit files = {4096, 4096};
  setrlimit(RLIMIT_NOFILE, &files);
  mqc_log_to("/dev/null");
  unsetenv("TEVRA_HOME");
  // Discards the library's message about a failed close.
  if (freopen("/dev/null", "w", stdout) == nullptr) perror("mqfaults");
  for (const Scenario& scenario : kScenarios) {
    const std::string name = scenario.name + "/";
    if (name.starts_with(only) || only.starts_with(name)) RunScenario(scenario);
  }
  fmt::print(stderr, "{} situations, {} failed\n", situations, fell);
  return fell == 0 && situations != 0 ? 0 : 1;
}
