// clients.cc - many honest clients in one process and one thread, waiting on all their nodes at once.
//
// A client connects, asks a first question and, once it has the answer, waits until all clients of the run are
// connected. Then it asks and compares until its time is over, says that it has nothing more to send, and waits for the
// server to close. One client at a time connects in each process: the queue of a listening node has room for five.
#include "demo/clients.hh"

#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <unordered_map>

#include "mqnode/errors.h"

namespace demo {
namespace {

constexpr int kWaitMsec = 20;
constexpr double kResendSeconds = 0.25;  // a datagram that was not answered is sent again after this time
constexpr double kGiveUpSeconds = 15;    // an answer that takes this long does not come any more
constexpr double kCheckSeconds = 0.02;

enum class State { kIdle, kConnecting, kGreeting, kHolding, kTalking, kLeaving, kDone };

struct Client {
  uint32_t number;
  int kind;
  State state = State::kIdle;
  NodePtr node = nullptr;
  uint32_t asked = 0;     // questions written
  uint32_t answered = 0;  // and answered: the next answer is for the question with this number
  double askedAt[kMostWindow] = {};
  double sentAt = 0;  // when a datagram was sent last

  const KindTraits& traits() const { return kKindTraits[kind]; }
  bool isSigned() const { return kPortTraits[traits().port].isSigned; }
  bool isDatagram() const { return kPortTraits[traits().port].isDatagram; }
};

class Worker {
 public:
  Worker(Shared* shared, int process, const Author& author, const Keys& keys, const Options& options);
  ~Worker() { FreeSocketPostData(&work_); }

  bool Run();

 private:
  bool Round();
  void StartOne();
  void Connect(Client& client);
  void ListNodes();
  void Begin();
  void Ask(Client& client);
  void Send(Client& client, uint32_t sequence);
  void OnWritable(Client& client);
  void OnReadable(Client& client);
  void OnAnswer(Client& client);
  void CountAnswer(Client& client, double now);
  void Continue(Client& client);
  void Leave(Client& client);
  void Finish(Client& client);
  void CheckTimes(double now);
  void Fail(Client& client, const char* doing, const char* reason);
  void FailNode(Client& client, const char* doing);
  KindTally& TallyOf(const Client& client) { return tally_.kinds[client.kind]; }

  Shared& shared_;
  WorkerTally& tally_;
  const Author& author_;
  const Options& options_;
  std::vector<Client> clients_;
  std::unordered_map<MQNode*, Client*> byNode_;
  std::vector<MQNode*> nodes_, listening_, readable_, writable_;
  SockPostData work_{};
  MessagePtr in_{mqc_message_new(0)}, out_{mqc_message_new(0)};
  SignerPtr signer_;
  SockAddrRec servers_[kPorts];
  size_t started_ = 0;
  size_t left_;
  bool going_ = false;
  double beganAt_ = 0;
  double endsAt_ = 0;
  double checkedAt_ = 0;
};

Worker::Worker(Shared* shared, int process, const Author& author, const Keys& keys, const Options& options)
    : shared_(*shared),
      tally_(shared->workers[process]),
      author_(author),
      options_(options),
      signer_(MakeSigner(keys, keys.secretKey)) {
  for (int number = process; number < options.clients; number += options.processes) {
    const auto id = static_cast<uint32_t>(number);
    clients_.push_back(Client{id, KindOf(id)});
  }
  left_ = clients_.size();
  for (auto* list : {&listening_, &readable_, &writable_}) list->resize(clients_.size() + 1);
  for (int port = 0; port < kPorts; ++port)
    servers_[port] = LocalAddress(shared->ports[port], kPortTraits[port].isDatagram);
}

bool Worker::Run() {
  if (!in_ || !out_ || !signer_ || !InitSocketPostData(&work_, static_cast<int>(clients_.size() + 1))) {
    snprintf(tally_.firstFailure, sizeof tally_.firstFailure, "no memory");
    return false;
  }
  while (left_ != 0) {
    StartOne();
    if (!going_ && shared_.go) Begin();
    if (!Round()) return false;
    const double now = Now();
    if (now - checkedAt_ >= kCheckSeconds) CheckTimes(now);
  }
  return tally_.failures == 0;
}

bool Worker::Round() {
  ListNodes();
  int status = 0;
  if (!mnNPostExMSec(nodes_.data(), listening_.data(), readable_.data(), writable_.data(), kWaitMsec, &status,
                     &work_)) {
    if (status == SOCK_WAIT_TIMEOUT || status == EINTR) return true;
    snprintf(tally_.firstFailure, sizeof tally_.firstFailure, "wait: %s", mq_error_name(status));
    return false;
  }
  // A client may be done, and its node deleted, when its second turn comes.
  for (MQNode** node = writable_.data(); *node != nullptr; ++node) {
    if (const auto found = byNode_.find(*node); found != byNode_.end()) OnWritable(*found->second);
  }
  for (MQNode** node = readable_.data(); *node != nullptr; ++node) {
    if (const auto found = byNode_.find(*node); found != byNode_.end()) OnReadable(*found->second);
  }
  return true;
}

void Worker::ListNodes() {
  nodes_.clear();
  for (const Client& client : clients_) {
    if (client.node) nodes_.push_back(client.node.get());
  }
  nodes_.push_back(nullptr);
}

// Starts the next client when the one before has been answered, and so was accepted.
void Worker::StartOne() {
  if (started_ == clients_.size()) return;
  if (started_ != 0) {
    const State before = clients_[started_ - 1].state;
    if (before == State::kConnecting || before == State::kGreeting) return;
  }
  Connect(clients_[started_++]);
}

void Worker::Connect(Client& client) {
  SockAddrRec* const server = &servers_[client.traits().port];
  SockAddrRec here = LocalAddress(0, true);
  client.node.reset(client.isDatagram() ? CreateUDPMQNode(&here) : CreateMQNode(server, MQ_ROLE_CONNECT));
  MQNode* const node = client.node.get();
  if (IsNodeFailed(node)) return FailNode(client, "create");
  ++TallyOf(client).clients;
  byNode_[node] = &client;
  NoblockSocket(&node->sock);
  client.state = State::kConnecting;
  client.askedAt[0] = Now();
  if (!client.isDatagram()) {
    SetTcpNoDelay(&node->sock, 1);
    if (client.traits().isBulk) mnSetBufferSize(node, kSocketBuffer);
    if (!mnOpen(node)) {
      if (node->error != MQ_AGAIN) FailNode(client, "connect");
      return;  // OnWritable goes on
    }
  }
  client.state = State::kGreeting;
  Ask(client);
}

// All clients of the run are connected: everybody asks as much as may be unanswered at once.
void Worker::Begin() {
  going_ = true;
  beganAt_ = Now();
  endsAt_ = beganAt_ + options_.seconds;
  for (Client& client : clients_) {
    if (client.state != State::kHolding) continue;
    client.state = State::kTalking;
    Continue(client);
  }
}

void Worker::Ask(Client& client) {
  const uint32_t sequence = client.asked++;
  client.askedAt[sequence % kMostWindow] = Now();
  ++TallyOf(client).questions;
  Send(client, sequence);
}

void Worker::Send(Client& client, uint32_t sequence) {
  MQNode* const node = client.node.get();
  const Content content = author_.Write(client.number, sequence, author_.SizeOf(client.kind, client.number, sequence));
  if (!BuildQuestion(out_.get(), content)) return Fail(client, "build a question", mqc_message_error(out_.get()));
  SockAddrRec* const to = client.isDatagram() ? &servers_[client.traits().port] : nullptr;
  client.sentAt = Now();
  const int written = mnSWriteTo(out_.get(), node, to, client.isSigned(), signer_.get());
  TallyOf(client).bytesSent += RawLength(out_.get());
  if (mnIsPendingIO(node)) ++TallyOf(client).queued;
  if (!written && !client.isDatagram()) FailNode(client, "write");  // a datagram is sent again
}

void Worker::OnWritable(Client& client) {
  if (client.state == State::kConnecting) {
    client.state = State::kGreeting;
    return Ask(client);
  }
  if (!mnFinishWrite(client.node.get()) && !client.isDatagram()) FailNode(client, "write");
}

void Worker::OnReadable(Client& client) {
  MQNode* const node = client.node.get();
  if (mnSRead(in_.get(), node, client.isSigned(), nullptr)) return OnAnswer(client);
  if (node->error == MQ_AGAIN) return;
  const bool gone = node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET;
  if (gone && client.state == State::kLeaving) return Finish(client);
  FailNode(client, client.state == State::kConnecting ? "connect" : "read");
}

void Worker::OnAnswer(Client& client) {
  MqcParam sequence;
  if (client.isDatagram() && mqc_find(in_.get(), kSequence, &sequence) && sequence.number < client.answered) {
    ++TallyOf(client).repeats;  // the first answer was only late
    return;
  }
  if (client.answered == client.asked) return Fail(client, "read", "an answer to nothing");
  const uint32_t size = author_.SizeOf(client.kind, client.number, client.answered);
  const std::string different = CompareAnswer(in_.get(), author_.Write(client.number, client.answered, size));
  if (!different.empty()) return Fail(client, "compare", different.c_str());
  CountAnswer(client, Now());
  if (client.state == State::kGreeting) {
    client.state = going_ ? State::kTalking : State::kHolding;
    ++tally_.connected;
  }
  if (client.state == State::kTalking) Continue(client);
}

void Worker::CountAnswer(Client& client, double now) {
  KindTally& tally = TallyOf(client);
  const double took = now - client.askedAt[client.answered % kMostWindow];
  ++client.answered;
  ++tally.answers;
  ++tally_.answers;
  tally.bytesReceived += RawLength(in_.get());
  if (!going_) return;
  tally.latency.Add(static_cast<uint64_t>(took * 1e6));
  tally_.asking = now - beganAt_;
}

// Asks what may be asked now; leaves when there is nothing more to ask and every answer has come.
void Worker::Continue(Client& client) {
  const auto window = static_cast<uint32_t>(client.traits().window);
  const auto most = options_.messages == 0 ? UINT32_MAX : static_cast<uint32_t>(options_.messages);
  while (client.state == State::kTalking && client.asked - client.answered < window && client.asked < most &&
         Now() < endsAt_) {
    Ask(client);
  }
  if (client.state == State::kTalking && client.asked == client.answered) Leave(client);
}

// Closing at once would throw away what the server has not read yet. A connection is shut down first; the server
// closes when it has read all of it.
void Worker::Leave(Client& client) {
  if (client.isDatagram()) return Finish(client);
  client.state = State::kLeaving;
  client.askedAt[0] = Now();
  if (shutdown(client.node->sock.fd, SHUT_WR) != 0) Fail(client, "leave", mq_error_name(errno));
}

void Worker::Finish(Client& client) {
  if (client.state == State::kDone) return;
  client.state = State::kDone;
  byNode_.erase(client.node.get());
  client.node.reset();
  --left_;
}

// Sends unanswered datagrams again and gives up on what takes too long.
void Worker::CheckTimes(double now) {
  checkedAt_ = now;
  for (Client& client : clients_) {
    const bool noQuestion = client.state == State::kConnecting || client.state == State::kLeaving;
    if (client.state == State::kDone || (!noQuestion && client.asked == client.answered)) continue;
    const double since = client.askedAt[noQuestion ? 0 : client.answered % kMostWindow];
    if (now - since > kGiveUpSeconds) {
      Fail(client, "wait", "no answer in time");
    } else if (client.isDatagram() && now - client.sentAt > kResendSeconds) {
      ++TallyOf(client).resends;
      Send(client, client.answered);
    }
  }
}

void Worker::Fail(Client& client, const char* doing, const char* reason) {
  if (tally_.failures++ == 0) {
    snprintf(tally_.firstFailure, sizeof tally_.firstFailure, "client %u (%s), message %u: %s: %s", client.number,
             client.traits().name, client.answered, doing, reason);
  }
  Finish(client);
}

void Worker::FailNode(Client& client, const char* doing) {
  Fail(client, doing, mq_error_name(mq_node_cause(client.node.get(), nullptr)));
}

}  // namespace

int RunClients(Shared* shared, int process, const Author& author, const Keys& keys, const Options& options) {
  return Worker(shared, process, author, keys, options).Run() ? 0 : 1;
}

}  // namespace demo
