// oracle.hh - the expected fate of a message, whose signature, if any, is alice's and valid if it is all zeros.
#pragma once

#include <sodium.h>

#include <cstring>
#include <optional>
#include <set>

#include "tests/fuzz/fuzz.hh"
#include "tools/mqcat/decode.hh"

namespace fuzz {

constexpr size_t kHeader = sizeof(MsgHeader), kEnvelope = sizeof(SecureHeader);
constexpr size_t kSeal = 64, kTrailer = 96, kAtTime = 8, kAtSignature = 32;
constexpr int64_t kWindow = 300'000;

// A record whose raw area has exactly the size of its message.
class Record {
 public:
  explicit Record(Bytes raw) : area_(Copy(raw)), msg_(mqc_message_new(0)) {
    const auto length = static_cast<uint32_t>(raw.size());
    mqc_message_release(msg_);
    msg_->raw = {msg_->raw.library0, area_.data(), msg_->raw.aux, length, length};
  }
  ~Record() { mqc_message_free(msg_); }
  operator PcfMessage*() { return msg_; }
  std::vector<uint8_t> raw() const { return {msg_->raw.data, msg_->raw.data + msg_->raw.length}; }

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

// Requires a native header with the right length, and parameters from which the same body can be composed.
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

// What a reader must deliver for a plain message: header and body in native form; a broken body as it arrived.
inline std::vector<uint8_t> Native(Bytes plain) {
  Record record(plain);
  PcfMessage* const msg = record;
  if (AlienToNative(&msg->raw)) AlienPcfToNative(msg);
  return record.raw();
}

// Opens a sealed message whose tag is zero as if it were not encrypted. The key in the seal must be valid.
inline std::string OpenZeroTag(std::span<uint8_t> message) {
  const uint8_t* const seal = message.last(kTrailer + kSeal).data();
  const uint8_t secret[32] = {1};
  uint8_t shared[32];
  return sodium_is_zero(seal + 48, 16) && crypto_scalarmult(shared, secret, seal + 16) == 0 ? "" : "the seal is broken";
}

// The rules that a whole message or a datagram breaks, according to mqcat decode.
inline std::set<std::string> BrokenRules(Bytes message, const mqcat::MessageOpener& opener = {}) {
  std::set<std::string> rules;
  const auto add = [&rules](const mqcat::Piece& piece) {
    for (const mqcat::Fault& fault : piece.faults) rules.emplace(fault.rule);
  };
  mqcat::DecodeDatagram(message, add, opener);
  return rules;
}

inline bool IsSealed(Bytes message) {
  uint32_t version;
  memcpy(&version, message.data() + offsetof(SecureHeader, version), sizeof version);
  return (message[0] == 0 ? __builtin_bswap32(version) : version) == 2;
}

// Whether a reader must accept a new signed message, which may be sealed for alice. Nothing if a text field is not
// zero-filled, which is a fault in the user but allowed in the program's name.
inline std::optional<bool> IsAcceptable(Bytes message) {
  const Bytes trailer = message.last(kTrailer), signature = trailer.subspan(kAtSignature);
  uint64_t time;
  memcpy(&time, trailer.data() + kAtTime, sizeof time);
  const bool fresh = __builtin_bswap64(time) - (kPresent - kWindow) <= uint64_t{2 * kWindow};
  if (!fresh || std::count(signature.begin(), signature.end(), 0) != std::ssize(signature)) return false;
  if (IsSealed(message)) {
    const size_t behind = kTrailer + kSeal;
    const char recipient[12] = "alice";
    if (message.size() < kEnvelope + kHeader + behind) return false;
    if (memcmp(message.last(behind).data(), recipient, sizeof recipient) != 0) return false;
  }
  std::set<std::string> broken = BrokenRules(message, {"alice", OpenZeroTag});
  std::erase_if(broken, [](const std::string& rule) {  // the body is not parsed before verification
    return rule.starts_with("parameter-") || rule == "body-head" || rule == "body-rest" || rule == "text-zero-byte" ||
           rule == "encoding-version" || rule == "origin-word";
  });
  SecureHeader envelope;
  memcpy(&envelope, message.data(), kEnvelope);
  if (broken.erase("zero-fill") != 0) return std::nullopt;
  return broken.empty() && AlienToNativeExt(&envelope) && strncmp(envelope.userId, "alice", 12) == 0;
}

}  // namespace fuzz
