// read.cc - receives messages into the node's receive buffer, converts them, and delivers them to the application.
// Not here: one receive (socksin/transfer.cc), conversion, parsing and signatures (the companion).
// Invariants: a receive never exceeds the capacity of the receive buffer. The message in an envelope is not converted
// or parsed before its signature has been verified.
//
// A read from a stream has two stages: the header, then the rest. Both are received into the receive buffer, which is
// the only state kept between calls. On a datagram node, one datagram completes both stages.
#include "mqnode/read.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cstring>

#include "mqnode/node.hh"
#include "mqnode/secure_read.h"
#include "mqnode/wire.hh"
#include "socksin/record.hh"
#include "socksin/transfer.hh"

namespace {

using mq::kEnvelopeLength;
using mq::kHeaderLength;

// A browse peeks twice without a pause, then up to 100 times with a pause before each: at most a second in all.
constexpr int kBrowsePeeks = 102;
constexpr timespec kBrowsePause = {0, 10'000'000};

// The differences between plain and signed reads. Convert converts the header just received and sets the buffer's
// length to that of the whole message; it returns 0 or an error code. Deliver passes the complete message to the
// application and runs the trace point of the read.
struct PlainFraming {
  static constexpr uint32_t kLength = kHeaderLength;
  static constexpr const char* kGatherPoint = "mnReadMsg";
  static constexpr const char* kReadPoint = "mnRead";
  static constexpr bool kResetBeforeTrace = true;  // order of reset and trace point after a failed receive
  static int Convert(MQNode* node);
  static int Deliver(PcfMessage* msg, MQNode* node);
};

struct SignedFraming {
  static constexpr uint32_t kLength = kEnvelopeLength;
  static constexpr const char* kGatherPoint = "mnSReadMsg";
  static constexpr const char* kReadPoint = "mnSRead";
  static constexpr bool kResetBeforeTrace = false;
  static int Convert(MQNode* node);
  static int Deliver(PcfMessage* msg, MQNode* node);
};

bool IsDatagram(const MQNode* node) { return node->sock.type == SOCK_TYPE_DATAGRAM; }

// Number of bytes to receive into an empty buffer: a header on a stream; on a datagram node, a datagram of any length.
template <class Framing>
uint32_t IdleLength(const MQNode* node) {
  return IsDatagram(node) ? node->recvBuffer.capacity : Framing::kLength;
}

// Prepares the receive buffer for the next message, within its capacity, which is 0 if it has no data area.
template <class Framing>
void Reset(MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  ResetBuffer(buf, std::min(IdleLength<Framing>(node), buf->capacity));
}

// Failures and rare cases are not inlined, which keeps the fast path of a read short.

// Prepares an empty buffer that is not set up for this framing: it was last used for the other one, or it has no data
// area, because there was no memory when the node was created or because the node is closed. In that case an area is
// allocated; returns false if there is no memory for it.
template <class Framing>
[[gnu::noinline]] bool Rearm(MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  if (buf->capacity == 0) CreateBuffer(buf, mq::kReceiveCapacity);
  if (buf->capacity < Framing::kLength) return false;
  Reset<Framing>(node);
  return true;
}

// Ends a gather or a read with a failure that discards the received bytes. Always returns 0.
template <class Framing>
[[gnu::noinline]] int Fail(MQNode* node, const char* point, int code) {
  node->error = code;
  mq::Trace(point, node);
  Reset<Framing>(node);
  return 0;
}

// Ends a gather whose receive failed. If the socket would block, the received bytes are kept. Always returns 0.
template <class Framing>
[[gnu::noinline]] int FailReceive(MQNode* node) {
  mq::CopySocketError(node);
  if (Framing::kResetBeforeTrace && node->error != MQ_AGAIN) Reset<Framing>(node);
  mq::Trace(Framing::kGatherPoint, node);
  if (!Framing::kResetBeforeTrace && node->error != MQ_AGAIN) Reset<Framing>(node);
  return 0;
}

// Receives until the buffer contains length bytes; on a datagram node, one datagram, unless it already contains one.
// The first word is checked after each receive, and also if nothing had to be received.
template <class Framing, bool kDatagram>
int Gather(MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  node->error = MQ_OK;
  if (kDatagram && buf->received == 0) buf->length = buf->capacity;
  if (buf->length > buf->capacity || buf->capacity == 0) return Fail<Framing>(node, Framing::kGatherPoint, MQ_NO_ROOM);
  for (bool receive = buf->received < buf->length;; receive = true) {
    if (receive && !(kDatagram ? ReadSocket : mq::ReceiveStream)(&node->sock, buf)) return FailReceive<Framing>(node);
    if (kDatagram) buf->length = buf->received;
    if (buf->received >= Framing::kLength && !mq::IsHeader(buf->data, Framing::kLength)) {
      return Fail<Framing>(node, Framing::kGatherPoint, MQ_BAD_MESSAGE);
    }
    if (buf->received >= buf->length) return 1;
  }
}

// The second stage on a stream: receives the rest of a message whose header has been checked and converted.
template <class Framing>
int GatherRest(MQNode* node) {
  const IoBuffer* const buf = &node->recvBuffer;
  while (buf->received < buf->length) {
    if (!mq::ReceiveStream(&node->sock, &node->recvBuffer)) return FailReceive<Framing>(node);
  }
  return 1;
}

template <class Framing>
int GatherAny(MQNode* node) {
  return IsDatagram(node) ? Gather<Framing, true>(node) : Gather<Framing, false>(node);
}

template <class Framing>
int EndRead(MQNode* node, int result) {
  mq::Trace(Framing::kReadPoint, node);
  return result;
}

// Reads one message. On a stream, a call that completes the first stage and starts the second runs the trace point of
// the read twice.
template <class Framing, bool kDatagram>
[[gnu::flatten]] int Read(PcfMessage* msg, MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  const bool idle = buf->received == 0;
  const uint32_t idleLength = kDatagram ? buf->capacity : Framing::kLength;
  const bool armed = buf->length == idleLength && buf->capacity >= Framing::kLength;
  if (idle && !armed && !Rearm<Framing>(node)) return Fail<Framing>(node, Framing::kReadPoint, MQ_NO_ROOM);
  const bool inRest = !idle && !kDatagram && buf->length > Framing::kLength;
  if (!Gather<Framing, kDatagram>(node)) return EndRead<Framing>(node, 0);
  if (inRest) return Framing::Deliver(msg, node);

  // If the other framing was used before, the buffer may contain less than this framing's header.
  const int code = buf->received >= Framing::kLength ? Framing::Convert(node) : MQ_BAD_MESSAGE;
  if (code != MQ_OK) return Fail<Framing>(node, Framing::kReadPoint, code);
  if (kDatagram) return Framing::Deliver(msg, node);
  const bool whole = GatherRest<Framing>(node) != 0;
  return EndRead<Framing>(node, whole ? Framing::Deliver(msg, node) : EndRead<Framing>(node, 0));
}

template <class Framing>
int ReadAny(PcfMessage* msg, MQNode* node) {
  return IsDatagram(node) ? Read<Framing, true>(msg, node) : Read<Framing, false>(msg, node);
}

// Sets the buffer's length to that of the message announced by the converted header, and enlarges the buffer if
// necessary. Returns 0 or an error code.
int ExpectMessage(MQNode* node, uint32_t framingLength, uint32_t hdrLength, uint32_t announced) {
  IoBuffer* const buf = &node->recvBuffer;
  if (hdrLength != framingLength) return MQ_BAD_MESSAGE;
  const uint32_t total = mq::TotalLength(framingLength, announced);
  if (total == 0) return MQ_BAD_MESSAGE;
  if (IsDatagram(node) && total != buf->received) return MQ_BAD_MESSAGE;
  if (buf->capacity < total) SizeBuffer(buf, total);
  if (buf->capacity < total) return MQ_NO_ROOM;
  buf->length = total;
  return MQ_OK;
}

int PlainFraming::Convert(MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  // The interface to the companion fixes the distance of aux from data. The address may be outside the area: it is
  // never dereferenced.
  constexpr size_t kAuxOffset = 18496;
  PcfRawData raw;
  raw.data = buf->data;
  raw.aux = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(buf->data) + kAuxOffset);
  raw.capacity = buf->capacity;
  raw.length = buf->received;
  if (!AlienToNative(&raw)) return MQ_BAD_MESSAGE;
  const MsgHeader* const header = mq::HeaderOf(buf->data);
  return ExpectMessage(node, kLength, header->hdrLength, header->bodyLength);
}

int SignedFraming::Convert(MQNode* node) {
  SecureHeader* const envelope = mq::EnvelopeOf(node->recvBuffer.data);
  if (!AlienToNativeExt(envelope)) return MQ_BAD_MESSAGE;
  return ExpectMessage(node, kLength, envelope->hdrLength, envelope->msgLength);
}

// Copies the received bytes, without the first skipped ones, to the raw form of msg, and counts the message. Returns
// false if there is no memory.
bool TakeRaw(PcfMessage* msg, MQNode* node, uint32_t skipped) {
  const IoBuffer* const buf = &node->recvBuffer;
  if (msg->raw.capacity < buf->received && !SizePcfMessage(msg, buf->received)) return false;
  msg->raw.length = buf->received - skipped;
  memcpy(msg->raw.data, buf->data + skipped, msg->raw.length);
  node->msgsRead += 1;
  return true;
}

// Parses the raw form, whose header is native.
int Parse(PcfMessage* msg, MQNode* node) {
  int result = AlienPcfToNative(msg);
  if (result) result = RawToPcf(msg);
  if (!result) node->error = MQ_BAD_BODY;
  return result;
}

int PlainFraming::Deliver(PcfMessage* msg, MQNode* node) {
  if (!TakeRaw(msg, node, 0)) return Fail<PlainFraming>(node, kReadPoint, MQ_NO_ROOM);
  const int result = Parse(msg, node);
  memcpy(msg->secHeader.userId, mq::HeaderOf(msg->raw.data)->userId, sizeof msg->secHeader.userId);
  Reset<PlainFraming>(node);
  return EndRead<PlainFraming>(node, result);
}

bool Authenticate(PcfMessage* msg, const IoBuffer& received) {
  IoBuffer signedPart = received;
  signedPart.data += kEnvelopeLength;
  signedPart.length -= kEnvelopeLength;
  signedPart.capacity -= kEnvelopeLength;
  return mqc_authenticate(&msg->secHeader, &signedPart, msg) != 0;
}

int SignedFraming::Deliver(PcfMessage* msg, MQNode* node) {
  const IoBuffer* const buf = &node->recvBuffer;
  if (!TakeRaw(msg, node, kEnvelopeLength)) return Fail<SignedFraming>(node, kReadPoint, MQ_NO_ROOM);
  memcpy(&msg->secHeader, buf->data, kEnvelopeLength);
  if (!Authenticate(msg, *buf)) return Fail<SignedFraming>(node, kReadPoint, MQ_NOT_AUTHENTIC);
  if (!AlienToNative(&msg->raw)) {
    node->error = MQ_BAD_MESSAGE;
    DumpPcfMessage(msg);
    return Fail<SignedFraming>(node, kReadPoint, MQ_BAD_MESSAGE);
  }
  Reset<SignedFraming>(node);
  const int result = Parse(msg, node);
  if (!result) DumpPcfMessage(msg);
  return EndRead<SignedFraming>(node, result);
}

bool IsNonBlocking(const SockRec& sock) {
  const int flags = fcntl(sock.fd, F_GETFL, 0);
  return flags != -1 && (flags & O_NONBLOCK) != 0;
}

bool PeerStoppedSending(const SockRec& sock) {
  pollfd state = {sock.fd, POLLRDHUP, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// Pauses before the next peek of a browse that found part of a header. Returns false if there must not be another one:
// on a non-blocking node, and after the last.
bool PauseBrowse(const SockRec& sock, int peeks) {
  if (peeks >= kBrowsePeeks || IsNonBlocking(sock)) return false;
  nanosleep(&kBrowsePause, nullptr);
  return true;
}

// Always returns false. The error is set only here, at the end: socket callbacks that run during a browse see it as 0.
bool FailBrowse(MQNode* node, int code) {
  node->error = code;
  return false;
}

// Peeks until data contains a whole header. On failure, sets the node's error and returns false.
bool PeekHeader(MQNode* node, uint8_t* data) {
  SockRec* const sock = &node->sock;
  bool ended = false;  // the peer has stopped sending: the next peek sees everything that will ever arrive
  for (int peeks = 1;; ++peeks) {
    IoBuffer peek = {data, kHeaderLength, kHeaderLength, MSG_PEEK, 0, 0};
    if (!ReadSocket(sock, &peek)) return FailBrowse(node, sock->error);
    if (peek.received >= sizeof(uint32_t) && !mq::IsHeader(data, kHeaderLength)) break;
    if (peek.received >= kHeaderLength) return true;
    if (peeks > 1 && IsDatagram(node)) break;  // a datagram does not grow
    if (ended) {
      mq::ReportFailure(sock, SOCK_PEER_CLOSED);
      return FailBrowse(node, sock->error);
    }
    ended = PeerStoppedSending(*sock);
    if (peeks == 1 || ended) continue;  // the first peek may have returned only part of what had arrived
    if (!PauseBrowse(*sock, peeks)) return FailBrowse(node, MQ_AGAIN);
  }
  return FailBrowse(node, MQ_BAD_MESSAGE);
}

// Converts a peeked header and enlarges msg for its body. On failure, sets the node's error and returns false.
bool ConvertPeeked(PcfMessage* msg, MQNode* node) {
  PcfRawData* const raw = &msg->raw;
  if (!AlienToNative(raw)) {
    FailBrowse(node, MQ_BAD_MESSAGE);
    DumpPcfMessage(msg);
    return false;
  }
  const uint32_t bodyLength = mq::HeaderOf(raw->data)->bodyLength;
  const auto available = static_cast<int32_t>(raw->capacity - kHeaderLength);
  if (static_cast<int32_t>(bodyLength) <= available || SizePcfMessage(msg, bodyLength)) return true;
  return FailBrowse(node, MQ_NO_ROOM);
}

}  // namespace

int mnReadMsg(MQNode* node) { return GatherAny<PlainFraming>(node); }

int mnRead(PcfMessage* msg, MQNode* node) { return ReadAny<PlainFraming>(msg, node); }

int mnSReadMsg(MQNode* node) { return GatherAny<SignedFraming>(node); }

int mnSRead(PcfMessage* msg, MQNode* node, int secure, void*) {
  return secure ? ReadAny<SignedFraming>(msg, node) : mnRead(msg, node);
}

int mnBrowse(PcfMessage* msg, MQNode* node) {
  node->error = MQ_OK;
  const bool found = PeekHeader(node, msg->raw.data) && ConvertPeeked(msg, node);
  mq::Trace("mnBrowse", node);
  return found;
}
