// world.hh - one server and its honest clients at work, with rogues or through a bad network, from beginning to end.
#pragma once

#include <string>
#include <vector>

#include "demo/tally.hh"

namespace demo {

struct Options {
  uint32_t clients = 400;
  uint32_t processes = 4;
  uint32_t messages = 0;  // most of each client; 0: as many as fit into the time
  double seconds = 5;
  bool honestOnly = false;
  bool soak = false;  // rounds through a bad network, and no rogues
  double rate = 0;    // messages a second; 0: as fast as they can
  uint64_t seed = 0;
};

// What the server said of a peer.
struct Remark {
  int port;  // the peer's
  std::string why;
};

// A rogue beside what the server made of it. remark: empty when it said nothing.
struct RogueResult {
  const Peer* peer;
  const Seen* seen;
  std::string remark;
  bool right;
};

struct Outcome {
  SharedPtr shared = MakeShared();
  double connecting = 0;  // seconds until every client was connected
  bool interrupted = false;
  uint64_t lostBySystem = 0;  // datagrams, of all programs
  std::vector<Remark> remarks;
  std::vector<std::string> problems;  // empty: all was right
  std::vector<RogueResult> rogues;
};

#ifdef MQDEMO_INSTRUMENTED
constexpr bool kInstrumented = true;  // most resident memory is the instrument's, not ours
#else
constexpr bool kInstrumented = false;
#endif

// Runs them to their end, or ends them: when one dies, when a deadline passes. After a signal they end early, in order.
Outcome RunWorld(const Options& options);

// Whether nothing was lost or changed on the way, both ends counted the same, each rogue and no other peer was dropped,
// and nothing was left: adds what was not right to the problems.
void Judge(const Options& options, Outcome* outcome);

// A client tally of this kind, over all processes.
void Sum(const Shared& shared, size_t kind, Tally* sum);

}  // namespace demo
