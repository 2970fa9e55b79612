// reader.cc - see reader.hh.
#include "tests/fuzz/reader.hh"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/fuzz/message.hh"
#include "tests/fuzz/sealing.hh"

namespace fuzz {
namespace {

constexpr size_t kEnvelope = sizeof(SecureHeader);
constexpr size_t kTrailer = 96;
constexpr size_t kTooLong = 16600;  // more than a node takes of a datagram
constexpr uint8_t kMostCuts = 24;
constexpr int kMostFailing = 12;

MQNode* NodeOver(const Wire& wire, bool datagram) {
  SockRec sock;
  CreateSocketFromExisting(&sock, wire.fd());
  if (datagram) sock.type = SOCK_TYPE_DATAGRAM;
  MQNode* const node = CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT);
  if (node == nullptr) DeleteSocket(&sock);
  return node;
}

// A message that was counted: the record holds what came, in the form that its outcome promises. came is the whole
// message as it was taken off the wire.
void CheckCounted(const PcfMessage* msg, int result, int error, Bytes came, bool secure) {
  const size_t front = secure ? kEnvelope : 0;
  const size_t back = secure && error != MQ_NOT_AUTHENTIC ? kTrailer : 0;
  HOLDS(came.size() > front + back);
  const Bytes plain = came.subspan(front, came.size() - front - back);
  const std::vector<uint8_t> expected = error == MQ_NOT_AUTHENTIC ? Copy(plain) : Native(plain);
  HOLDS(Same(expected, {msg->raw.data, msg->raw.length}));
  if (error != MQ_NOT_AUTHENTIC) {
    HOLDS(memcmp(msg->secHeader.userId, msg->raw.data + offsetof(MsgHeader, userId), 12) == 0);
  }
  if (result) CheckDelivered(msg);
}

// One read after another, each seen to fit to what it took off the wire.
class Session {
 public:
  Session(const Arrivals& arrivals, bool secure, int failing)
      : arrivals_(arrivals), secure_(secure), reader_(arrivals, failing) {}

  std::vector<Outcome> Run() {
    const size_t most = 2 * (arrivals_.bytes.size() + arrivals_.cuts.size()) + 16;
    std::vector<Outcome> outcomes;
    for (size_t calls = 0; reader_.node() != nullptr; ++calls) {
      HOLDS(calls <= most);
      const Outcome outcome = Read();
      if (outcome.error != MQ_AGAIN) outcomes.push_back(outcome);
      if (reader_.AtEnd()) break;
    }
    return outcomes;
  }

 private:
  Outcome Read() {
    MQNode* const node = reader_.node();
    const PcfMessage* const msg = reader_.msg();
    const uint32_t before = node->msgsRead;
    const int result = reader_.Do([this](auto* into, auto* from) { return mnSRead(into, from, secure_, nullptr); });
    const int error = node->error;

    const bool counted = result != 0 || error == MQ_BAD_BODY || error == MQ_NOT_AUTHENTIC;
    const size_t taken = reader_.wire().taken();
    HOLDS(node->msgsRead == before + counted);
    HOLDS(error == MQ_AGAIN ? taken == begin_ + node->recvBuffer.received : node->recvBuffer.received == 0);
    Outcome outcome = {result, error, {}};
    if (counted) {
      CheckCounted(msg, result, error, arrivals_.bytes.subspan(begin_, taken - begin_), secure_);
      if (error != MQ_NOT_AUTHENTIC) outcome.message.assign(msg->raw.data, msg->raw.data + msg->raw.length);
    }
    if (error != MQ_AGAIN) begin_ = taken;
    return outcome;
  }

  const Arrivals& arrivals_;
  bool secure_;
  Reader reader_;
  size_t begin_ = 0;  // of the message that is being read
};

std::vector<Outcome> ReadInOnePiece(Arrivals arrivals, bool secure) {
  arrivals.cuts = {};
  return ReadAll(arrivals, secure, 0);
}

// Each datagram by a node of its own.
std::vector<Outcome> ReadOneByOne(const Arrivals& arrivals, bool secure) {
  std::vector<Outcome> outcomes;
  const uint8_t everything = 0;
  Bytes left = arrivals.bytes;
  for (size_t i = 0; i < arrivals.cuts.size() || !left.empty(); ++i) {
    Arrivals one = arrivals;
    const size_t cut = i < arrivals.cuts.size() ? arrivals.cuts[i] : left.size();
    one.bytes = left.first(std::min(cut == 255 ? 4080 : cut, left.size()));
    one.cuts = one.bytes.empty() ? Bytes(&everything, 1) : Bytes();
    left = left.subspan(one.bytes.size());
    if (!left.empty()) one.padding = 0;
    for (Outcome& outcome : ReadAll(one, secure, 0)) {
      if (outcome.error != ECONNREFUSED) outcomes.push_back(std::move(outcome));
    }
  }
  return outcomes;
}

}  // namespace

Reader::Reader(const Arrivals& arrivals, int failing)
    : wire_(arrivals), msg_(mqc_message_new(0)), failing_(static_cast<uint64_t>(failing)) {
  Failing([&] { node_ = NodeOver(wire_, arrivals.datagram); });
}

Reader::~Reader() {
  DeleteMQNode(node_);
  mqc_message_free(msg_);
}

bool Reader::AtEnd() const {
  switch (node_->error) {
    case MQ_AGAIN:
      return wire_.silent();
    case SOCK_PEER_CLOSED:
      return node_->sock.type == SOCK_TYPE_STREAM;
    default:
      return node_->error == ECONNRESET || node_->error == ECONNREFUSED;
  }
}

void Reader::CheckState(int result) const {
  const IoBuffer& buffer = node_->recvBuffer;
  HOLDS((result != 0) == (node_->error == 0));
  HOLDS(IsNodeFailed(node_) == (result == 0));
  HOLDS(buffer.received <= buffer.capacity && buffer.length <= MQ_MAX_MESSAGE);
  HOLDS(buffer.length <= buffer.capacity || buffer.received == 0);
  HOLDS(node_->sock.buffer == nullptr);
  if (node_->sock.type == SOCK_TYPE_STREAM) HOLDS(node_->sock.bytesReceived >= wire_.taken());
}

std::vector<Outcome> ReadAll(const Arrivals& arrivals, bool secure, int failing) {
  return Session(arrivals, secure, failing).Run();
}

Arrivals TakeArrivals(Input& input, uint8_t* options, int* failing) {
  constexpr Arrivals::End kEnds[] = {Arrivals::End::kClosed, Arrivals::End::kReset, Arrivals::End::kOpen,
                                     Arrivals::End::kClosed};
  Arrivals arrivals;
  *options = input.Byte();
  *failing = input.Byte() % kMostFailing;
  arrivals.blocking = (*options & 1) != 0;
  arrivals.end = kEnds[*options >> 1 & 3];
  arrivals.cuts = input.Take(input.Byte() % kMostCuts);
  arrivals.bytes = input.Rest();
  return arrivals;
}

void ReadTwice(const uint8_t* data, size_t size, bool secure, bool datagram) {
  Input input(data, size);
  uint8_t options;
  int failing;
  Arrivals arrivals = TakeArrivals(input, &options, &failing);
  const Bytes given = arrivals.bytes;
  std::vector<uint8_t> bytes(given.size());
  arrivals.bytes = bytes;
  arrivals.datagram = datagram;
  if (datagram && (options & kOwnOption) != 0) arrivals.padding = kTooLong;
  const auto begin = [&] {
    std::copy(given.begin(), given.end(), bytes.begin());
    BeginSigned();
    if (!secure || (options & kSealed) == 0) return;
    if (!datagram) return SealStream(bytes);
    Seal(bytes);
  };
  begin();
  std::vector<Outcome> outcomes = ReadAll(arrivals, secure, failing);
  if (failing != 0) return;
  begin();
  if (datagram) {
    std::erase_if(outcomes, [](const Outcome& outcome) { return outcome.error == ECONNREFUSED; });
    HOLDS(outcomes == ReadOneByOne(arrivals, secure));
  } else {
    HOLDS(outcomes == ReadInOnePiece(arrivals, secure));
  }
}

}  // namespace fuzz
