// open.cc - opens nodes by connecting or accepting; closes and deletes them.
// Not here: creating nodes (create.cc), sending queued writes (deliver.cc).
// Invariant: each node owns exactly one receive buffer and one file descriptor; nothing is released twice.
#include "mqnode/open.h"

#include "mqnode/node.hh"
#include "mqnode/wire.hh"
#include "queue/queue.h"
#include "socksin/connect.h"

namespace {

// Makes the child of an accepted connection from a copy of its parent. If there is no memory, closes the connection and
// sets parent->child to null.
void MakeChild(MQNode* parent, SockRec* accepted) {
  void* block = nullptr;
  const int allocated = fNewMemory(&block, sizeof(MQNode), "MQNode");
  auto* const child = static_cast<MQNode*>(block);
  parent->child = child;
  if (!allocated) {
    DeleteSocket(accepted);
    return;
  }
  *child = *parent;
  child->sock = *accepted;
  child->sock.owner = child;
  child->role = MQ_ROLE_CONNECT;
  child->openState = 1;
  child->child = nullptr;
  // The copy gave the queue and the receive buffer to the child.
  parent->pending = nullptr;
  mq::CreateReceiveBuffer(&parent->recvBuffer, mq::kHeaderLength);
}

int Accept(MQNode* node) {
  SockRec accepted;
  const int result = AcceptClient(&node->sock, &accepted);
  if (result) MakeChild(node, &accepted);
  return result;
}

}  // namespace

int mnOpen(MQNode* node) {
  int result = 0;
  node->error = MQ_OK;
  if (node->openState != 0) return static_cast<int>(node->openState);
  if (node->role == MQ_ROLE_CONNECT) {
    result = ConnectSocket(&node->sock, &node->addr);
    node->openState = static_cast<uint32_t>(result);
  } else if (node->role == MQ_ROLE_LISTEN) {
    result = Accept(node);
  }
  mq::CopySocketError(node);
  mq::Trace("mnOpen", node);
  return result;
}

int mnClose(MQNode* node) {
  mq::Trace("mnClose", node);
  mnClearPeningIO(node);
  const int result = DeleteSocket(&node->sock);
  DeleteBuffer(&node->recvBuffer);
  node->openState = 0;
  mq::CopySocketError(node);
  return result;
}

void mnClearPeningIO(MQNode* node) {
  mq::Trace("mnClearPeningIO", node);
  if (node->pending == nullptr) return;
  while (Qdepth(node->pending) > 0) {
    auto* const desc = static_cast<IoBuffer*>(Qget(node->pending));
    if (desc != nullptr) mq::Release(desc);
  }
  Qfree(&node->pending);
}

int DeleteMQNode(MQNode* node) {
  if (node == nullptr) return 0;
  mq::Trace("DeleteMQNode", node);
  mnClose(node);
  FreeMemory(node);
  return 1;
}
