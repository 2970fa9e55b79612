// main.cc - mqfaults: runs each scenario with one call failing after the other, all in this process, and prints what
// fell. What a run leaves behind is compared with what was there before it. A run that crashes or hangs is the last.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "tests/faults/scenarios.hh"

// Of the sanitizers, when they are there.
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*)());

namespace faults {

namespace {

struct Options {
  std::string only;
  size_t every = 1;
  unsigned seconds = 20;
} options;

struct Situation {
  const Scenario* scenario;
  std::string_view call;  // empty: none fails
  uint64_t nth;           // 1 the first
  int code;
  bool onwards;  // the nth and all after it
};

// Calls of a scenario by name.
using Counts = std::map<std::string, size_t, std::less<>>;

// Each scenario runs so often with nothing failing: what is lost now and then is seen too.
constexpr int kCleanRuns = 64;
constexpr size_t kMostFell = 20;

FILE* out;        // what the library itself prints goes nowhere
std::string now;  // the situation that is tried
size_t situations, fell;

std::string NameOf(const Situation& tried) {
  if (tried.call.empty()) return tried.scenario->name + "/";
  return format("{}/{}/{}/{}/{}", tried.scenario->name, tried.call, tried.nth, CodeName(tried.code),
                tried.onwards ? "onwards" : "once");
}

void Arm(const Situation& tried) {
  for (const char* call : {"send", "recvfrom"}) {
    if (tried.scenario->cut != 0) Platform::LimitAll(call, tried.scenario->cut);
  }
  if (tried.call == "allocation") {
    mqc_fail_allocation(tried.nth, tried.onwards);
  } else if (IsCut(tried.code) && tried.onwards) {
    Platform::LimitAll(tried.call, BytesOf(tried.code));
  } else if (IsCut(tried.code)) {
    std::vector<size_t> sizes(tried.nth, SIZE_MAX);
    sizes.back() = BytesOf(tried.code);
    Platform::Limit(tried.call, sizes);
  } else if (!tried.call.empty()) {
    Platform::Fail(tried.call, static_cast<int>(tried.nth), tried.code, tried.onwards ? Platform::kOnwards : 1);
  }
}

// What must be as it was when a scenario is over.
std::string WhatIsLeft() {
  std::string text = format("{} blocks of the library", Platform::LibraryBlocks());
  for (const auto& [tag, count] : LiveBlocks()) text += format(", {} of the companion: {}", count, tag);
  return format("{}, descriptors {}", text, fmt::join(OpenDescriptors(), " "));
}

// Runs a situation; counts gets the calls.
void Try(const Situation& tried, const std::string& when, Lines* verdicts, Counts* counts = nullptr) {
  alarm(options.seconds);
  PreparePlatform();
  mqc_reset_replay(0);
  const std::string before = WhatIsLeft();
  const uint64_t allocations = mqc_allocations();
  {
    const auto run = tried.call.empty() ? App::Run::kClean : tried.onwards ? App::Run::kOnwards : App::Run::kOnce;
    App app(run, tried.scenario->cut != 0 || (IsCut(tried.code) && tried.onwards));
    Platform::StartCounting();
    Arm(tried);
    tried.scenario->run(&app);
    mqc_fail_allocation(0, 0);
    if (counts != nullptr) {
      for (const auto& [name, count] : Platform::Counts()) (*counts)[name] = count;
      (*counts)["allocation"] = mqc_allocations() - allocations;
    }
    for (const std::string& verdict : app.verdicts) verdicts->push_back(when + verdict);
  }
  const std::string after = WhatIsLeft();
  if (after != before) verdicts->push_back(format("{}left are {}; before {}", when, after, before));
  alarm(0);
}

void Report(const Lines& verdicts) {
  if (verdicts.empty()) return;
  ++fell;
  fmt::print(out, "fell: {}\n  {}\n", now, fmt::join(verdicts, "\n  "));
  fflush(out);
}

// One turn in so many as the options say, without a period that the lists of errors could share.
bool IsChosen(uint32_t turn) { return (turn * 2654435761u >> 16) % options.every == 0; }

void Fail(const Situation& tried) {
  static uint32_t turn = 0;
  now = NameOf(tried);
  if (!now.starts_with(options.only) || !IsChosen(turn++) || fell == kMostFell) return;
  Lines verdicts;
  Try(tried, "", &verdicts);
  Try({tried.scenario, "", 0, 0, false}, "in the clean run after it: ", &verdicts);
  ++situations;
  Report(verdicts);
}

// Runs a scenario with nothing failing, many times, then with each way in which each call can fail, at each of its
// places. Returns its calls.
Counts FailEach(const Scenario& scenario) {
  Counts counts;
  Lines verdicts;
  const Situation clean = {&scenario, "", 0, 0, false};
  now = NameOf(clean);
  for (int i = 0; i < kCleanRuns && verdicts.empty(); ++i) Try(clean, "", &verdicts, i == 0 ? &counts : nullptr);
  Report(verdicts);
  for (const FailingCall& call : kFailing) {
    const uint64_t last = verdicts.empty() ? counts[call.name] : 0;
    for (uint64_t nth = 1; nth <= last; ++nth) {
      for (const int code : call.codes) {
        if (IsCut(code) && !scenario.streams) continue;
        Fail({&scenario, call.name, nth, code, false});
        // All transfers are cut, or one is.
        if (!IsCut(code) || nth == 1) Fail({&scenario, call.name, nth, code, true});
      }
    }
  }
  return counts;
}

int RunAll() {
  const auto began = std::chrono::steady_clock::now();
  Counts all;
  fmt::print(out, "{:16}{:>11} {:>6}\n", "scenario", "situations", "fell");
  for (const Scenario& scenario : kScenarios) {
    const std::string name = scenario.name + "/";
    if (!name.starts_with(options.only) && !options.only.starts_with(name)) continue;
    const size_t situations_before = situations, fell_before = fell;
    for (const auto& [call, count] : FailEach(scenario)) all[call] += count;
    fmt::print(out, "{:16}{:11} {:6}\n", scenario.name, situations - situations_before, fell - fell_before);
  }
  now = "the tables of calls";
  if (options.only.empty()) Report(CheckCalls(all));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  fmt::print(out, "{} situations in {:.1f} s, {} fell\n", situations, took.count(), fell);
  return fell == 0 && situations != 0 ? 0 : 1;
}

void Say(const char* how) {
  const std::string text = "fell: " + now + "\n  " + how + "\n";
  if (write(fileno(out), text.data(), text.size()) < 0) _exit(2);
}

void Die(int number) {
  Say(number == SIGALRM ? "hangs" : sigdescr_np(number));
  rmdir(folder.c_str());
  _exit(1);
}

void Prepare() {
  signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) signal(number, Die);
  if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback([] { Say("a sanitizer ends it"); });
  const rlimit files = {4096, 4096};
  setrlimit(RLIMIT_NOFILE, &files);
  mqc_log_to("/dev/null");
  unsetenv("TEVRA_HOME");
}

}  // namespace

}  // namespace faults

int main(int argc, char** argv) {
  using namespace faults;
  CLI::App app(
      "Runs whole scenarios of the library again and again while one of the calls that it makes, or one of the\n"
      "allocations, fails: the 1st, the 2nd, the 3rd ..., once and from there on, in each way that the call knows.\n"
      "After each: no crash, no hang, nothing leaked, counters consistent, result and error as stated, messages in\n"
      "order and whole, and the same scenario passes clean. Ends with 1 when something fell.");
  app.add_option("--only", options.only,
                 "only those whose names begin so: plain, plain/send, plain/send/8/EAGAIN/once");
  app.add_option("--every", options.every, "only one situation in so many")->check(CLI::PositiveNumber);
  app.add_option("--seconds", options.seconds, "a situation that takes longer hangs")->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  out = fdopen(dup(STDOUT_FILENO), "w");
  folder = (std::filesystem::temp_directory_path() / "mqfaults-XXXXXX").string();
  if (out == nullptr || freopen("/dev/null", "w", stdout) == nullptr || mkdtemp(folder.data()) == nullptr) {
    perror("mqfaults");
    return 1;
  }
  Prepare();
  const int result = RunAll();
  std::filesystem::remove_all(folder);
  fclose(out);
  return result;
}
