// read.cc - gathers messages into the node's receive buffer and hands plain ones to the host.
// Not here: secure messages (secure_read.cc), one receive (socksin/transfer.cc), conversion (the companion).
// Invariant: the receive buffer never holds, and is never asked for, more than its capacity.
#include "mqnode/read.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cstring>

#include "mqnode/node.hh"
#include "mqnode/read.hh"
#include "mqnode/wire.hh"
#include "socksin/record.hh"

namespace mq {
namespace {

// ResetReceive for a buffer that may have no area.
void ResetFailed(MQNode* node, const Framing& framing) {
  IoBuffer* const buf = &node->recvBuffer;
  ResetBuffer(buf, std::min(IdleLength(node, framing), buf->capacity));
}

// What a failure that the caller cannot go on from does to the buffer, in the order that the trace point shows.
int Leave(MQNode* node, const char* point, int code, const Framing& framing) {
  node->error = code;
  Trace(point, node);
  ResetFailed(node, framing);
  return 0;
}

}  // namespace

int FailGather(MQNode* node, const Framing& framing, int code) { return Leave(node, framing.gather, code, framing); }

int FailRead(MQNode* node, const Framing& framing, int code) { return Leave(node, framing.read, code, framing); }

int FailReceive(MQNode* node, const Framing& framing) {
  CopySocketError(node);
  if (framing.resetBeforeTrace && node->error != MQ_AGAIN) ResetFailed(node, framing);
  Trace(framing.gather, node);
  if (!framing.resetBeforeTrace && node->error != MQ_AGAIN) ResetFailed(node, framing);
  return 0;
}

bool Rearm(MQNode* node, const Framing& framing) {
  IoBuffer* const buf = &node->recvBuffer;
  if (buf->capacity == 0) CreateBuffer(buf, kReceiveCapacity);
  if (buf->capacity < framing.headerLength) return false;
  ResetReceive(node, framing);
  return true;
}

}  // namespace mq

namespace {

using mq::kHeaderLength;
using mq::kPlainFraming;

// A browse looks twice at once, then with a pause before each look: at most a second in all.
constexpr int kBrowseLooks = 102;
constexpr timespec kBrowsePause = {0, 10'000'000};

// Converts a header that has just been gathered and makes the buffer ask for the rest. Returns 0 or the code to fail
// with.
[[gnu::always_inline]] inline int ConvertHeader(MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  constexpr size_t kAuxOffset = 18496;
  PcfRawData raw;
  raw.data = buf->data;
  raw.aux = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(buf->data) + kAuxOffset);  // beyond the area
  raw.capacity = buf->capacity;
  raw.length = buf->received;
  if (!AlienToNative(&raw)) return MQ_BAD_MESSAGE;
  const MsgHeader* const header = mq::HeaderOf(buf->data);
  return mq::ExpectMessage(node, kPlainFraming, header->hdrLength, header->bodyLength);
}

// Hands the message that the buffer holds to the host.
[[gnu::always_inline]] inline int Deliver(PcfMessage* msg, MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  if (msg->raw.capacity < buf->received && !SizePcfMessage(msg, buf->received)) {
    return mq::FailRead(node, kPlainFraming, MQ_NO_ROOM);
  }
  memcpy(msg->raw.data, buf->data, buf->received);
  msg->raw.length = buf->received;
  node->msgsRead += 1;
  int result = AlienPcfToNative(msg);
  if (result) result = RawToPcf(msg);
  if (!result) node->error = MQ_BAD_BODY;
  memcpy(msg->secHeader.userId, mq::HeaderOf(msg->raw.data)->userId, sizeof msg->secHeader.userId);
  mq::ResetReceive(node, kPlainFraming);
  mq::Trace(kPlainFraming.read, node);
  return result;
}

[[gnu::noinline]] int ReadDatagram(PcfMessage* msg, MQNode* node) {
  return mq::ReadMessage<kPlainFraming, SOCK_TYPE_DATAGRAM, ConvertHeader, Deliver>(msg, node);
}

bool IsNonBlocking(const SockRec& sock) {
  const int flags = fcntl(sock.fd, F_GETFL, 0);
  return flags != -1 && (flags & O_NONBLOCK) != 0;
}

bool PeerStoppedSending(const SockRec& sock) {
  pollfd state = {sock.fd, POLLRDHUP, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// Whether a browse that found part of a header looks again, after a pause: not on a non-blocking node.
bool PauseBrowse(const SockRec& sock, int looks) {
  if (looks >= kBrowseLooks || IsNonBlocking(sock)) return false;
  nanosleep(&kBrowsePause, nullptr);
  return true;
}

// Always false. Callbacks see the node's error: a browse sets it only when it fails.
bool FailBrowse(MQNode* node, int code) {
  node->error = code;
  return false;
}

// Peeks until a whole header is at data; on failure the node's error says why not.
bool PeekHeader(MQNode* node, uint8_t* data) {
  SockRec* const sock = &node->sock;
  bool ended = false;  // the peer sends no more: the next look sees all there will ever be
  for (int looks = 1;; ++looks) {
    IoBuffer peek = {data, kHeaderLength, kHeaderLength, MSG_PEEK, 0, 0};
    if (!ReadSocket(sock, &peek)) return FailBrowse(node, sock->error);
    if (peek.received >= sizeof(uint32_t) && !mq::IsHeader(data, kHeaderLength)) break;
    if (peek.received >= kHeaderLength) return true;
    if (looks > 1 && mq::IsDatagram(node)) break;  // it does not grow
    if (ended) {
      mq::ReportFailure(sock, SOCK_PEER_CLOSED);
      return FailBrowse(node, sock->error);
    }
    ended = PeerStoppedSending(*sock);
    if (looks == 1 || ended) continue;  // the first look may have been cut short
    if (!PauseBrowse(*sock, looks)) return FailBrowse(node, MQ_AGAIN);
  }
  return FailBrowse(node, MQ_BAD_MESSAGE);
}

// Converts a peeked header and makes room for its body; on failure the node's error says why not.
bool ConvertPeeked(PcfMessage* msg, MQNode* node) {
  PcfRawData* const raw = &msg->raw;
  if (!AlienToNative(raw)) {
    FailBrowse(node, MQ_BAD_MESSAGE);
    DumpPcfMessage(msg);
    return false;
  }
  const uint32_t bodyLength = mq::HeaderOf(raw->data)->bodyLength;
  const auto room = static_cast<int32_t>(raw->capacity - kHeaderLength);
  if (static_cast<int32_t>(bodyLength) <= room || SizePcfMessage(msg, bodyLength)) return true;
  return FailBrowse(node, MQ_NO_ROOM);
}

}  // namespace

int mnReadMsg(MQNode* node) { return mq::GatherAny<kPlainFraming>(node); }

int mnRead(PcfMessage* msg, MQNode* node) {
  if (mq::IsDatagram(node)) return ReadDatagram(msg, node);
  return mq::ReadMessage<kPlainFraming, SOCK_TYPE_STREAM, ConvertHeader, Deliver>(msg, node);
}

int mnBrowse(PcfMessage* msg, MQNode* node) {
  node->error = MQ_OK;
  const bool found = PeekHeader(node, msg->raw.data) && ConvertPeeked(msg, node);
  mq::Trace("mnBrowse", node);
  return found;
}
