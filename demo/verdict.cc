// verdict.cc - checks the counts of both ends of a run against each other.
#include <fmt/format.h>

#include <algorithm>

#include "demo/world.hh"

namespace demo {
namespace {

constexpr int64_t kMostGrowth = 16 << 20;  // resident bytes beyond the companion's account, which the heap may keep

class Verdict {
 public:
  Verdict(const Options& options, Outcome* outcome)
      : options_(options), outcome_(*outcome), shared_(*outcome->shared), server_(shared_.server) {}

  void Judge() {
    // If a process failed, its faults are the cause, and the counts would only repeat it.
    AddFaults(server_.faults);
    for (const Process& worker : shared_.workers) AddFaults(worker.faults);
    if (!outcome_.problems.empty()) return AddRemarks();
    for (size_t kind = 0; kind < kKindCount; ++kind) CheckKind(kind);
    size_t index = 0;
    for (const Peer& peer : Peers()) {
      if (peer.does != nullptr && outcome_.hasRogues) CheckRogue(peer, shared_.rogues[index++]);
    }
    CheckServer();
    if (!options_.soak || outcome_.interrupted) return;
    const Process& worker = shared_.workers[0];
    CheckRest("the clients", worker.warm[0], worker.last[0]);
    CheckRest("the server", worker.warm[1], worker.last[1]);
  }

 private:
  void AddFaults(const Faults& faults) {
    for (uint32_t i = 0; i < faults.kept(); ++i) outcome_.problems.push_back(faults.lines[i]);
  }

  // The server's log may explain the problems.
  void AddRemarks() {
    for (size_t i = 0; i < std::min<size_t>(outcome_.remarks.size(), 4); ++i) {
      outcome_.problems.push_back(fmt::format("the server's log says of a peer: {}", outcome_.remarks[i].why));
    }
  }

  void Expect(std::string_view who, std::string_view what, uint64_t is, uint64_t least, uint64_t most) {
    if (is >= least && is <= most) return;
    const std::string range = least == most ? fmt::to_string(most) : fmt::format("{} to {}", least, most);
    outcome_.problems.push_back(fmt::format("{}: {}: {}, expected {}", who, what, is, range));
  }

  // On a connection that was not cut, both ends have the same counts. Missing datagrams were dropped, and repeated ones
  // doubled, by the chaos, or by the system in a direction that is not known.
  void CheckKind(size_t index) {
    const Kind& kind = kKinds[index];
    const Tally& server = server_.kinds[index];
    Tally clients{};
    Sum(shared_, index, &clients);
    const bool datagrams = IsDatagram(kind.port), isSigned = IsSigned(kind.port);
    const uint64_t dropped = clients[kDropped], doubled = clients[kDoubled], lost = clients[kLost];
    const uint64_t system = datagrams ? outcome_.lostBySystem : 0;
    const auto expect = [&](std::string_view what, uint64_t is, uint64_t least, uint64_t most) {
      Expect(kind.name, what, is, least, most);
    };
    expect("questions answered or lost", clients[kAnswers] + lost, clients[kQuestions], clients[kQuestions]);
    expect("questions read by the server", server[kQuestions], clients[kAnswers], clients[kQuestions]);
    expect("answers by the server", server[kAnswers], clients[kAnswers], server[kQuestions] + server[kAgain]);
    if (lost == 0 && !datagrams) expect("bytes read by the server", server[kReceived], clients[kSent], clients[kSent]);
    const uint64_t most = datagrams ? dropped + system : clients[kCut] != 0 ? UINT64_MAX : 0;
    expect("questions that got lost", lost, dropped > doubled ? dropped - doubled : 0, most);
    expect("questions read again", server[kAgain], 0, isSigned ? 0 : doubled);
    expect("answers that came again", clients[kAgain], 0, server[kAgain]);
    const uint64_t copies = isSigned ? doubled : 0;
    if (options_.soak) expect("copies refused", server[kRefused], copies - std::min(system, copies), copies);
    if (!datagrams) streams_ += clients[kSessions];
    cut_ += clients[kCut];
  }

  // Checks that the server has logged the expected line about a rogue, or none.
  void CheckRogue(const Peer& peer, const Seen& seen) {
    const auto remark = std::ranges::find(outcome_.remarks, seen.port, &Remark::port);
    const std::string says = remark != outcome_.remarks.end() ? remark->why : "";
    const bool isExpected = *peer.says == '\0' ? says.empty() : says.find(peer.says) != std::string::npos;
    const bool right = isExpected && seen.answers == peer.answers && (IsDatagram(peer.port) || seen.ended);
    outcome_.rogues.push_back({&peer, &seen, says, right});
    if (right) return;
    outcome_.problems.push_back(
        fmt::format("the rogue that {}: the server logged '{}', not '{}'; {} answers; connection {}", peer.does, says,
                    peer.says, seen.answers, seen.ended ? "closed" : "open"));
  }

  void CheckServer() {
    uint64_t rogues = 0, orderly = 0;
    for (const RogueResult& rogue : outcome_.rogues) {
      rogues += !IsDatagram(rogue.peer->port);
      orderly += *rogue.peer->says == '\0';
    }
    const uint64_t uncut = streams_ - std::min(cut_, streams_);
    Expect("the server", "connections accepted", server_.accepted, uncut + rogues, streams_ + rogues);
    Expect("the server", "connections that ended in order", server_.farewells, uncut + orderly, streams_ + orderly);
    Expect("the server", "blocks not released", server_.leftBlocks, 0, 0);
    if (options_.soak) return Expect("the server", "connections dropped", server_.dropped, 0, cut_);
    for (const Remark& remark : outcome_.remarks) {
      const auto isIt = [&](const RogueResult& rogue) { return rogue.seen->port == remark.port; };
      if (std::ranges::none_of(outcome_.rogues, isIt)) {
        outcome_.problems.push_back(fmt::format("the server's log says of an honest client: {}", remark.why));
      }
    }
  }

  void CheckRest(const char* who, const Rest& warm, const Rest& last) {
    Expect(who, "blocks in use at the end", last.blocks, warm.blocks, warm.blocks);
    Expect(who, "open descriptors at the end", static_cast<uint64_t>(last.descriptors), 0,
           static_cast<uint64_t>(warm.descriptors));
    const int64_t growth = last.unexplained - warm.unexplained;
    if (!kInstrumented && growth > kMostGrowth) {
      outcome_.problems.push_back(fmt::format("{}: resident memory grew by {} KiB", who, growth / 1024));
    }
  }

  const Options& options_;
  Outcome& outcome_;
  const Shared& shared_;
  const Process& server_;
  uint64_t streams_ = 0, cut_ = 0;
};

}  // namespace

void Sum(const Shared& shared, size_t kind, Tally* sum) {
  for (const Process& worker : shared.workers) {
    for (size_t i = 0; i < kCounts; ++i) sum->counts[i] += worker.kinds[kind].counts[i];
    for (size_t phase = 0; phase < kPhases; ++phase) sum->latency[phase].Merge(worker.kinds[kind].latency[phase]);
  }
}

void Judge(const Options& options, Outcome* outcome) { Verdict(options, outcome).Judge(); }

}  // namespace demo
