// clients.cc - many honest clients in one process and one thread, waiting on all their nodes at once.
//
// A client connects, asks a first question and, after the answer, waits until all clients of the run are connected.
// Then it asks questions and compares the answers until its time is over, shuts its side down and waits for the server
// to close. Only a few clients of a process connect at the same time, so that no client waits long to be accepted. When
// chaos has cut a connection, the client reconnects with a new session.
#include "demo/clients.hh"

#include <fmt/format.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <unordered_map>

#include "demo/chaos.hh"
#include "demo/child.hh"

namespace demo {
namespace {

using namespace mqnode;

constexpr double kGiveUpSeconds = 20;  // after which an answer counts as lost
constexpr double kLateSeconds = 1;     // the same for a datagram
constexpr double kLateInChaos = 0.05;
constexpr double kLostSeconds = 5, kLostInChaos = 1.5;  // at the end
constexpr double kCheckSeconds = 0.02;
constexpr uint64_t kLeastRounds = 3;
constexpr int kMostConnecting = 5;
constexpr double kWarmUpShare = 0.2;  // of the time
constexpr uint32_t kSocketBuffer = 32 << 10;
constexpr uint64_t kMostUncut = 256 << 10, kMostUncutLarge = 24 << 20;  // bytes until chaos cuts a connection

enum class State { kIdle, kConnecting, kGreeting, kHolding, kTalking, kLeaving, kDone };

struct Owed {
  uint32_t number;
  double askedAt;
};

struct Client {
  uint32_t number;
  State state = State::kIdle;
  Node node{};
  int line = -1;  // the node's descriptor, to stop the chaos on it; a failed node may have closed it
  uint32_t session = 0;
  uint32_t asked = 0;  // questions of this session
  uint32_t askedInAll = 0;
  std::deque<Owed> owed{};  // questions without an answer, oldest first
  double turn = 0;          // time of the next question
  double movedAt = 0;       // time when the server last made progress, or owed nothing

  const Kind& kind() const { return kKinds[KindOf(number)]; }
};

class Clients {
 public:
  Clients(const Crowd& crowd, const Keys& keys)
      : crowd_(crowd),
        shared_(*crowd.shared),
        self_(crowd.shared->workers[crowd.process]),
        author_(crowd.seed),
        dice_(crowd.seed + crowd.process + 1),
        signer_(Signer::create(kHonest, keys.honest)) {
    for (const uint32_t number : crowd.clients) clients_.push_back(Client{number});
    for (const Port port : {kPlain, kSigned, kDatagram, kSignedDatagram}) {
      servers_[port] = Address("127.0.0.1", std::to_string(shared_.ports[port]), IsDatagram(port) ? "udp" : "tcp");
    }
    if (crowd.chaos) BeginChaos(dice_.Next());
  }

  int Run() {
    const auto goesOn = [this] {
      const bool isSoak = crowd_.until != 0;
      return isSoak && !shared_.stop && self_.faults.count == 0 &&
             (self_.rounds < kLeastRounds || Now() < crowd_.until);
    };
    do {
      Round();
      if (crowd_.until != 0) Measure();
      ++self_.rounds;
    } while (goesOn());
    return self_.faults.count == 0 ? 0 : 1;
  }

 private:
  void Round() {
    started_ = 0;
    left_ = clients_.size();
    self_.connected = 0;
    going_ = false;
    for (Client& client : clients_) client.state = State::kIdle;
    while (left_ != 0 && self_.faults.count == 0) {
      StartOne();
      if (!going_ && shared_.go && self_.connected >= clients_.size()) Begin();
      Turn();
      if (const double now = Now(); now - checkedAt_ >= kCheckSeconds) Check(now);
    }
    for (Client& client : clients_) {
      if (client.node) Release(client, true);
    }
  }

  // Waits once, and makes the reads and writes that are possible. The first of two events of a node may delete it.
  void Turn() {
    const Result ready = set_.wait(std::chrono::milliseconds(crowd_.pause != 0 ? 1 : 20));
    if (!ready && !ready.timed_out() && ready.code() != EINTR) self_.faults.Add(fmt::format("wait: {}", ready.name()));
    for (const NodeRef node : set_.writable()) OnWritable(*byNode_.at(node.get()));
    for (const NodeRef node : set_.readable()) OnReadable(*byNode_.at(node.get()));
    if (crowd_.pause == 0) return;
    bool isBusy = false;
    for (Client& client : clients_) {
      if (client.state == State::kTalking) Continue(client);
      if (client.state == State::kIdle && crowd_.isNew && client.session != 0) Return(client);
      const bool isLost = IsDatagram(client.kind().port) && Now() - client.turn > kLateSeconds;
      isBusy = isBusy || (!client.owed.empty() && !isLost) || (client.node && client.state != State::kTalking);
      if (shared_.pause) client.movedAt = Now();
    }
    self_.resting = !isBusy && shared_.pause;
  }

  // Starts the next client unless too many wait for their first answer.
  void StartOne() {
    if (started_ == clients_.size()) return;
    const auto waits = [](const Client& client) {
      return client.state == State::kConnecting || client.state == State::kGreeting;
    };
    if (std::ranges::count_if(clients_, waits) >= kMostConnecting) return;
    Client& client = clients_[started_++];
    client.askedInAll = 0;
    Connect(client);
  }

  // Reconnects a client that uses a new connection for each question.
  void Return(Client& client) {
    if (IsOver(client)) {
      client.state = State::kDone;
      --left_;
    } else if (!shared_.pause && Now() >= client.turn) {
      Connect(client);
    }
  }

  void Connect(Client& client) {
    const Port port = client.kind().port;
    const bool datagrams = IsDatagram(port);
    client.node = datagrams ? Node::datagram({"127.0.0.1", "0", "udp"}) : Node::connector(servers_[port]);
    const NodeRef node = client.node;
    if (node.failed() || !node.set_blocking(false) || !set_.add(node)) return Fail(client, "no node");
    byNode_[node.get()] = &client;
    snprintf(node.record().user, sizeof node.record().user, "%s", kHonest);
    if (client.session == 0) ++tally(client).at(kClients);
    ++tally(client).at(kSessions);
    ++client.session;
    client.asked = 0;
    client.state = State::kConnecting;
    client.movedAt = Now();
    if (!datagrams) {
      (void)node.set_no_delay(true);
      if (client.kind().isLarge) (void)node.set_buffer_size(kSocketBuffer);
      if (const Result opened = node.open(); !opened) {
        if (!opened.again()) OnEnd(client, opened, "connect");
        return;  // OnWritable continues
      }
    }
    OnWritable(client);
  }

  // All clients of the run are connected: each asks as many questions as its window allows.
  void Begin() {
    going_ = true;
    talked_ = self_.talking;
    beganAt_ = Now();
    endsAt_ = crowd_.seconds != 0 ? beganAt_ + crowd_.seconds : HUGE_VAL;
    for (Client& client : clients_) {
      if (client.state != State::kHolding) continue;
      client.state = State::kTalking;
      Continue(client);
    }
  }

  // Asks what the window allows; leaves after the last answer. A datagram client gives up on answers after a time.
  void Continue(Client& client) {
    const bool datagrams = IsDatagram(client.kind().port);
    const double late = crowd_.chaos ? kLateInChaos : kLateSeconds;
    const auto waited = [&] { return client.owed.empty() ? HUGE_VAL : Now() - client.owed.back().askedAt; };
    while (client.state == State::kTalking && !IsOver(client) && !shared_.pause && Now() >= client.turn &&
           (datagrams ? waited() > late : client.owed.size() < client.kind().window) && Ask(client)) {
    }
    if (client.state != State::kTalking || !IsOver(client)) return;
    if (client.owed.empty() || (datagrams && waited() > (crowd_.chaos ? kLostInChaos : kLostSeconds))) Leave(client);
  }

  // False if the node has ended.
  bool Ask(Client& client) {
    const Place place{client.number, client.session, client.asked};
    const double now = Now();
    const bool built = author_.Write(out_, kQuestion, place, client.kind().isLarge, false);
    const Result sent = built ? Write(client) : Result(0, ENOMEM, MQ_IN_STATUS);
    if (!sent) OnEnd(client, sent, "write");
    if (!sent) return false;
    ++client.asked;
    ++client.askedInAll;
    if (client.owed.empty()) client.movedAt = crowd_.isNew ? client.movedAt : now;
    client.owed.push_back({place.number, now});
    client.turn = now + crowd_.pause * static_cast<double>(dice_.Below(2000)) * 1e-3;
    ++tally(client).at(kQuestions);
    tally(client).at(kSent) += out_.raw().size();
    return true;
  }

  Result Write(Client& client) {
    const Port port = client.kind().port;
    if (!IsDatagram(port)) return IsSigned(port) ? client.node.write_signed(out_, signer_) : client.node.write(out_);
    return IsSigned(port) ? client.node.write_signed_to(out_, servers_[port], signer_)
                          : client.node.write_to(out_, servers_[port]);
  }

  void OnWritable(Client& client) {
    if (client.state == State::kConnecting) {
      client.state = State::kGreeting;
      const uint64_t most = client.kind().isLarge ? kMostUncutLarge : kMostUncut;
      client.line = client.node.descriptor();
      WatchLine(client.line, IsDatagram(client.kind().port) ? 0 : most, &tally(client));
      Ask(client);
      return;
    }
    if (const Result sent = client.node.finish_write(); !sent) return OnEnd(client, sent, "write");
    if (client.state == State::kTalking) Continue(client);
  }

  void OnReadable(Client& client) {
    const bool isSigned = IsSigned(client.kind().port) && !crowd_.plainAnswers;
    const Result got = isSigned ? client.node.read_signed(in_) : client.node.read(in_);
    if (got) return OnAnswer(client);
    if (!got.again()) OnEnd(client, got, client.state == State::kConnecting ? "connect" : "read");
  }

  void OnAnswer(Client& client) {
    const bool datagrams = IsDatagram(client.kind().port);
    // An answer in a datagram states its question, and may be a repeated one.
    uint32_t number = client.owed.empty() ? client.asked : client.owed.front().number;
    if (datagrams) number = Author::PlaceOf(in_).number;
    const auto owed = std::ranges::find(client.owed, number, &Owed::number);
    if (number >= client.asked) return Fail(client, "an answer without a question");
    const Place place{client.number, client.session, number};
    const Command command = crowd_.echo == Echo::kSame ? kQuestion : kAnswer;
    const bool marked = datagrams && crowd_.echo != Echo::kAll;
    const std::string other =
        author_.Compare(in_, command, place, client.kind().isLarge, crowd_.echo == Echo::kTextAlone, marked);
    if (!other.empty()) return Fail(client, other);
    if (owed == client.owed.end()) {
      ++tally(client).at(kAgain);
      return;
    }
    const double now = Now();
    const double since = crowd_.isNew ? client.movedAt : owed->askedAt;  // includes the connect of a new client
    if (going_) tally(client).latency[shared_.phase].Add(now - since);
    if (going_) self_.talking = talked_ + now - beganAt_;
    client.owed.erase(owed);
    client.movedAt = now;
    ++tally(client).at(kAnswers);
    tally(client).at(kReceived) += in_.raw().size();
    if (client.state == State::kGreeting) {
      if (!going_) ++self_.connected;
      client.state = going_ ? State::kTalking : State::kHolding;
    }
    if (client.state == State::kTalking) crowd_.isNew ? Leave(client) : Continue(client);
  }

  // A connection may end after the client's shutdown, or early if chaos has cut it. In that case the last questions or
  // answers are lost, and the node must have reported it.
  void OnEnd(Client& client, const Result& result, const char* doing) {
    const bool isCut = ForgetLine(std::exchange(client.line, -1));
    const bool isGone = result.peer_gone() || result.cause() == ECONNRESET || result.cause() == EPIPE;
    if (isGone && client.state == State::kLeaving) return Finish(client);
    if (!isCut || !isGone) return Fail(client, fmt::format("{}: {}", doing, result.name()));
    const MQNode& record = client.node.record();
    const uint64_t taken = record.writesCompleted + static_cast<uint64_t>(record.writesOutstanding);
    if (taken > client.asked || taken + 1 < client.asked ||
        client.asked - client.owed.size() > record.writesCompleted) {
      return Fail(client, fmt::format("its node accounts for {} questions of {}", taken, client.asked));
    }
    const bool isAgain = !shared_.stop && (!going_ || Now() < endsAt_);
    Release(client, !isAgain);
    if (isAgain) Connect(client);
  }

  // Closing now could discard bytes that the server has not read. After a shutdown it reads everything and closes.
  void Leave(Client& client) {
    if (IsDatagram(client.kind().port)) return Finish(client);
    client.state = State::kLeaving;
    client.movedAt = Now();
    shutdown(client.node.descriptor(), SHUT_WR);
  }

  void Finish(Client& client) { Release(client, !crowd_.isNew || IsOver(client)); }

  // Unanswered questions count as lost.
  void Release(Client& client, bool isDone) {
    ForgetLine(std::exchange(client.line, -1));
    set_.remove(client.node);
    byNode_.erase(client.node.get());
    client.node.reset();
    tally(client).at(kLost) += client.owed.size();
    client.owed.clear();
    client.state = isDone ? State::kDone : State::kIdle;
    left_ -= isDone;
  }

  // Fails clients that have waited too long; asks again after lost datagrams.
  void Check(double now) {
    checkedAt_ = now;
    for (Client& client : clients_) {
      const bool isGreeting = client.state == State::kGreeting;
      const bool waits = client.state == State::kConnecting || client.state == State::kLeaving || !client.owed.empty();
      const bool isLate = !client.owed.empty() && now - client.owed.back().askedAt > kLateSeconds;
      if (waits && now - client.movedAt > kGiveUpSeconds) {
        Fail(client, "no answer in time");
      } else if (isGreeting && isLate && IsDatagram(client.kind().port)) {
        Ask(client);
      } else {
        Continue(client);
      }
    }
  }

  bool IsOver(const Client& client) const {
    return shared_.stop || Now() >= endsAt_ || (crowd_.messages != 0 && client.askedInAll >= crowd_.messages);
  }

  void Fail(Client& client, std::string_view what) {
    self_.faults.Add(fmt::format("client {} ({}), session {}, {} asked: {}", client.number, client.kind().name,
                                 client.session, client.asked, what));
    if (client.node) Release(client, true);
  }

  // Measures this process and the server while this process has no node.
  void Measure() {
    Await([this] { return shared_.server.connected == 0; });
    Sleep(0.3);  // until the server has updated its own figures
    malloc_trim(0);
    const MqcMemory memory = MemoryInUse();
    const auto measure = [](pid_t pid, uint64_t blocks, uint64_t bytes) -> Rest {
      const Usage usage = UsageOf(pid);
      return {blocks, usage.residentKb * 1024 - static_cast<int64_t>(bytes), usage.descriptors};
    };
    self_.last[0] = measure(getpid(), memory.live_blocks, memory.live_bytes);
    self_.last[1] = measure(crowd_.server, shared_.server.blocks, shared_.server.bytes);
    if (!isWarm_) std::ranges::copy(self_.last, self_.warm);
    isWarm_ = Now() > firstAt_ + kWarmUpShare * (crowd_.until - firstAt_);
  }

  Tally& tally(const Client& client) { return self_.kinds[KindOf(client.number)]; }

  const Crowd& crowd_;
  Shared& shared_;
  Process& self_;
  Author author_;
  Dice dice_;
  std::vector<Client> clients_;
  std::unordered_map<MQNode*, Client*> byNode_;
  WaitSet set_;
  Message in_ = Message::create(), out_ = Message::create();
  Signer signer_;
  Address servers_[kPorts];
  size_t started_ = 0, left_ = 0;
  bool going_ = false;
  bool isWarm_ = false;
  const double firstAt_ = Now();
  double talked_ = 0;  // seconds, in earlier rounds
  double beganAt_ = 0, endsAt_ = 0, checkedAt_ = 0;
};

}  // namespace

int RunClients(const Crowd& crowd, const Keys& keys) { return Clients(crowd, keys).Run(); }

}  // namespace demo
