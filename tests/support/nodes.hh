// nodes.hh - nodes and messages for tests, and the companion's functions as tests want them: recorded, failing, with an
// identity that does not depend on who runs the test. It defines functions that libmqnode binds to: one source of a
// test program includes it.
#pragma once

#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "tests/support/fixture.hh"

struct Companion {
  std::string user = "tester";  // the login name
  bool has_user = true;
  bool little = true;
  bool ascii = true;
  std::string failing;  // this function returns 0 and does nothing
  Lines calls;          // message and security functions, in order
  int resets = 0;       // calls of ResetBuffer, each of which asked for at most the capacity

  static Companion& Now() {
    static Companion now;
    return now;
  }
  static bool Fails(const std::string& name, const std::string& detail = "") {
    Now().calls.push_back(detail.empty() ? name : name + " " + detail);
    return Now().failing == name;
  }
};

#define PASS_ON(name, ...)                                                               \
  static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name)); \
  return real(__VA_ARGS__)

extern "C" {

inline __attribute__((used)) int GetUserName(char* buf, int* len) {
  const Companion& now = Companion::Now();
  if (!now.has_user || static_cast<size_t>(*len) <= now.user.size()) return 0;
  memcpy(buf, now.user.c_str(), now.user.size() + 1);
  *len = static_cast<int>(now.user.size());
  return 1;
}
inline __attribute__((used)) int IsLtEndian(void) { return Companion::Now().little; }
inline __attribute__((used)) int IsAscText(void) { return Companion::Now().ascii ? 64 : 0; }

inline __attribute__((used)) void ResetBuffer(IoBuffer* buf, uint32_t length) {
  EXPECT_LE(length, buf->capacity);
  Companion::Now().resets += 1;
  PASS_ON(ResetBuffer, buf, length);
}
inline __attribute__((used)) int AlienToNative(PcfRawData* raw) {
  if (Companion::Fails("AlienToNative")) return 0;
  PASS_ON(AlienToNative, raw);
}
inline __attribute__((used)) int AlienToNativeExt(SecureHeader* envelope) {
  if (Companion::Fails("AlienToNativeExt")) return 0;
  PASS_ON(AlienToNativeExt, envelope);
}
inline __attribute__((used)) int AlienPcfToNative(PcfMessage* msg) {
  if (Companion::Fails("AlienPcfToNative")) return 0;
  PASS_ON(AlienPcfToNative, msg);
}
inline __attribute__((used)) int RawToPcf(PcfMessage* msg) {
  if (Companion::Fails("RawToPcf")) return 0;
  PASS_ON(RawToPcf, msg);
}
inline __attribute__((used)) int SizePcfMessage(PcfMessage* msg, uint32_t size) {
  if (Companion::Fails("SizePcfMessage", std::to_string(size))) return 0;
  PASS_ON(SizePcfMessage, msg, size);
}
inline __attribute__((used)) int DumpPcfMessage(PcfMessage*) {
  Companion::Fails("DumpPcfMessage");
  return 1;
}
inline __attribute__((used)) int VerifyMessage(PcfRawData* raw) {
  if (Companion::Fails("VerifyMessage")) return 0;
  PASS_ON(VerifyMessage, raw);
}
inline __attribute__((used)) int mqc_sign(void* context, PcfMessage* msg, IoBuffer* out) {
  if (Companion::Fails("mqc_sign")) return 0;
  PASS_ON(mqc_sign, context, msg, out);
}
inline __attribute__((used)) int mqc_authenticate(SecureHeader* envelope, IoBuffer* part, PcfMessage* msg) {
  if (Companion::Fails("mqc_authenticate")) return 0;
  PASS_ON(mqc_authenticate, envelope, part, msg);
}

}  // extern "C"

#undef PASS_ON

// Words of a header, in this host's byte order.
inline uint32_t WordAt(std::string_view bytes, size_t at) {
  uint32_t word;
  memcpy(&word, bytes.data() + at, sizeof word);
  return word;
}
inline void SetWord(std::string* bytes, size_t at, uint32_t word) { memcpy(bytes->data() + at, &word, sizeof word); }
inline void SwapWords(std::string* bytes, std::initializer_list<size_t> places) {
  for (const size_t at : places) SetWord(bytes, at, __builtin_bswap32(WordAt(*bytes, at)));
}
// A text field, zero-filled.
inline std::string Field(std::string_view text, size_t size) {
  std::string field(text.substr(0, size));
  field.resize(size, '\0');
  return field;
}

constexpr size_t kHeader = 136;
constexpr size_t kAtBody = 64;    // of bodyLength
constexpr size_t kAtUser = 72;    // of userId
constexpr size_t kOverhead = 20;  // bytes of a body with one parameter, but for the parameter's value

// A record, owned. One that Put filled holds a message with bytes as its only parameter.
class Message {
 public:
  explicit Message(uint32_t capacity = 0) : msg_(mqc_message_new(capacity)) {}
  Message(uint32_t command, size_t bytes) : Message() { Put(command, bytes); }
  ~Message() { mqc_message_free(msg_); }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  PcfMessage* operator->() const { return msg_; }
  operator PcfMessage*() const { return msg_; }
  void Put(uint32_t command, size_t bytes) {
    const std::string value = Value(command, bytes);
    EXPECT_TRUE(mqc_begin(msg_, command) && mqc_add_bytes(msg_, 1, value.data(), static_cast<uint32_t>(bytes)));
  }
  std::string raw() const { return {reinterpret_cast<const char*>(msg_->raw.data), msg_->raw.length}; }
  // "command:bytes from sender" when the parameter is what Put puts.
  std::string Text() const {
    MqcParam param;
    if (!mqc_param(msg_, 0, &param) || param.bytes == nullptr) return "nothing";
    const std::string value(reinterpret_cast<const char*>(param.bytes), param.length);
    if (value != Value(mqc_command(msg_), value.size())) return "damaged";
    char sender[13];
    mqc_sender(msg_, sender);
    return std::to_string(mqc_command(msg_)) + ":" + std::to_string(value.size()) + " from " + sender;
  }

 private:
  static std::string Value(uint32_t command, size_t bytes) {
    std::string value(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i) value[i] = static_cast<char>(i * 7 + command);
    return value;
  }

  PcfMessage* msg_;
};

// The bytes of a plain message from somebody who signs with "peer": 156 and the value, rounded up to a multiple of 4.
inline std::string Wire(uint32_t command, size_t bytes) {
  std::string wire = Message(command, bytes).raw();
  return wire.replace(kAtUser, 4, "peer");
}

// The same as a host of the other byte order sends it.
inline std::string Foreign(std::string wire) {
  SetWord(&wire, 8, 1);
  SwapWords(&wire, {0, 4, 8, 12, 64, 68, 132, 136, 140, 144, 148, 152});
  return wire;
}

// A node, owned.
class Node {
 public:
  Node() = default;
  explicit Node(MQNode* node) : node_(node) {}
  Node(Node&& other) noexcept : node_(other.Release()) {}
  Node& operator=(Node&& other) noexcept {
    Delete();
    node_ = other.Release();
    return *this;
  }
  ~Node() { Delete(); }

  MQNode* operator->() const { return node_; }
  operator MQNode*() const { return node_; }
  void Delete() { DeleteMQNode(Release()); }
  MQNode* Release() { return std::exchange(node_, nullptr); }

 private:
  MQNode* node_ = nullptr;
};

inline int PortOf(const MQNode* node) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  EXPECT_EQ(getsockname(node->sock.fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  return ntohs(address.sin_port);
}

inline Node Create(int port, int role) {
  SockAddrRec address = AddressOf("127.0.0.1", port);
  return Node(CreateMQNode(&address, role));
}
inline Node CreateDatagram() {
  SockAddrRec address = AddressOf("127.0.0.1", 0);
  return Node(CreateUDPMQNode(&address));
}

// An open node and the plain socket at its other end.
struct Link {
  Node node;
  Peer peer;
};

enum Mode { kBlocking, kNonBlocking };

inline Link Connect(Mode mode = kBlocking) {
  const Peer listener = Peer::Listen();
  Link link;
  link.node = Create(listener.port(), MQ_ROLE_CONNECT);
  EXPECT_EQ(mnOpen(link.node), 1);
  link.peer = listener.Accept();
  if (mode == kNonBlocking) NoblockSocket(&link.node->sock);
  Platform::Forget();
  return link;
}

// What a read left in a node, "error, read messages, held bytes/bytes asked for", and what a write left, "error, sent
// messages, out (standing), queue of length": "11, read 0, held 50/136", "0, sent 3, out 0".
inline std::string ReadState(const MQNode* node) {
  return std::to_string(node->error) + ", read " + std::to_string(node->msgsRead) + ", held " +
         std::to_string(node->recvBuffer.received) + "/" + std::to_string(node->recvBuffer.length);
}
inline std::string WriteState(const MQNode* node) {
  return std::to_string(node->error) + ", sent " + std::to_string(node->writesCompleted) + ", out " +
         std::to_string(node->writesOutstanding) +
         (node->pending == nullptr ? "" : ", queue " + std::to_string(Qdepth(node->pending)));
}

inline std::string Joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "; ") + line;
  return text;
}

class NodeTest : public Fixture {
 protected:
  NodeTest() {
    unsetenv("TEVRA_HOME");
    Companion::Now() = Companion();
    Platform::SetNodeName("testnode");
  }

  // Every trace point and error callback of a node and its socket goes to the list of Trace.
  static void Watch(MQNode* node) {
    mnSetTraceCallBack(Trace::OnNode, node);
    OnSocketTrace(&node->sock, Trace::OnSocket);
    OnSocketError(&node->sock, Trace::OnError);
    Trace::Take();
  }

  // Each node trace point goes to the list of TakePoints, with what it sees: "mnRead: 0, read 1, held 0/136".
  void WatchStates(MQNode* node) {
    WatchPoints(node, [](const MQNode* seen) { return std::string(": ").append(ReadState(seen)); });
  }
  void WatchErrors(MQNode* node) {
    WatchPoints(node, [](const MQNode* seen) { return std::string(" ").append(std::to_string(seen->error)); });
  }
  std::string TakePoints() { return Joined(std::exchange(points_, {})); }

 private:
  void WatchPoints(MQNode* node, std::string (*see)(const MQNode*)) {
    mnSetTraceCallBack(Trace::OnNode, node);
    Trace::on_node = [this, see](std::string_view point, MQNode* seen) {
      points_.push_back(std::string(point) + see(seen));
    };
    points_.clear();
  }

  Lines points_;
};
