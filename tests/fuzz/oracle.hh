// oracle.hh - what a message has to become, and signatures for bytes that a fuzzer chose: it never guesses one, so the
// targets sign as alice on its behalf.
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
constexpr int64_t kPresent = 1'700'000'000'000;
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
    mqc_set_clock([] { return kPresent; });
    return mqc_ring_add("alice", key, nullptr, 0) != 0;
  }();
  mqc_reset_replay(0);
}

// Signs all messages with envelopes from the front of a stream on, but for their marks. The last two bytes of a trailer's
// time are seconds before or after the present.
// Result   those of the last message that was signed
inline std::optional<int> Seal(std::span<uint8_t> stream) {
  std::optional<int> seconds;
  SecureHeader envelope;
  while (stream.size() >= kEnvelope) {
    memcpy(&envelope, stream.data(), kEnvelope);
    if (!AlienToNativeExt(&envelope) || envelope.msgLength > stream.size() - kEnvelope) break;
    const auto part = stream.subspan(kEnvelope, envelope.msgLength);
    stream = stream.subspan(kEnvelope + part.size());
    if (part.size() < kTrailer) continue;
    uint8_t* const trailer = part.last(kTrailer).data();
    seconds = static_cast<int16_t>(trailer[kAtNonce - 2] << 8 | trailer[kAtNonce - 1]);
    const std::string plain = TextOf(part.first(part.size() - kTrailer)), nonce = TextOf({trailer + kAtNonce, 16});
    const std::string whole = sender::Signed({}, plain, "alice", kAliceSeed, kPresent + *seconds * 1000, nonce);
    std::copy(whole.end() - kTrailer + kAtTime, whole.end(), trailer + kAtTime);
  }
  return seconds;
}

}  // namespace fuzz
