// deliver.hh - the straight road of a write, inline for the writers: nothing is queued and the socket takes it all.
// Every other road leaves it through a function of deliver.cc.
#pragma once

#include "mqnode/node.hh"
#include "socksin/transfer.hh"

namespace mq {

inline void Release(IoBuffer* desc) {
  DeleteBuffer(desc);
  FreeMemory(desc);
}

// A write that finds the limit reached or others waiting; takes desc as mnWriteToNode does.
int WriteBehind(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority);

// A write that the socket took in part, or, with taken 0, not at all; takes desc as mnWriteToNode does.
int WriteUnfinished(MQNode* node, SockAddrRec* to, IoBuffer* desc, int taken);

// What mnWriteToNode does.
[[gnu::always_inline]] inline int WriteToNode(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority) {
  node->error = MQ_OK;
  const bool limited = node->writeLimit > 0 && node->writesOutstanding >= node->writeLimit;
  if (limited || node->pending != nullptr) [[unlikely]]
    return WriteBehind(node, to, desc, highPriority);
  desc->sent = 0;
  desc->flags = 0;
  const int taken = Send(&node->sock, desc, to);
  if (!taken || desc->sent < desc->length) [[unlikely]]
    return WriteUnfinished(node, to, desc, taken);
  Release(desc);
  node->writesCompleted += 1;
  Trace("mnWriteToNode", node);
  return 1;
}

}  // namespace mq
