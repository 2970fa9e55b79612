// node_end.cc - nodes, plain and signed, used as by an application.
#include <cstring>

#include "bench/bare.hh"
#include "bench/end.hh"
#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "companion/host.h"
#include "mqnode/mqnode.h"

namespace bench {
namespace {

constexpr size_t kBodyHead = 8;    // command and number of parameters
constexpr size_t kParamHead = 12;  // id, type and length
constexpr uint32_t kCommand = 7;
constexpr uint32_t kBytesId = 1;

MqcSigner* signer;

void CheckNode(const MQNode* node, const char* what) {
  if (node == nullptr || node->error != MQ_OK) {
    Die(std::string(what) + " failed with error " + std::to_string(node == nullptr ? -1 : node->error));
  }
}

void SetUpNode(MQNode* node) {
  Check(mnSetBufferSize(node, kSocketBuffer), "mnSetBufferSize");
  Check(SetTcpNoDelay(&node->sock, 1), "SetTcpNoDelay");
}

class NodeEnd : public End {
 public:
  explicit NodeEnd(bool secure) : secure_(secure) {}
  ~NodeEnd() override {
    DeleteMQNode(node_);
    DeleteMQNode(listener_);
    mqc_message_free(msg_);
  }

  uint16_t Listen() override {
    listener_ = ListenNode();
    return PortOf(listener_->sock.fd);
  }

  void Accept() override {
    node_ = AcceptNode(listener_);
    SetUpNode(node_);
  }

  void Connect(uint16_t port) override {
    SockAddrRec address = LoopbackName(port);
    node_ = CreateMQNode(&address, MQ_ROLE_CONNECT);
    CheckNode(node_, "CreateMQNode");
    SetUpNode(node_);
    Check(mnOpen(node_), "mnOpen");
  }

  void Prepare(size_t body) override {
    mqc_message_free(msg_);
    msg_ = NewMessage(body);
  }

  void Write() override {
    if (!(secure_ ? mnSWrite(msg_, node_, 1, signer) : mnWrite(msg_, node_))) CheckNode(node_, "write");
  }

  void Read() override {
    if (!(secure_ ? mnSRead(msg_, node_, 1, nullptr) : mnRead(msg_, node_))) {
      if (node_->error == MQ_NOT_AUTHENTIC) Die(mqc_authenticate_error());
      CheckNode(node_, "read");
    }
  }

  // Without the trailer of a signed message.
  std::span<const uint8_t> Body() const override {
    return {msg_->raw.data + sizeof(MsgHeader), reinterpret_cast<const MsgHeader*>(msg_->raw.data)->bodyLength};
  }

 private:
  const bool secure_;
  MQNode* listener_ = nullptr;
  MQNode* node_ = nullptr;
  PcfMessage* msg_ = nullptr;
};

}  // namespace

SockAddrRec LoopbackName(uint16_t port) {
  SockAddrRec address = {};
  strcpy(address.host, "127.0.0.1");
  strcpy(address.ip, "127.0.0.1");
  strcpy(address.service, std::to_string(port).c_str());
  strcpy(address.protocol, "tcp");
  return address;
}

MQNode* ListenNode() {
  SockAddrRec address = LoopbackName(0);
  MQNode* const node = CreateMQNode(&address, MQ_ROLE_LISTEN);
  CheckNode(node, "CreateMQNode");
  SetUpNode(node);
  return node;
}

MQNode* AcceptNode(MQNode* listener) {
  Check(mnOpen(listener) && listener->child != nullptr, "mnOpen");
  return listener->child;
}

PcfMessage* NewMessage(size_t body) {
  const std::vector<uint8_t> bytes = SomeBytes(body - kBodyHead - kParamHead);
  PcfMessage* const msg = mqc_message_new(static_cast<uint32_t>(sizeof(MsgHeader) + body));
  Check(msg != nullptr, "mqc_message_new");
  Check(mqc_begin(msg, kCommand), "mqc_begin");
  Check(mqc_add_bytes(msg, kBytesId, bytes.data(), static_cast<uint32_t>(bytes.size())), "mqc_add_bytes");
  Check(msg->raw.length == sizeof(MsgHeader) + body, "length of the message");
  return msg;
}

void ShareKeys() {
  if (signer != nullptr) return;
  SockAddrRec address = LoopbackName(1);
  MQNode* const node = CreateMQNode(&address, MQ_ROLE_CONNECT);
  CheckNode(node, "CreateMQNode");
  const std::string user = node->user;
  DeleteMQNode(node);
  uint8_t secret[MQC_KEY_BYTES];
  uint8_t open[MQC_KEY_BYTES];
  char error[256];
  Check(mqc_generate_key(secret, open), "mqc_generate_key");
  signer = mqc_signer_new(user.c_str(), secret, error, sizeof error);
  mqc_wipe(secret, sizeof secret);
  if (signer == nullptr || !mqc_ring_add(user.c_str(), open, error, sizeof error)) Die(error);
}

MqcSigner* SharedSigner() { return signer; }

PcfMessage* MessageToSign(size_t body) {
  PcfMessage* const msg = NewMessage(body);
  auto* const header = reinterpret_cast<MsgHeader*>(msg->raw.data);
  const std::string user = mqc_signer_user(SharedSigner());
  memcpy(header->userId, user.data(), user.size());
  msg->secHeader = {sizeof(SecureHeader), 1, header->bigEndian, header->asciiText, msg->raw.length, {}};
  memcpy(msg->secHeader.userId, header->userId, sizeof header->userId);
  return msg;
}

IoBuffer Receive(const IoBuffer& sent, PcfMessage* msg) {
  IoBuffer part = sent;
  part.data += sizeof(SecureHeader);
  part.length -= sizeof(SecureHeader);
  memcpy(&msg->secHeader, sent.data, sizeof(SecureHeader));
  Check(SizePcfMessage(msg, sent.length), "SizePcfMessage");
  memcpy(msg->raw.data, part.data, part.length);
  msg->raw.length = part.length;
  return part;
}

Contestant Nodes() {
  return {"nodes", [](Pattern) -> std::unique_ptr<End> { return std::make_unique<NodeEnd>(false); }};
}

Contestant SignedNodes() {
  return {"signed", [](Pattern) -> std::unique_ptr<End> { return std::make_unique<NodeEnd>(true); }};
}

}  // namespace bench
