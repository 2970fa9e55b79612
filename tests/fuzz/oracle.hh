// oracle.hh - what becomes of a message, and signatures for bytes that a fuzzer chose: it never guesses one, so that
// the reader's target signs as alice on its behalf.
#pragma once

#include <cstring>
#include <optional>
#include <set>

#include "tests/fuzz/fuzz.hh"
#include "tests/support/sender.hh"
#include "tools/mqcat/decode.hh"

namespace fuzz {

constexpr size_t kHeader = sizeof(MsgHeader);
constexpr size_t kEnvelope = sizeof(SecureHeader);
constexpr size_t kTrailer = 96;
constexpr size_t kAtTime = 8;
constexpr size_t kAtNonce = 16;
constexpr size_t kSignature = 32;
constexpr uint64_t kPresent = 1'700'000'000'000;
constexpr uint64_t kWindow = 300'000;
constexpr uint8_t kAliceSeed[MQC_KEY_BYTES] = {7};

// A record whose raw area has exactly the size of its message.
class Record {
 public:
  explicit Record(Bytes raw) : area_(Copy(raw)), msg_(mqc_message_new(0)) {
    const auto length = static_cast<uint32_t>(raw.size());
    mqc_message_release(msg_);
    msg_->raw = {msg_->raw.library0, area_.data(), msg_->raw.aux, length, length};
  }
  ~Record() { mqc_message_free(msg_); }
  PcfMessage* operator->() { return msg_; }
  operator PcfMessage*() { return msg_; }
  Bytes raw() const { return {msg_->raw.data, msg_->raw.length}; }

 private:
  std::vector<uint8_t> area_;
  PcfMessage* msg_;
};

inline int AddParam(PcfMessage* msg, const MqcParam& param) {
  if (param.type == MQC_INT32) return mqc_add_int32(msg, param.id, static_cast<int32_t>(param.number));
  if (param.type == MQC_INT64) return mqc_add_int64(msg, param.id, param.number);
  if (param.type == MQC_TEXT) return strlen(param.text) == param.length && mqc_add_text(msg, param.id, param.text);
  return param.type == MQC_BYTES && mqc_add_bytes(msg, param.id, param.bytes, param.length);
}

// Requires a native header that says the length, and parameters from which the same body can be composed again.
inline void CheckDelivered(const PcfMessage* msg) {
  const PcfRawData& raw = msg->raw;
  REQUIRE(raw.length > kHeader && raw.length <= MQ_MAX_MESSAGE && raw.length <= raw.capacity);
  MsgHeader header;
  memcpy(&header, raw.data, kHeader);
  REQUIRE(header.hdrLength == kHeader && header.bigEndian == 0 && header.asciiText == 1);
  REQUIRE(header.bodyLength == raw.length - kHeader);
  MqcParam param;
  PcfMessage* const copy = mqc_message_new(0);
  REQUIRE(mqc_begin(copy, mqc_command(msg)));
  for (uint32_t i = 0; mqc_param(msg, i, &param); ++i) REQUIRE(AddParam(copy, param));
  REQUIRE(mqc_count(copy) == mqc_count(msg) && copy->raw.length == raw.length);
  REQUIRE(memcmp(copy->raw.data + kHeader, raw.data + kHeader, raw.length - kHeader) == 0);
  mqc_message_free(copy);
}

// What a reader has to hand out for a plain message: header and body in native form, the body as it came when it is
// broken.
inline std::vector<uint8_t> Native(Bytes plain) {
  Record record(plain);
  if (AlienToNative(&record->raw)) AlienPcfToNative(record);
  return Copy(record.raw());
}

// The rules that mqcat decode finds broken in a whole message or a datagram.
inline std::set<std::string> BrokenRules(Bytes message) {
  std::set<std::string> rules;
  mqcat::DecodeOptions how;
  how.datagram = true;
  mqcat::Decode(message, how, [&rules](const mqcat::Piece& piece) {
    for (const mqcat::Fault& fault : piece.faults) rules.emplace(fault.rule);
  });
  return rules;
}

// Lets the ring hold alice alone, stops the clock and forgets accepted messages.
inline void BeginSigned() {
  [[maybe_unused]] static const bool once = [] {
    uint8_t key[MQC_KEY_BYTES];
    MqcSigner* const alice = mqc_signer_new("alice", kAliceSeed, nullptr, 0);
    mqc_signer_public_key(alice, key);
    mqc_signer_free(alice);
    mqc_set_clock([] { return int64_t{kPresent}; });
    return mqc_ring_add("alice", key, nullptr, 0) != 0;
  }();
  mqc_reset_replay(0);
}

// The trailer with which alice signs a message; part is what follows the envelope, with the trailer's time and nonce.
inline std::string TrailerOf(Bytes part) {
  const std::string plain = TextOf(part.first(part.size() - kTrailer)), trailer = TextOf(part.last(kTrailer));
  uint64_t time = 0;
  for (size_t i = kAtTime; i < kAtNonce; ++i) time = time << 8 | static_cast<uint8_t>(trailer[i]);
  const std::string whole = sender::Signed({}, plain, "alice", kAliceSeed, time, trailer.substr(kAtNonce, 16));
  return whole.substr(whole.size() - kTrailer);
}

// Signs all messages with envelopes from the front of a stream on; their marks stay. The last two bytes of a trailer's
// time are seconds before or after the present.
inline void Seal(std::span<uint8_t> stream) {
  SecureHeader envelope;
  while (stream.size() >= kEnvelope) {
    memcpy(&envelope, stream.data(), kEnvelope);
    if (!AlienToNativeExt(&envelope) || envelope.msgLength > stream.size() - kEnvelope) return;
    const auto part = stream.subspan(kEnvelope, envelope.msgLength);
    stream = stream.subspan(kEnvelope + part.size());
    if (part.size() < kTrailer) continue;
    const auto trailer = part.last(kTrailer);
    const int seconds = static_cast<int16_t>(trailer[kAtNonce - 2] << 8 | trailer[kAtNonce - 1]);
    const uint64_t time = __builtin_bswap64(kPresent + static_cast<uint64_t>(seconds * 1000));
    memcpy(trailer.data() + kAtTime, &time, sizeof time);
    const std::string signature = TrailerOf(part);
    std::copy(signature.begin() + kAtNonce, signature.end(), trailer.begin() + kAtNonce);
  }
}

// Whether a reader has to accept a signed message that it has not accepted before; nothing when a text field is not
// zero-filled, which is a fault in users and passed on in the program's name.
inline std::optional<bool> IsAcceptable(Bytes message) {
  const Bytes part = message.subspan(kEnvelope);
  std::set<std::string> broken = BrokenRules(message);
  std::erase_if(broken, [](const std::string& rule) {  // nobody looks at the body before the signature was verified
    return rule.starts_with("parameter-") || rule == "body-head" || rule == "body-rest" || rule == "text-zero-byte" ||
           rule == "encoding-version" || rule == "origin-word";
  });
  SecureHeader envelope;
  memcpy(&envelope, message.data(), kEnvelope);
  if (broken.erase("zero-fill") != 0) return std::nullopt;
  if (!broken.empty() || !AlienToNativeExt(&envelope) || strncmp(envelope.userId, "alice", 12) != 0) return false;
  uint64_t time;
  memcpy(&time, part.last(kTrailer).data() + kAtTime, sizeof time);
  const bool fresh = __builtin_bswap64(time) - (kPresent - kWindow) <= 2 * kWindow;
  return fresh && TrailerOf(part) == TextOf(part.last(kTrailer));
}

}  // namespace fuzz
