#include "demo/report.hh"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "demo/child.hh"

namespace demo {
namespace {

// Formats 1234567 as 1,234,567.
std::string Grouped(uint64_t number) {
  std::string text = fmt::to_string(number);
  for (size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, 1, ',');
  return text;
}

std::string Mib(auto bytes) { return fmt::format("{:.1f}", static_cast<double>(bytes) / (1 << 20)); }

// Builds the text, line by line.
class Text {
 public:
  Text(const Options& options, const Outcome& outcome, bool colors)
      : options_(options), outcome_(outcome), shared_(*outcome.shared), colors_(colors) {}

  std::string Build() {
    Head();
    if (!shared_.go && outcome_.interrupted && outcome_.problems.empty()) return fmt::to_string(out_);
    Clients();
    if (options_.soak) Soak();
    Server();
    Rogues();
    Ending();
    return fmt::to_string(out_);
  }

 private:
  static constexpr const char* kForm = "{:<26}{:>6}{:>13}{:>7}{:>11}{:>10}{:>9}{:>9}{:>9}";

  static std::string Msec(double seconds) { return fmt::format("{:.2f}", seconds * 1e3); }
  static std::string PerSecond(uint64_t count, double seconds) {
    return Grouped(seconds > 0 ? static_cast<uint64_t>(static_cast<double>(count) / seconds) : 0);
  }

  template <typename... Args>
  void Line(fmt::format_string<Args...> form, Args&&... args) {
    fmt::format_to(std::back_inserter(out_), form, std::forward<Args>(args)...);
    out_.push_back('\n');
  }
  std::string Styled(const char* style, const std::string& text) const {
    return colors_ ? fmt::format("\x1b[{}m{}\x1b[0m", style, text) : text;
  }
  void Title(const std::string& text) { Line("\n{}", Styled("1", text)); }

  void Head() {
    if (outcome_.interrupted && !shared_.go) {
      if (outcome_.problems.empty()) Line("mqdemo: interrupted before all clients were connected");
      return;
    }
    Title("mqdemo: one server with one thread, all peers at the same time, on 127.0.0.1");
    Line("{} honest clients in {} processes, {} rogues; connected in {:.1f} s; seed {}{}", options_.clients,
         options_.processes, outcome_.rogues.size(), outcome_.connecting, options_.seed,
         outcome_.interrupted ? "; interrupted" : "");
  }

  void Clients() {
    double talking = 0;
    for (const Process& worker : shared_.workers) talking = std::max(talking, worker.talking);
    Title(fmt::format(kForm, "honest clients", "", "answers", "lost", "MiB", "per s", "p50 ms", "p99 ms", "max ms"));
    for (size_t kind = 0; kind < kKindCount; ++kind) {
      Tally tally{};
      Sum(shared_, kind, &tally);
      Sum(shared_, kind, &all_);
      ClientLine(kKinds[kind].name, tally, talking);
    }
    ClientLine("all", all_, talking);
    if (!outcome_.hasRogues) return;
    PhaseLine("all, before the rogues", kBefore, outcome_.alone);
    PhaseLine("all, among the rogues", kDuring, talking - outcome_.alone);
  }

  void ClientLine(const char* name, const Tally& tally, double seconds) {
    Histogram latency = tally.latency[kBefore];
    latency.Merge(tally.latency[kDuring]);
    Line(kForm, fmt::format("  {}", name), tally[kClients], Grouped(tally[kAnswers]), tally[kLost],
         Mib(tally[kSent] + tally[kReceived]), PerSecond(tally[kAnswers], seconds), Msec(latency.Percentile(0.5)),
         Msec(latency.Percentile(0.99)), Msec(latency.longest));
  }

  void PhaseLine(const char* name, Phase phase, double seconds) {
    const Histogram& latency = all_.latency[phase];
    Line(kForm, fmt::format("  {}", name), all_[kClients], Grouped(latency.total), "", "",
         PerSecond(latency.total, seconds), Msec(latency.Percentile(0.5)), Msec(latency.Percentile(0.99)),
         Msec(latency.longest));
  }

  void Soak() {
    const Process& worker = shared_.workers[0];
    Title("network and resources");
    Line("  connections     {} including datagram sockets, {} cut", Grouped(all_[kSessions]), Grouped(all_[kCut]));
    Line("  calls           {} partial, {} stalled", Grouped(all_[kShort]), Grouped(all_[kStalls]));
    Line("  datagrams       {} dropped, {} doubled; {} lost by the system", Grouped(all_[kDropped]),
         Grouped(all_[kDoubled]), Grouped(outcome_.lostBySystem));
    for (const int i : {0, 1}) {
      const Rest& warm = worker.warm[i];
      const Rest& last = worker.last[i];
      Line("  {:<16}{} blocks in use after warm-up and {} at the end; {} and {} descriptors; {} and {} MiB unaccounted",
           i == 0 ? "clients" : "server", warm.blocks, last.blocks, warm.descriptors, last.descriptors,
           Mib(warm.unexplained), Mib(last.unexplained));
    }
  }

  void Server() {
    const Process& server = shared_.server;
    Title("server");
    Line("  connections     at most {} at once, {} accepted, {} closed in order, {} dropped", Grouped(server.most),
         Grouped(server.accepted), Grouped(server.farewells), Grouped(server.dropped));
    Line("  messages        {} read and written, {:.1f} per wait", Grouped(server.messages),
         static_cast<double>(server.messages) / static_cast<double>(std::max<uint64_t>(server.waits, 1)));
    Line("  memory          at most {} MiB in buffers; {} blocks not released", Mib(server.peakBuffers),
         server.leftBlocks);
  }

  void Rogues() {
    if (outcome_.rogues.empty()) return;
    Title(fmt::format("{:<51}{:<28}{}", "a rogue that ...", "server log", "result"));
    for (const RogueResult& rogue : outcome_.rogues) {
      const std::string saw = rogue.seen->answers != 0 ? "an answer"
                              : rogue.seen->ended      ? fmt::format("closed, {:.1f} s", rogue.seen->seconds)
                                                       : "no answer";
      Line("  {:<49}{:<28}{}{}", rogue.peer->does, rogue.remark.empty() ? "-" : rogue.remark.substr(0, 26), saw,
           rogue.right ? "" : Styled("31", " <- wrong"));
    }
  }

  void Ending() {
    for (const std::string& problem : outcome_.problems) Line("{} {}", Styled("1;31", "FAILED:"), problem);
    if (!outcome_.problems.empty()) return;
    Line("\n{} {} questions, {} answers, each compared byte by byte; {} lost, all accounted for.",
         Styled("1;32", "OK:"), Grouped(all_[kQuestions]), Grouped(all_[kAnswers]), Grouped(all_[kLost]));
  }

  const Options& options_;
  const Outcome& outcome_;
  const Shared& shared_;
  const bool colors_;
  Tally all_{};
  fmt::memory_buffer out_;
};

}  // namespace

void ShowProgress(const std::string& line) {
  if (isatty(STDERR_FILENO) == 1) fmt::print(stderr, "\r{}\x1b[K", line);
}

std::string TextOf(const Options& options, const Outcome& outcome, bool colors) {
  return Text(options, outcome, colors).Build();
}

std::string TextOf(std::span<const Trial> trials) {
  constexpr const char* kForm = "{:<17}{:>15}{:>15}{:>17}{:>13}{:>11}  {}\n";
  std::string text = fmt::format(kForm, "server", "honest, before", "during", "newcomers", "server MiB", "files", "");
  text += fmt::format(kForm, "  attack", "p50 / p99 ms", "p50 / p99 ms", "served / longest", "peak / end", "most / end",
                      "verdict");
  const Target* target = nullptr;
  size_t unfinished = 0;
  for (const Trial& trial : trials) {
    const Shared& shared = *trial.shared;
    if (IsInterrupted() && !shared.ended) {
      ++unfinished;
      continue;
    }
    const auto times = [&](Phase phase) {
      const Histogram& latency = TallyOf(trial, kSteady).latency[phase];
      return fmt::format("{:.2f} / {:.2f}", latency.Percentile(0.5) * 1e3, latency.Percentile(0.99) * 1e3);
    };
    const Histogram& newcomers = TallyOf(trial, kNewcomer).latency[kDuring];
    const std::vector<std::string> faults = FaultsOf(trial);
    if (trial.target != target) text += fmt::format("{}\n", trial.target->name);
    target = trial.target;
    text += fmt::format(kForm, fmt::format("  {}", trial.peer->name), times(kBefore), times(kDuring),
                        fmt::format("{} / {:.0f} ms", newcomers.total, newcomers.longest * 1e3),
                        fmt::format("{} / {}", shared.after.peakKb / 1024, shared.after.residentKb / 1024),
                        fmt::format("{} / {}", shared.held.descriptors, shared.after.descriptors),
                        !faults.empty() ? "HIT"
                        : shared.ended  ? "withstood"
                                        : "not run");
    for (const std::string& fault : faults) text += fmt::format("    {}\n", fault);
  }
  if (unfinished != 0) text += fmt::format("interrupted: {} of {} attacks not finished\n", unfinished, trials.size());
  return text;
}

}  // namespace demo
