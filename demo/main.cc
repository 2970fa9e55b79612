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
constexpr int kExitSkipped = 77;
constexpr int kExitSignal = 128;  // plus the number of the signal
constexpr const char* kInterrupts =
    "Ctrl-C ends it early with the results so far: exit code 130 (SIGINT) or 143 (SIGTERM).\n";
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

void AddEngine(CLI::App* app, Options* options) {
  app->add_option("--server", options->engine, "what the server runs on: one wait over all nodes, or an event loop")
      ->check(CLI::IsMember(Engines()))
      ->capture_default_str();
}

void DescribeDemo(CLI::App* app, Options* options) {
  app->description(
      "Demonstration: one server process with one thread serves hundreds of clients at once, plain and signed, TCP "
      "and\n"
      "UDP, small and large messages; for the first half of the time alone, then while rogues break the rules. All\n"
      "traffic is on 127.0.0.1, on ports chosen by the kernel.");
  AddRange(app, "--clients", &options->clients, 1u, kMostClients, "honest clients");
  AddRange(app, "--processes", &options->processes, 1u, kMostProcesses, "processes that run the clients");
  AddRange(app, "--messages", &options->messages, 0u, 1000000u, "limit of questions per client (0: none)");
  AddRange(app, "--seconds", &options->seconds, 1.0, 60.0, "how long the clients ask");
  AddEngine(app, options);
  app->add_flag("--honest-only", options->honestOnly, "no rogues");
  app->footer(
      fmt::format("Exit code: 0 both ends agree, 1 they do not, 2 the demonstration could not be run.\n{}"
                  "Example: mqdemo --clients 1000 --seconds 10",
                  kInterrupts));
}

void DescribeSoak(CLI::App* app, Options* options) {
  AddRange(app, "--clients", &options->clients, 6u, kMostClients, "honest clients");
  AddRange(app, "--seconds", &options->seconds, 1.0, 604800.0, "duration, in rounds of a tenth of it and at most 30 s");
  AddRange(app, "--rate", &options->rate, 1.0, 1e6, "messages per second, of all clients together");
  AddEngine(app, options);
  app->add_option("--seed", options->seed, "of all content and of the network; random by default");
  app->footer(fmt::format(
      "Exit code: 0 every message is accounted for, and memory and descriptors have not grown; 1 otherwise;\n"
      "2 the test could not be run. {}",
      kInterrupts));
}

void DescribeHostile(CLI::App* app, SiegeOptions* options) {
  app->add_option("--attack", options->attacks, "only this one; may be repeated")->allow_extra_args(false);
  app->add_option("--server", options->servers, "only this one; may be repeated")->allow_extra_args(false);
  app->add_flag("--list", options->list, "list servers and attacks");
  AddRange(app, "--seconds", &options->seconds, 0.1, 600.0, "duration of each attack; some take a little longer");
  app->add_flag("--together", options->together, "all attacks at the same time: quicker, but the times mean little");
  app->footer(
      fmt::format("Exit code: 0 every attack was withstood, 1 one was not, 2 the test could not be run,\n"
                  "77 the servers were not built. {}",
                  kInterrupts));
}

void RaiseDescriptorLimit(rlim_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) return;
  if (limit.rlim_max < needed) {
    throw std::runtime_error(
        fmt::format("{} file descriptors are needed, the limit is {} (ulimit -Hn)", needed, limit.rlim_max));
  }
  limit.rlim_cur = needed;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("cannot raise the limit of file descriptors");
}

void Prepare(rlim_t descriptors) {
  signal(SIGPIPE, SIG_IGN);
  unsetenv("TEVRA_HOME");  // or every node would start a shell to find the name of this program
  // The address sanitizer delays the release of memory. A small quarantine keeps the servers' own memory visible.
  const char* const set = getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", fmt::format("{}:quarantine_size_mb=1", set != nullptr ? set : "").c_str(), 1);
  RaiseDescriptorLimit(descriptors);
  CatchInterrupts();
}

int Print(const std::string& text, bool good) {
  if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
    throw std::runtime_error("cannot write the report");
  }
  return IsInterrupted() ? kExitSignal + Interrupt() : good ? 0 : kExitWrong;
}

int RunDemo(Options options) {
  options.processes = std::min(options.processes, options.clients);
  Prepare(options.clients + kSpareDescriptors);
  const Outcome outcome = RunWorld(options);
  const bool colors = isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr;
  return Print(TextOf(options, outcome, colors), outcome.problems.empty());
}

// Throws for a name that is not in a table.
template <typename Row>
void CheckNames(std::span<const Row> rows, const std::vector<std::string>& names, const char* option) {
  for (const std::string& name : names) {
    if (std::ranges::none_of(rows, [&](const Row& row) { return name == row.name; })) {
      throw CLI::ValidationError(option, "unknown name '" + name + "'; see --list");
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
  bool isLeftOut = false;
  for (const Target& target : Targets()) {
    const std::string missing = isChosen(options.servers, target.name) ? MissingFor(target) : "";
    if (!missing.empty()) fmt::print(stderr, "mqdemo: {} is left out: no {}\n", target.name, missing);
    isLeftOut = isLeftOut || !missing.empty();
    if (!missing.empty()) continue;
    for (const Peer& peer : Peers()) {
      if (!IsFor(peer, target) || !isChosen(options.servers, target.name)) continue;
      if (!isChosen(options.attacks, peer.name)) continue;
      if (options.list) fmt::print("{:<16}{:<15}{}\n", target.name, peer.name, peer.attack);
      trials.push_back(Trial{&target, &peer});
    }
  }
  if (options.list) return 0;
  if (trials.empty() && isLeftOut) return kExitSkipped;
  if (trials.empty()) throw std::runtime_error("none of these attacks applies to one of these servers");
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
      app.add_subcommand("soak", "Long run through a bad network; every message is accounted for");
  CLI::App* const hostile = app.add_subcommand("hostile",
                                               "Hostile peers against this server, those of the examples, mqcat listen "
                                               "and mqbridge. Each attack has a server of its own;\n"
                                               "honest clients are measured before and during the attack.");
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
