// server.hh - the server of the demonstration: one process, one thread, one engine that waits for all nodes.
#pragma once

#include <string>
#include <vector>

#include "demo/author.hh"
#include "demo/tally.hh"

namespace demo {

struct Limits {
  size_t guests;     // connections at once
  double patience;   // seconds, with an unfinished message or unread answers
  uint32_t answers;  // per second, to the datagrams of one address
};

// The engines of this build. The first one, the default, waits over all nodes at once; the others are event loops.
std::vector<std::string> Engines();

// Serves until SIGTERM. Logs the peers that it drops to standard error; wrong messages of honest clients go to its
// faults. seed: of the author. Returns the exit code.
int RunServer(Shared* shared, uint64_t seed, const Keys& keys, const Limits& limits, const std::string& engine);

}  // namespace demo
