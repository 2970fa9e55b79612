// main.cc - mqdemo: options, a run, its report, the exit code.
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <random>

#include "demo/child.hh"
#include "demo/report.hh"

namespace {

using namespace demo;

constexpr int kExitWrong = 1;
constexpr int kExitCannot = 2;
constexpr rlim_t kSpareDescriptors = 128;
constexpr rlim_t kSiegeDescriptors = 8192;

struct SiegeOptions {
  std::vector<std::string> attacks, servers;
  double seconds = 3;
  bool together = false;
  bool list = false;
};

template <typename Value>
void AddRange(CLI::App* app, const char* name, Value* value, Value least, Value most, const std::string& what) {
  app->add_option(name, *value, what)->check(CLI::Range(least, most))->capture_default_str();
}

void DescribeDemo(CLI::App* app, Options* options) {
  app->description(
      "The system at work: one server process with one thread serves hundreds of clients at once, plain and signed,\n"
      "TCP and UDP, small and large messages, while rogues break the rules. Everything stays on 127.0.0.1, on ports\n"
      "that the kernel picks.");
  AddRange(app, "--clients", &options->clients, 1u, kMostClients, "honest clients");
  AddRange(app, "--processes", &options->processes, 1u, kMostProcesses, "processes that they are spread over");
  AddRange(app, "--messages", &options->messages, 0u, 1000000u, "most questions of a client (0: no limit)");
  AddRange(app, "--seconds", &options->seconds, 1.0, 60.0, "how long the clients go on asking");
  app->add_flag("--honest-only", options->honestOnly, "no rogues");
  app->footer(
      "Exit code: 0 all was right at both ends, 1 something was not, 2 it could not be run. A signal ends a run "
      "early,\n"
      "with its report.\n"
      "Example: mqdemo --clients 1000 --seconds 10");
}

void DescribeSoak(CLI::App* app, Options* options) {
  AddRange(app, "--clients", &options->clients, 6u, kMostClients, "honest clients");
  AddRange(app, "--seconds", &options->seconds, 1.0, 604800.0, "how long, in rounds of a tenth and at most 30 s");
  AddRange(app, "--rate", &options->rate, 1.0, 1e6, "messages a second, of all clients together");
  app->add_option("--seed", options->seed, "of all content and of the network; another one each time by itself");
  app->footer(
      "Exit code: 0 every message is accounted for, and memory and descriptors are as they were; 1 not so; 2 it could\n"
      "not be run.");
}

void DescribeHostile(CLI::App* app, SiegeOptions* options) {
  app->add_option("--attack", options->attacks, "only this one; may be repeated")->allow_extra_args(false);
  app->add_option("--server", options->servers, "only this one; may be repeated")->allow_extra_args(false);
  app->add_flag("--list", options->list, "say what the servers and attacks are, and end");
  AddRange(app, "--seconds", &options->seconds, 0.1, 600.0, "length of each attack; some need a little more");
  app->add_flag("--together", options->together, "all attacks at the same time: quick, but then the times say little");
  app->footer("Exit code: 0 every attack was withstood, 1 one was not or not run, 2 it could not be run.");
}

void RaiseDescriptorLimit(rlim_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) return;
  if (limit.rlim_max < needed) {
    throw std::runtime_error(
        fmt::format("{} open files are needed, the limit is {} (ulimit -Hn)", needed, limit.rlim_max));
  }
  limit.rlim_cur = needed;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("cannot raise the limit of open files");
}

void Prepare(rlim_t descriptors) {
  signal(SIGPIPE, SIG_IGN);
  unsetenv("TEVRA_HOME");  // with it every node would start a shell to learn the name of this program
  // Memory that the address sanitizer keeps for a while would hide whether the servers give theirs back.
  const char* const set = getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", fmt::format("{}:quarantine_size_mb=1", set != nullptr ? set : "").c_str(), 1);
  RaiseDescriptorLimit(descriptors);
  CatchInterrupts();
}

int Print(const std::string& text, bool good) {
  if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
    throw std::runtime_error("cannot write the report");
  }
  return good ? 0 : kExitWrong;
}

int RunDemo(Options options) {
  options.processes = std::min(options.processes, options.clients);
  Prepare(options.clients + kSpareDescriptors);
  const Outcome outcome = RunWorld(options);
  const bool colors = isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr;
  return Print(TextOf(options, outcome, colors), outcome.problems.empty());
}

// Refuses a name that no row of a table has.
template <typename Row>
void CheckNames(std::span<const Row> rows, const std::vector<std::string>& names, const char* option) {
  for (const std::string& name : names) {
    if (std::ranges::none_of(rows, [&](const Row& row) { return name == row.name; })) {
      throw CLI::ValidationError(option, "there is no '" + name + "'; see --list");
    }
  }
}

int RunHostile(const SiegeOptions& options) {
  CheckNames(Targets(), options.servers, "--server");
  CheckNames(Peers(), options.attacks, "--attack");
  const auto isChosen = [](const std::vector<std::string>& names, const char* name) {
    return names.empty() || std::ranges::count(names, name) != 0;
  };
  std::vector<Trial> trials;
  for (const Target& target : Targets()) {
    for (const Peer& peer : Peers()) {
      if (!IsFor(peer, target) || !isChosen(options.servers, target.name)) continue;
      if (!isChosen(options.attacks, peer.name)) continue;
      if (options.list) fmt::print("{:<16}{:<15}{}\n", target.name, peer.name, peer.attack);
      trials.push_back(Trial{&target, &peer});
    }
  }
  if (options.list) return 0;
  if (trials.empty()) throw std::runtime_error("none of these attacks is for one of these servers");
  Prepare(kSiegeDescriptors);
  TryAll(&trials, options.seconds, options.together);
  const bool withstood = std::ranges::all_of(trials, [](const Trial& trial) { return Withstood(trial); });
  return Print(TextOf(trials), withstood);
}

int Run(int argc, char** argv) {
  Options options, soak{.clients = 60, .processes = 1, .seconds = 60, .soak = true, .rate = 2000};
  SiegeOptions siege;
  options.seed = soak.seed = std::random_device{}();
  CLI::App app;
  DescribeDemo(&app, &options);
  CLI::App* const soaking =
      app.add_subcommand("soak", "Clients talk through a bad network for a long time; every message is accounted for");
  CLI::App* const hostile = app.add_subcommand("hostile",
                                               "Hostile peers against this server, those of the examples, and mqcat "
                                               "listen. Each attack has a server of its own;\n"
                                               "honest clients go on meanwhile and are measured without and with it.");
  DescribeSoak(soaking, &soak);
  DescribeHostile(hostile, &siege);
  app.require_subcommand(0, 1);
  try {
    app.parse(argc, argv);
    if (*hostile) return RunHostile(siege);
    return RunDemo(*soaking ? soak : options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitCannot;
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "mqdemo: {}\n", error.what());
    return kExitCannot;
  }
}
