#include "demo/service.hh"

#include <fmt/format.h>
#include <malloc.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "demo/child.hh"

namespace demo {
namespace {

using namespace mqnode;

constexpr uint32_t kDatagramBuffer = 4 << 20;
constexpr uint32_t kReplayLimit = 1 << 16;  // a long run reaches it, so that old messages are forgotten

}  // namespace

Service::Service(Shared* shared, uint64_t seed, const Keys& keys, uint32_t answersASecond)
    : shared_(*shared),
      self_(shared->server),
      author_(new Author(seed)),
      answersASecond_(answersASecond),
      signer_(Signer::create(kHonest, keys.honest)) {
  if (!signer_ || !mqc_set_replay_limit(kReplayLimit)) throw std::runtime_error("no memory for the server");
}

// The datagrams of all clients share one buffer, which is as large as the system permits. Accepted nodes inherit the
// user of their listening node.
Node Service::MakeNode(Port port) {
  Node node = IsDatagram(port) ? Node::datagram({"127.0.0.1", "0", "udp"}) : Node::listener({"127.0.0.1", "0"});
  if (node.failed()) return node;
  (void)node.set_user(kHonest);
  if (IsDatagram(port)) (void)node.set_buffer_size(kDatagramBuffer);
  shared_.ports[port] = node.local_port();
  return node;
}

bool Service::Fail(std::string_view why) {
  self_.faults.Add(fmt::format("the server cannot continue: {}", why));
  return false;
}

void Service::Scan(double now) {
  MqcMemory memory;
  mqc_memory("buffer", &memory);
  self_.peakBuffers = std::max(self_.peakBuffers, memory.live_bytes);
  memory = MemoryInUse();
  if (self_.connected == 0) self_.blocks = memory.live_blocks;
  if (self_.connected == 0) self_.bytes = memory.live_bytes;
  if (second_ == static_cast<long>(now)) return;
  second_ = static_cast<long>(now);
  lines_ = 0;
  answered_.clear();
  malloc_trim(0);
}

void Service::Close() {
  signer_.reset();
  author_.reset();
  MqcMemory ring;
  mqc_memory("ring", &ring);
  self_.leftBlocks = MemoryInUse().live_blocks - ring.live_blocks;
}

void Service::Accepted() {
  ++self_.accepted;
  self_.most = std::max<uint64_t>(self_.most, ++self_.connected);
}

void Service::Dropped(const MQNode* client, const char* why) {
  why != nullptr ? ++self_.dropped : ++self_.farewells;
  last_.erase(client);
  --self_.connected;
}

void Service::Refused(Port port, const SockAddrRec& from, const char* why) {
  ++self_.kinds[std::ranges::find(kKinds, port, &Kind::port) - kKinds].at(kRefused);
  Say("refused", from, why);
}

void Service::Sent(MessageRef answer) {
  ++self_.messages;
  const Place place = Author::PlaceOf(answer);
  if (place.client >= kMostClients) return;
  Tally& tally = self_.kinds[KindOf(place.client)];
  ++tally.at(kAnswers);
  tally.at(kSent) += answer.raw().size();
}

void Service::Say(const char* what, const SockAddrRec& peer, const char* why) {
  if (++lines_ <= kLogLines) fmt::print(stderr, "{} {}:{}: {}\n", what, peer.ip, peer.port, why);
}

bool Service::Answer(MessageRef in, MessageRef out, const MQNode* client) {
  Check(in, client);
  return Build(in, out);
}

// Two servers would otherwise answer each other forever; and the sender's address may be forged.
bool Service::AnswerDatagram(MessageRef in, MessageRef out, const SockAddrRec& from) {
  if (in.command() != kQuestion) return false;
  Check(in, nullptr);
  return ++answered_[from.ip] <= answersASecond_ && Build(in, out);
}

// The answer has all parameters of the question, in their order.
bool Service::Build(MessageRef in, MessageRef out) {
  bool added = out.begin(kAnswer);
  for (const Param& param : in.params()) {
    const uint32_t id = param.id(), type = param.type();
    added = added && (type == MQC_INT32   ? out.add(id, static_cast<int32_t>(param.number()))
                      : type == MQC_INT64 ? out.add(id, param.number())
                      : type == MQC_TEXT  ? out.add(id, param.text().data())
                                          : out.add(id, param.bytes()));
  }
  return added;
}

// Checks that the question of an honest client is complete, unchanged and in order. client: null for a datagram.
void Service::Check(MessageRef in, const MQNode* client) {
  const Place place = Author::PlaceOf(in);
  ++self_.messages;
  if (place.client >= kMostClients) return;
  const Kind& kind = kKinds[KindOf(place.client)];
  Tally& tally = self_.kinds[KindOf(place.client)];
  std::string wrong = author_->Compare(in, kQuestion, place, kind.isLarge, false, false);
  Record& record = records_[place.client];
  if (client == nullptr && IsAgain(place, &record)) {
    ++tally.at(kAgain);
    if (!IsSigned(kind.port)) return;
    wrong = "a signed datagram was accepted twice";
  }
  if (client != nullptr) {
    Place& last = last_[client];
    const Place before = last;
    if (!IsInOrder(place, &last, &record)) {
      wrong = fmt::format("out of order, after session {}, question {}", before.session, before.number);
    }
  }
  ++tally.at(kQuestions);
  tally.at(kReceived) += in.raw().size();
  if (wrong.empty()) return;
  self_.faults.Add(fmt::format("the server: client {}, session {}, question {}: {}", place.client, place.session,
                               place.number, wrong));
}

// A connection has the questions of one session, in their order. The last questions of a connection that was cut may be
// read after the first ones of the next.
bool Service::IsInOrder(const Place& place, Place* last, Record* record) {
  const Place before = std::exchange(*last, place);
  if (before.client == Place().client) return place.number == 0 && record->Begins(place.session);
  return place.client == before.client && place.session == before.session && place.number == before.number + 1;
}

bool Service::Record::Begins(uint32_t session) {
  const uint32_t ahead = session > latest ? session - latest : 0;
  latest += ahead;
  begun = ahead < 64 ? begun << ahead : 0;
  const uint64_t bit = latest - session < 64 ? uint64_t{1} << (latest - session) : 0;
  const bool isNew = bit != 0 && (begun & bit) == 0;
  begun |= bit;
  return isNew;
}

// Datagrams may be missing, and plain ones may be repeated.
bool Service::IsAgain(const Place& place, Record* record) {
  if (place.session > record->latest) record->seen.clear();
  record->latest = std::max(record->latest, place.session);
  return place.session < record->latest || !record->seen.insert(place.number).second;
}

}  // namespace demo
