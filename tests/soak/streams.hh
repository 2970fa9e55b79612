// streams.hh - pairs of stream nodes of one kind that write to each other through the relay, and the account of every
// message: delivered once, in order, intact; or lost on a connection whose end both nodes have reported.
#pragma once

#include <list>
#include <memory>
#include <vector>

#include "tests/soak/world.hh"

namespace soak {

class Streams {
 public:
  Streams(World* world, int kind, uint32_t firstPair, uint32_t pairs);
  ~Streams();
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  void Start();        // connects; once the relay is there
  void Write();        // what is due
  bool Quiet() const;  // all that was written is delivered, or lost with its connection
  void End();          // ends the connections, in order
  bool Ended() const { return peers_.empty(); }
  void Account();  // after the end

 private:
  struct Session;
  class Peer;
  class Listener;

  void Connect(uint32_t pair);
  void Adopt(mqnode::Node node);

  World& world_;
  const int kind_;
  const uint32_t firstPair_;
  const uint32_t pairs_;
  std::unique_ptr<Listener> listener_;
  std::vector<std::unique_ptr<Session>> sessions_;
  std::list<std::unique_ptr<Peer>> peers_;
  std::list<std::unique_ptr<Peer>> gone_;  // have ended, in the middle of their own doing
  bool ending_ = false;
};

}  // namespace soak
