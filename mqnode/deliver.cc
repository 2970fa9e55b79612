// deliver.cc - sends write descriptors, queues those that the socket does not accept, and counts both.
// Not here: the contents of a descriptor (compose.cc), waiting until a socket is writable (wait.cc).
// Invariant: when a call returns, every descriptor is either queued or released.
#include "mqnode/deliver.h"

#include "mqnode/deliver.hh"
#include "queue/queue.h"

namespace {

// A queued datagram: a write descriptor and its destination in one block. The descriptor is the first member, so that
// releasing it releases both.
struct DatagramWrite {
  IoBuffer io;
  SockAddrRec to;
};

// The value of `received` that identifies the descriptor of a DatagramWrite; any other write descriptor has 0 there. It
// depends on the address of the descriptor, so that a copy is not taken for a DatagramWrite.
uint32_t MarkOf(const IoBuffer* desc) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(desc) >> 4) | 1u; }

bool IsStream(const MQNode* node) { return node->sock.type == SOCK_TYPE_STREAM; }

void CountDown(MQNode* node) {
  if (node->writesOutstanding > 0) node->writesOutstanding -= 1;
}

// Moves desc into a new DatagramWrite. Returns null if there is no memory; desc is unchanged then.
IoBuffer* KeepDestination(IoBuffer* desc, const SockAddrRec& to) {
  void* block = nullptr;
  if (!fNewMemory(&block, sizeof(DatagramWrite), "MQNODE")) return nullptr;
  auto* const write = static_cast<DatagramWrite*>(block);
  write->io = *desc;
  write->io.received = MarkOf(&write->io);
  write->to = to;
  FreeMemory(desc);
  return &write->io;
}

// The destination of a queued descriptor; null if it has none because the application queued it.
SockAddrRec* DestinationOf(IoBuffer* desc) {
  return desc->received == MarkOf(desc) ? &reinterpret_cast<DatagramWrite*>(desc)->to : nullptr;
}

// Puts a descriptor on an existing queue. Returns false if there is no memory, which only the depth of the queue shows.
bool Put(Queue* queue, void (*put)(Queue*, void*), IoBuffer* desc) {
  const int before = Qdepth(queue);
  put(queue, desc);
  return Qdepth(queue) > before;
}

// Queues desc, which the queue then owns. If there is no memory, releases it, sets error to 11 and returns 0.
int Enqueue(MQNode* node, const SockAddrRec* to, IoBuffer* desc, void (*put)(Queue*, void*)) {
  IoBuffer* const kept = IsStream(node) || to == nullptr ? desc : KeepDestination(desc, *to);
  if (kept == nullptr) return mq::Drop(node, desc, MQ_AGAIN);
  if (!Put(node->pending, put, kept)) return mq::Drop(node, kept, MQ_AGAIN);
  node->writesOutstanding += 1;
  return 1;
}

// Queues the first write that could not complete.
int StartQueue(MQNode* node, const SockAddrRec* to, IoBuffer* desc) {
  node->error = MQ_AGAIN;
  if (node->pending == nullptr) {
    node->pending = Qalloc();
    SetNodeQLimit(node);
  }
  if (node->pending == nullptr) return mq::Drop(node, desc, MQ_AGAIN);
  if (!Enqueue(node, to, desc, Qput)) {
    if (Qdepth(node->pending) == 0) Qfree(&node->pending);
    return 0;
  }
  mq::Trace("mnWriteToNode", node);
  return 1;
}

// Sends the rest of a queued descriptor.
int SendQueued(MQNode* node, IoBuffer* desc) {
  return WriteSocket(&node->sock, desc, IsStream(node) ? nullptr : DestinationOf(desc));
}

// Puts an unfinished descriptor back at the head of the queue. Changes error only if there is no memory for that.
int PutBack(MQNode* node, IoBuffer* desc) {
  if (Put(node->pending, Qputhead, desc)) return 1;
  CountDown(node);
  return mq::Drop(node, desc, MQ_AGAIN);
}

int FinishFailed(MQNode* node, IoBuffer* desc) {
  mq::CopySocketError(node);
  mq::Trace("mnFinishWrite", node);
  if (node->error == MQ_AGAIN) return PutBack(node, desc);
  CountDown(node);
  return mq::Drop(node, desc, MQ_AGAIN);
}

}  // namespace

namespace mq {

int WriteBehind(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority) {
  int queued = 0;
  if (IsAtWriteLimit(node)) {
    Drop(node, desc, MQ_WRITE_LIMIT);
  } else if (to == nullptr && !IsStream(node)) {
    // Without a destination it could never be sent.
    ReportFailure(&node->sock, SOCK_NO_DESTINATION);
    Drop(node, desc, MQ_AGAIN);
  } else {
    queued = Enqueue(node, to, desc, highPriority ? QputHigh : Qput);
  }
  Trace("mnWriteToNode", node);
  return queued;
}

int WriteUnfinished(MQNode* node, SockAddrRec* to, IoBuffer* desc, int taken) {
  CopySocketError(node);
  Trace("mnWriteToNode", node);
  if (taken || node->sock.error == SOCK_WOULD_BLOCK) return StartQueue(node, to, desc);
  return Drop(node, desc, MQ_AGAIN);
}

}  // namespace mq

int mnWriteToNode(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority) {
  node->error = MQ_OK;
  desc->sent = 0;
  desc->flags = 0;
  return mq::WriteFresh(node, to, desc, highPriority);
}

int mnFinishWrite(MQNode* node) {
  node->error = MQ_OK;
  if (node->pending == nullptr) return 1;
  while (Qdepth(node->pending) > 0) {
    auto* const desc = static_cast<IoBuffer*>(Qget(node->pending));
    if (desc == nullptr) {
      node->error = MQ_NO_DESCRIPTOR;
      return 0;
    }
    if (!SendQueued(node, desc)) return FinishFailed(node, desc);
    if (desc->sent != desc->length) return PutBack(node, desc);
    mq::Release(desc);
    node->writesCompleted += 1;
    CountDown(node);
  }
  Qfree(&node->pending);
  mq::Trace("mnFinishWrite", node);
  return 1;
}

int mnIsPendingIO(MQNode* node) { return node->pending != nullptr; }

int IsNodeQReady(MQNode* node) {
  if (node == nullptr || node->pending == nullptr) return 1;
  return IsQReady(node->pending);
}

void SetNodeQLimit(MQNode* node) {
  if (node != nullptr && node->pending != nullptr) SetQLimit(node->pending, static_cast<int>(node->pendingLimit));
}
