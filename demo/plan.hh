// plan.hh - what the server and its clients have agreed on: ports, kinds of clients, the content of every message.
//
// The content of a message follows from the client's number and the message's, so that a client can tell whether an
// answer is right to the last byte without keeping what it sent.
#ifndef MQNODE_DEMO_PLAN_HH
#define MQNODE_DEMO_PLAN_HH

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"

namespace demo {

struct DeleteNode {
  void operator()(MQNode* node) const { DeleteMQNode(node); }
};
struct DeleteMessage {
  void operator()(PcfMessage* msg) const { mqc_message_free(msg); }
};
struct DeleteSigner {
  void operator()(MqcSigner* signer) const { mqc_signer_free(signer); }
};
using NodePtr = std::unique_ptr<MQNode, DeleteNode>;
using MessagePtr = std::unique_ptr<PcfMessage, DeleteMessage>;
using SignerPtr = std::unique_ptr<MqcSigner, DeleteSigner>;

// The server's four ports.
enum Port { kPlainPort, kSignedPort, kDatagramPort, kSignedDatagramPort, kPorts };

struct PortTraits {
  const char* name;
  bool isSigned;
  bool isDatagram;
};
constexpr PortTraits kPortTraits[kPorts] = {
    {"TCP", false, false}, {"TCP signed", true, false}, {"UDP", false, true}, {"UDP signed", true, true}};

// The kinds of honest clients. window: questions that a client has unanswered at most.
struct KindTraits {
  const char* name;
  const char* key;  // in JSON
  Port port;
  int window;
  bool isBulk;
};
constexpr KindTraits kKindTraits[] = {
    {"TCP plain", "tcp_plain", kPlainPort, 1, false},
    {"TCP signed", "tcp_signed", kSignedPort, 1, false},
    {"TCP plain, up to 4 MiB", "tcp_plain_large", kPlainPort, 2, true},
    {"TCP signed, up to 4 MiB", "tcp_signed_large", kSignedPort, 2, true},
    {"UDP plain", "udp_plain", kDatagramPort, 1, false},
    {"UDP signed", "udp_signed", kSignedDatagramPort, 1, false},
};
constexpr int kKinds = sizeof kKindTraits / sizeof kKindTraits[0];
constexpr int kMostWindow = 2;

// The kind of the client with this number. Of 40: 22 small plain ones, 8 signed ones, 1 of each large kind, 4 of each
// datagram kind; the first six are one of each.
int KindOf(uint32_t client);

constexpr int kSocketBuffer = 32 * 1024;  // bytes, both directions, both sides: large messages have to wait
constexpr int kServerWriteLimit = 4;      // answers that the server keeps for a client that does not read
constexpr int kMostClients = 2000;
constexpr int kMostProcesses = 32;
constexpr uint32_t kFirstRogue = 1000000;  // client numbers from here on are not those of honest clients

enum Command : uint32_t { kQuestion = 1, kAnswer = 2 };
enum Param : uint32_t { kClient = 1, kSequence = 2, kNumber = 3, kText = 4, kBytes = 5 };
constexpr uint32_t kParams = 5;

struct Options {
  int clients = 400;
  int processes = 4;
  int messages = 0;  // most of each client; 0: as many as fit into the time
  int seconds = 5;
  bool honestOnly = false;
  bool json = false;
};

// Who signs in this run. stranger is a key of the same user that the server does not know.
struct Keys {
  char user[MQC_USER_MAX + 1];
  uint8_t secretKey[MQC_KEY_BYTES];
  uint8_t publicKey[MQC_KEY_BYTES];
  uint8_t stranger[MQC_KEY_BYTES];
};

// Makes the keys and puts the public one into the ring, which child processes inherit. Empty, or why it failed.
std::string MakeKeys(Keys* keys);

SignerPtr MakeSigner(const Keys& keys, const uint8_t* secretKey);

struct Content {
  int32_t client;
  int32_t sequence;
  int64_t number;
  char text[64];
  std::span<const uint8_t> bytes;
};

// Makes the content of messages. Made once, before the processes part: all have the same random bytes.
class Author {
 public:
  explicit Author(uint64_t seed);

  Content Write(uint32_t client, uint32_t sequence, uint32_t size) const;

  // Size of the bytes that a client of this kind sends in a message.
  uint32_t SizeOf(int kind, uint32_t client, uint32_t sequence) const;

 private:
  uint64_t seed_;
  std::vector<uint8_t> pool_;
};

// Builds a question. False without memory.
bool BuildQuestion(PcfMessage* msg, const Content& content);

// Whether an answer is exactly what was asked. Empty, or the first difference.
std::string CompareAnswer(const PcfMessage* msg, const Content& content);

// Bytes of a raw message that was read or written, header included; without envelope and signature.
uint32_t RawLength(const PcfMessage* msg);

// An address on this host. Service 0 lets the kernel pick a port.
SockAddrRec LocalAddress(int port, bool isDatagram);

// The port that a descriptor is bound to; 0 when it cannot be told.
int PortOf(int fd);

// Seconds of a clock that only goes forward.
double Now();

}  // namespace demo

#endif
