// server.cc - four listening and datagram nodes, and a child node for every connection, in one loop over mnNPostExMSec.
// Every question gets its own content as answer. A peer that breaks the rules is dropped, and only that peer.
// Invariant: a node that is closed during a round stays in peers_ until Sweep, because it may be in two ready arrays.
#include "demo/server.hh"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unordered_map>

#include "mqnode/errors.h"

namespace demo {
namespace {

constexpr int kWaitMsec = 50;
constexpr double kScanSeconds = 0.1;
constexpr double kPatience = 2.0;  // a peer that owes something may stand still for this long, seconds
constexpr double kAbsence = 0.5;   // a scan that comes this late says that the server itself stood still
constexpr int kDatagramBuffer = 4 * 1024 * 1024;
constexpr int kDatagramsPerRound = 256;  // so that datagrams do not keep the connections waiting
constexpr int kSpareNodes = 64;
constexpr uint32_t kReplayMemory = 1u << 20;

// A connection. The byte counts tell whether a peer left in the middle of a message, and whether it moves at all.
struct Peer {
  NodePtr node;
  Port port;
  uint32_t peerPort;
  uint64_t consumed = 0;  // bytes of whole messages
  uint64_t moved = 0;     // bytes received and sent, as seen by the last scan
  double movedAt = 0;
  uint32_t waiting = 0;  // answers queued, as counted in the totals
};

class Server {
 public:
  Server(Shared* shared, const Options& options)
      : shared_(*shared),
        tally_(shared->server),
        most_(static_cast<size_t>(options.clients) + kSpareNodes),
        listening_(most_ + kPorts + 1),
        readable_(most_ + kPorts + 1),
        writable_(most_ + kPorts + 1) {}
  ~Server() { FreeSocketPostData(&work_); }

  bool Open(const Keys& keys);
  bool Run();
  void Close();

 private:
  bool Fail(const char* what, const MQNode* node);
  bool OpenPort(Port port);
  bool Round();
  void ListNodes();
  void Accept(MQNode* listener);
  void ServeNode(MQNode* node);
  void FinishNode(MQNode* node);
  bool ReadConnection(Peer& peer);
  void AnswerConnection(Peer& peer);
  void ServeDatagrams(MQNode* node, Port port);
  bool BuildAnswer();
  void CountQuestion(Port port);
  void CountAnswer(Port port);
  void CountWaiting(Peer& peer);
  void CountError(int code);
  void Note(Port port, uint32_t peerPort, End end, int code);
  void Drop(Peer& peer, End end, int code);
  void Shut(Peer& peer);
  void Sweep();
  void Scan(double now);

  Shared& shared_;
  ServerTally& tally_;
  const size_t most_;
  NodePtr ports_[kPorts];
  std::unordered_map<MQNode*, Peer> peers_;
  std::vector<MQNode*> nodes_, listening_, readable_, writable_;
  bool changed_ = true;  // nodes_ is to be listed again
  bool closed_ = false;  // there is something to sweep
  SockPostData work_{};
  MessagePtr in_{mqc_message_new(0)}, out_{mqc_message_new(0)};
  SignerPtr signer_;
  double scannedAt_ = 0;
  uint32_t writesWaiting_ = 0, nodesWaiting_ = 0;
};

int CauseOf(const MQNode* node) { return mq_node_cause(node, nullptr); }

bool Server::Fail(const char* what, const MQNode* node) {
  snprintf(tally_.failure, sizeof tally_.failure, "%s: %s", what, mq_error_name(CauseOf(node)));
  return false;
}

bool Server::OpenPort(Port port) {
  const PortTraits& traits = kPortTraits[port];
  SockAddrRec addr = LocalAddress(0, traits.isDatagram);
  NodePtr& node = ports_[port];
  node.reset(traits.isDatagram ? CreateUDPMQNode(&addr) : CreateMQNode(&addr, MQ_ROLE_LISTEN));
  if (IsNodeFailed(node.get()) || !NoblockSocket(&node->sock)) return Fail("listen", node.get());
  // Accepted connections take over the buffer sizes: small ones, so that large answers have to wait. Datagrams of many
  // clients meet in one buffer: the system gives as much as it allows.
  if (!mnSetBufferSize(node.get(), traits.isDatagram ? kDatagramBuffer : kSocketBuffer))
    return Fail("buffer size", node.get());
  shared_.ports[port] = PortOf(node->sock.fd);
  return shared_.ports[port] != 0 || Fail("port", node.get());
}

bool Server::Open(const Keys& keys) {
  signer_ = MakeSigner(keys, keys.secretKey);
  if (!in_ || !out_ || !signer_) return Fail("start", nullptr);
  if (!InitSocketPostData(&work_, static_cast<int>(most_ + kPorts + 1))) return Fail("wait", nullptr);
  if (!mqc_set_replay_limit(kReplayMemory)) return Fail("replay memory", nullptr);
  for (int port = 0; port < kPorts; ++port) {
    if (!OpenPort(static_cast<Port>(port))) return false;
  }
  return true;
}

bool Server::Run() {
  shared_.ready = true;
  while (!shared_.stop) {
    if (!Round()) return false;
    Sweep();
    const double now = Now();
    if (now - scannedAt_ >= kScanSeconds) Scan(now);
  }
  return true;
}

// One wait and what follows from it: first what may leave, then what has come, then who is new.
bool Server::Round() {
  ListNodes();
  int status = 0;
  ++tally_.waits;
  if (!mnNPostExMSec(nodes_.data(), listening_.data(), readable_.data(), writable_.data(), kWaitMsec, &status,
                     &work_)) {
    if (status == SOCK_WAIT_TIMEOUT || status == EINTR) return true;
    snprintf(tally_.failure, sizeof tally_.failure, "wait: %s", mq_error_name(status));
    return false;
  }
  for (MQNode** node = writable_.data(); *node != nullptr; ++node) FinishNode(*node);
  for (MQNode** node = readable_.data(); *node != nullptr; ++node) ServeNode(*node);
  for (MQNode** node = listening_.data(); *node != nullptr; ++node) Accept(*node);
  return true;
}

// While the table is full the listening nodes are left out: whoever comes then waits in the system's queue.
void Server::ListNodes() {
  if (!changed_) return;
  changed_ = false;
  nodes_.clear();
  const bool full = peers_.size() >= most_;
  for (const NodePtr& port : ports_) {
    if (port->role != MQ_ROLE_LISTEN || !full) nodes_.push_back(port.get());
  }
  for (const auto& [node, peer] : peers_) nodes_.push_back(node);
  nodes_.push_back(nullptr);
}

void Server::Accept(MQNode* listener) {
  const Port port = listener == ports_[kSignedPort].get() ? kSignedPort : kPlainPort;
  while (peers_.size() < most_) {
    if (!mnOpen(listener)) {
      if (listener->error != MQ_AGAIN) CountError(listener->error);
      break;
    }
    NodePtr child(listener->child);
    if (!child) return CountError(ENOMEM);
    NoblockSocket(&child->sock);
    SetTcpNoDelay(&child->sock, 1);
    child->writeLimit = kServerWriteLimit;
    const uint32_t peerPort = child->sock.name.port;
    MQNode* const key = child.get();
    peers_[key] = Peer{std::move(child), port, peerPort};
    peers_[key].movedAt = Now();
    changed_ = true;
    ++tally_.accepted;
  }
  tally_.connections = static_cast<uint32_t>(peers_.size());
  tally_.peakConnections = std::max<uint32_t>(tally_.peakConnections, tally_.connections);
}

void Server::ServeNode(MQNode* node) {
  for (const Port port : {kDatagramPort, kSignedDatagramPort}) {
    if (node == ports_[port].get()) return ServeDatagrams(node, port);
  }
  Peer& peer = peers_.at(node);
  if (node->openState != 0 && ReadConnection(peer)) AnswerConnection(peer);
}

void Server::FinishNode(MQNode* node) {
  ++tally_.finished;
  const int result = mnFinishWrite(node);
  const auto found = peers_.find(node);
  if (found == peers_.end()) return;  // a datagram node: what was dropped is asked for again
  CountWaiting(found->second);
  if (!result) Drop(found->second, End::kWriteFailed, CauseOf(node));
}

// Reads one message. False when there is none to answer: unfinished, or the peer was dropped.
bool Server::ReadConnection(Peer& peer) {
  MQNode* const node = peer.node.get();
  const bool isSigned = kPortTraits[peer.port].isSigned;
  if (mnSRead(in_.get(), node, isSigned, nullptr)) {
    peer.consumed += isSigned ? sizeof(SecureHeader) + in_->secHeader.msgLength : RawLength(in_.get());
    CountQuestion(peer.port);
    return true;
  }
  if (node->error == MQ_AGAIN) return false;
  const bool gone = node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET;
  if (gone && node->sock.bytesReceived == peer.consumed && !mnIsPendingIO(node)) {
    ++tally_.farewells;
    Shut(peer);
  } else {
    Drop(peer, End::kReadFailed, node->error);
  }
  return false;
}

void Server::AnswerConnection(Peer& peer) {
  MQNode* const node = peer.node.get();
  if (!BuildAnswer()) return Drop(peer, End::kWriteFailed, ENOMEM);
  if (!mnSWrite(out_.get(), node, kPortTraits[peer.port].isSigned, signer_.get())) {
    return Drop(peer, End::kWriteFailed, CauseOf(node));
  }
  CountAnswer(peer.port);
  if (mnIsPendingIO(node)) ++tally_.queued;
  CountWaiting(peer);
}

void Server::ServeDatagrams(MQNode* node, Port port) {
  const bool isSigned = kPortTraits[port].isSigned;
  for (int i = 0; i < kDatagramsPerRound; ++i) {
    const bool read = mnSRead(in_.get(), node, isSigned, nullptr) != 0;
    if (!read && node->error == MQ_AGAIN) return;
    SockAddrRec from;
    GetFromAddr(&node->sock, &from);
    if (!read) {
      Note(port, from.port, End::kReadFailed, node->error);
      continue;
    }
    CountQuestion(port);
    if (BuildAnswer() && mnSWriteTo(out_.get(), node, &from, isSigned, signer_.get())) {
      CountAnswer(port);
    } else {
      CountError(CauseOf(node));
    }
  }
}

// The answer has the parameters of the question, all of them, in their order.
bool Server::BuildAnswer() {
  PcfMessage* const out = out_.get();
  if (!mqc_begin(out, kAnswer)) return false;
  MqcParam param;
  for (uint32_t i = 0; mqc_param(in_.get(), i, &param); ++i) {
    bool added = false;
    switch (param.type) {
      case MQC_INT32:
        added = mqc_add_int32(out, param.id, static_cast<int32_t>(param.number));
        break;
      case MQC_INT64:
        added = mqc_add_int64(out, param.id, param.number);
        break;
      case MQC_TEXT:
        added = mqc_add_text(out, param.id, param.text);
        break;
      case MQC_BYTES:
        added = mqc_add_bytes(out, param.id, param.bytes, param.length);
        break;
    }
    if (!added) return false;
  }
  return true;
}

// Whether the question that was read last came from an honest client.
bool IsHonest(const PcfMessage* question) {
  MqcParam client;
  return mqc_find(question, kClient, &client) && client.number >= 0 && client.number < kFirstRogue;
}

void Server::CountQuestion(Port port) {
  const uint32_t length = RawLength(in_.get());
  PortTally& tally = tally_.ports[port];
  if (IsHonest(in_.get())) {
    ++tally.questions;
    tally.bytesReceived += length;
  } else {
    ++tally.rogueQuestions;
  }
  ++tally_.messages;
  tally_.bytes += length;
}

void Server::CountAnswer(Port port) {
  const uint32_t length = RawLength(out_.get());
  PortTally& tally = tally_.ports[port];
  if (IsHonest(in_.get())) {
    ++tally.answers;
    tally.bytesSent += length;
  }
  ++tally_.messages;
  tally_.bytes += length;
}

void Server::CountWaiting(Peer& peer) {
  const uint32_t waiting = mnIsPendingIO(peer.node.get()) ? static_cast<uint32_t>(peer.node->writesOutstanding) : 0;
  writesWaiting_ += waiting - peer.waiting;
  nodesWaiting_ += (waiting != 0) - (peer.waiting != 0);
  peer.waiting = waiting;
  tally_.peakWrites = std::max(tally_.peakWrites, writesWaiting_);
  tally_.peakNodes = std::max(tally_.peakNodes, nodesWaiting_);
}

void Server::CountError(int code) {
  ErrorTally* const end = tally_.errors + tally_.errorCount;
  ErrorTally* const found = std::find_if(tally_.errors, end, [code](const ErrorTally& e) { return e.code == code; });
  if (found != end) {
    ++found->count;
  } else if (tally_.errorCount < ServerTally::kMostErrors) {
    tally_.errors[tally_.errorCount++] = {code, 1};
  }
}

void Server::Note(Port port, uint32_t peerPort, End end, int code) {
  const uint32_t count = tally_.eventCount;
  if (count < ServerTally::kMostEvents) tally_.events[count] = {port, peerPort, end, code};
  tally_.eventCount = count + 1;  // only now may others look at the event
  CountError(code);
}

void Server::Drop(Peer& peer, End end, int code) {
  Note(peer.port, peer.peerPort, end, code);
  ++tally_.dropped;
  Shut(peer);
}

void Server::Shut(Peer& peer) {
  mnClose(peer.node.get());
  CountWaiting(peer);
  closed_ = true;
}

void Server::Sweep() {
  if (!closed_) return;
  closed_ = false;
  changed_ = true;
  std::erase_if(peers_, [](const auto& entry) { return entry.second.node->openState == 0; });
  tally_.connections = static_cast<uint32_t>(peers_.size());
}

// Drops peers that owe the rest of a message, or the reading of an answer, and have not moved for too long. When the
// server itself stood still, nobody is to blame.
void Server::Scan(double now) {
  const bool wasAway = now - scannedAt_ > kAbsence;
  scannedAt_ = now;
  MqcMemory buffers;
  mqc_memory("buffer", &buffers);
  tally_.peakBuffers = std::max(tally_.peakBuffers, buffers.live_bytes);
  for (auto& [node, peer] : peers_) {
    const uint64_t moved = node->sock.bytesReceived + node->sock.bytesSent;
    const bool unread = mnIsPendingIO(node) != 0;
    const bool unfinished = node->recvBuffer.received != 0;
    if (wasAway || moved != peer.moved || (!unread && !unfinished)) {
      peer.moved = moved;
      peer.movedAt = now;
    } else if (now - peer.movedAt > kPatience) {
      Drop(peer, unread ? End::kUnread : End::kUnfinished, MQ_AGAIN);
    }
  }
  Sweep();
}

// Releases everything that was made for nodes and messages and counts what is left of it.
void Server::Close() {
  peers_.clear();
  for (NodePtr& port : ports_) port.reset();
  in_.reset();
  out_.reset();
  signer_.reset();
  MqcMemory memory;
  for (const char* tag :
       {"MQNode", "MQNODE", "QALLOC", "QPUT", "QPUTHEAD", "buffer", "message", "PcfMessage", "signer"}) {
    mqc_memory(tag, &memory);
    tally_.leftBlocks += memory.live_blocks;
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
  };
  tally_.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

int RunServer(Shared* shared, const Keys& keys, const Options& options) {
  Server server(shared, options);
  const bool ok = server.Open(keys) && server.Run();
  server.Close();
  return ok ? 0 : 1;
}

}  // namespace demo
