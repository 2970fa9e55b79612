// reader.cc - the reads and looks of the library, while a peer's bytes arrive in pieces. After each call result, error
// and counters fit what was received and delivered, and a signed message is accepted exactly when it has to be. Then the
// bytes are read again in one piece, without looks and by a new node for each message, with the same outcome.
//
// The program defines recvfrom, poll and nanosleep, to which libmqnode binds: time passes, and the next piece arrives,
// only where a reader finds nothing to receive or pauses.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "mqnode/mqnode.h"
#include "tests/fuzz/oracle.hh"

namespace {

using fuzz::kHeader;

enum Mode : uint8_t { kDatagram = 1, kSecure = 2, kBlocking = 4, kReset = 8, kOpen = 16, kSealed = 32 };
enum Call : uint8_t { kRead, kBrowse, kReadAgain, kReadOther };  // kReadOther: as a message of the other framing

// What an input asks for.
struct Plan {
  uint8_t mode;
  uint8_t calls;     // the last three of each four calls, two bits each; the first is kRead
  uint8_t failing;   // which allocation fails, two bits, and in which call
  fuzz::Bytes cuts;  // sizes of the pieces, 255 for 4080; all that is left arrives at once behind the last of them
  fuzz::Bytes bytes;

  bool Has(Mode bit) const { return (mode & bit) != 0; }
  Call At(size_t call) const { return static_cast<Call>(call % 4 == 0 ? 0 : calls >> call % 4 * 2 & 3); }
  bool Mixes() const { return At(1) == kReadOther || At(2) == kReadOther || At(3) == kReadOther; }
};

// The bytes on their way to a socket.
class Wire {
 public:
  explicit Wire(const Plan& plan) : plan_(plan) {
    if (!plan.Has(kDatagram)) Arrive();
  }
  size_t taken() const { return taken_; }
  bool over() const { return arrived_ == plan_.bytes.size() && cut_ >= plan_.cuts.size(); }
  // The reader is told that nothing more will arrive. A blocking one would wait for ever if nobody told.
  bool told() const { return !plan_.Has(kDatagram) && (!plan_.Has(kOpen) || plan_.Has(kBlocking)); }
  bool silent() const { return over() && !told() && taken_ == arrived_; }

  void Arrive() {
    size_t size = plan_.bytes.size() - arrived_;
    if (cut_ < plan_.cuts.size()) size = std::min<size_t>(size, plan_.cuts[cut_] == 255 ? 4080 : plan_.cuts[cut_]);
    ++cut_;
    arrived_ += size;
  }

  // A stream keeps what does not fit, a datagram loses it.
  ssize_t Receive(uint8_t* to, size_t size, bool peek) {
    const bool datagram = plan_.Has(kDatagram);
    for (bool wait = taken_ == arrived_; wait; wait = taken_ == arrived_ && !datagram) {
      if (over() && told() && !plan_.Has(kReset)) return 0;
      if (over()) return Fail(told() ? ECONNRESET : EAGAIN);
      Arrive();
      if (!plan_.Has(kBlocking) && !datagram) return Fail(EAGAIN);
    }
    if (peek && taken_ == arrived_) --cut_;  // an empty datagram stays
    const size_t got = std::min(size, arrived_ - taken_);
    std::copy_n(plan_.bytes.data() + taken_, got, to);
    if (!peek) taken_ = datagram ? arrived_ : taken_ + got;
    return static_cast<ssize_t>(got);
  }

 private:
  static ssize_t Fail(int code) {
    errno = code;
    return -1;
  }

  const Plan& plan_;
  size_t cut_ = 0, arrived_ = 0, taken_ = 0;
};

Wire* wire;

// What a call made of one message; empty when it was not counted.
struct Outcome {
  int result, error;
  std::vector<uint8_t> message;
  bool operator==(const Outcome&) const = default;
};

class Session {
 public:
  explicit Session(const Plan& plan) : plan_(plan), wire_(plan), msg_(mqc_message_new(0)) {
    wire = &wire_;
    NewNode();
  }
  ~Session() {
    DeleteNode();
    mqc_message_free(msg_);
  }

  // Every outcome to the end, but for reads that have to be made again.
  std::vector<Outcome> Run(bool renew) {
    std::vector<Outcome> outcomes;
    for (call_ = 1; node_ != nullptr; ++call_) {
      REQUIRE(call_ < 8 * (plan_.bytes.size() + plan_.cuts.size()) + 64);
      const Call call = plan_.At(call_);
      Outcome outcome = call == kBrowse ? Browse() : Read(plan_.Has(kSecure) != (call == kReadOther));
      if (call == kBrowse) continue;
      if (outcome.error == MQ_AGAIN && wire_.silent()) break;
      if (outcome.error == MQ_AGAIN) continue;
      outcomes.push_back(std::move(outcome));
      const int error = outcomes.back().error;
      if ((error == SOCK_PEER_CLOSED && !plan_.Has(kDatagram)) || error == ECONNRESET) break;
      if (renew) NewNode();
    }
    return outcomes;
  }

 private:
  // The allocation that fails in this call; 0 for none.
  uint64_t nth() const { return plan_.failing >> 2 == call_ ? plan_.failing & 3 : 0; }

  // The descriptor can be closed, and told to block or not.
  void NewNode() {
    DeleteNode();
    SockRec sock;
    CreateSocketFromExisting(&sock, open("/dev/null", O_RDWR | (plan_.Has(kBlocking) ? 0 : O_NONBLOCK)));
    if (plan_.Has(kDatagram)) sock.type = SOCK_TYPE_DATAGRAM;
    node_ = (fuzz::Failing(nth()), CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT));
    if (node_ == nullptr) DeleteSocket(&sock);
  }
  void DeleteNode() {
    if (node_ == nullptr) return;
    const int fd = node_->sock.fd;
    DeleteMQNode(node_);
    REQUIRE(fcntl(fd, F_GETFD) == -1);
  }

  template <typename Function>
  Outcome Do(Function function) {
    const int result = (fuzz::Failing(nth()), function(msg_, node_));
    const IoBuffer& buffer = node_->recvBuffer;
    REQUIRE((result != 0) == (node_->error == 0));
    REQUIRE(IsNodeFailed(node_) == (result == 0));
    REQUIRE(buffer.received <= buffer.capacity && buffer.length <= MQ_MAX_MESSAGE);
    REQUIRE(buffer.length <= buffer.capacity || buffer.received == 0);
    REQUIRE(node_->sock.buffer == nullptr);
    return {result, static_cast<int>(node_->error), {}};
  }

  // A look changes nothing, and shows the header that is next on the wire.
  Outcome Browse() {
    const MQNode before = *node_;
    const size_t taken = wire_.taken();
    const Outcome outcome = Do(mnBrowse);
    REQUIRE(wire_.taken() == taken && node_->msgsRead == before.msgsRead);
    REQUIRE(memcmp(&node_->recvBuffer, &before.recvBuffer, sizeof before.recvBuffer) == 0);
    if (!outcome.result && outcome.error != MQ_NO_ROOM) return outcome;
    const fuzz::Bytes came = plan_.bytes.subspan(taken);
    REQUIRE(came.size() >= kHeader);
    const std::vector<uint8_t> expected = fuzz::Native(came.first(kHeader));
    REQUIRE(fuzz::Same(expected, {msg_->raw.data, kHeader}));
    MsgHeader header;
    memcpy(&header, expected.data(), kHeader);
    const int64_t announced = static_cast<int32_t>(header.bodyLength);
    REQUIRE(header.hdrLength == kHeader);
    REQUIRE(outcome.result ? announced <= msg_->raw.capacity : nth() != 0 || announced > MQ_MAX_MESSAGE);
    return outcome;
  }

  Outcome Read(bool secure) {
    if (node_->recvBuffer.received == 0) {
      begin_ = wire_.taken();
      secure_ = secure;
      mixed_ = false;
    }
    mixed_ = mixed_ || secure != secure_;
    const uint32_t before = node_->msgsRead;
    Outcome outcome = Do([secure](auto* into, auto* from) { return mnSRead(into, from, secure, nullptr); });
    const int error = outcome.error;
    const bool counted = outcome.result != 0 || error == MQ_BAD_BODY || error == MQ_NOT_AUTHENTIC;
    const size_t taken = wire_.taken();
    REQUIRE(node_->msgsRead == before + counted);
    REQUIRE(error == MQ_AGAIN ? taken == begin_ + node_->recvBuffer.received : node_->recvBuffer.received == 0);
    if (!counted) return outcome;
    const fuzz::Bytes came = plan_.bytes.subspan(begin_, taken - begin_);
    if (!mixed_) CheckCounted(came, secure, error == MQ_NOT_AUTHENTIC);
    if (secure && !plan_.Mixes() && came.size() > fuzz::kTrailer) CheckAccepted(came, error != MQ_NOT_AUTHENTIC);
    if (outcome.result) fuzz::CheckDelivered(msg_);
    outcome.message.assign(msg_->raw.data, msg_->raw.data + msg_->raw.length);
    return outcome;
  }

  // The record holds what came, as it came when it was refused, else in native form.
  void CheckCounted(fuzz::Bytes came, bool secure, bool refused) const {
    const size_t front = secure ? fuzz::kEnvelope : 0, back = secure && !refused ? fuzz::kTrailer : 0;
    REQUIRE(came.size() > front + back);
    const fuzz::Bytes plain = came.subspan(front, came.size() - front - back);
    REQUIRE(fuzz::Same(refused ? fuzz::Copy(plain) : fuzz::Native(plain), {msg_->raw.data, msg_->raw.length}));
    if (refused) return;
    MsgHeader header;
    memcpy(&header, msg_->raw.data, kHeader);
    REQUIRE(header.bodyLength == plain.size() - kHeader);
    REQUIRE(memcmp(msg_->secHeader.userId, header.userId, sizeof header.userId) == 0);
  }

  // What has to be accepted is accepted once.
  void CheckAccepted(fuzz::Bytes came, bool accepted) {
    const std::optional<bool> acceptable = fuzz::IsAcceptable(came);
    const std::string mark = fuzz::TextOf(came.last(fuzz::kTrailer).first(fuzz::kSignature));
    const bool first = accepted ? seen_.insert(mark).second : !seen_.contains(mark);
    REQUIRE(accepted ? first && acceptable.value_or(true) : !first || nth() != 0 || !acceptable.value_or(false));
  }

  const Plan& plan_;
  Wire wire_;
  PcfMessage* msg_;
  std::set<std::string> seen_;  // trailers but for their signatures
  MQNode* node_ = nullptr;      // null when there was no memory for one
  size_t call_ = 0;
  // The message that is being read: where it begins, its framing, and whether it was also read in the other one.
  size_t begin_ = 0;
  bool secure_ = false, mixed_ = false;
};

std::vector<Outcome> ReadAll(const Plan& plan, bool renew) {
  fuzz::BeginSigned();
  return Session(plan).Run(renew);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  Plan plan = {input.Byte(), input.Byte(), input.Byte(), input.Take(input.Byte() % 24), {}};
  std::vector<uint8_t> bytes = fuzz::Copy(input.Rest());
  plan.bytes = bytes;
  if (plan.Has(kSealed)) fuzz::Seal(bytes);
  const std::vector<Outcome> outcomes = ReadAll(plan, false);
  if (plan.Mixes() || plan.failing % 4 != 0) return 0;
  plan.calls = 0;
  if (!plan.Has(kDatagram)) plan.cuts = {};
  REQUIRE(outcomes == ReadAll(plan, true));
  return 0;
}

extern "C" {

ssize_t recvfrom(int, void* __restrict to, size_t size, int flags, sockaddr* __restrict, socklen_t* __restrict length) {
  *length = 0;
  return wire->Receive(static_cast<uint8_t*>(to), size, (flags & MSG_PEEK) != 0);
}

int poll(pollfd* fds, nfds_t, int) {
  fds->revents = wire->over() && wire->told() ? POLLRDHUP : 0;
  return fds->revents != 0;
}

int nanosleep(const timespec*, timespec*) {
  wire->Arrive();
  return 0;
}

}  // extern "C"
