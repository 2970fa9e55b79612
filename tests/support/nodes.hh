// nodes.hh - nodes and messages for tests, and the companion's functions: recorded, able to fail, with a fixed
// identity. It defines functions that libmqnode binds to: include it in one source file of a test program.
#pragma once

#include <dlfcn.h>
#include <sys/socket.h>

#include <cstdlib>
#include <utility>

#include "mqnode/mqnode.hpp"
#include "tests/support/fixture.hh"
#include "tests/support/sender.hh"

using sender::With;

struct Companion {
  std::string user = "tester";  // the login name
  std::string failing;          // this function returns 0 and does nothing

  static Companion& Now() {
    static Companion now;
    return now;
  }
};

// The message functions: recorded as events of kind 'm', failed on request, passed on.
#define NOTED(name, parameters, arguments, ...)                                            \
  inline __attribute__((used)) int name parameters {                                       \
    Platform::Note('m', format(#name __VA_ARGS__));                                        \
    if (Companion::Now().failing == #name) return 0;                                       \
    static const auto real = reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name)); \
    return real arguments;                                                                 \
  }

extern "C" {

inline __attribute__((used)) int GetUserName(char* buf, int* len) {
  const Companion& now = Companion::Now();
  if (static_cast<size_t>(*len) <= now.user.size()) return 0;
  memcpy(buf, now.user.c_str(), now.user.size() + 1);
  *len = static_cast<int>(now.user.size());
  return 1;
}

NOTED(AlienToNative, (PcfRawData * raw), (raw))
NOTED(AlienToNativeExt, (SecureHeader * envelope), (envelope))
NOTED(AlienPcfToNative, (PcfMessage * msg), (msg))
NOTED(RawToPcf, (PcfMessage * msg), (msg))
NOTED(SizePcfMessage, (PcfMessage * msg, uint32_t size), (msg, size), " {}", size)
NOTED(DumpPcfMessage, (PcfMessage * msg), (msg))
NOTED(VerifyMessage, (PcfRawData * raw), (raw))
NOTED(mqc_sign, (void* context, PcfMessage* msg, IoBuffer* out), (context, msg, out))
NOTED(mqc_authenticate, (SecureHeader * envelope, IoBuffer* part, PcfMessage* msg), (envelope, part, msg))

}  // extern "C"

// A word of a header, in this host's byte order.
inline uint32_t WordAt(std::string_view bytes, size_t at) {
  uint32_t word;
  memcpy(&word, bytes.data() + at, sizeof word);
  return word;
}
// The same header or message as sent by a host with the other byte order.
inline std::string Foreign(std::string wire) {
  wire = With(std::move(wire), 8, 1);
  const bool plain = WordAt(wire, 0) != 32;
  for (const size_t at : plain ? std::vector<size_t>{0, 4, 8, 12, 64, 68, 132, 136, 140, 144, 148, 152}
                               : std::vector<size_t>{0, 4, 8, 12, 16}) {
    if (at + 4 <= wire.size()) wire = With(wire, at, __builtin_bswap32(WordAt(wire, at)));
  }
  return wire;
}
// A text field, zero-filled.
inline std::string Field(std::string_view text, size_t size) {
  std::string field(text.substr(0, size));
  field.resize(size, '\0');
  return field;
}

constexpr size_t kHeader = 136;
constexpr size_t kEnvelope = 32;
constexpr size_t kTrailer = 96;  // bytes of the companion's signature trailer
constexpr size_t kAtBody = 64;   // of bodyLength
constexpr size_t kAtUser = 72;   // of userId

// Owns a record. After Put, the message has bytes as its only parameter.
struct Message : mqnode::Message {
  explicit Message(uint32_t capacity = 0) : mqnode::Message(mqc_message_new(capacity)) {}
  Message(uint32_t command, size_t bytes) : Message() { Put(command, bytes); }
  PcfMessage* operator->() const { return get(); }
  operator PcfMessage*() const { return get(); }
  void Put(uint32_t command, size_t bytes) const { EXPECT_TRUE(begin(command) && add(1, Value(command, bytes))); }
  std::string raw() const { return {reinterpret_cast<const char*>(get()->raw.data), get()->raw.length}; }
  // "command:bytes from sender" if the parameter is what Put adds.
  std::string Text() const {
    const mqnode::Bytes value = find(1).bytes();
    const std::string_view bytes(reinterpret_cast<const char*>(value.data()), value.size());
    return bytes == std::string_view(Value(command(), bytes.size()).data(), bytes.size())
               ? format("{}:{} from {}", command(), bytes.size(), sender())
               : "damaged";
  }
  static std::vector<char> Value(uint32_t command, size_t bytes) {
    std::vector<char> value(bytes);
    for (size_t i = 0; i < bytes; ++i) value[i] = static_cast<char>(i * 7 + command);
    return value;
  }
};

// A plain message from user "peer": 156 bytes and the value, rounded up to a multiple of 4.
inline std::string Wire(uint32_t command, size_t bytes = 4) {
  return Message(command, bytes).raw().replace(kAtUser, 4, "peer");
}

// Owns a node.
struct Node : mqnode::Node {
  using mqnode::Node::Node;
  MQNode* operator->() const { return get(); }
  operator MQNode*() const { return get(); }
};

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
inline Link Connect(bool blocking = true) {
  const Peer listener = Peer::Listen();
  Link link = {Create(listener.port(), MQ_ROLE_CONNECT), Peer()};
  EXPECT_EQ(mnOpen(link.node), 1);
  link.peer = listener.Accept();
  if (!blocking) NoblockSocket(&link.node->sock);
  Take();
  return link;
}

// What a read left in a node, "error, read messages, held bytes/bytes asked for", and what a write left, "error, sent
// messages, out (outstanding), queue of length": "11, read 0, held 50/136", "0, sent 3, out 0".
inline std::string ReadState(const MQNode* node) {
  return format("{}, read {}, held {}/{}", node->error, node->msgsRead, node->recvBuffer.received,
                node->recvBuffer.length);
}
inline std::string WriteState(const MQNode* node) {
  const std::string queue = node->pending == nullptr ? "" : format(", queue {}", Qdepth(node->pending));
  return format("{}, sent {}, out {}{}", node->error, node->writesCompleted, node->writesOutstanding, queue);
}
inline std::string Error(const MQNode* node) { return std::to_string(node->error); }

// Messages signed by "tester", who is in the ring.
class Keys {
 public:
  Keys() {
    uint8_t secret[MQC_KEY_BYTES], key[MQC_KEY_BYTES];
    EXPECT_TRUE(mqc_generate_key(secret, key) && mqc_ring_add("tester", key, nullptr, 0));
    signer = mqnode::Signer::create("tester", secret);
  }
  ~Keys() { mqc_ring_clear(); }
  // The bytes of a signed message as sent by a node: 128 more than the plain one.
  std::string Sign(uint32_t command, size_t bytes = 4) const {
    const Link link = Connect();
    const Message out(command, bytes);
    EXPECT_EQ(mnSWrite(out, link.node, 1, signer.get()), 1);
    const std::string wire = link.peer.Read(kEnvelope + out->raw.length + kTrailer);
    Take();
    return wire;
  }
  mqnode::Signer signer;
};

class NodeTest : public Fixture {
 protected:
  NodeTest() {
    unsetenv("TEVRA_HOME");
    Companion::Now() = Companion();
    Platform::SetNodeName("testnode");
  }

  // Records all trace points and error callbacks of a node and its socket; show is called for the node's.
  static void Watch(MQNode* node, std::string (*show)(const MQNode*) = nullptr) {
    mnSetTraceCallBack(Trace::OnNode, node);
    OnSocketTrace(&node->sock, Trace::OnSocket);
    OnSocketError(&node->sock, Trace::OnError);
    Trace::Now().show = show;
    Take();
  }
};
