// streams.cc - a session is one connection of a pair; when it is cut the pair begins another one.
#include "tests/soak/streams.hh"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>

namespace soak {

using mqnode::Node;
using mqnode::Result;

namespace {

constexpr uint32_t kMostBytes = 5 << 20;
constexpr int kWriteLimit = 4;
constexpr int kBurst = 8;                    // messages that are written at once now and then: queues fill
constexpr uint32_t kSmallBuffer = 16 << 10;  // of every other connection: its nodes have to queue and to go on later
constexpr int kReadsInTurn = 4;
constexpr uint32_t kHello = 0xffffffff;  // command of a connection's first message: its parameter is the session

}  // namespace

struct Streams::Session {
  Session(uint32_t ofPair, uint32_t index) : pair(ofPair), number(index) {}

  uint32_t pair;
  uint32_t number;  // of the session, over all pairs
  struct Way {
    uint64_t written = 0;    // taken by the library
    uint64_t completed = 0;  // that the writing node says were sent whole
    uint64_t delivered = 0;
  } ways[2];                      // 0 from the side that connected
  bool known[2] = {true, false};  // the side's node is known to belong here
  bool ended[2] = {false, false};
  bool early = false;  // it was not ended by us

  bool Whole() const { return ways[0].delivered == ways[0].written && ways[1].delivered == ways[1].written; }
};

class Streams::Listener : public Member {
 public:
  explicit Listener(Streams* streams) : streams_(*streams) {
    node = Node::listener({"127.0.0.1", "0"});
    if (node.failed() || !streams_.world_.Join(this)) streams_.world_.Fault("no listening node");
    ListenSocket(&node.record().sock, 128);
    streams_.world_.shared.targets[streams_.kind_] = node.local_port();
  }
  ~Listener() override { streams_.world_.Leave(this); }
  void OnReadable() override {
    for (Node child; node.accept(child);) streams_.Adopt(std::move(child));
  }
  void OnWritable() override {}

 private:
  Streams& streams_;
};

// One end of a session.
class Streams::Peer : public Member {
 public:
  // session null: the other end will say which it is.
  Peer(Streams* streams, Node taken, Session* session, int side)
      : streams_(*streams), world_(streams->world_), session_(session), side_(side) {
    node = std::move(taken);
    if (!world_.Join(this)) world_.Fault("a node cannot be waited for");
    node.set_write_limit(kWriteLimit);
    if (session != nullptr && session->number % 2 == 0 && !node.set_buffer_size(kSmallBuffer)) world_.Fault("buffers");
    turn_ = world_.NextTurn();
  }

  void Connect() {
    const Result opened = node.open();
    if (opened) return Greet();
    if (!opened.again()) End(opened);
  }

  void OnReadable() override {
    for (int i = 0; i < kReadsInTurn && node; ++i) {
      const Result got = world_.Read(streams_.kind_, node);
      if (!got && got.again()) return;
      if (!got) return End(got);
      session_ != nullptr ? Check() : Recognise();
    }
  }

  void OnWritable() override {
    if (!open_) return Greet();
    if (const Result sent = node.finish_write(); !sent) {
      ++dropped_;
      End(sent);
    }
  }

  void Write() {
    if (!open_ || session_ == nullptr || world_.now < turn_) return;
    turn_ = world_.NextTurn();
    Session::Way& way = session_->ways[side_];
    for (int left = world_.dice.Once(kBurst) ? kBurst : 1; left > 0 && node; --left) {
      if (!world_.author.Build(world_.out.get(), PlaceOf(side_, way.written), kMostBytes)) world_.Fault("no memory");
      if (Send()) ++way.written;
    }
  }

  void EndSending() { shutdown(node.descriptor(), SHUT_WR); }

  const Session* session() const { return session_; }
  int side() const { return side_; }
  bool open() const { return open_; }

 private:
  Place PlaceOf(int way, uint64_t number) const {
    return {streams_.firstPair_ + session_->pair, session_->number, static_cast<uint32_t>(way), number};
  }
  Tally& tally() const { return world_.tallies[streams_.kind_]; }

  // Writes the record. True when the library has taken the message.
  bool Send() {
    const Result sent =
        IsSigned(streams_.kind_) ? node.write_signed(world_.out, world_.signer) : node.write(world_.out);
    if (sent) {
      ++taken_;
      tally().queued += node.has_pending();
      return true;
    }
    if (sent.code() != MQ_WRITE_LIMIT)
      End(sent);
    else
      ++tally().limited;
    return false;
  }

  // The connect has succeeded: says which session this is.
  void Greet() {
    open_ = true;
    if (!world_.out.begin(kHello) || !world_.out.add(1, static_cast<int32_t>(session_->number))) {
      world_.Fault("no memory");
    }
    Send();
  }

  // The first message of an accepted connection.
  void Recognise() {
    const auto number = static_cast<uint64_t>(world_.in.number_or(1, -1));
    if (world_.in.command() != kHello || number >= streams_.sessions_.size() || streams_.sessions_[number]->known[1]) {
      return world_.Fault("a connection does not begin as it should");
    }
    session_ = streams_.sessions_[number].get();
    session_->known[1] = open_ = true;
  }

  void Check() {
    Session::Way& way = session_->ways[1 - side_];
    const std::string wrong =
        way.delivered < way.written
            ? world_.author.Compare(world_.in.get(), PlaceOf(1 - side_, way.delivered), kMostBytes)
            : "a message that nobody has written";
    if (!wrong.empty()) world_.Fault(fmt::format("stream {}: {}", session_->number, wrong));
    ++way.delivered;
    ++tally().delivered;
    tally().bytes += world_.in.raw().size();
  }

  // The connection has ended, which is how the node reports that messages may be lost.
  void End(const Result& result) {
    const MQNode& record = node.record();
    const uint64_t accounted = record.writesCompleted + static_cast<uint64_t>(record.writesOutstanding) + dropped_;
    if (accounted != taken_) world_.Fault(fmt::format("a node accounts for {} writes of {}", accounted, taken_));
    if (!result.peer_gone() && result.cause() != ECONNRESET && result.cause() != EPIPE) {
      world_.Fault(fmt::format("a stream node failed with {}", result.name()));
    }
    if (session_ != nullptr) {
      const uint64_t greeting = side_ == 0 && record.writesCompleted > 0 ? 1 : 0;
      session_->ways[side_].completed = record.writesCompleted - greeting;
      session_->ended[side_] = true;
      session_->early = session_->early || !streams_.ending_;
    }
    world_.Leave(this);
    node.reset();
    const auto self = std::ranges::find_if(streams_.peers_, [this](const auto& peer) { return peer.get() == this; });
    streams_.gone_.splice(streams_.gone_.end(), streams_.peers_, self);
    if (side_ == 0 && world_.writing) streams_.Connect(session_->pair);
  }

  Streams& streams_;
  World& world_;
  Session* session_;
  const int side_;
  double turn_;
  bool open_ = false;
  uint64_t taken_ = 0;    // messages that the library took
  uint64_t dropped_ = 0;  // of these: dropped when they should have been finished
};

Streams::Streams(World* world, int kind, uint32_t firstPair, uint32_t pairs)
    : world_(*world), kind_(kind), firstPair_(firstPair), pairs_(pairs), listener_(new Listener(this)) {
  world_.tallies[kind].nodes = 2 * pairs + 1;
}

Streams::~Streams() {
  for (const auto& peer : peers_) world_.Leave(peer.get());
}

void Streams::Start() {
  for (uint32_t pair = 0; pair < pairs_; ++pair) Connect(pair);
}

void Streams::Connect(uint32_t pair) {
  const auto number = static_cast<uint32_t>(sessions_.size());
  sessions_.push_back(std::make_unique<Session>(pair, number));
  Node node = Node::connector({"127.0.0.1", std::to_string(world_.shared.ports[kind_])});
  if (node.failed()) return world_.Fault(fmt::format("no node: {}", node.status().name()));
  peers_.push_back(std::make_unique<Peer>(this, std::move(node), sessions_.back().get(), 0));
  peers_.back()->Connect();
}

void Streams::Adopt(Node node) { peers_.push_back(std::make_unique<Peer>(this, std::move(node), nullptr, 1)); }

void Streams::Write() {
  gone_.clear();
  for (auto it = peers_.begin(); it != peers_.end();) (*it++)->Write();
}

bool Streams::Quiet() const {
  return std::ranges::all_of(peers_, [](const auto& peer) {
    const Session* const session = peer->session();
    return session != nullptr && session->known[1] && !session->ended[0] && !session->ended[1] && session->Whole() &&
           !peer->node.has_pending();
  });
}

void Streams::End() {
  gone_.clear();
  ending_ = true;
  for (const auto& peer : peers_) {
    if (peer->side() == 0) peer->EndSending();
  }
}

void Streams::Account() {
  Tally& tally = world_.tallies[kind_];
  for (const auto& session : sessions_) {
    ++tally.sessions;
    tally.early += session->early;
    const bool bothEnded = session->ended[0] && (session->ended[1] || !session->known[1]);
    if (!bothEnded) world_.Fault(fmt::format("a node of session {} does not know that it has ended", session->number));
    if (!session->early && !session->Whole()) world_.Fault("a message was lost on a connection that was not cut");
    for (const Session::Way& way : session->ways) {
      if (way.delivered > way.completed) world_.Fault("a message was delivered that its node says was not sent");
      tally.written += way.written;
      tally.lost += way.written - way.delivered;
    }
  }
  if (tally.written != tally.delivered + tally.lost) world_.Fault("the account of the streams does not close");
}

}  // namespace soak
