// compose.cc - turns the application's message into a write descriptor, plain or signed, and passes it to deliver.cc.
// Not here: sending and queueing (deliver.cc), the signature (the companion's mqc_sign).
// Invariant: the application's message is not accessed once delivery has started.
#include "mqnode/compose.h"

#include <cstring>

#include "mqnode/deliver.h"
#include "mqnode/deliver.hh"
#include "mqnode/node.hh"
#include "mqnode/wire.hh"
#include "sockutil/text.hh"

namespace {

constexpr size_t kUserLength = sizeof(MsgHeader::userId);

// Whether the length of the raw form is valid. Checked before a header is written into it.
bool IsWritable(const PcfRawData& raw) { return raw.length >= mq::kHeaderLength && raw.length <= MQ_MAX_MESSAGE; }

int Fail(MQNode* node, int code) {
  node->error = code;
  return 0;
}

// Returns null and sets the node's error to 11 if there is no memory.
IoBuffer* NewDescriptor(MQNode* node) {
  void* block = nullptr;
  if (!fNewMemory(&block, sizeof(IoBuffer), "MQNODE")) {
    node->error = MQ_AGAIN;
    return nullptr;
  }
  return static_cast<IoBuffer*>(block);
}

void CopyApplName(MsgHeader* header, const MQNode* node) {
  memcpy(header->applName, node->applName, sizeof header->applName);
}

void FillEnvelope(PcfMessage* msg, const MQNode* node) {
  SecureHeader* const envelope = &msg->secHeader;
  const MsgHeader* const header = mq::HeaderOf(msg->raw.data);
  mq::FillForm(envelope);
  envelope->hdrLength = mq::kEnvelopeLength;
  envelope->version = mq::kEnvelopeVersion;
  envelope->msgLength = header->bodyLength + mq::kHeaderLength;
  memcpy(envelope->userId, node->user, sizeof envelope->userId);
}

int WriteAltUser(PcfMessage* msg, MQNode* node, int secure, void* securityContext, int highPriority) {
  const char* user = node->user;
  if (IsWritable(msg->raw)) {  // otherwise there is no header to read, and the write will fail
    char* const userId = mq::HeaderOf(msg->raw.data)->userId;
    if (userId[0] == '\0' || userId[0] == ' ') memcpy(userId, node->user, kUserLength);
    user = userId;
  }
  return mnSWriteMsg(msg, node, nullptr, user, secure, securityContext, highPriority);
}

int WritePlain(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int highPriority) {
  mq::Trace("mnWriteMsg", node);
  // Copied first: user may point into the message, which is modified below.
  char userId[kUserLength];
  mq::FillField(userId, user);
  node->error = MQ_OK;
  PcfRawData* const raw = &msg->raw;
  if (!IsWritable(*raw)) return Fail(node, MQ_BAD_MESSAGE);
  mq::FillHeader(raw);
  MsgHeader* const header = mq::HeaderOf(raw->data);
  memcpy(header->userId, userId, sizeof userId);
  CopyApplName(header, node);

  IoBuffer* const desc = NewDescriptor(node);
  if (desc == nullptr) return 0;
  desc->length = raw->length;
  CreateBuffer(desc, raw->length);
  if (desc->capacity < raw->length) return mq::Drop(node, desc, MQ_AGAIN);
  memcpy(desc->data, raw->data, raw->length);

  const int result = mq::WriteFresh(node, to, desc, highPriority);
  mq::Trace("mnWriteMsg", node);
  return result;
}

int WriteAsNode(PcfMessage* msg, MQNode* node, SockAddrRec* to) {
  node->error = MQ_OK;
  return WritePlain(msg, node, to, node->user, 0);
}

}  // namespace

int mnWriteMsg(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int highPriority) {
  return WritePlain(msg, node, to, user, highPriority);
}

int mnSWriteMsgWithPriority(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int secure,
                            void* securityContext, int highPriority) {
  mq::Trace("mnSWriteMsg", node);
  if (!secure) return mnWriteMsg(msg, node, to, user, highPriority);
  node->error = MQ_OK;
  PcfRawData* const raw = &msg->raw;
  if (!IsWritable(*raw)) return Fail(node, MQ_BAD_MESSAGE);
  mq::FillHeader(raw);
  FillEnvelope(msg, node);
  MsgHeader* const header = mq::HeaderOf(raw->data);
  CopyApplName(header, node);
  mq::FillField(header->userId, node->user);
  VerifyMessage(raw);

  IoBuffer* const desc = NewDescriptor(node);
  if (desc == nullptr) return 0;
  if (!mqc_sign(securityContext, msg, desc)) return mq::Drop(node, desc, MQ_NOT_SIGNED);
  if (desc->length > MQ_MAX_MESSAGE) return mq::Drop(node, desc, MQ_BAD_MESSAGE);
  desc->received = 0;

  const int result = mnWriteToNode(node, to, desc, highPriority);
  mq::Trace("mnSWriteMsg", node);
  return result;
}

int mnSWriteMsg(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int secure, void* securityContext,
                int highPriority) {
  return mnSWriteMsgWithPriority(msg, node, to, user, secure, securityContext, highPriority);
}

int mnWriteTo(PcfMessage* msg, MQNode* node, SockAddrRec* to) { return WriteAsNode(msg, node, to); }

[[gnu::flatten]] int mnWrite(PcfMessage* msg, MQNode* node) { return WriteAsNode(msg, node, nullptr); }

int mnSWriteTo(PcfMessage* msg, MQNode* node, SockAddrRec* to, int secure, void* securityContext) {
  node->error = MQ_OK;
  return mnSWriteMsg(msg, node, to, node->user, secure, securityContext, 0);
}

int mnSWrite(PcfMessage* msg, MQNode* node, int secure, void* securityContext) {
  return mnSWriteTo(msg, node, nullptr, secure, securityContext);
}

int mnSWriteAltUser(PcfMessage* msg, MQNode* node, int secure, void* securityContext) {
  return WriteAltUser(msg, node, secure, securityContext, 0);
}

int mnSWriteAltUserHigh(PcfMessage* msg, MQNode* node, int secure, void* securityContext) {
  return WriteAltUser(msg, node, secure, securityContext, 1);
}
