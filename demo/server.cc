// server.cc - four listening and datagram nodes, and a node for every connection, in one loop over a wait set. Every
// question gets its own content as answer. A peer that breaks the rules is dropped, and only that peer.
//
// What a guest may cost is bounded: the length of a question, the bytes of answers that wait, the time that it may owe
// something, its place when others want it, and the lines that tell of it.
#include "demo/server.hh"

#include <fmt/format.h>
#include <malloc.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "demo/child.hh"
#include "examples/limits.h"

namespace demo {
namespace {

using namespace mqnode;
using namespace std::chrono_literals;

constexpr double kScanSeconds = 0.1;
constexpr double kAbsence = 0.5;              // a scan that comes this late says that the server itself stood still
constexpr uint64_t kLeast = 64 << 10;         // bytes that count as progress within a message
constexpr uint32_t kSocketBuffer = 32 << 10;  // both directions: large messages have to wait
constexpr uint32_t kDatagramBuffer = 4 << 20;
constexpr int kDatagramsInTurn = 256;                    // so that datagrams do not keep the connections waiting
constexpr uint32_t kMostLength = kLargest + (16 << 10);  // of a question
constexpr int kMostLines = 100;                          // a second, of the log
constexpr uint32_t kReplayLimit = 1 << 16;               // reached in a long run, so that forgetting happens too

volatile sig_atomic_t stopped;

struct Guest {
  Node node;
  Port port;
  Watch watch;            // for the choice of who makes room
  uint64_t consumed = 0;  // bytes of whole messages
  uint64_t moved = 0;     // bytes and messages, both ways, when it was last seen to have moved on
  uint32_t done = 0;
  bool owes = true;  // then
  double movedAt = Now();
  uint32_t next = 0;  // number of an honest guest's next question
};

// What an honest client has asked: its session, and the questions of that when they are datagrams.
struct Record {
  uint32_t session = 0;
  std::unordered_set<uint32_t> seen;
};

// Gives back the receive area that a large question has made grow. The header is gathered by itself: the area asks for
// no more of a signed message than its envelope.
void GiveBack(MQNode* node, Port port) {
  give_back(node);
  if (IsSigned(port) && node->recvBuffer.received == 0) ResetBuffer(&node->recvBuffer, sizeof(SecureHeader));
}

// Bytes of answers that wait behind the oldest one, which may be large.
uint64_t WaitingBehind(const MQNode& node) {
  uint64_t waiting = 0;
  if (node.pending == nullptr) return 0;
  Qstart(node.pending);
  for (Qnext(node.pending); const auto* const write = static_cast<const IoBuffer*>(Qnext(node.pending));) {
    waiting += write->length;
  }
  return waiting;
}

// Whether the header that a node has gathered announces more than a question may have. Its first word, which is its
// length, tells in which byte order it is.
bool IsTooLong(const MQNode& node, bool isSigned) {
  const uint32_t size = isSigned ? sizeof(SecureHeader) : sizeof(MsgHeader);
  const size_t at = isSigned ? offsetof(SecureHeader, msgLength) : offsetof(MsgHeader, bodyLength);
  if (node.recvBuffer.received < size) return false;
  uint32_t first = 0, length = 0;
  memcpy(&first, node.recvBuffer.data, sizeof first);
  memcpy(&length, node.recvBuffer.data + at, sizeof length);
  return (first == size ? length : __builtin_bswap32(length)) > kMostLength;
}

class Server {
 public:
  Server(Shared* shared, uint64_t seed, const Limits& limits)
      : shared_(*shared), self_(shared->server), author_(new Author(seed)), limits_(limits) {}

  bool Open(const Keys& keys) {
    signer_ = Signer::create(kHonest, keys.honest);
    if (!in_ || !out_ || !signer_ || !mqc_set_replay_limit(kReplayLimit)) return Fail("no memory");
    for (const Port port : {kPlain, kSigned, kDatagram, kSignedDatagram}) {
      if (!OpenPort(port)) return false;
    }
    SetAccepting(true);
    shared_.ready = true;
    return true;
  }

  bool Run() {
    while (!stopped) {
      ++self_.waits;
      const Result ready = set_.wait(50ms);
      if (!ready && !ready.timed_out() && ready.code() != EINTR) return Fail(ready.name());
      Turn();
      if (Now() - scannedAt_ >= kScanSeconds) Scan(Now());
    }
    return true;
  }

  // Releases everything that was made for nodes and messages and counts what is left of it.
  void Close() {
    guests_.clear();
    for (Node& port : ports_) port.reset();
    for (Message* const msg : {&in_, &out_}) msg->reset();
    signer_.reset();
    author_.reset();
    MqcMemory ring;
    mqc_memory("ring", &ring);
    self_.leftBlocks = MemoryInUse().live_blocks - ring.live_blocks;
  }

 private:
  bool Fail(std::string_view why) {
    self_.faults.Add(fmt::format("the server cannot go on: {}", why));
    return false;
  }

  // Accepted connections take over the buffer sizes: small ones, so that large answers have to wait. Datagrams of many
  // clients meet in one buffer: the system gives as much as it allows.
  bool OpenPort(Port port) {
    const bool datagrams = IsDatagram(port);
    Node& node = ports_[port];
    node = datagrams ? Node::datagram({"127.0.0.1", "0", "udp"}) : Node::listener({"127.0.0.1", "0"});
    if (node.failed()) return Fail(node.status().name());
    snprintf(node.record().user, sizeof node.record().user, "%s", kHonest);
    const bool ready = node.set_buffer_size(datagrams ? kDatagramBuffer : kSocketBuffer) && node.set_blocking(false) &&
                       (datagrams ? set_.add(node) : ListenSocket(&node.record().sock, BACKLOG) != 0);
    shared_.ports[port] = node.local_port();
    return ready || Fail("a node cannot be set up");
  }

  // First what may leave, then what has come, then who is new.
  void Turn() {
    for (const NodeRef node : set_.writable()) {
      const Result sent = node.finish_write();
      const auto guest = guests_.find(node.get());
      if (!sent && guest != guests_.end()) Drop(guest->second, sent.name());
    }
    for (const NodeRef node : set_.readable()) {
      const auto guest = guests_.find(node.get());
      if (guest != guests_.end()) {
        Serve(guest->second);
      } else {
        ServeDatagrams(node == ports_[kDatagram] ? kDatagram : kSignedDatagram);
      }
    }
    for (const NodeRef node : set_.listening()) Accept(node);
  }

  void Accept(NodeRef listener) {
    const Port port = listener == ports_[kSigned] ? kSigned : kPlain;
    if (guests_.size() >= limits_.guests && !MakeRoom()) return SetAccepting(false);
    for (int i = 0; i < MOST_ACCEPTED && guests_.size() < limits_.guests; ++i) {
      Node child;
      if (const Result result = listener.accept(child); !result) {
        if (result.again() || result.code() == ECONNABORTED) break;
        Says("cannot accept", {}, result.name());
        if (result.code() != EMFILE || !MakeRoom()) SetAccepting(false);
        break;
      }
      (void)child.set_no_delay(true);
      snprintf(child.record().user, sizeof child.record().user, "%s", kHonest);
      if (!child.set_blocking(false) || !set_.add(child)) continue;
      GiveBack(child.get(), port);
      MQNode* const key = child.get();
      guests_.emplace(key, Guest{std::move(child), port, watch_client(key)});
      ++self_.accepted;
    }
    self_.connected = static_cast<uint32_t>(guests_.size());
    self_.most = std::max<uint64_t>(self_.most, guests_.size());
  }

  // Drops a guest for a newcomer; examples/limits.h says which. False when none makes room yet.
  bool MakeRoom() {
    const long now = now_msec();
    std::vector<Watch> watches;
    for (auto& [node, guest] : guests_) {
      quiet_msec(&guest.watch, now);
      watches.push_back(guest.watch);
    }
    MQNode* const node = makes_room(watches.data(), static_cast<int>(watches.size()), now);
    if (node != nullptr) Drop(guests_.at(node), "its place is needed");
    return node != nullptr;
  }

  // Without a place, or a descriptor, the wait would come back at once for nothing: the listening nodes leave the set
  // until a guest has gone or a second is over.
  void SetAccepting(bool on) {
    if (on == accepting_) return;
    accepting_ = on;
    for (const Port port : {kPlain, kSigned}) (void)(on ? set_.add(ports_[port]) : set_.remove(ports_[port]));
  }

  void Serve(Guest& guest) {
    const NodeRef node = guest.node;
    const bool isSigned = IsSigned(guest.port);
    if (WaitingBehind(node.record()) > MOST_WAITING) return Drop(guest, "takes no answers");
    const bool gathered = isSigned ? mnSReadMsg(node.get()) : mnReadMsg(node.get());  // the header first, or the rest
    if (gathered && IsTooLong(node.record(), isSigned)) return Drop(guest, "its question is too long");
    const Result got = gathered ? Read(node, guest.port) : node.status();
    if (!got && got.again()) return;
    if (!got && !got.peer_gone()) return Drop(guest, got.name());
    if (!got) {
      const bool midway = node.record().sock.bytesReceived != guest.consumed || node.has_pending();
      if (midway) return Drop(guest, "left in the middle of a question, or before its answer");
      ++self_.farewells;
      return Leave(node);
    }
    guest.consumed += isSigned ? sizeof(SecureHeader) + in_.record().secHeader.msgLength : in_.raw().size();
    Check(&guest);
    if (!BuildAnswer()) return Drop(guest, "no memory for an answer");
    if (const Result sent = Write(node, guest.port, nullptr); !sent) return Drop(guest, sent.name());
    CountAnswer();
  }

  void ServeDatagrams(Port port) {
    Node& node = ports_[port];
    for (int i = 0; i < kDatagramsInTurn; ++i) {
      const Result got = Read(node, port);
      if (!got && got.again()) return;
      Address from = node.sender();
      if (!got) {
        ++self_.kinds[std::ranges::find(kKinds, port, &Kind::port) - kKinds].at(kRefused);
        Says("refused", from, got.name());
        continue;
      }
      if (in_.command() != kQuestion) continue;  // two servers would answer each other for ever
      Check(nullptr);
      // An answer that does not leave at once is lost, as datagrams are. The sender's address may be a forged one.
      if (++answered_[from.ip] > limits_.answers) continue;
      if (BuildAnswer() && Write(node, port, &from)) CountAnswer();
    }
  }

  Result Read(NodeRef node, Port port) { return IsSigned(port) ? node.read_signed(in_) : node.read(in_); }

  Result Write(NodeRef node, Port port, Address* to) {
    if (to == nullptr) return IsSigned(port) ? node.write_signed(out_, signer_) : node.write(out_);
    return IsSigned(port) ? node.write_signed_to(out_, *to, signer_) : node.write_to(out_, *to);
  }

  // The answer has the parameters of the question, all of them, in their order.
  bool BuildAnswer() {
    bool added = out_.begin(kAnswer);
    for (const Param& param : in_.params()) {
      const uint32_t id = param.id(), type = param.type();
      added = added && (type == MQC_INT32   ? out_.add(id, static_cast<int32_t>(param.number()))
                        : type == MQC_INT64 ? out_.add(id, param.number())
                        : type == MQC_TEXT  ? out_.add(id, param.text().data())
                                            : out_.add(id, param.bytes()));
    }
    return added;
  }

  // Looks whether the question of an honest client is whole, unchanged and in its turn.
  void Check(Guest* guest) {
    const Place place = Author::PlaceOf(in_);
    tally_ = nullptr;
    ++self_.messages;
    if (place.client >= kMostClients) return;
    const Kind& kind = kKinds[KindOf(place.client)];
    tally_ = &self_.kinds[KindOf(place.client)];
    std::string wrong = author_->Compare(in_, kQuestion, place, kind.isLarge, false, false);
    Record& record = records_[place.client];
    if (guest == nullptr ? IsAgain(&record, place, IsSigned(kind.port), &wrong) : false) return;
    if (guest != nullptr && (place.session < record.session || place.number != guest->next++ ||
                             (place.number == 0) != (place.session > record.session))) {
      wrong = fmt::format("not in its turn, after session {}, question {}", record.session, guest->next - 1);
    }
    record.session = place.session;
    ++tally_->at(kQuestions);
    tally_->at(kReceived) += in_.raw().size();
    if (wrong.empty()) return;
    self_.faults.Add(fmt::format("the server: client {}, session {}, question {}: {}", place.client, place.session,
                                 place.number, wrong));
  }

  // Of datagrams some may be missing, and plain ones may come again.
  bool IsAgain(Record* record, const Place& place, bool isSigned, std::string* wrong) {
    if (place.session > record->session) record->seen.clear();
    if (place.session >= record->session && record->seen.insert(place.number).second) return false;
    ++tally_->at(kAgain);
    if (isSigned) *wrong = "a signed datagram is accepted twice";
    return !isSigned;
  }

  void CountAnswer() {
    ++self_.messages;
    if (tally_ == nullptr) return;
    ++tally_->at(kAnswers);
    tally_->at(kSent) += out_.raw().size();
  }

  // Tells of a peer, unless there was too much to tell in this second.
  void Says(const char* verb, const SockAddrRec& peer, std::string_view why) {
    if (lines_++ < kMostLines) fmt::print(stderr, "{} {}:{}: {}\n", verb, peer.ip, peer.port, why);
  }

  void Drop(Guest& guest, std::string_view why) {
    Says("dropped", guest.node.record().sock.name, why);
    ++self_.dropped;
    Leave(guest.node);
  }

  // The node may be in hand in a loop over a ready list: removed from the set, it may be deleted.
  void Leave(NodeRef node) {
    set_.remove(node);
    guests_.erase(node.get());
    self_.connected = static_cast<uint32_t>(guests_.size());
    SetAccepting(true);
  }

  // Why a guest that owes a question, the rest of one or the reading of an answer is to be dropped now; else empty.
  std::string_view Overdue(Guest& guest, double now) {
    const MQNode& record = guest.node.record();
    const uint64_t moved = record.sock.bytesReceived + record.sock.bytesSent;
    const uint32_t done = record.msgsRead + record.writesCompleted;
    const bool unread = guest.node.has_pending();
    const bool owes = unread || record.recvBuffer.received != 0 || record.msgsRead == 0;
    if (done != guest.done || owes != guest.owes || moved >= guest.moved + kLeast) {
      guest.owes = owes;
      guest.done = done;
      guest.moved = moved;
      guest.movedAt = now;
    }
    if (!owes) return now - guest.movedAt > double{IDLE} ? "idle" : "";
    return now - guest.movedAt <= limits_.patience ? "" : unread ? "takes no answers" : "too slow";
  }

  // Ten times a second: drops guests that stand still. When the server itself stood still, no guest is to blame.
  void Scan(double now) {
    const bool wasAway = now - scannedAt_ > kAbsence;
    scannedAt_ = now;
    std::vector<std::pair<Guest*, std::string_view>> late;
    for (auto& [node, guest] : guests_) {
      if (wasAway) guest.movedAt = now;
      if (const std::string_view why = Overdue(guest, now); !why.empty()) late.emplace_back(&guest, why);
    }
    for (const auto& [guest, why] : late) Drop(*guest, why);
    MqcMemory memory;
    mqc_memory("buffer", &memory);
    self_.peakBuffers = std::max(self_.peakBuffers, memory.live_bytes);
    memory = MemoryInUse();
    if (guests_.empty()) self_.blocks = memory.live_blocks;
    if (guests_.empty()) self_.bytes = memory.live_bytes;
    if (second_ != static_cast<long>(now)) BeginSecond(static_cast<long>(now));
  }

  void BeginSecond(long second) {
    second_ = second;
    if (lines_ > kMostLines) fmt::print(stderr, "... and {} more\n", lines_ - kMostLines);
    lines_ = 0;
    answered_.clear();
    for (auto& [node, guest] : guests_) GiveBack(node, guest.port);
    SetAccepting(true);
    malloc_trim(0);
  }

  Shared& shared_;
  Process& self_;
  std::unique_ptr<Author> author_;
  const Limits limits_;
  Node ports_[kPorts];
  std::unordered_map<MQNode*, Guest> guests_;
  std::unordered_map<uint32_t, Record> records_;  // by client
  WaitSet set_;
  bool accepting_ = false;
  std::map<std::string, uint32_t> answered_;  // datagrams, by address, in this second
  Message in_ = Message::create(), out_ = Message::create();
  Signer signer_;
  Tally* tally_ = nullptr;  // of the honest client whose question was read last
  double scannedAt_ = 0;
  long second_ = 0;
  int lines_ = 0;  // of the log, in this second
};

}  // namespace

int RunServer(Shared* shared, uint64_t seed, const Keys& keys, const Limits& limits) {
  signal(SIGTERM, [](int) { stopped = 1; });
  Server server(shared, seed, limits);
  const bool ok = server.Open(keys) && server.Run();
  server.Close();
  return ok ? 0 : 1;
}

}  // namespace demo
