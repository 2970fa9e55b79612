// link.cc - see link.hh.
// A wait is cut into ticks, so that a signal that arrives just before it is seen soon after.
#include "link.hh"

#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "fmt/format.h"
#include "mqnode/errors.h"
#include "mqnode/finish.h"
#include "signals.hh"
#include "text.hh"
#include "trace.hh"

namespace mqcat {
namespace {

constexpr auto kTick = std::chrono::milliseconds(200);
constexpr int kMostPending = 64;  // messages that may wait in a node before a write waits for them
constexpr auto kBreath = std::chrono::milliseconds(1);
constexpr double kSilence = 1;     // seconds that a peer may keep a connection open when its system has everything
constexpr double kRefusal = 0.05;  // seconds, beside two round trips, that a peer has to refuse what it reads
constexpr int kShortTick = 5;      // milliseconds

ExitCode ExitCodeOf(int code) {
  switch (code) {
    case MQ_BAD_MESSAGE:
    case MQ_BAD_BODY:
      return kExitBadMessage;
    case MQ_NOT_SIGNED:
    case MQ_NOT_AUTHENTIC:
      return kExitSecurity;
    case MQ_NO_ROOM:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
      return kExitResources;
    case ETIMEDOUT:
      return kExitTimeout;
    default:
      return kExitConnection;
  }
}

std::string ReasonOf(int code) {
  if (code == MQ_NOT_SIGNED) return mqc_sign_error();
  return code == MQ_NOT_AUTHENTIC ? mqc_authenticate_error() : "";
}

void SetOption(MQNode* node, int id, int value) {
  SockOption option = {id, 0, value};
  SetSocketOptions(&node->sock, &option);
}

// Lets the system send what is queued in it after a close. By default nodes discard it.
void LingerNot(MQNode* node) { SetOption(node, SOCK_OPT_LINGER, 0); }

bool IsLoopback(const SockAddrRec& address) { return strncmp(address.ip, "127.", 4) == 0; }

}  // namespace

Clock::time_point In(double seconds) {
  constexpr double kYear = 365.0 * 86400;
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(std::min(seconds, kYear)));
}

MessagePtr NewMessage() {
  MessagePtr msg(mqc_message_new(0));
  if (msg == nullptr) throw Failure{kExitResources, "out of memory for a message"};
  return msg;
}

void SetApplication(MQNode* node) {
  memset(node->applName, 0, sizeof node->applName);
  memcpy(node->applName, "mqcat", 5);
}

std::string NodeCodeText(const MQNode* node) {
  unsigned place = MQ_IN_ANY;
  const int code = mq_node_cause(node, &place);
  const bool is_datagram = node->sock.type == SOCK_TYPE_DATAGRAM;
  if (code != SOCK_PEER_CLOSED) return CodeText(code, place);
  return is_datagram ? "an empty datagram" : fmt::format("SOCK_PEER_CLOSED ({}): the peer closed the connection", code);
}

Failure NodeFailure(const std::string& what, const MQNode* node, const std::string& reason) {
  const int code = mq_node_cause(node, nullptr);
  const std::string why = reason.empty() ? ReasonOf(code) : reason;
  return {ExitCodeOf(code),
          fmt::format("{}: {}{}", what, NodeCodeText(node), why.empty() ? AdviceText(code) : "\n  " + why)};
}

Waiter::Waiter(size_t count) {
  if (!InitSocketPostData(&work_, static_cast<int>(count) + 1)) {
    FreeSocketPostData(&work_);
    throw Failure{kExitResources, fmt::format("out of memory to wait on {} nodes", count)};
  }
}

void Waiter::Wait(std::vector<MQNode*> nodes, Clock::time_point deadline) {
  const auto left = std::clamp<Clock::duration>(deadline - Clock::now(), Clock::duration::zero(), kTick);
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  const size_t room = nodes.size() + 1;
  for (auto* list : {&listen_, &read_, &write_}) list->assign(room, nullptr);
  nodes.push_back(nullptr);
  int status = 0;
  const int ready = mnNPostExMSec(nodes.data(), listen_.data(), read_.data(), write_.data(),
                                  static_cast<int>(milliseconds), &status, &work_);
  for (auto* list : {&listen_, &read_, &write_}) {
    list->erase(ready ? std::find(list->begin(), list->end(), nullptr) : list->begin(), list->end());
  }
  if (ready || status == SOCK_WAIT_TIMEOUT || status == EINTR) return;
  throw Failure{kExitResources, fmt::format("wait on {} nodes: {}", room - 1, CodeText(status, MQ_IN_STATUS))};
}

SignerPtr LoadSigner(const std::string& path, const std::string& user) {
  char error[512];
  SignerPtr signer(mqc_signer_load(path.c_str(), user.empty() ? nullptr : user.c_str(), error, sizeof error));
  if (signer == nullptr) throw Failure{kExitSecurity, fmt::format("secret key file {}", error)};
  return signer;
}

SignerPtr SealingSigner(const MqcSigner* signer, const std::string& user) {
  char error[512];
  SignerPtr seals(mqc_signer_sealing(signer, user.c_str(), error, sizeof error));
  if (seals == nullptr) throw Failure{kExitSecurity, fmt::format("seal for {}: {}", Quote(user), error)};
  return seals;
}

Security LoadSecurity(const KeyOptions& keys) {
  char error[512];
  Security security;
  if (!keys.sign.empty()) security.signer = LoadSigner(keys.sign, keys.user);
  if (!keys.ring.empty()) {
    const char* const ring = keys.ring.c_str();
    if (!mqc_ring_load(ring, error, sizeof error)) throw Failure{kExitSecurity, fmt::format("ring {}", error)};
    if (mqc_ring_count() == 0) throw Failure{kExitSecurity, fmt::format("ring {}: contains no key", ring)};
    security.check = true;
  }
  const SignerPtr key = keys.key.empty() ? nullptr : LoadSigner(keys.key, keys.user);
  const MqcSigner* const opener = keys.seal_to.empty() ? key.get() : security.signer.get();
  if (opener != nullptr && !mqc_set_opener(opener)) throw Failure{kExitResources, "out of memory for a key"};
  security.seals = !keys.seal_to.empty();
  if (security.seals) security.signer = SealingSigner(security.signer.get(), keys.seal_to);
  return security;
}

Link::Link(const SockAddrRec& target, Transport transport, Clock::time_point deadline)
    : target_(target), target_text_(AddressText(target)), transport_(transport), waiter_(1) {
  if (transport_ == Transport::kUdp) {
    SockAddrRec own = MakeAddress(IsLoopback(target) ? "127.0.0.1" : "*", "0", transport);
    node_.reset(CreateUDPMQNode(&own));
  } else {
    node_.reset(CreateMQNode(&target_, MQ_ROLE_CONNECT));
  }
  if (node_ == nullptr) throw Failure{kExitResources, "out of memory for a node"};
  SetApplication(node_.get());
  if (node_->error != 0) throw NodeFailure(fmt::format("socket for {}", target_text_), node_.get());
  LingerNot(node_.get());
  NoblockSocket(&node_->sock);
  if (transport_ == Transport::kTcp) Connect(deadline);
}

void Link::Connect(Clock::time_point deadline) {
  const std::string what = "connect to " + target_text_;
  if (!mnOpen(node_.get()) && node_->error != MQ_AGAIN) throw NodeFailure(what, node_.get());
  while (node_->openState == 0) {
    if (Interrupted()) throw Failure{kExitInterrupted, what + ": interrupted"};
    if (Clock::now() >= deadline) {
      throw Failure{kExitTimeout,
                    fmt::format("{}: {}{}", what, CodeText(ETIMEDOUT, MQ_IN_SOCKET), AdviceText(ETIMEDOUT))};
    }
    waiter_.Wait({node_.get()}, deadline);
    if (!waiter_.to_write().empty() || !waiter_.to_read().empty()) FinishConnect();
  }
  SetTcpNoDelay(&node_->sock, 1);
}

// A node that is listed has completed its connect, or failed; the socket knows which.
void Link::FinishConnect() {
  SockOption outcome = {SOCK_OPT_ERROR, 0, 0};
  GetSocketOptions(&node_->sock, &outcome);
  if (outcome.value1 != 0) {
    node_->sock.error = outcome.value1;
    node_->error = outcome.value1;
    throw NodeFailure("connect to " + target_text_, node_.get());
  }
  // A node that was readable at once is not marked open by the wait: connecting again succeeds without doing anything.
  if (node_->openState == 0) mnOpen(node_.get());
}

void Link::Use(const Security* security) {
  security_ = security;
  // A signed message carries the node's user, which must be the signer's.
  if (security_->signer != nullptr) {
    snprintf(node_->user, sizeof node_->user, "%s", mqc_signer_user(security_->signer.get()));
  }
}

void Link::Flush(Clock::time_point deadline, int most_pending) {
  while (mnIsPendingIO(node_.get()) && Qdepth(node_->pending) > most_pending) {
    const std::string what = "send to " + target_text_;
    if (Interrupted()) throw Failure{kExitInterrupted, what + ": interrupted"};
    if (Clock::now() >= deadline) {
      throw Failure{kExitTimeout, fmt::format("{}: the peer does not read: {} queued", what,
                                              Count(static_cast<uint64_t>(Qdepth(node_->pending)), "message"))};
    }
    waiter_.Wait({node_.get()}, deadline);
    if (const int code = discard_ && !waiter_.to_read().empty() ? Discard() : 0; code != 0) throw Fail(code);
    if (waiter_.to_write().empty()) {
      std::this_thread::sleep_for(kBreath);  // an unread answer would end every wait at once
    } else if (!mnFinishWrite(node_.get())) {
      throw NodeFailure(what, node_.get());
    }
  }
}

// Discards what has arrived. 0, or the code of a connection that has ended.
int Link::Discard() {
  std::array<char, 65536> place;
  for (;;) {
    const ssize_t got = recv(node_->sock.fd, place.data(), place.size(), MSG_DONTWAIT);
    if (got == 0) return SOCK_PEER_CLOSED;
    if (got < 0) return errno == EAGAIN || errno == EINTR ? 0 : errno;
  }
}

Failure Link::Fail(int code) {
  node_->error = node_->sock.error = code;
  return NodeFailure("send to " + target_text_, node_.get());
}

// Bytes that the peer's system has not confirmed.
int Link::Unconfirmed() const {
  int bytes = 0;
  return ioctl(node_->sock.fd, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

// A peer that refuses a message resets the connection when it has read it, soon after its system has confirmed it. One
// that closes in order may have read everything.
void Link::AwaitRefusal(Clock::time_point deadline) {
  tcp_info info = {};
  socklen_t size = sizeof info;
  getsockopt(node_->sock.fd, IPPROTO_TCP, TCP_INFO, &info, &size);
  const double moment = kRefusal + 2e-6 * info.tcpi_rtt;
  for (auto end = In(moment); !Interrupted() && Clock::now() < std::min(end, deadline);) {
    pollfd wanted = {node_->sock.fd, POLLIN, 0};
    if (poll(&wanted, 1, kShortTick) == 1) {
      const int code = Discard();
      if (code == SOCK_PEER_CLOSED) return;
      if (code != 0) throw Fail(code);
    }
    if (Unconfirmed() != 0) end = In(moment);
  }
}

void Link::Finish(Clock::time_point deadline, bool awaits_refusal) {
  Drain(deadline);
  if (transport_ == Transport::kUdp) return;
  if (awaits_refusal) AwaitRefusal(deadline);
  MqFinish state = {};
  for (auto silent = In(kSilence); Clock::now() < std::min(deadline, silent);) {
    const int result = mq_finish_step(node_.get(), &state);
    if (result == 1) return;
    if (result == 0) throw NodeFailure("send to " + target_text_, node_.get());
    if (Interrupted()) throw Failure{kExitInterrupted, "send to " + target_text_ + ": interrupted"};
    pollfd wanted = {node_->sock.fd, state.events, 0};
    poll(&wanted, 1, state.events != 0 ? static_cast<int>(kTick.count()) : kShortTick);
    if (wanted.revents != 0 || Unconfirmed() != 0) silent = In(kSilence);
  }
  if (const int left = Unconfirmed(); left != 0) {
    throw Failure{kExitTimeout, fmt::format("send to {}: the peer does not read: {} not confirmed", target_text_,
                                            Count(static_cast<uint64_t>(left), "byte"))};
  }
}

uint64_t Link::Taken(uint64_t written) const {
  return written - (static_cast<uint32_t>(written) - node_->writesCompleted);
}

void Link::Write(PcfMessage* msg, Clock::time_point deadline) {
  const std::string what = fmt::format("send {} bytes to {}", msg->raw.length, target_text_);
  const bool datagram = transport_ == Transport::kUdp;
  MqcSigner* const signer = security_ != nullptr ? security_->signer.get() : nullptr;
  const uint32_t most = kMaxDatagram - AddedBytes(signer != nullptr, signer != nullptr && security_->seals);
  if (datagram && msg->raw.length > most) {
    throw Failure{kExitInput, fmt::format("{}: a datagram carries a message of at most {} bytes", what, most)};
  }
  Flush(deadline, kMostPending);
  const char* const user = user_.empty() ? node_->user : user_.c_str();
  if (!mnSWriteMsg(msg, node_.get(), datagram ? &target_ : nullptr, user, signer != nullptr, signer, 0)) {
    throw NodeFailure(what, node_.get());
  }
  TraceMessage(node_.get(), "message to", target_text_, msg);
}

void Link::Drain(Clock::time_point deadline) { Flush(deadline, 0); }

bool Link::Read(PcfMessage* msg, Clock::time_point deadline) {
  const bool check = security_ != nullptr && security_->check;
  for (;;) {
    if (mnSRead(msg, node_.get(), check, nullptr)) {
      TraceMessage(node_.get(), "message from", target_text_, msg);
      return true;
    }
    if (node_->error != MQ_AGAIN) throw NodeFailure("answer from " + target_text_, node_.get());
    if (Interrupted() || Clock::now() >= deadline) return false;
    waiter_.Wait({node_.get()}, deadline);
    if (!waiter_.to_write().empty() && !mnFinishWrite(node_.get()))
      throw NodeFailure("send to " + target_text_, node_.get());
  }
}

}  // namespace mqcat
