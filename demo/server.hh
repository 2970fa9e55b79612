// server.hh - the hardened server: one process, one thread, one wait over all its nodes.
#pragma once

#include "demo/author.hh"
#include "demo/tally.hh"

namespace demo {

struct Limits {
  size_t guests;     // connections at once
  double patience;   // seconds, with a peer that owes something
  uint32_t answers;  // to datagrams of one address in a second
};

// Serves until SIGTERM. seed: of the author. Says on standard error which peer it drops and why, and what is wrong with
// an honest one in its faults. Returns the exit code.
int RunServer(Shared* shared, uint64_t seed, const Keys& keys, const Limits& limits);

}  // namespace demo
