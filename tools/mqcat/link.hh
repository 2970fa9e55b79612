// link.hh - nodes with owners: connect, send and receive within a deadline.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "address.hh"
#include "companion/host.h"
#include "failure.hh"
#include "mqnode/mqnode.h"
#include "options.hh"

namespace mqcat {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kMaxDatagram = 16520;  // bytes that a reader takes

// Bytes that signing adds to a message, envelope and trailer, and that sealing adds.
inline uint32_t AddedBytes(bool is_signed, bool is_sealed) {
  return (is_signed ? 32u + 96u : 0u) + (is_sealed ? 64u : 0u);
}

// The time this many seconds from now; far away for more than a year.
Clock::time_point In(double seconds);

struct NodeDeleter {
  void operator()(MQNode* node) const { DeleteMQNode(node); }
};
using NodePtr = std::unique_ptr<MQNode, NodeDeleter>;

struct SignerDeleter {
  void operator()(MqcSigner* signer) const { mqc_signer_free(signer); }
};
using SignerPtr = std::unique_ptr<MqcSigner, SignerDeleter>;

struct MessageDeleter {
  void operator()(PcfMessage* msg) const { mqc_message_free(msg); }
};
using MessagePtr = std::unique_ptr<PcfMessage, MessageDeleter>;

MessagePtr NewMessage();

// Messages of the node, and of nodes that it accepts, name this program.
void SetApplication(MQNode* node);

// "NAME (code): meaning" of the code that a node's last operation left.
std::string NodeCodeText(const MQNode* node);

// "what TARGET: NAME (code): meaning", from what the node and its socket say; the exit code fits the cause. On a line
// of its own follows the reason if it is known, from the caller or from signing and authentication, else advice.
Failure NodeFailure(const std::string& what, const MQNode* node, const std::string& reason = "");

// A work record for the waits of up to count nodes.
class Waiter {
 public:
  explicit Waiter(size_t count);
  ~Waiter() { FreeSocketPostData(&work_); }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  // Waits for a tick at most: until one of the nodes is ready, the deadline or a signal. Afterwards the lists contain
  // what is ready. nodes has no null pointer at its end.
  void Wait(std::vector<MQNode*> nodes, Clock::time_point deadline);

  const std::vector<MQNode*>& to_accept() const { return listen_; }
  const std::vector<MQNode*>& to_read() const { return read_; }
  const std::vector<MQNode*>& to_write() const { return write_; }

 private:
  SockPostData work_ = {};
  std::vector<MQNode*> listen_, read_, write_;
};

// Signs what a node writes, and checks what it reads.
struct Security {
  SignerPtr signer;    // null: plain writes
  bool check = false;  // signed reads, against the process's ring
  bool seals = false;  // what the signer signs
};

// Loads a signer: the key of user, or the only one.
SignerPtr LoadSigner(const std::string& path, const std::string& user);

// A signer that also seals for a user of the ring.
SignerPtr SealingSigner(const MqcSigner* signer, const std::string& user);

// Loads what the options name. The process opens messages that are sealed for the user of keys.key, or with
// keys.seal_to, for the signer.
Security LoadSecurity(const KeyOptions& keys);

// One connection, or one datagram socket with the peer it talks to. Non-blocking.
class Link {
 public:
  // Connects before the deadline; on UDP binds a free port. Throws a Failure.
  Link(const SockAddrRec& target, Transport transport, Clock::time_point deadline);

  void Use(const Security* security);
  void set_user(const std::string& user) { user_ = user; }

  // Writes the message; waits while the peer does not read what was written before. The header names user.
  void Write(PcfMessage* msg, Clock::time_point deadline);

  // Waits until everything written is with the system.
  void Drain(Clock::time_point deadline);

  // Discards answers as they arrive, so that a peer that waits for answers to be read can continue.
  void DiscardAnswers() { discard_ = true; }

  // Sends what is queued, shuts the sending side down and waits until the peer's system has confirmed everything, and
  // the peer has closed or is silent. Throws a Failure if the peer resets the connection, or confirms too little in
  // time. On UDP nothing is known afterwards. awaits_refusal: gives the peer a moment to refuse, before the end of the
  // stream makes it close in any case.
  void Finish(Clock::time_point deadline, bool awaits_refusal);

  // Reads the next message before the deadline. False when none came; throws a Failure for everything else.
  bool Read(PcfMessage* msg, Clock::time_point deadline);

  // How many of the written messages the system has accepted whole.
  uint64_t Taken(uint64_t written) const;

  const std::string& target() const { return target_text_; }
  MQNode* node() { return node_.get(); }

 private:
  void Connect(Clock::time_point deadline);
  void FinishConnect();
  void Flush(Clock::time_point deadline, int most_pending);
  int Discard();
  void AwaitRefusal(Clock::time_point deadline);
  Failure Fail(int code);
  int Unconfirmed() const;

  SockAddrRec target_;
  std::string target_text_;
  Transport transport_;
  NodePtr node_;
  Waiter waiter_;
  const Security* security_ = nullptr;
  std::string user_;
  bool discard_ = false;
};

}  // namespace mqcat
