// world.hh - a run of one server and its honest clients: first alone and then among rogues, or through a bad network.
#pragma once

#include <string>
#include <vector>

#include "demo/server.hh"
#include "demo/tally.hh"

namespace demo {

struct Options {
  uint32_t clients = 400;
  uint32_t processes = 4;
  uint32_t messages = 0;  // at most of each client; 0: as many as fit into the time
  double seconds = 5;
  bool honestOnly = false;
  bool soak = false;  // rounds through a bad network, and no rogues
  double rate = 0;    // messages a second; 0: as fast as they can
  uint64_t seed = 0;
  std::string engine = Engines().front();  // of the server
};

// A line of the server's log about a peer.
struct Remark {
  int port;  // of the peer
  std::string why;
};

// A rogue and how the server treated it. remark: empty if the server logged nothing.
struct RogueResult {
  const Peer* peer;
  const Seen* seen;
  std::string remark;
  bool right;
};

struct Outcome {
  SharedPtr shared = MakeShared();
  double connecting = 0;  // seconds until every client was connected
  double alone = 0;       // seconds until the rogues came; 0 without rogues
  bool hasRogues = false;
  bool interrupted = false;
  uint64_t lostBySystem = 0;  // datagrams, of all programs on the machine
  std::vector<Remark> remarks;
  std::vector<std::string> problems;  // empty if the run succeeded
  std::vector<RogueResult> rogues;
};

#ifdef MQDEMO_INSTRUMENTED
constexpr bool kInstrumented = true;  // a sanitizer accounts for most of the resident memory
#else
constexpr bool kInstrumented = false;
#endif

// Runs all processes to their end. Stops them if one fails or a deadline passes; a signal makes them finish early.
Outcome RunWorld(const Options& options);

// Adds a problem for each message that was lost or changed, count that differs between the ends, peer that was wrongly
// dropped, and memory or descriptor that was not released.
void Judge(const Options& options, Outcome* outcome);

// Adds up the clients' tallies of this kind, over all processes.
void Sum(const Shared& shared, size_t kind, Tally* sum);

}  // namespace demo
