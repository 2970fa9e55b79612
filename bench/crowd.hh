// crowd.hh - many open connections: nodes in this process, bare sockets in another one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "mqnode/mqnode.h"

namespace bench {

class Crowd {
 public:
  // Forks the other process, without connections.
  Crowd();
  ~Crowd();
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  // Accepts connections until there are this many nodes.
  void Grow(size_t nodes);
  // Makes the other process send one plain message to each of these nodes, and waits until it has.
  void Send(size_t first, size_t count);

  std::vector<MQNode*>& nodes() { return nodes_; }

 private:
  [[noreturn]] void Obey();
  void Tell(char order, size_t first, size_t count);

  MQNode* listener_;
  std::vector<MQNode*> nodes_;
  int control_ = -1;
  pid_t peer_ = -1;
};

}  // namespace bench
