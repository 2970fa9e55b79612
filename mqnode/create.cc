// create.cc - creates nodes: record, identity, socket and operation table.
// Not here: the operations in that table (open.cc, read.cc, compose.cc, wait.cc).
// Invariant: a null result means that there was no memory for the node, and that nothing was done.
#include "mqnode/create.h"

#include <cstring>

#include "mqnode/compose.h"
#include "mqnode/identity.h"
#include "mqnode/node.hh"
#include "mqnode/open.h"
#include "mqnode/read.h"
#include "mqnode/wait.h"
#include "mqnode/wire.hh"
#include "socksin/connect.h"
#include "sockutil/text.hh"

namespace {

constexpr uint32_t kNodeType = 2;
constexpr int32_t kNoWriteLimit = -1;
constexpr uint32_t kPendingLimit = 100;
constexpr int kAcceptBacklog = 5;
constexpr size_t kLoginSize = 48;
constexpr size_t kApplNameLength = sizeof(MQNode::applName);

void TakeUser(MQNode* node) {
  char login[kLoginSize];
  int length = sizeof login;
  constexpr int kMaxLength = sizeof node->user - 1;
  if (!GetUserName(login, &length) || length < 0) return;
  mq::CopyPadded(node->user, sizeof node->user, login, static_cast<size_t>(length < kMaxLength ? length : kMaxLength));
}

void TakeApplName(MQNode* node) {
  char name[kApplNameLength + 1] = {};
  int length = kApplNameLength;
  GetApplName(name, &length);
  memcpy(node->applName, name, sizeof node->applName);
}

// Creates a node without socket, address and operations. Returns null if there is no memory.
MQNode* NewNode(uint32_t role, const char* host, bool datagram) {
  void* block = nullptr;
  if (!fNewMemory(&block, sizeof(MQNode), "MQNode")) return nullptr;
  auto* const node = static_cast<MQNode*>(block);
  node->onTrace = G_node_trace;
  node->nodeType = kNodeType;
  node->role = role;
  node->writeLimit = kNoWriteLimit;
  node->pendingLimit = kPendingLimit;
  mq::CreateReceiveBuffer(&node->recvBuffer, datagram ? mq::kReceiveCapacity : mq::kHeaderLength);
  mq::CopyText(node->host, host);
  mq::CopyText(node->platform, "UNIX");
  TakeUser(node);
  TakeApplName(node);
  return node;
}

void FillOperations(MQNode* node) {
  node->opOpen = mnOpen;
  node->opClose = mnClose;
  node->opRead = mnRead;
  node->opBrowse = mnBrowse;
  node->opWrite = mnWrite;
  node->opPost = mnPost;
}

void BindAndListen(MQNode* node) {
  if (BindSocketName(&node->sock, &node->addr) == 1) ListenSocket(&node->sock, kAcceptBacklog);
}

// Creates a node with a new socket. The exported functions differ only in these arguments.
MQNode* Create(SockAddrRec* addr, int role, bool datagram, SockOption* opt, const char* point) {
  MQNode* const node = NewNode(static_cast<uint32_t>(role), addr->host, datagram);
  if (node == nullptr) return nullptr;
  SockRec* const sock = &node->sock;
  datagram ? CreateUDPSocket(sock) : CreateSocket(sock);
  sock->owner = node;
  mq::CopySocketError(node);

  SockOption lingerZero = {SOCK_OPT_LINGER, 0, 1};
  if (opt != nullptr) SetSocketOptions(sock, opt);
  SetSocketOptions(sock, &lingerZero);

  node->addr = *addr;
  FillOperations(node);
  if (datagram) {
    node->openState = static_cast<uint32_t>(BindSocketName(sock, &node->addr));
  } else if (role == MQ_ROLE_LISTEN) {
    BindAndListen(node);
  }
  mq::CopySocketError(node);
  mq::Trace(point, node);
  return node;
}

}  // namespace

MQNode* CreateMQNode(SockAddrRec* addr, int role) {
  SockOption noReuse = {SOCK_OPT_REUSEADDR, 0, 0};
  return Create(addr, role, false, &noReuse, "CreateMQNode");
}

MQNode* CreateMQNodeWithOpt(SockAddrRec* addr, int role, SockOption* opt) {
  return Create(addr, role, false, opt, "CreateMQNodeWithOpt");
}

MQNode* CreateUDPMQNode(SockAddrRec* addr) { return CreateUDPMQNodeWithOpt(addr, nullptr); }

MQNode* CreateUDPMQNodeWithOpt(SockAddrRec* addr, SockOption* opt) {
  return Create(addr, MQ_ROLE_CONNECT, true, opt, "CreateUDPMQNodeWithOpt");
}

MQNode* CreateAndBindMQNode(SockRec* sock, int role) {
  MQNode* const node = NewNode(static_cast<uint32_t>(role), "@", false);
  if (node == nullptr) return nullptr;
  node->sock = *sock;
  node->sock.owner = node;
  FillOperations(node);
  mq::Trace("CreateAndBindMQNode", node);
  return node;
}
