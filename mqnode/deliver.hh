// deliver.hh - the straight road of a write, inline for the writers: nothing is queued and the socket takes it all.
// Every other road leaves it through a function of deliver.cc.
#pragma once

#include "mqnode/node.hh"
#include "socksin/transfer.hh"

namespace mq {

// Ends a write that goes no further: the descriptor is released, and the result is the operation's.
inline int Drop(MQNode* node, IoBuffer* desc, int code) {
  Release(desc);
  node->error = code;
  return 0;
}

inline bool IsAtWriteLimit(const MQNode* node) {
  return node->writeLimit > 0 && node->writesOutstanding >= node->writeLimit;
}

// A write that finds the limit reached or others waiting; takes desc as mnWriteToNode does.
int WriteBehind(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority);

// A write that the socket took in part, or, with taken 0, not at all; takes desc as mnWriteToNode does.
int WriteUnfinished(MQNode* node, SockAddrRec* to, IoBuffer* desc, int taken);

// What mnWriteToNode does with a descriptor that was never used, on a node without an error.
inline int WriteFresh(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority) {
  if (IsAtWriteLimit(node) || node->pending != nullptr) [[unlikely]]
    return WriteBehind(node, to, desc, highPriority);
  const int taken = Send(&node->sock, desc, to);
  if (!taken || desc->sent < desc->length) [[unlikely]]
    return WriteUnfinished(node, to, desc, taken);
  Release(desc);
  node->writesCompleted += 1;
  Trace("mnWriteToNode", node);
  return 1;
}

}  // namespace mq
