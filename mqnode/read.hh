// read.hh - the reader that plain and secure reads share, and what differs between them, as data.
//
// A read runs in two stages on a stream, header and rest, each one gather into the node's receive buffer; between calls
// that buffer is the whole state. On a datagram node both stages are one datagram. The straight road is inline, so that
// a message costs few instructions; every failure leaves it through a function of read.cc.
#pragma once

#include <cstdint>

#include "mqnode/node.hh"
#include "mqnode/wire.hh"
#include "socksin/transfer.hh"

namespace mq {

struct Framing {
  uint32_t headerLength;  // what is gathered first, and the idle length of a stream node's buffer
  const char* gather;     // trace point of the gather step
  const char* read;       // trace point of the read
  bool resetBeforeTrace;  // order of reset and trace after a receive that failed
};

inline constexpr Framing kPlainFraming = {kHeaderLength, "mnReadMsg", "mnRead", true};
inline constexpr Framing kSecureFraming = {kEnvelopeLength, "mnSReadMsg", "mnSRead", false};

inline bool IsDatagram(const MQNode* node) { return node->sock.type == SOCK_TYPE_DATAGRAM; }

// Length of an idle buffer: a header on a stream, any one datagram on a datagram node.
inline uint32_t IdleLength(const MQNode* node, const Framing& framing) {
  return IsDatagram(node) ? node->recvBuffer.capacity : framing.headerLength;
}

// Arms a receive buffer whose area holds at least a header.
inline void ResetReceive(MQNode* node, const Framing& framing) {
  ResetBuffer(&node->recvBuffer, IdleLength(node, framing));
}

// Leaves a gather or a read with a failure: error, trace point, reset. Always 0.
int FailGather(MQNode* node, const Framing& framing, int code);
int FailRead(MQNode* node, const Framing& framing, int code);

// Leaves a gather whose receive failed; what is held stays when the socket would block. Always 0.
int FailReceive(MQNode* node, const Framing& framing);

// Arms an empty buffer that is not idle for this read: the other framing used it last, or it has no data area, because
// there was no memory when the node was created or the node is closed. Then it gets one. False without memory.
bool Rearm(MQNode* node, const Framing& framing);

// Makes the buffer ask for the whole message that a converted header announces. Returns 0, or the code with which the
// read has to fail.
inline int ExpectMessage(MQNode* node, const Framing& framing, uint32_t hdrLength, uint32_t announced) {
  IoBuffer* const buf = &node->recvBuffer;
  if (hdrLength != framing.headerLength) return MQ_BAD_MESSAGE;
  const uint32_t total = TotalLength(framing.headerLength, announced);
  if (total == 0) return MQ_BAD_MESSAGE;
  if (IsDatagram(node) && total != buf->received) return MQ_BAD_MESSAGE;
  if (buf->capacity < total) SizeBuffer(buf, total);
  if (buf->capacity < total) return MQ_NO_ROOM;
  buf->length = total;
  return MQ_OK;
}

// Whether a whole header is held that is none of this framing.
inline bool HasWrongFirstWord(const IoBuffer* buf, const Framing& framing) {
  return buf->received >= framing.headerLength && !IsHeader(buf->data, framing.headerLength);
}

// Receives until the buffer holds what it asks for; on a datagram node one datagram, unless one is held already. What
// is held is judged after each receive, and when nothing needs to be received.
template <const Framing& kFraming, uint32_t kType>
[[gnu::always_inline]] inline int Gather(MQNode* node) {
  constexpr bool kDatagram = kType == SOCK_TYPE_DATAGRAM;
  IoBuffer* const buf = &node->recvBuffer;
  node->error = MQ_OK;
  if (kDatagram && buf->received == 0) buf->length = buf->capacity;
  if (buf->length > buf->capacity || buf->capacity == 0) return FailGather(node, kFraming, MQ_NO_ROOM);
  bool receive = buf->received < buf->length;
  for (;;) {
    if (receive && !(kDatagram ? ReadSocket(&node->sock, buf) : ReceiveStream(&node->sock, buf))) {
      return FailReceive(node, kFraming);
    }
    if (kDatagram) buf->length = buf->received;
    if (HasWrongFirstWord(buf, kFraming)) return FailGather(node, kFraming, MQ_BAD_MESSAGE);
    if (buf->received >= buf->length) return 1;
    receive = true;
  }
}

template <const Framing& kFraming>
int GatherAny(MQNode* node) {
  return IsDatagram(node) ? Gather<kFraming, SOCK_TYPE_DATAGRAM>(node) : Gather<kFraming, SOCK_TYPE_STREAM>(node);
}

// The second stage on a stream: ExpectMessage has made the buffer ask for the rest of a message whose header it holds.
template <const Framing& kFraming>
[[gnu::always_inline]] inline int GatherRest(MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  while (buf->received < buf->length) {
    if (!ReceiveStream(&node->sock, buf)) return FailReceive(node, kFraming);
  }
  return 1;
}

inline int EndRead(MQNode* node, const Framing& framing, int result) {
  Trace(framing.read, node);
  return result;
}

// Reads one message. kConvert converts a header that has just been gathered and calls ExpectMessage; kDeliver hands the
// whole message to the host and runs the read's trace point, which a message read in two stages runs once more.
template <const Framing& kFraming, uint32_t kType, auto kConvert, auto kDeliver>
[[gnu::always_inline]] inline int ReadMessage(PcfMessage* msg, MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  node->error = MQ_OK;
  const bool idle = buf->received == 0;
  const uint32_t idleLength = kType == SOCK_TYPE_DATAGRAM ? buf->capacity : kFraming.headerLength;
  const bool armed = buf->length == idleLength && buf->capacity >= kFraming.headerLength;
  if (idle && !armed && !Rearm(node, kFraming)) return FailRead(node, kFraming, MQ_NO_ROOM);
  const bool inRest = !idle && buf->length > kFraming.headerLength && kType == SOCK_TYPE_STREAM;
  if (!Gather<kFraming, kType>(node)) return EndRead(node, kFraming, 0);
  if (inRest) return kDeliver(msg, node);

  // A part of another framing is not long enough.
  const int code = buf->received >= kFraming.headerLength ? kConvert(node) : MQ_BAD_MESSAGE;
  if (code != MQ_OK) return FailRead(node, kFraming, code);
  if (kType == SOCK_TYPE_DATAGRAM) return kDeliver(msg, node);
  const int result = GatherRest<kFraming>(node) ? kDeliver(msg, node) : EndRead(node, kFraming, 0);
  return EndRead(node, kFraming, result);
}

}  // namespace mq
