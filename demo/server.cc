// server.cc - one server with two listening and two datagram nodes. The answer to a question is its own content. Only
// peers that break the rules are dropped; mqnode/server.h has the rules.
#include "demo/server.hh"

#include <fmt/format.h>
#include <malloc.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "demo/child.hh"
#include "mqnode/server.hpp"

namespace demo {
namespace {

using namespace mqnode;
using namespace std::chrono_literals;

constexpr double kScanSeconds = 0.1;
constexpr uint32_t kDatagramBuffer = 4 << 20;
constexpr int kDatagramsInTurn = 256;       // limit, so that datagrams do not delay connections
constexpr uint32_t kReplayLimit = 1 << 16;  // a long run reaches it, so that old messages are forgotten

volatile sig_atomic_t stopped;

// The session of an honest client and, for datagrams, its questions so far.
struct Record {
  uint32_t session = 0;
  std::unordered_set<uint32_t> seen;
};

MqServerLimits LimitsOf(const Limits& limits) {
  MqServerLimits own = mq_server_limits();
  own.clients = own.clientsPerAddress = static_cast<int>(limits.guests);
  own.midwayMsec = static_cast<int>(limits.patience * 1000);
  own.messageBytes = kLargest + (16 << 10);
  own.socketBytes = 32 << 10;  // so that large answers are queued
  own.logLinesPerSecond = 100;
  return own;
}

class DemoServer final : public Server {
 public:
  DemoServer(Shared* shared, uint64_t seed, const Limits& limits)
      : Server(LimitsOf(limits)),
        shared_(*shared),
        self_(shared->server),
        author_(new Author(seed)),
        answersASecond_(limits.answers) {}

  bool Open(const Keys& keys) {
    signer_ = Signer::create(kHonest, keys.honest);
    if (failed() || !out_ || !signer_ || !mqc_set_replay_limit(kReplayLimit)) return Fail("no memory");
    for (const Port port : {kPlain, kSigned, kDatagram, kSignedDatagram}) {
      if (!OpenPort(port)) return false;
    }
    shared_.ready = true;
    return true;
  }

  bool Run() {
    while (!stopped) {
      ++self_.waits;
      if (const Result waited = round(50ms); !waited) return Fail(waited.name());
      if (Now() - scannedAt_ >= kScanSeconds) Scan(Now());
    }
    end(1s);
    return true;
  }

  // Releases all nodes and messages and counts the blocks that remain.
  void Close() {
    close();
    for (Node& port : ports_) port.reset();
    in_.reset();
    out_.reset();
    signer_.reset();
    author_.reset();
    MqcMemory ring;
    mqc_memory("ring", &ring);
    self_.leftBlocks = MemoryInUse().live_blocks - ring.live_blocks;
  }

 private:
  bool Fail(std::string_view why) {
    self_.faults.Add(fmt::format("the server cannot continue: {}", why));
    return false;
  }

  // The datagrams of all clients share one buffer, which is as large as the system permits. Accepted nodes inherit the
  // user of their listening node.
  bool OpenPort(Port port) {
    Node& node = ports_[port];
    node = IsDatagram(port) ? Node::datagram({"127.0.0.1", "0", "udp"}) : Node::listener({"127.0.0.1", "0"});
    if (node.failed()) return Fail(node.status().name());
    snprintf(node.record().user, sizeof node.record().user, "%s", kHonest);
    if (IsDatagram(port)) (void)node.set_buffer_size(kDatagramBuffer);
    shared_.ports[port] = node.local_port();
    const Result added = add(node, IsSigned(port));
    return added || Fail(added.name());
  }

  const char* accepted(ServerClient) noexcept override {
    ++self_.accepted;
    self_.connected = static_cast<uint32_t>(size());
    self_.most = std::max<uint64_t>(self_.most, self_.connected);
    return nullptr;
  }

  void dropped(ServerClient client, const char* why) noexcept override {
    why != nullptr ? ++self_.dropped : ++self_.farewells;
    turns_.erase(client.get());
    self_.connected = static_cast<uint32_t>(size());
  }

  const char* message(ServerClient client, MessageRef in) noexcept override {
    Check(in, client.get());
    if (!BuildAnswer(in)) return "no memory for an answer";
    const NodeRef node = client.node();
    const Result written = client.record().secure != 0 ? node.write_signed(out_, signer_) : node.write(out_);
    if (written) CountAnswer();
    return sent(written);
  }

  void ready(NodeRef node) noexcept override {
    const Port port = node == ports_[kDatagram] ? kDatagram : kSignedDatagram;
    for (int i = 0; i < kDatagramsInTurn; ++i) {
      const Result got = IsSigned(port) ? node.read_signed(in_) : node.read(in_);
      if (!got && got.again()) return;
      Address from = node.sender();
      if (!got) {
        ++self_.kinds[std::ranges::find(kKinds, port, &Kind::port) - kKinds].at(kRefused);
        say("refused", from, got.name());
        continue;
      }
      if (in_.command() != kQuestion) continue;  // or two servers would answer each other forever
      Check(in_, nullptr);
      // An answer that cannot be sent now is dropped. The sender's address may be forged.
      if (++answered_[from.ip] > answersASecond_ || !BuildAnswer(in_)) continue;
      if (IsSigned(port) ? node.write_signed_to(out_, from, signer_) : node.write_to(out_, from)) CountAnswer();
    }
  }

  // The answer has all parameters of the question, in their order.
  bool BuildAnswer(MessageRef in) {
    bool added = out_.begin(kAnswer);
    for (const Param& param : in.params()) {
      const uint32_t id = param.id(), type = param.type();
      added = added && (type == MQC_INT32   ? out_.add(id, static_cast<int32_t>(param.number()))
                        : type == MQC_INT64 ? out_.add(id, param.number())
                        : type == MQC_TEXT  ? out_.add(id, param.text().data())
                                            : out_.add(id, param.bytes()));
    }
    return added;
  }

  // Checks that the question of an honest client is complete, unchanged and in order. client: null for a datagram.
  void Check(MessageRef in, const MqServerClient* client) {
    const Place place = Author::PlaceOf(in);
    tally_ = nullptr;
    ++self_.messages;
    if (place.client >= kMostClients) return;
    const Kind& kind = kKinds[KindOf(place.client)];
    tally_ = &self_.kinds[KindOf(place.client)];
    std::string wrong = author_->Compare(in, kQuestion, place, kind.isLarge, false, false);
    Record& record = records_[place.client];
    if (client == nullptr && IsAgain(&record, place, IsSigned(kind.port), &wrong)) return;
    const uint32_t turn = client != nullptr ? turns_[client]++ : 0;
    if (client != nullptr && (place.session < record.session || place.number != turn ||
                              (place.number == 0) != (place.session > record.session))) {
      wrong = fmt::format("out of order, after session {}, question {}", record.session, turn);
    }
    record.session = place.session;
    ++tally_->at(kQuestions);
    tally_->at(kReceived) += in.raw().size();
    if (wrong.empty()) return;
    self_.faults.Add(fmt::format("the server: client {}, session {}, question {}: {}", place.client, place.session,
                                 place.number, wrong));
  }

  // Datagrams may be missing, and plain ones may be repeated.
  bool IsAgain(Record* record, const Place& place, bool isSigned, std::string* wrong) {
    if (place.session > record->session) record->seen.clear();
    if (place.session >= record->session && record->seen.insert(place.number).second) return false;
    ++tally_->at(kAgain);
    if (isSigned) *wrong = "a signed datagram was accepted twice";
    return !isSigned;
  }

  void CountAnswer() {
    ++self_.messages;
    if (tally_ == nullptr) return;
    ++tally_->at(kAnswers);
    tally_->at(kSent) += out_.raw().size();
  }

  // Updates the memory figures ten times a second; resets the answers per address once a second.
  void Scan(double now) {
    scannedAt_ = now;
    MqcMemory memory;
    mqc_memory("buffer", &memory);
    self_.peakBuffers = std::max(self_.peakBuffers, memory.live_bytes);
    memory = MemoryInUse();
    if (size() == 0) self_.blocks = memory.live_blocks;
    if (size() == 0) self_.bytes = memory.live_bytes;
    if (second_ == static_cast<long>(now)) return;
    second_ = static_cast<long>(now);
    answered_.clear();
    malloc_trim(0);
  }

  Shared& shared_;
  Process& self_;
  std::unique_ptr<Author> author_;
  const uint32_t answersASecond_;  // to datagrams of one address
  Node ports_[kPorts];
  std::unordered_map<const MqServerClient*, uint32_t> turns_;  // number of an honest client's next question
  std::unordered_map<uint32_t, Record> records_;               // by client
  std::map<std::string, uint32_t> answered_;                   // datagrams, by address, in this second
  Message in_ = Message::create();                             // datagrams
  Message out_ = Message::create();
  Signer signer_;
  Tally* tally_ = nullptr;  // of the honest client whose question was read last
  double scannedAt_ = 0;
  long second_ = 0;
};

}  // namespace

int RunServer(Shared* shared, uint64_t seed, const Keys& keys, const Limits& limits) {
  signal(SIGTERM, [](int) { stopped = 1; });
  DemoServer server(shared, seed, limits);
  const bool ok = server.Open(keys) && server.Run();
  server.Close();
  return ok ? 0 : 1;
}

}  // namespace demo
