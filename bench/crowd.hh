// crowd.hh - many connections held at once: nodes here, bare sockets in a process of their own.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "mqnode/mqnode.h"

namespace bench {

class Crowd {
 public:
  // Forks the other process; no connection yet.
  Crowd();
  ~Crowd();
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  // Accepts connections until so many nodes are held.
  void Grow(size_t nodes);
  // Has the other side send each of these nodes one plain message, and waits until it has done so.
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
