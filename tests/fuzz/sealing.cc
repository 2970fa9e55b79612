// sealing.cc - see sealing.hh. The layout of a trailer is that of docs/wire-format.md.
#include "tests/fuzz/sealing.hh"

#include <sodium.h>

#include <algorithm>
#include <cstring>

namespace fuzz {
namespace {

constexpr size_t kEnvelope = sizeof(SecureHeader);
constexpr size_t kTrailer = 96;
constexpr size_t kAtTime = 8;
constexpr size_t kAtNonce = 16;
constexpr size_t kAtSignature = 32;
constexpr int64_t kStep = int64_t{3} * MQC_WINDOW_MAX * 1000;

int64_t present = 1'700'000'000'000;
uint64_t executions;

struct Keys {
  uint8_t seed[32], open[32], secret[64];
};

Keys KeysOf(uint8_t number) {
  Keys keys;
  memset(keys.seed, number, sizeof keys.seed);
  crypto_sign_seed_keypair(keys.open, keys.secret, keys.seed);
  return keys;
}

const Keys& Alice() {
  static const Keys keys = KeysOf(7);
  return keys;
}

void StoreBig(uint8_t* at, uint64_t value, int size) {
  while (size-- > 0) *at++ = static_cast<uint8_t>(value >> 8 * size);
}

void Sign(const SecureHeader& envelope, Bytes plain, uint8_t* trailer) {
  uint8_t words[8];
  StoreBig(words, envelope.version, 4);
  StoreBig(words + 4, envelope.msgLength, 4);
  crypto_sign_state state;
  crypto_sign_init(&state);
  crypto_sign_update(&state, trailer, kAtSignature);
  crypto_sign_update(&state, words, sizeof words);
  crypto_sign_update(&state, reinterpret_cast<const uint8_t*>(envelope.userId), sizeof envelope.userId);
  crypto_sign_update(&state, plain.data(), plain.size());
  crypto_sign_final_create(&state, trailer + kAtSignature, nullptr, Alice().secret);
}

// The envelope at the front in native form.
std::optional<SecureHeader> EnvelopeOf(Bytes bytes) {
  SecureHeader envelope;
  if (bytes.size() < kEnvelope) return std::nullopt;
  memcpy(&envelope, bytes.data(), kEnvelope);
  if (!AlienToNativeExt(&envelope)) return std::nullopt;
  return envelope;
}

}  // namespace

void BeginSigned() {
  if (executions++ == 0) {
    char error[256];
    HOLDS(sodium_init() >= 0);
    HOLDS(mqc_ring_add("alice", Alice().open, error, sizeof error));
    HOLDS(mqc_ring_add("bob", KeysOf(8).open, error, sizeof error));
    HOLDS(mqc_set_replay_limit(1024));
    mqc_set_clock([] { return present; });
  }
  present += kStep;
}

MqcSigner* NewSigner() { return mqc_signer_new("alice", Alice().seed, nullptr, 0); }

std::optional<int> Seal(std::span<uint8_t> message) {
  const auto envelope = EnvelopeOf(message);
  if (!envelope || message.size() != kEnvelope + envelope->msgLength || envelope->msgLength < kTrailer) {
    return std::nullopt;
  }
  uint8_t* const trailer = message.data() + message.size() - kTrailer;
  const auto seconds = static_cast<int16_t>(trailer[kAtNonce - 2] << 8 | trailer[kAtNonce - 1]);
  StoreBig(trailer + kAtTime, static_cast<uint64_t>(present + seconds * 1000), 8);
  StoreBig(trailer + kAtNonce, executions, 8);
  Sign(*envelope, Bytes(message).subspan(kEnvelope, envelope->msgLength - kTrailer), trailer);
  return seconds;
}

void SealStream(std::span<uint8_t> stream) {
  while (stream.size() >= kEnvelope) {
    const auto envelope = EnvelopeOf(stream);
    const size_t announced = envelope ? envelope->msgLength : 0;
    const size_t size = kEnvelope + (announced <= MQ_MAX_MESSAGE - kEnvelope ? announced : 0);
    if (size > stream.size()) return;
    Seal(stream.first(size));
    stream = stream.subspan(size);
  }
}

}  // namespace fuzz
