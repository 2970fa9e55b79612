// reader.cc - the library's reads and browses, while a peer's bytes arrive in pieces. After each call, its result, its
// error and the counters must match what was received and delivered, and a signed message must be accepted exactly if
// it is valid. Then the bytes are read again in one piece, without browses and by a new node for each message, with the
// same outcome. The program defines recvfrom, to which libmqnode binds: the next piece arrives when a reader finds
// nothing to receive. It also defines verification and decryption, which a fuzzer could never satisfy: signatures and
// tags of zeros are valid, and decryption changes nothing.
#include <fcntl.h>
#include <sodium.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "mqnode/mqnode.h"
#include "tests/fuzz/oracle.hh"

namespace {

using fuzz::kHeader;
constexpr ptrdiff_t kBehind = fuzz::kSeal + fuzz::kTrailer;

enum Mode : uint8_t { kDatagram = 1, kSecure = 2, kPrompt = 4 };  // kPrompt: pieces arrive without an EAGAIN
enum Call : uint8_t { kRead, kBrowse, kReadAgain, kReadOther };   // kReadOther: as a message of the other framing

// The parts of an input.
struct Plan {
  uint8_t mode;
  uint8_t calls;     // the last three of each four calls, two bits each; the first is kRead
  fuzz::Bytes cuts;  // sizes of the pieces, 255 for 4080; the last piece, after these, has all that is left
  fuzz::Bytes bytes;

  bool Has(Mode bit) const { return (mode & bit) != 0; }
  uint32_t Sealing() const { return (mode >> 3 & 3) % 3; }  // an MqcSealing
  Call At(size_t call) const { return static_cast<Call>(call % 4 == 0 ? 0 : calls >> call % 4 * 2 & 3); }
  bool Mixes() const { return At(1) == kReadOther || At(2) == kReadOther || At(3) == kReadOther; }
};

// The bytes on their way to a socket, after which the peer closes. On a datagram node, the last datagrams are empty.
class Wire {
 public:
  explicit Wire(const Plan& plan) : plan_(plan) {
    if (!plan.Has(kDatagram)) Arrive();
  }
  size_t taken() const { return taken_; }
  bool over() const { return taken_ == plan_.bytes.size() && cut_ >= plan_.cuts.size(); }

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
      if (over()) return 0;
      Arrive();
      if (!plan_.Has(kPrompt) && !datagram) return errno = EAGAIN, -1;
    }
    if (peek && taken_ == arrived_) --cut_;  // an empty datagram stays
    const size_t got = std::min(size, arrived_ - taken_);
    std::copy_n(plan_.bytes.data() + taken_, got, to);
    if (!peek) taken_ = datagram ? arrived_ : taken_ + got;
    return static_cast<ssize_t>(got);
  }

 private:
  const Plan& plan_;
  size_t cut_ = 0, arrived_ = 0, taken_ = 0;
};

Wire* wire;

// The error of a read, and the message that it made, which is empty if it was not counted.
using Outcome = std::pair<int, std::vector<uint8_t>>;

class Session {
 public:
  explicit Session(const Plan& plan) : plan_(plan), wire_(plan), msg_(mqc_message_new(0)) {
    wire = &wire_;
    mqc_set_clock([] { return fuzz::kPresent; });
    mqc_reset_replay(0);
    uint8_t secret[MQC_KEY_BYTES], key[MQC_KEY_BYTES];
    REQUIRE(mqc_set_sealing(plan.Sealing()));
    if (mqc_ring_count() == 1) return;
    REQUIRE(mqc_generate_key(secret, key) && mqc_ring_add("alice", key, nullptr, 0));
    MqcSigner* const alice = mqc_signer_new("alice", secret, nullptr, 0);
    REQUIRE(alice != nullptr && mqc_set_opener(alice));
    mqc_signer_free(alice);
  }
  ~Session() { mqc_message_free(msg_); }

  // All outcomes, except of reads that have to be repeated.
  std::vector<Outcome> Run(bool renew) {
    std::vector<Outcome> outcomes;
    NewNode();
    for (size_t calls = 1; outcomes.empty() || outcomes.back().first != SOCK_PEER_CLOSED || !wire_.over(); ++calls) {
      REQUIRE(calls < 8 * (plan_.bytes.size() + plan_.cuts.size()) + 64);
      const Call call = plan_.At(calls);
      const Outcome outcome = call == kBrowse ? Browse() : Read(plan_.Has(kSecure) != (call == kReadOther));
      if (outcome.first == MQ_AGAIN) continue;
      outcomes.push_back(outcome);
      if (renew) DeleteNode(), NewNode();
    }
    DeleteNode();
    return outcomes;
  }

 private:
  void NewNode() {
    SockRec sock;
    CreateSocketFromExisting(&sock, open("/dev/null", O_RDWR | O_NONBLOCK));
    if (plan_.Has(kDatagram)) sock.type = SOCK_TYPE_DATAGRAM;
    node_ = CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT);
  }
  void DeleteNode() {
    const int fd = node_->sock.fd;
    DeleteMQNode(node_);
    REQUIRE(fcntl(fd, F_GETFD) == -1);
  }

  template <typename Function>
  bool Do(Function function) {
    const int result = function(msg_, node_);
    const IoBuffer& buffer = node_->recvBuffer;
    REQUIRE((result != 0) == (node_->error == 0));
    REQUIRE(buffer.received <= buffer.capacity && buffer.length <= MQ_MAX_MESSAGE);
    REQUIRE(buffer.length <= buffer.capacity || buffer.received == 0);
    return result != 0;
  }

  // A browse changes nothing, and shows the next header on the wire.
  Outcome Browse() {
    const MQNode before = *node_;
    const size_t taken = wire_.taken();
    const bool found = Do(mnBrowse);
    REQUIRE(wire_.taken() == taken && node_->msgsRead == before.msgsRead);
    REQUIRE(memcmp(&node_->recvBuffer, &before.recvBuffer, sizeof before.recvBuffer) == 0);
    if (!found && node_->error != MQ_NO_ROOM) return {MQ_AGAIN, {}};
    const fuzz::Bytes came = plan_.bytes.subspan(taken);
    REQUIRE(came.size() >= kHeader);
    REQUIRE(memcmp(fuzz::Native(came.first(kHeader)).data(), msg_->raw.data, kHeader) == 0);
    int32_t announced;
    memcpy(&announced, msg_->raw.data + offsetof(MsgHeader, bodyLength), sizeof announced);
    REQUIRE(found ? announced <= int64_t{msg_->raw.capacity} : announced > int64_t{MQ_MAX_MESSAGE});
    return {MQ_AGAIN, {}};
  }

  Outcome Read(bool secure) {
    if (node_->recvBuffer.received == 0) begin_ = wire_.taken();
    const uint32_t before = node_->msgsRead;
    const bool read = Do([secure](auto* into, auto* from) { return mnSRead(into, from, secure, nullptr); });
    const int error = node_->error;
    const bool counted = read || error == MQ_BAD_BODY || error == MQ_NOT_AUTHENTIC;
    const size_t taken = wire_.taken();
    REQUIRE(node_->msgsRead == before + counted);
    REQUIRE(error == MQ_AGAIN ? taken == begin_ + node_->recvBuffer.received : node_->recvBuffer.received == 0);
    if (!counted) return {error, {}};
    const fuzz::Bytes came = plan_.bytes.subspan(begin_, taken - begin_);
    if (!plan_.Mixes()) CheckCounted(came, secure, error == MQ_NOT_AUTHENTIC);
    if (read) fuzz::CheckDelivered(msg_);
    return {error, fuzz::Copy({msg_->raw.data, msg_->raw.length})};
  }

  // The record contains what was received: unchanged if it was refused, else in native form. A sealed message that was
  // refused may have been wiped.
  void CheckCounted(fuzz::Bytes came, bool secure, bool refused) {
    const bool sealed = secure && fuzz::IsSealed(came);
    const size_t front = secure ? fuzz::kEnvelope : 0;
    const size_t back = !secure || refused ? 0 : sealed ? kBehind : fuzz::kTrailer;
    REQUIRE(came.size() > front + back && (mqc_sealed(msg_) != 0) == (sealed && !refused));
    const fuzz::Bytes plain = came.subspan(front, came.size() - front - back), raw(msg_->raw.data, msg_->raw.length);
    REQUIRE((refused && sealed) || std::ranges::equal(refused ? fuzz::Copy(plain) : fuzz::Native(plain), raw));
    if (secure && came.size() > fuzz::kTrailer) CheckAccepted(came, !refused);
    REQUIRE(refused || memcmp(msg_->secHeader.userId, msg_->raw.data + offsetof(MsgHeader, userId), 12) == 0);
  }

  // A valid message is accepted once. A sealed message may be remembered although it was refused.
  void CheckAccepted(fuzz::Bytes came, bool accepted) {
    const bool sealed = fuzz::IsSealed(came), wanted = plan_.Sealing() != (sealed ? MQC_SEAL_NEVER : MQC_SEAL_MUST);
    const std::optional<bool> acceptable = wanted ? fuzz::IsAcceptable(came) : false;
    const std::string mark = fuzz::TextOf(came.last(fuzz::kTrailer).subspan(fuzz::kAtTime, 24));
    const bool first = accepted ? seen_.insert(mark).second : !seen_.contains(mark) && !refused_.contains(mark);
    if (sealed && !accepted) refused_.insert(mark);
    REQUIRE(accepted ? first && acceptable.value_or(true) : !first || !acceptable.value_or(false));
  }

  const Plan& plan_;
  Wire wire_;
  PcfMessage* msg_;
  MQNode* node_ = nullptr;
  size_t begin_ = 0;                      // of the current message
  std::set<std::string> seen_, refused_;  // times and nonces of accepted messages; of refused sealed ones
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  Plan plan = {input.Byte(), input.Byte(), input.Take(input.Byte() % 24), {}};
  plan.bytes = input.Rest();
  const std::vector<Outcome> outcomes = Session(plan).Run(false);
  if (plan.Mixes()) return 0;
  plan.calls = 0;
  if (!plan.Has(kDatagram)) plan.cuts = {};
  REQUIRE(outcomes == Session(plan).Run(true));
  return 0;
}

extern "C" {

ssize_t recvfrom(int, void* __restrict to, size_t size, int flags, sockaddr* __restrict, socklen_t* __restrict length) {
  *length = 0;
  return wire->Receive(static_cast<uint8_t*>(to), size, (flags & MSG_PEEK) != 0);
}

int crypto_sign_final_verify(crypto_sign_state*, const unsigned char* signature, const unsigned char*) {
  return sodium_is_zero(signature, crypto_sign_BYTES) ? 0 : -1;
}

int crypto_aead_xchacha20poly1305_ietf_decrypt_detached(unsigned char*, unsigned char*, const unsigned char*,
                                                        unsigned long long, const unsigned char* tag,
                                                        const unsigned char*, unsigned long long, const unsigned char*,
                                                        const unsigned char*) {
  return sodium_is_zero(tag, 16) ? 0 : -1;
}

}  // extern "C"
