// datagrams.hh - pairs of datagram nodes of one kind that write to each other through the relay, and the account of
// every datagram: delivered intact, as often and in the order that the relay brought it about; a signed one only once.
#pragma once

#include <memory>
#include <vector>

#include "tests/soak/world.hh"

namespace soak {

class Datagrams {
 public:
  Datagrams(World* world, int kind, uint32_t firstPair, uint32_t pairs);
  ~Datagrams();
  Datagrams(const Datagrams&) = delete;
  Datagrams& operator=(const Datagrams&) = delete;

  void Start();        // once the relay is there
  void Write();        // what is due
  bool Quiet() const;  // all that the relay passes on has arrived
  void Account();      // after the end

 private:
  class Peer;

  World& world_;
  const int kind_;
  const int firstSlot_;  // of the relay's table
  std::vector<std::unique_ptr<Peer>> peers_;
};

}  // namespace soak
