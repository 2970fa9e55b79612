// secure_read.cc - hands signed messages to the host once their signature was checked.
// Not here: gathering (read.cc), the check itself (the companion's mqc_authenticate).
// Invariant: nothing of the signed message is converted or parsed before it was authenticated.
#include "mqnode/secure_read.h"

#include <cstring>

#include "mqnode/node.hh"
#include "mqnode/read.h"
#include "mqnode/read.hh"
#include "mqnode/wire.hh"

namespace {

using mq::kEnvelopeLength;
using mq::kSecureFraming;

// Converts an envelope that has just been gathered and makes the buffer ask for the rest. Returns 0 or the code to fail
// with.
int ConvertEnvelope(MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  SecureHeader* const envelope = mq::EnvelopeOf(buf->data);
  if (!AlienToNativeExt(envelope)) return MQ_BAD_MESSAGE;
  return mq::ExpectMessage(node, kSecureFraming, envelope->hdrLength, envelope->msgLength);
}

bool Authenticate(PcfMessage* msg, const IoBuffer& received) {
  IoBuffer signedPart = received;
  signedPart.data += kEnvelopeLength;
  signedPart.length -= kEnvelopeLength;
  signedPart.capacity -= kEnvelopeLength;
  return mqc_authenticate(&msg->secHeader, &signedPart, msg) != 0;
}

// Hands the message that the buffer holds to the host.
int Deliver(PcfMessage* msg, MQNode* node) {
  IoBuffer* const buf = &node->recvBuffer;
  const uint32_t signedLength = buf->received - kEnvelopeLength;
  if (msg->raw.capacity < buf->received && !SizePcfMessage(msg, buf->received)) {
    return mq::FailRead(node, kSecureFraming, MQ_NO_ROOM);
  }
  memcpy(&msg->secHeader, buf->data, kEnvelopeLength);
  memcpy(msg->raw.data, buf->data + kEnvelopeLength, signedLength);
  msg->raw.length = signedLength;
  node->msgsRead += 1;
  if (!Authenticate(msg, *buf)) return mq::FailRead(node, kSecureFraming, MQ_NOT_AUTHENTIC);
  if (!AlienToNative(&msg->raw)) {
    node->error = MQ_BAD_MESSAGE;
    DumpPcfMessage(msg);
    return mq::FailRead(node, kSecureFraming, MQ_BAD_MESSAGE);
  }
  mq::ResetReceive(node, kSecureFraming);
  int result = AlienPcfToNative(msg);
  if (result) result = RawToPcf(msg);
  if (!result) {
    node->error = MQ_BAD_BODY;
    DumpPcfMessage(msg);
  }
  mq::Trace(kSecureFraming.read, node);
  return result;
}

}  // namespace

int mnSReadMsg(MQNode* node) { return mq::GatherAny<kSecureFraming>(node); }

int mnSRead(PcfMessage* msg, MQNode* node, int secure, void*) {
  if (!secure) return mnRead(msg, node);
  if (mq::IsDatagram(node)) {
    return mq::ReadMessage<kSecureFraming, SOCK_TYPE_DATAGRAM, ConvertEnvelope, Deliver>(msg, node);
  }
  return mq::ReadMessage<kSecureFraming, SOCK_TYPE_STREAM, ConvertEnvelope, Deliver>(msg, node);
}
