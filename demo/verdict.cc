// verdict.cc - a run is right when nothing was lost, nothing changed on the way, both ends counted the same, every
// misbehaving client got the error that it deserves, and nobody else got any.
#include "demo/verdict.hh"

#include <fmt/format.h>

#include <algorithm>

#include "mqnode/errors.h"

namespace demo {
namespace {

using Problems = std::vector<std::string>;

void Add(KindTally* sum, const KindTally& part) {
  sum->clients += part.clients;
  sum->questions += part.questions;
  sum->answers += part.answers;
  sum->bytesSent += part.bytesSent;
  sum->bytesReceived += part.bytesReceived;
  sum->resends += part.resends;
  sum->repeats += part.repeats;
  sum->queued += part.queued;
  sum->latency.Merge(part.latency);
}

void Expect(Problems* problems, std::string_view what, uint64_t is, uint64_t expected) {
  if (is != expected) problems->push_back(fmt::format("{}: {} instead of {}", what, is, expected));
}

void CheckClients(const Shared& shared, const Options& options, Problems* problems) {
  for (int i = 0; i < options.processes; ++i) {
    const WorkerTally& worker = shared.workers[i];
    if (worker.failures != 0) {
      problems->push_back(
          fmt::format("{} clients of process {} failed; first {}", worker.failures, i + 1, worker.firstFailure));
    } else if (worker.firstFailure[0] != '\0') {
      problems->push_back(fmt::format("client process {}: {}", i + 1, worker.firstFailure));
    }
  }
}

KindTally SumOfPort(const Verdict& verdict, int port) {
  KindTally sum{};
  for (int kind = 0; kind < kKinds; ++kind) {
    if (kKindTraits[kind].port == port) Add(&sum, verdict.kinds[static_cast<size_t>(kind)]);
  }
  return sum;
}

// On a stream both ends count the same; a datagram may be lost, and is then sent again.
void CheckPort(const PortTally& server, const KindTally& clients, int port, Problems* problems) {
  const char* const name = kPortTraits[port].name;
  if (kPortTraits[port].isDatagram) {
    const uint64_t most = clients.questions + clients.resends;
    if (server.questions < clients.answers || server.questions > most || server.answers < clients.answers) {
      problems->push_back(fmt::format("{}: the server read {} and answered {}; the clients sent {} and had {} answers",
                                      name, server.questions, server.answers, most, clients.answers));
    }
    return;
  }
  Expect(problems, fmt::format("{}: questions that the server read", name), server.questions, clients.questions);
  Expect(problems, fmt::format("{}: answers that the server wrote", name), server.answers, clients.answers);
  Expect(problems, fmt::format("{}: bytes that the server read", name), server.bytesReceived, clients.bytesSent);
  Expect(problems, fmt::format("{}: bytes that the server wrote", name), server.bytesSent, clients.bytesReceived);
}

void CheckCounts(const Shared& shared, const Verdict& verdict, const Options& options, Problems* problems) {
  Expect(problems, "clients that connected", verdict.all.clients, static_cast<uint64_t>(options.clients));
  for (int kind = 0; kind < kKinds; ++kind) {
    const KindTally& tally = verdict.kinds[static_cast<size_t>(kind)];
    Expect(problems, fmt::format("{}: answers", kKindTraits[kind].name), tally.answers, tally.questions);
  }
  for (int port = 0; port < kPorts; ++port) {
    CheckPort(shared.server.ports[port], SumOfPort(verdict, port), port, problems);
  }
}

RogueResult JudgeRogue(const ServerTally& server, const Rogue& rogue, const RogueTally& tally) {
  const Event* const event = tally.port == 0 ? nullptr : server.FindEvent(rogue.port, tally.port);
  const bool answersRight = tally.answers == rogue.answers;
  const bool errorRight = rogue.code == MQ_OK ? event == nullptr : event != nullptr && event->code == rogue.code;
  const bool endRight = kPortTraits[rogue.port].isDatagram || tally.cutOff;
  return {&rogue, &tally, event, tally.port != 0 && answersRight && errorRight && endRight};
}

void CheckRogues(const ServerTally& server, const Verdict& verdict, Problems* problems) {
  for (const RogueResult& result : verdict.rogues) {
    if (result.right) continue;
    problems->push_back(
        fmt::format("the client that {}: the server had {}, it got {} answers and {}; expected {} and {} answers{}{}",
                    result.rogue->name, result.event == nullptr ? "no error" : mq_error_name(result.event->code),
                    result.tally->answers, result.tally->cutOff ? "was cut off" : "was not cut off",
                    mq_error_name(result.rogue->code), result.rogue->answers,
                    result.tally->failure[0] == '\0' ? "" : "; ", result.tally->failure));
  }
  for (uint32_t i = 0; i < server.eventCount && i < ServerTally::kMostEvents; ++i) {
    const Event& event = server.events[i];
    const bool known = std::any_of(verdict.rogues.begin(), verdict.rogues.end(), [&](const RogueResult& result) {
      return result.rogue->port == event.port && result.tally->port == event.peerPort;
    });
    if (known) continue;
    problems->push_back(fmt::format("{}: the server had {} with an honest client, port {}",
                                    kPortTraits[event.port].name, mq_error_name(event.code), event.peerPort));
  }
}

void CheckServer(const ServerTally& server, const Verdict& verdict, const Options& options, Problems* problems) {
  if (server.failure[0] != '\0') problems->push_back(fmt::format("the server: {}", server.failure));
  uint64_t honest = 0;
  uint64_t orderly = 0;
  uint64_t rogues = 0;
  for (int number = 0; number < options.clients; ++number) {
    honest += !kPortTraits[kKindTraits[KindOf(static_cast<uint32_t>(number))].port].isDatagram;
  }
  for (const RogueResult& result : verdict.rogues) {
    const bool isStream = !kPortTraits[result.rogue->port].isDatagram;
    rogues += isStream;
    orderly += isStream && result.rogue->code == MQ_OK;
  }
  Expect(problems, "connections that the server accepted", server.accepted, honest + rogues);
  Expect(problems, "connections that ended in order", server.farewells, honest + orderly);
  if (server.peakConnections < honest) {
    problems->push_back(fmt::format("only {} of {} connections at once", server.peakConnections, honest));
  }
  Expect(problems, "blocks that the server did not release", server.leftBlocks, 0);
}

}  // namespace

Verdict Judge(const Shared& shared, const Options& options, const Course& course) {
  Verdict verdict{};
  verdict.kinds.resize(kKinds);
  for (const WorkerTally& worker : shared.workers) {
    verdict.asking = std::max(verdict.asking, worker.asking);
    for (size_t kind = 0; kind < kKinds; ++kind) {
      Add(&verdict.kinds[kind], worker.kinds[kind]);
      Add(&verdict.all, worker.kinds[kind]);
    }
  }
  if (!options.honestOnly) {
    for (size_t i = 0; i < Rogues().size(); ++i) {
      verdict.rogues.push_back(JudgeRogue(shared.server, Rogues()[i], shared.rogues[i]));
    }
  }
  // What went wrong from outside comes first: it explains the rest, and without it the rest would only repeat it.
  verdict.problems = course.problems;
  CheckClients(shared, options, &verdict.problems);
  if (!course.problems.empty()) return verdict;
  CheckCounts(shared, verdict, options, &verdict.problems);
  CheckRogues(shared.server, verdict, &verdict.problems);
  CheckServer(shared.server, verdict, options, &verdict.problems);
  return verdict;
}

}  // namespace demo
