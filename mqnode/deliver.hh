// deliver.hh - the fast path of a write, inline: nothing is queued, and the socket accepts the whole message. All other
// cases are handled by functions of deliver.cc.
#pragma once

#include "mqnode/node.hh"
#include "socksin/transfer.hh"

namespace mq {

// Ends a failed write: releases the descriptor and sets the node's error. Always returns 0.
inline int Drop(MQNode* node, IoBuffer* desc, int code) {
  Release(desc);
  node->error = code;
  return 0;
}

inline bool IsAtWriteLimit(const MQNode* node) {
  return node->writeLimit > 0 && node->writesOutstanding >= node->writeLimit;
}

// Handles a write when writeLimit is reached or earlier writes are queued. Takes ownership of desc.
int WriteBehind(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority);

// Handles a write that the socket accepted in part or, if taken is 0, not at all. Takes ownership of desc.
int WriteUnfinished(MQNode* node, SockAddrRec* to, IoBuffer* desc, int taken);

// mnWriteToNode for a new descriptor, whose sent and flags are 0, on a node whose error is 0.
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
