// world.hh - what the nodes of a round share: the wait, the message records, the tallies, the faults.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "mqnode/mqnode.hpp"
#include "tests/soak/content.hh"
#include "tests/soak/relay.hh"

namespace soak {

// Messages of one kind. What was written was delivered, or is in one of the counts below.
struct Tally {
  uint64_t nodes = 0;
  uint64_t written = 0;    // taken by the library: sent or queued
  uint64_t delivered = 0;  // once, in order, intact
  uint64_t bytes = 0;      // delivered, raw messages
  uint64_t queued = 0;     // of the written ones: not sent at once
  uint64_t limited = 0;    // refused by the write limit: not written
  uint64_t lost = 0;       // stream: not delivered, and both nodes reported that the connection had ended
  uint64_t sessions = 0;   // stream: connections
  uint64_t early = 0;      // of these: ended by the relay
  uint64_t missing = 0;    // datagram: not delivered
  uint64_t repeats = 0;    // datagram, plain: delivered again
  uint64_t replays = 0;    // datagram, signed: refused
  uint64_t late = 0;       // datagram: delivered after one that was written later
};

// A node, and what is to happen when the wait lists it.
class Member {
 public:
  virtual ~Member() = default;
  virtual void OnReadable() = 0;
  virtual void OnWritable() = 0;

  mqnode::Node node;
};

struct World {
  World(Shared* sharedArea, const Author& theAuthor, const mqnode::Signer& theSigner, mqnode::Message* read,
        mqnode::Message* written, uint64_t seed, double averageGap)
      : shared(*sharedArea),
        author(theAuthor),
        signer(theSigner),
        in(*read),
        out(*written),
        dice(seed),
        gap(averageGap) {}

  Shared& shared;
  const Author& author;
  const mqnode::Signer& signer;
  mqnode::Message& in;
  mqnode::Message& out;
  Dice dice;
  double gap;  // seconds between two messages of a node, on average
  double now = 0;
  bool writing = false;  // cut connections are made anew
  mqnode::WaitSet set;
  std::unordered_map<MQNode*, Member*> members;
  std::vector<std::string> faults;
  Tally tallies[kKinds];

  void Fault(std::string what) {
    if (faults.size() < 20) faults.push_back(std::move(what));
  }
  bool Join(Member* member) {
    members[member->node.get()] = member;
    return static_cast<bool>(member->node.set_blocking(false)) && set.add(member->node);
  }
  void Leave(Member* member) {
    set.remove(member->node);
    members.erase(member->node.get());
  }
  double NextTurn() { return now + gap * static_cast<double>(dice.Below(2000)) * 1e-3; }
  mqnode::Result Read(int kind, mqnode::NodeRef node) { return IsSigned(kind) ? node.read_signed(in) : node.read(in); }
};

}  // namespace soak
