// main.cc - mqhostile: each attack on a server of its own, honest clients meanwhile, a table, the exit code.
#include <fmt/format.h>
#include <sodium.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <future>

#include "tests/hostile/attacks.hh"
#include "tests/hostile/exchange.hh"
#include "tests/hostile/server.hh"

namespace {

using namespace hostile;

constexpr int kExitHit = 1;
constexpr int kExitCannot = 2;
constexpr rlim_t kDescriptors = 8192;
constexpr double kCalmShare = 0.5;    // of the time of an attack: how long the honest clients are measured before it
constexpr double kRestSeconds = 0.3;  // the server is at rest when it used little of the processor for so long
constexpr double kRestShare = 0.2;    // of a processor
constexpr int kPatienceSeconds = 30;  // for what must come about, on any machine, however busy
#ifdef MQHOSTILE_SHADOW_MEMORY
constexpr bool kOwnMemory = false;  // most that is resident is the thread sanitizer's
#else
constexpr bool kOwnMemory = true;
#endif
constexpr size_t kMostLines = 5000;       // of its log
constexpr long kMostPeakKb = 64 << 10;    // that an attack may make the server take, beyond what it had before
constexpr long kMostGrowthKb = 16 << 10;  // that may be left afterwards: what a heap does not give back

struct Options {
  std::vector<std::string> attacks, servers;
  double seconds = 3;
  bool together = false;
  bool list = false;
};

struct Outcome {
  const Attack* attack;
  const Target* target;
  Trips calm, under;          // of the steady client
  Trips newcomers;            // during the attack
  Usage before, held, after;  // held: the attackers are quiet but still there
  double rest = 0;            // share of a processor that it used then
  size_t dropped = 0;         // lines in its log
  std::vector<std::string> faults;
};

void Sleep(double seconds) { usleep(static_cast<useconds_t>(seconds * 1e6)); }

bool Await(const std::function<bool()>& done) {
  for (int i = 0; i < kPatienceSeconds * 50; ++i) {
    if (done()) return true;
    Sleep(0.02);
  }
  return false;
}

// One attack from beginning to end.
class Trial {
 public:
  Trial(const Attack& attack, const Target& target, double seconds)
      : attack_(attack), target_(target), seconds_(seconds), server_(Folder(), target, attack.descriptors) {
    outcome_.attack = &attack;
    outcome_.target = &target;
  }

  Outcome Run() {
    if (server_.port() == 0) {
      Fault("the server does not start: " + server_.Log());
      return std::move(outcome_);
    }
    Besiege();
    if (const std::string why = server_.Stop(); !why.empty()) Fault("the server: " + why + "\n" + Tail(server_.Log()));
    const std::string log = server_.Log();
    outcome_.dropped = static_cast<size_t>(std::ranges::count(log, '\n'));
    if (outcome_.dropped > kMostLines) Fault(fmt::format("it logs {} lines", outcome_.dropped));
    if (target_.kind == kExample && log.find(attack_.log) == std::string::npos) {
      Fault(fmt::format("its log does not say '{}'", attack_.log));
    }
    return std::move(outcome_);
  }

 private:
  static std::string Folder() { return std::filesystem::read_symlink("/proc/self/exe").parent_path(); }
  void Fault(std::string what) { outcome_.faults.push_back(std::move(what)); }
  static std::string Tail(const std::string& text) { return text.substr(text.size() - std::min(text.size(), 4000ul)); }

  void Besiege() {
    Exchange steady(server_.port(), target_, Exchange::kSteady);
    if (!Await([&] { return steady.Take().times.total > 0; })) {
      return Fault("the honest client gets no answer");
    }
    Exchange newcomer(server_.port(), target_, Exchange::kNewcomer);
    Sleep(seconds_ * kCalmShare);
    outcome_.calm = steady.Take();
    outcome_.before = AtRest(steady, newcomer);
    {
      newcomer.Take();
      Arena arena(server_.port(), target_.kind == kDatagrams, seconds_, [&] { return newcomer.Answers(); });
      attack_.run(arena);
      outcome_.faults = arena.faults;
      outcome_.under = steady.Take();
      outcome_.newcomers = newcomer.Take();
      outcome_.held = AtRest(steady, newcomer);
    }
    Judge(steady, newcomer);
  }

  // What the server uses while nobody asks anything. A server that spins never comes to rest.
  Usage AtRest(Exchange& steady, Exchange& newcomer) {
    newcomer.Pause();
    steady.Pause();
    Usage usage;
    const bool rests = Await([&] {
      const double before = server_.Look().cpuSeconds;
      Sleep(kRestSeconds);
      usage = server_.Look();
      outcome_.rest = (usage.cpuSeconds - before) / kRestSeconds;
      return outcome_.rest < kRestShare;
    });
    steady.Resume();
    newcomer.Resume();
    if (!rests) Fault(fmt::format("it spins: {:.0f} % of a processor with nothing to do", outcome_.rest * 100));
    return usage;
  }

  void Judge(Exchange& steady, Exchange& newcomer) {
    const double rest = outcome_.rest;
    const int had = outcome_.before.descriptors;
    if (!Await([&] { return server_.Look().descriptors <= had + 1; })) Fault("descriptors are not given back");
    newcomer.Take();
    Trips later;
    if (!Await([&] { return (later = newcomer.Take()).times.total > 0; })) {
      Fault("no newcomer is served after the attack: " + later.firstFailure);
    }
    outcome_.after = AtRest(steady, newcomer);
    outcome_.rest = rest;
    for (const Trips& trips : {outcome_.under, steady.Take()}) {
      if (trips.failures != 0) Fault("the honest client: " + trips.firstFailure);
    }
    if (outcome_.under.times.total == 0) Fault("the honest client got no answer during the attack");
    if (outcome_.newcomers.times.total == 0) Fault("no newcomer was served during the attack");
    if (outcome_.newcomers.failures != 0) Fault("a newcomer: " + outcome_.newcomers.firstFailure);
    const long peak = outcome_.after.peakKb - outcome_.before.residentKb;
    const long growth = outcome_.after.residentKb - outcome_.before.residentKb;
    if (kOwnMemory && peak > kMostPeakKb) Fault(fmt::format("it took {} KiB of memory", peak));
    if (kOwnMemory && growth > kMostGrowthKb) Fault(fmt::format("it keeps {} KiB of memory", growth));
  }

  const Attack& attack_;
  const Target& target_;
  const double seconds_;
  Server server_;
  Outcome outcome_;
};

double Msec(uint64_t microseconds) { return static_cast<double>(microseconds) / 1000; }

std::string TableOf(const std::vector<Outcome>& outcomes) {
  std::string text =
      fmt::format("{:<30}{:>18}{:>18}{:>12}{:>15}{:>14}{:>6}{:>7}  {}\n{:<30}{:>18}{:>18}{:>12}{:>15}{:>14}\n",
                  "server, attack", "honest, calm", "under attack", "newcomers", "server RSS", "descriptors", "rest",
                  "log", "verdict", "", "p50 / p99 ms", "p50 / p99 ms", "longest ms", "peak / end KiB", "peak / end");
  for (const Outcome& it : outcomes) {
    const auto times = [](const Trips& trips) {
      return fmt::format("{:.2f} / {:.2f}", Msec(trips.times.Percentile(0.5)), Msec(trips.times.Percentile(0.99)));
    };
    text += fmt::format("{:<16}{:<14}{:>18}{:>18}{:>12.1f}{:>15}{:>14}{:>5.0f}%{:>7}  {}\n", it.target->name,
                        it.attack->name, times(it.calm), times(it.under), Msec(it.newcomers.times.longest),
                        fmt::format("{} / {}", it.after.peakKb, it.after.residentKb),
                        fmt::format("{} / {}", it.held.descriptors, it.after.descriptors), it.rest * 100, it.dropped,
                        it.faults.empty() ? "withstood" : "HIT");
    for (const std::string& fault : it.faults) text += fmt::format("    {}\n", fault);
  }
  return text;
}

void Describe(CLI::App* app, Options* options) {
  app->description(
      "Hostile peers against the servers of the examples and mqcat listen, over real sockets of this host. Each attack "
      "has\na server of its own; honest clients go on meanwhile and are measured without and with it.");
  app->add_option("--attack", options->attacks, "only this one; may be repeated")->allow_extra_args(false);
  app->add_option("--server", options->servers, "only this one; may be repeated")->allow_extra_args(false);
  app->add_flag("--list", options->list, "say what the servers and attacks are, and end");
  app->add_option("--seconds", options->seconds, "length of each attack, 0.1 to 600; some need a little more")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  app->add_flag("--together", options->together, "all attacks at the same time: quick, but then the times say little");
  app->footer("Exit code: 0 every attack was withstood, 1 one was not, 2 it could not be run.");
}

// The rows of a table with these names; all without any.
template <typename Row>
std::vector<const Row*> Choose(std::span<const Row> rows, const std::vector<std::string>& names, const char* option) {
  std::vector<const Row*> chosen;
  for (const Row& row : rows) {
    if (names.empty() || std::ranges::count(names, row.name) != 0) chosen.push_back(&row);
  }
  for (const std::string& name : names) {
    if (std::ranges::none_of(rows, [&](const Row& row) { return name == row.name; })) {
      throw CLI::ValidationError(option, "there is no '" + name + "'; see --list");
    }
  }
  return chosen;
}

// Room for the attackers; and memory that the address sanitizer keeps for a while would hide whether the servers give
// theirs back.
void Prepare() {
  signal(SIGPIPE, SIG_IGN);
  if (sodium_init() < 0) throw std::runtime_error("libsodium does not start");
  unsetenv("TEVRA_HOME");  // with it every node would start a shell to learn the name of this program
  const char* const set = getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", fmt::format("{}:quarantine_size_mb=1", set != nullptr ? set : "").c_str(), 1);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(kDescriptors, limit.rlim_max));
  if (limit.rlim_cur < kDescriptors || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    throw std::runtime_error(fmt::format("needs {} open files (ulimit -Hn)", kDescriptors));
  }
}

using Pairs = std::vector<std::pair<const Target*, const Attack*>>;

std::vector<Outcome> Try(const Pairs& pairs, const Options& options) {
  std::vector<std::future<Outcome>> trials;
  std::vector<Outcome> outcomes;
  for (const auto& [target, attack] : pairs) {
    trials.push_back(std::async(options.together ? std::launch::async : std::launch::deferred,
                                [=, &options] { return Trial(*attack, *target, options.seconds).Run(); }));
  }
  for (size_t i = 0; i < trials.size(); ++i) {
    const auto& [target, attack] = pairs[i];
    if (isatty(STDERR_FILENO)) fmt::print(stderr, "\r\x1b[K{}, {}: {} ", target->name, attack->name, attack->what);
    outcomes.push_back(trials[i].get());
  }
  if (isatty(STDERR_FILENO)) fmt::print(stderr, "\r\x1b[K");
  return outcomes;
}

int Run(const Options& options) {
  const auto targets = Choose(Targets(), options.servers, "--server");
  const auto attacks = Choose(Attacks(), options.attacks, "--attack");
  Pairs pairs;
  for (const Target* target : targets) {
    for (const Attack* attack : attacks) {
      if ((attack->kinds & target->kind) != 0) pairs.emplace_back(target, attack);
    }
  }
  if (options.list) {
    for (const auto& [target, attack] : pairs) {
      fmt::print("{:<16}{:<15}{}\n", target->name, attack->name, attack->what);
    }
    return 0;
  }
  if (pairs.empty()) throw std::runtime_error("none of these attacks is for one of these servers");
  Prepare();
  const std::vector<Outcome> outcomes = Try(pairs, options);
  fmt::print("{}", TableOf(outcomes));
  const bool hit = std::ranges::any_of(outcomes, [](const Outcome& outcome) { return !outcome.faults.empty(); });
  return hit ? kExitHit : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app;
  Describe(&app, &options);
  try {
    app.parse(argc, argv);
    return Run(options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitCannot;
  } catch (const std::exception& error) {
    fmt::print(stderr, "mqhostile: {}\n", error.what());
    return kExitCannot;
  }
}
