// node.cc - trace callbacks, error state and buffer sizes of nodes.
// Not here: creating nodes (create.cc), opening and closing them (open.cc).
// Invariant: only mnSetBufferSize makes system calls.
#include "mqnode/node.h"

#include "mqnode/node.hh"
#include "socksin/options.h"

MQNodeTraceFn G_node_trace = nullptr;

void RunTraceMethod(const char* name, MQNode* node) { mq::Trace(name, node); }

int mnSetTraceCallBack(MQNodeTraceFn fn, MQNode* node) {
  node->onTrace = fn;
  return 1;
}

int mnGSetTraceCallBack(MQNodeTraceFn fn) {
  G_node_trace = fn;
  return 1;
}

void SetMQNodeError(MQNode* node) { mq::CopySocketError(node); }

int IsNodeFailed(MQNode* node) {
  if (node == nullptr) return 1;
  return node->error != MQ_OK && node->error != MQ_WRITE_LIMIT;
}

int mnSetBufferSize(MQNode* node, uint32_t size) {
  SockOption sendSize = {SOCK_OPT_SNDBUF, static_cast<int32_t>(size), 0};
  SockOption receiveSize = {SOCK_OPT_RCVBUF, static_cast<int32_t>(size), 0};
  const int sendSet = SetSocketOptions(&node->sock, &sendSize);
  const int receiveSet = SetSocketOptions(&node->sock, &receiveSize);
  return sendSet && receiveSet;
}
