// round.hh - one round: nodes are made, talk through a relay, fall silent, are accounted for and deleted.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/soak/world.hh"

namespace soak {

struct RelayCounts {
  uint64_t connections = 0, bytes = 0, pieces = 0, splits = 0, joins = 0, pauses = 0, cuts = 0;
  struct {
    uint64_t dropped = 0, repeated = 0, late = 0;
  } datagrams[kKinds];
};

struct Outcome {
  Tally tallies[kKinds];
  RelayCounts relay;
  std::vector<std::string> faults;
};

struct Plan {
  const Author* author;
  const mqnode::Signer* signer;
  mqnode::Message* in;
  mqnode::Message* out;
  uint32_t pairs;  // of each kind
  double rate;     // messages a second, of all nodes together
  double seconds;
  uint64_t seed;
  std::function<void(const World&)> watch;  // called now and then
};

Outcome RunRound(const Plan& plan);
}  // namespace soak
