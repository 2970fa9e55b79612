// wait.cc - lists the sockets of nodes, waits once, and sorts the nodes of the ready sockets into the caller's arrays.
// Not here: the wait itself (socksin/wait.cc).
// Invariant: no list is written beyond the size of its record, no array beyond the number of nodes and a null pointer.
#include "mqnode/wait.h"

#include "mqnode/node.hh"

namespace {

constexpr int kMsecPerSecond = 1000;
constexpr int kMaxSeconds = 2147483;

int Milliseconds(int seconds) {
  if (seconds < 0) return 0;
  return (seconds < kMaxSeconds ? seconds : kMaxSeconds) * kMsecPerSecond;
}

PostTimeout Timeout(int milliseconds) {
  const auto count = static_cast<uint32_t>(milliseconds < 0 ? 0 : milliseconds);
  return {count % kMsecPerSecond, count / kMsecPerSecond};
}

// Lists the sockets of the nodes; with kPending, those with queued writes also in the writable list.
template <bool kPending>
void ListSockets(MQNode** nodes, SockPostData* work) {
  if (work->size < 1) return;
  MQNode** const last = nodes + (work->size - 1);
  SockRec** list = work->sockets;
  SockRec** writable = work->writable;
  for (; nodes < last && *nodes != nullptr; ++nodes) {
    SockRec* const sock = &(*nodes)->sock;
    *list++ = sock;
    if (kPending && (*nodes)->pending != nullptr) *writable++ = sock;
  }
  *list = nullptr;
  if (kPending) *writable = nullptr;
}

// The node that owns a socket; null if its owner is not a node.
MQNode* NodeOf(SockRec* rec) {
  auto* const node = static_cast<MQNode*>(rec->owner);
  return node != nullptr && &node->sock == rec ? node : nullptr;
}

// The next free entries in the arrays of nodes to accept on and of nodes to read from.
class ReadyArrays {
 public:
  ReadyArrays(MQNode** listen, MQNode** read) : listen_(listen), read_(read) {}

  void Add(SockRec** list, const char* point) {
    for (; *list != nullptr; ++list) {
      MQNode* const node = NodeOf(*list);
      if (node == nullptr) continue;
      *(node->role == MQ_ROLE_LISTEN ? listen_ : read_)++ = node;
      mq::Trace(point, node);
    }
  }

  void End() { *read_ = *listen_ = nullptr; }

 private:
  MQNode** listen_;
  MQNode** read_;
};

void OpenWritable(SockRec** list, MQNode** writeReady) {
  for (; *list != nullptr; ++list) {
    MQNode* const node = NodeOf(*list);
    if (node == nullptr) continue;
    *writeReady++ = node;
    node->openState = 1;
    mq::Trace("mnNPost::Write", node);
  }
  *writeReady = nullptr;
}

// Runs a wait with a temporary work record. Returns 0 if there is no memory for it.
template <typename WaitFn>
int WithTemporaryRecord(WaitFn wait) {
  SockPostData work;
  const int result = InitSocketPostData(&work, SOCK_POST_SIZE) ? wait(&work) : 0;
  FreeSocketPostData(&work);
  return result;
}

}  // namespace

int mnPost(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status) {
  return WithTemporaryRecord(
      [=](SockPostData* work) { return mnPostEx(nodes, listenReady, readReady, seconds, status, work); });
}

int mnPostEx(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status, SockPostData* work) {
  return mnPostExMSec(nodes, listenReady, readReady, Milliseconds(seconds), status, work);
}

int mnPostExMSec(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int milliseconds, int* status,
                 SockPostData* work) {
  const PostTimeout timeout = Timeout(milliseconds);
  ListSockets<false>(nodes, work);
  if (!PostSocket(work, &timeout, status)) return 0;
  ReadyArrays ready(listenReady, readReady);
  ready.Add(work->readable, "mnPost::Ready");
  ready.End();
  return 1;
}

int mnNPost(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady, int seconds, int* status) {
  return WithTemporaryRecord(
      [=](SockPostData* work) { return mnNPostEx(nodes, listenReady, readReady, writeReady, seconds, status, work); });
}

int mnNPostEx(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady, int seconds, int* status,
              SockPostData* work) {
  return mnNPostExMSec(nodes, listenReady, readReady, writeReady, Milliseconds(seconds), status, work);
}

int mnNPostExMSec(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady, int milliseconds,
                  int* status, SockPostData* work) {
  const PostTimeout timeout = Timeout(milliseconds);
  ListSockets<true>(nodes, work);
  if (!NPostSocket(work, &timeout, status)) return 0;
  ReadyArrays ready(listenReady, readReady);
  ready.Add(work->readable, "mnNPost::Ready");
  ready.Add(work->exceptional, "mnNPost::Exception");
  OpenWritable(work->writable, writeReady);
  ready.End();
  return 1;
}
