// main.cc - mqfaults: makes the list of situations, has them tried, and prints what fell.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "tests/faults/calls.hh"
#include "tests/faults/children.hh"
#include "tests/faults/situation.hh"

namespace faults {

namespace {

struct Options {
  std::string scenario;
  std::string call;
  std::string code;
  uint64_t nth = 0;
  bool once = false;
  bool onwards = false;
  size_t cut_send = 0;
  size_t cut_receive = 0;
  size_t every = 1;
  unsigned jobs = std::max(1L, sysconf(_SC_NPROCESSORS_ONLN));
  unsigned seconds = 20;
  bool list = false;
  bool verbose = false;

  // A part of the table was asked for: what nobody calls is no fault then.
  bool narrowed() const { return !scenario.empty() || !call.empty() || cut_send != 0 || cut_receive != 0; }
};

// What is counted and tried of one scenario.
struct Row {
  const Scenario* scenario;
  Counts counts;
  size_t situations = 0;
  size_t fell = 0;
};

constexpr size_t kCuts[] = {1, 7};

void List() {
  printf("Scenarios\n");
  for (const Scenario& scenario : Scenarios()) {
    printf("  %-10s %s\n", std::string(scenario.name).c_str(), std::string(scenario.about).c_str());
  }
  printf("\nCalls that fail, and how\n");
  for (const FailingCall& call : FailingCalls()) {
    printf("  %-16s", std::string(call.name).c_str());
    for (const int code : call.codes) printf(" %s", CodeName(code).c_str());
    printf("\n");
  }
  printf("  send, recvfrom   cut to 1 and to 7 bytes\n\nCalls that cannot fail, and why\n");
  for (const SafeCall& call : SafeCalls()) {
    printf("  %-16s %s\n", std::string(call.name).c_str(), std::string(call.reason).c_str());
  }
}

// The scenario with nothing failing, cut as the options say.
Situation NothingFails(const Row& row, const Options& options) {
  Situation situation;
  situation.scenario = row.scenario;
  situation.cut_send = options.cut_send;
  situation.cut_receive = options.cut_receive;
  return situation;
}

// Runs every scenario clean and counts its calls; false when one fell.
bool Count(std::vector<Row>* rows, const Options& options) {
  bool whole = true;
  RunInChildren(
      rows->size(), options.jobs, options.seconds,
      [&](size_t i) {
        Counts counts;
        std::string text = Try(NothingFails((*rows)[i], options), &counts);
        for (const auto& [name, count] : counts) text += "count " + std::to_string(count) + " " + name + "\n";
        return text;
      },
      [&](size_t i, const std::string& said, const std::string& ended) {
        Row& row = (*rows)[i];
        for (size_t at = 0; at < said.size();) {
          const size_t end = std::min(said.find('\n', at), said.size());
          const std::string line = said.substr(at, end - at);
          at = end + 1;
          unsigned long count = 0;
          int name = 0;
          if (sscanf(line.c_str(), "count %lu %n", &count, &name) == 1) {
            row.counts[line.substr(static_cast<size_t>(name))] = count;
            continue;
          }
          printf("fell: --scenario %s\n  %s\n", std::string(row.scenario->name).c_str(), line.c_str());
          whole = false;
        }
        if (!ended.empty()) printf("fell: --scenario %s %s\n", std::string(row.scenario->name).c_str(), ended.c_str());
        whole = whole && ended.empty();
      });
  return whole;
}

// Every import of the library is in one of the tables, and what can fail is called by some scenario.
size_t CheckCalls(const std::vector<Row>& rows) {
  size_t fell = 0;
  std::set<std::string_view> known;
  for (const FailingCall& call : FailingCalls()) known.insert(call.name);
  for (const SafeCall& call : SafeCalls()) known.insert(call.name);
  const std::vector<std::string> imports = Imports();
  if (imports.empty()) {
    printf("fell: nm does not tell what the library imports\n");
    ++fell;
  }
  for (const std::string& name : imports) {
    if (kCountsBranches || known.contains(name)) continue;
    printf("fell: the library calls %s, and no table says how it fails or why it cannot\n", name.c_str());
    ++fell;
  }
  for (const FailingCall& call : FailingCalls()) {
    if (std::any_of(rows.begin(), rows.end(), [&](const Row& row) { return row.counts.contains(call.name); })) continue;
    printf("fell: no scenario makes the library call %s\n", std::string(call.name).c_str());
    ++fell;
  }
  return fell;
}

bool IsChosen(const Situation& situation, const Options& options) {
  return (options.call.empty() || situation.call == options.call) &&
         (options.nth == 0 || situation.nth == options.nth) &&
         (options.code.empty() || CodeName(situation.code) == options.code) &&
         !(situation.onwards ? options.once : options.onwards);
}

void AddFailures(const Row& row, const Options& options, std::vector<Situation>* all) {
  Situation next = NothingFails(row, options);
  for (const FailingCall& call : FailingCalls()) {
    const auto count = row.counts.find(call.name);
    if (count == row.counts.end()) continue;
    next.call = call.name;
    for (next.nth = 1; next.nth <= count->second; ++next.nth) {
      for (const int code : call.codes) {
        next.code = code;
        for (const bool onwards : {false, true}) {
          next.onwards = onwards;
          if (IsChosen(next, options)) all->push_back(next);
        }
      }
    }
  }
}

void AddCuts(const Row& row, const Options& options, std::vector<Situation>* all) {
  for (const size_t cut : kCuts) {
    for (int which = 1; which <= 3; ++which) {
      Situation next = NothingFails(row, options);
      next.cut_send = which & 1 ? cut : 0;
      next.cut_receive = which & 2 ? cut : 0;
      all->push_back(next);
    }
  }
}

std::vector<Situation> Situations(const std::vector<Row>& rows, const Options& options) {
  const bool cut = options.cut_send != 0 || options.cut_receive != 0;
  const bool fails =
      !options.call.empty() || options.nth != 0 || !options.code.empty() || options.once || options.onwards;
  std::vector<Situation> all;
  for (const Row& row : rows) {
    if (fails || !cut) AddFailures(row, options, &all);
    if (!fails && cut) all.push_back(NothingFails(row, options));
    if (!fails && !cut && row.scenario->streams) AddCuts(row, options, &all);
  }
  std::vector<Situation> chosen;
  for (size_t i = 0; i < all.size(); i += options.every) chosen.push_back(all[i]);
  return chosen;
}

void Report(const Situation& situation, const std::string& said, const std::string& ended) {
  printf("fell: %s\n", situation.Text().c_str());
  if (!ended.empty()) printf("  %s\n", ended.c_str());
  for (size_t at = 0; at < said.size();) {
    const size_t end = std::min(said.find('\n', at), said.size());
    printf("  %s\n", said.substr(at, end - at).c_str());
    at = end + 1;
  }
}

void PrintTable(const std::vector<Row>& rows, bool verbose) {
  printf("\n%-10s %8s %12s %12s %6s\n", "scenario", "calls", "allocations", "situations", "fell");
  for (const Row& row : rows) {
    uint64_t calls = 0;
    uint64_t allocations = 0;
    for (const auto& [name, count] : row.counts) {
      const bool memory = name == kAllocation || name.ends_with("alloc");
      (memory ? allocations : calls) += count;
    }
    printf("%-10s %8lu %12lu %12zu %6zu\n", std::string(row.scenario->name).c_str(), calls, allocations, row.situations,
           row.fell);
    if (!verbose) continue;
    for (const auto& [name, count] : row.counts) printf("  %-16s %5lu\n", name.c_str(), count);
  }
}

int Run(const Options& options) {
  const auto began = std::chrono::steady_clock::now();
  std::vector<Row> rows;
  for (const Scenario& scenario : Scenarios()) {
    const bool cut = options.cut_send != 0 || options.cut_receive != 0;
    const bool chosen = options.scenario.empty() || options.scenario == scenario.name;
    if (chosen && (!cut || scenario.streams)) rows.push_back({&scenario, {}, 0, 0});
  }
  if (!Count(&rows, options)) return 1;
  size_t fell = options.narrowed() ? 0 : CheckCalls(rows);
  const std::vector<Situation> situations = Situations(rows, options);
  if (situations.empty()) printf("no situation is like that; --list and --verbose tell which there are\n");
  size_t missed = 0;
  RunInChildren(
      situations.size(), options.jobs, options.seconds, [&](size_t i) { return Try(situations[i], nullptr); },
      [&](size_t i, const std::string& said, const std::string& ended) {
        Row& row =
            *std::find_if(rows.begin(), rows.end(), [&](const Row& r) { return r.scenario == situations[i].scenario; });
        if (said == kNotReached && ended.empty()) {
          ++missed;
          return;
        }
        row.situations += 1;
        if (said.empty() && ended.empty()) return;
        row.fell += 1;
        fell += 1;
        Report(situations[i], said, ended);
        fflush(stdout);
      });
  PrintTable(rows, options.verbose);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  if (missed != 0) printf("\n%zu situations did not come about: the scenario made fewer calls than before\n", missed);
  printf("\n%zu situations in %.1f s, %zu fell\n", situations.size() - missed, took.count(), fell);
  return fell == 0 && missed < situations.size() ? 0 : 1;
}

void Declare(CLI::App* app, Options* options) {
  std::vector<std::string> names;
  for (const Scenario& scenario : Scenarios()) names.emplace_back(scenario.name);
  app->add_option("--scenario", options->scenario, "only this scenario")->check(CLI::IsMember(names));
  app->add_option("--call", options->call, "only this call");
  app->add_option("--nth", options->nth, "only its nth one, 1 the first");
  app->add_option("--errno", options->code, "only this failure: EAGAIN ..., ZERO or NONE (see --list)");
  auto* const once = app->add_flag("--once", options->once, "only that one fails");
  app->add_flag("--onwards", options->onwards, "that one and all after it")->excludes(once);
  app->add_option("--cut-send", options->cut_send, "a send moves at most so many bytes");
  app->add_option("--cut-receive", options->cut_receive, "a receive moves at most so many bytes");
  app->add_option("--every", options->every, "only every kth situation")->check(CLI::PositiveNumber);
  app->add_option("--jobs", options->jobs, "situations tried at a time")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app->add_option("--seconds", options->seconds, "a situation that takes longer hangs")->capture_default_str();
  app->add_flag("--list", options->list, "print scenarios and calls, and run nothing");
  app->add_flag("-v,--verbose", options->verbose, "print the calls that each scenario makes");
}

}  // namespace

}  // namespace faults

int main(int argc, char** argv) {
  using namespace faults;
  Options options;
  CLI::App app(
      "Runs whole scenarios of the library again and again while one of the calls that it makes, or one of the\n"
      "allocations, fails: the 1st, the 2nd, the 3rd ..., once and from there on, in each way that the call knows.\n"
      "After each: no crash, no hang, nothing leaked, counters consistent, result and error as stated, messages in\n"
      "order and whole, and the same scenario passes clean. Ends with 1 when something fell.");
  Declare(&app, &options);
  CLI11_PARSE(app, argc, argv);
  if (options.list) {
    List();
    return 0;
  }
  signal(SIGPIPE, SIG_IGN);
  rlimit files = {};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = std::min<rlim_t>(files.rlim_max, 4096);
  setrlimit(RLIMIT_NOFILE, &files);
  mqc_log_to("/dev/null");
  unsetenv("TEVRA_HOME");
  std::string folder = (std::filesystem::temp_directory_path() / "mqfaults-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    perror("mqfaults");
    return 1;
  }
  PreparePlatform(folder.c_str());
  Signer();
  const int result = Run(options);
  std::filesystem::remove_all(folder);
  return result;
}
