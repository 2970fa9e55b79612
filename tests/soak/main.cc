// main.cc - mqsoak: rounds of talk until the time is over, memory after each, a table, the exit code.
#include <fmt/format.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/soak/round.hh"

namespace {

using namespace soak;

constexpr int kExitFault = 1;
constexpr int kExitCannot = 2;
constexpr double kWarmUpShare = 0.2;        // of the time
constexpr int64_t kMostGrowth = 4 << 20;    // bytes of resident memory beside what the companion's account explains
constexpr uint32_t kReplayLimit = 1 << 16;  // signed messages that are remembered: reached in a long run, so that
                                            // forgetting happens too
constexpr const char* kNames[kKinds] = {"stream", "signed stream", "datagram", "signed datagram"};
#ifdef MQSOAK_INSTRUMENTED
constexpr bool kInstrumented = true;  // the resident memory is the instrument's, not ours
#else
constexpr bool kInstrumented = false;
#endif

struct Options {
  double seconds = 60;
  uint32_t nodes = 64;
  double rate = 2000;
  uint64_t seed = 0;
  bool json = false;
};

struct Memory {
  uint64_t blocks = 0;
  uint64_t bytes = 0;
  int64_t resident = 0;
};

struct Report {
  uint64_t seed = 0;
  double seconds = 0;
  int rounds = 0;
  Tally tallies[kKinds];
  RelayCounts relay;
  Memory warm, last;
  std::vector<std::string> faults;
};

// What is left when no node lives.
Memory Measure() {
  MqcMemory account, replay;
  mqc_memory(nullptr, &account);
  mqc_memory("replay", &replay);  // grows with the messages that were accepted, up to its limit
  malloc_trim(0);
  int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return {account.live_blocks - replay.live_blocks, account.live_bytes, pages * sysconf(_SC_PAGESIZE)};
}

void Add(Report* report, const Outcome& outcome) {
  for (int kind = 0; kind < kKinds; ++kind) {
    Tally& sum = report->tallies[kind];
    const Tally& part = outcome.tallies[kind];
    sum.nodes = part.nodes;
    for (uint64_t Tally::*const field :
         {&Tally::written, &Tally::delivered, &Tally::bytes, &Tally::queued, &Tally::limited, &Tally::lost,
          &Tally::sessions, &Tally::early, &Tally::missing, &Tally::repeats, &Tally::replays, &Tally::late}) {
      sum.*field += part.*field;
    }
  }
  for (uint64_t RelayCounts::*const field :
       {&RelayCounts::connections, &RelayCounts::bytes, &RelayCounts::pieces, &RelayCounts::splits, &RelayCounts::joins,
        &RelayCounts::pauses, &RelayCounts::cuts}) {
    report->relay.*field += outcome.relay.*field;
  }
  report->faults.insert(report->faults.end(), outcome.faults.begin(), outcome.faults.end());
}

// Who signs, and whose signatures are accepted.
mqnode::Signer MakeSigner() {
  uint8_t secret[MQC_KEY_BYTES], known[MQC_KEY_BYTES];
  mqnode::ErrorText why;
  const std::string user(mqnode::Node::datagram({"127.0.0.1", "0", "udp"}).user());
  if (!mqc_generate_key(secret, known) || !mqc_ring_add(user.c_str(), known, why.text, sizeof why.text)) {
    throw std::runtime_error(fmt::format("no keys: {}", why.text));
  }
  mqnode::Signer signer = mqnode::Signer::create(user.c_str(), secret, &why);
  mqc_wipe(secret, sizeof secret);
  if (!signer) throw std::runtime_error(fmt::format("no signer: {}", why.text));
  return signer;
}

void ShowProgress(const World& world, double began, const Options& options) {
  static double next;
  if (world.now < next) return;
  next = world.now + 0.5;
  uint64_t delivered = 0, early = 0;
  for (const Tally& tally : world.tallies) delivered += tally.delivered;
  early = world.shared.cuts;
  fmt::print(stderr, "\r\x1b[K{:.0f} of {:.0f} s: this round {} delivered, {} connections cut ", world.now - began,
             options.seconds, delivered, early);
}

Report Soak(const Options& options) {
  Report report;
  report.seed = options.seed;
  const bool terminal = isatty(STDERR_FILENO) == 1;
  const double began = Now();
  mqnode::Signer signer = MakeSigner();
  mqnode::Message in = mqnode::Message::create(), out = mqnode::Message::create();
  mqc_set_replay_limit(kReplayLimit);
  const Author author(options.seed);
  const double length = std::clamp(options.seconds / 10, 1.0, 30.0);
  bool warm = false;
  while (report.faults.empty() && (report.rounds < 2 || !warm || Now() - began < options.seconds)) {
    const Plan plan{&author,
                    &signer,
                    &in,
                    &out,
                    options.nodes / 2 / kKinds,
                    options.rate,
                    length,
                    options.seed + static_cast<uint64_t>(++report.rounds) * 1000,
                    [&](const World& world) {
                      if (terminal) ShowProgress(world, began, options);
                    }};
    Add(&report, RunRound(plan));
    report.last = Measure();
    if (!warm) report.warm = report.last;
    warm = warm || Now() - began >= options.seconds * kWarmUpShare;
  }
  if (terminal) fmt::print(stderr, "\r\x1b[K");
  report.seconds = Now() - began;
  if (report.last.blocks != report.warm.blocks) {
    report.faults.push_back(
        fmt::format("{} blocks live at the end, {} after the warm-up", report.last.blocks, report.warm.blocks));
  }
  const auto explained = static_cast<int64_t>(report.last.bytes) - static_cast<int64_t>(report.warm.bytes);
  const int64_t growth = report.last.resident - report.warm.resident - explained;
  if (!kInstrumented && growth > kMostGrowth) {
    report.faults.push_back(fmt::format("resident memory grew by {} KiB", growth / 1024));
  }
  return report;
}

std::string TableOf(const Report& report) {
  std::string text =
      fmt::format("{:<16}{:>6}{:>10}{:>10}{:>9}{:>8}{:>8}{:>8}{:>8}{:>8}{:>8}{:>8}{:>8}\n", "kind", "nodes", "written",
                  "delivered", "MiB", "queued", "limited", "lost", "cut", "missing", "again", "refused", "late");
  for (int kind = 0; kind < kKinds; ++kind) {
    const Tally& it = report.tallies[kind];
    text += fmt::format("{:<16}{:>6}{:>10}{:>10}{:>9.1f}{:>8}{:>8}{:>8}{:>8}{:>8}{:>8}{:>8}{:>8}\n", kNames[kind],
                        it.nodes, it.written, it.delivered, static_cast<double>(it.bytes) / (1 << 20), it.queued,
                        it.limited, it.lost, it.early, it.missing, it.repeats, it.replays, it.late);
  }
  const RelayCounts& relay = report.relay;
  text += fmt::format(
      "relay: {} connections, {} cut; {:.1f} MiB in {} pieces, {} split, {} joined, {} pauses\n"
      "memory, without nodes: {} blocks after the warm-up, {} at the end; resident {} and {} KiB, of which the account "
      "explains {} and {} KiB\n"
      "{} rounds in {:.0f} s, seed {}\n",
      relay.connections, relay.cuts, static_cast<double>(relay.bytes) / (1 << 20), relay.pieces, relay.splits,
      relay.joins, relay.pauses, report.warm.blocks, report.last.blocks, report.warm.resident / 1024,
      report.last.resident / 1024, report.warm.bytes / 1024, report.last.bytes / 1024, report.rounds, report.seconds,
      report.seed);
  for (const std::string& fault : report.faults) text += fmt::format("FAULT: {}\n", fault);
  return text + (report.faults.empty() ? "Every message is accounted for.\n" : "");
}

std::string JsonOf(const Report& report) {
  using nlohmann::ordered_json;
  ordered_json kinds = ordered_json::array();
  for (int kind = 0; kind < kKinds; ++kind) {
    const Tally& it = report.tallies[kind];
    kinds.push_back({{"kind", kNames[kind]},
                     {"nodes", it.nodes},
                     {"written", it.written},
                     {"delivered", it.delivered},
                     {"bytes", it.bytes},
                     {"queued", it.queued},
                     {"refused_by_limit", it.limited},
                     {"lost_and_reported", it.lost},
                     {"connections", it.sessions},
                     {"connections_cut", it.early},
                     {"missing", it.missing},
                     {"delivered_again", it.repeats},
                     {"replays_refused", it.replays},
                     {"late", it.late}});
  }
  const auto memory = [](const Memory& from) {
    return ordered_json{{"blocks", from.blocks}, {"bytes", from.bytes}, {"resident", from.resident}};
  };
  const RelayCounts& relay = report.relay;
  return ordered_json{{"ok", report.faults.empty()},
                      {"seconds", report.seconds},
                      {"rounds", report.rounds},
                      {"seed", report.seed},
                      {"kinds", kinds},
                      {"relay",
                       {{"connections", relay.connections},
                        {"cut", relay.cuts},
                        {"bytes", relay.bytes},
                        {"pieces", relay.pieces},
                        {"split", relay.splits},
                        {"joined", relay.joins},
                        {"pauses", relay.pauses}}},
                      {"memory_warm", memory(report.warm)},
                      {"memory_end", memory(report.last)},
                      {"faults", report.faults}}
             .dump(2) +
         "\n";
}

void Describe(CLI::App* app, Options* options) {
  app->description(
      "Many nodes talk for a long time, through a relay that delays, splits, joins and cuts streams and drops, "
      "repeats\n"
      "and delays datagrams. Every message is accounted for at both ends. Everything stays on 127.0.0.1.");
  app->add_option("--seconds", options->seconds, "how long, 2 to 604800")
      ->check(CLI::Range(2.0, 604800.0))
      ->capture_default_str();
  app->add_option("--nodes", options->nodes, "how many, 8 to 4000; a quarter of each kind")
      ->check(CLI::Range(8, 2 * kMostPairs - 96))
      ->capture_default_str();
  app->add_option("--rate", options->rate, "messages a second, of all nodes together")
      ->check(CLI::Range(1.0, 1e6))
      ->capture_default_str();
  app->add_option("--seed", options->seed, "of all content and mischief; another one each time by itself");
  app->add_flag("--json", options->json, "report as JSON");
  app->footer("Exit code: 0 every message is accounted for and memory is as it was, 1 not so, 2 it could not be run.");
}

// A node, and up to two of the relay's.
void RaiseDescriptorLimit(uint32_t nodes) {
  const rlim_t needed = 3 * rlim_t{nodes} + 64;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur >= needed) return;
  limit.rlim_cur = needed;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    throw std::runtime_error(fmt::format("needs {} open files (ulimit -Hn)", needed));
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app;
  Describe(&app, &options);
  try {
    options.seed = std::random_device{}();
    app.parse(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    unsetenv("TEVRA_HOME");  // with it every node would start a shell to learn the name of this program
    RaiseDescriptorLimit(options.nodes);
    const Report report = Soak(options);
    fmt::print("{}", options.json ? JsonOf(report) : TableOf(report));
    return report.faults.empty() ? 0 : kExitFault;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitCannot;
  } catch (const std::exception& error) {
    fmt::print(stderr, "mqsoak: {}\n", error.what());
    return kExitCannot;
  }
}
