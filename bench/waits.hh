// waits.hh - the waits that are compared: those on nodes, and bare calls on the same file descriptors.
#pragma once

#include <memory>
#include <vector>

#include "mqnode/mqnode.h"

namespace bench {

class Waiter {
 public:
  virtual ~Waiter() = default;
  // Waits until something is ready and returns how many nodes are.
  virtual size_t Wait() = 0;
};

struct WaitKind {
  const char* name;
  std::unique_ptr<Waiter> (*make)(const std::vector<MQNode*>& nodes);
};

// mnPostExMSec, mnNPostExMSec, select, poll, epoll, and select with descriptors in records, in this order.
const std::vector<WaitKind>& WaitKinds();

}  // namespace bench
