// sign.cc - signed messages: mqc_sign, mqc_authenticate, and the trailer that they write and read.
// Not here: keys and signers (keys.cc), accepted users (ring.cc), seen messages (replay.cc).
// Invariant: nothing in a message is trusted or remembered before its signature has been verified.
//
// In the envelope, the unchanged plain message is followed by a trailer of 96 bytes:
//    0,  8   "MQSIGN01"
//    8,  8   time of signing, milliseconds since 1970-01-01 UTC, big-endian
//   16, 16   nonce, random
//   32, 64   signature: Ed25519ph over the first 32 bytes of the trailer, the envelope's version and msgLength as two
//            big-endian words, the envelope's 12 bytes of user id in ASCII, and the plain message as sent
// These fields of the envelope are signed in a form that is the same on every host, so a receiver may convert the
// envelope first.

#include <sodium.h>
#include <time.h>

#include <atomic>

#include "companion/keys.hh"
#include "companion/message.hh"
#include "companion/replay.hh"
#include "companion/ring.hh"

namespace mqc {
namespace {

constexpr char kMark[] = "MQSIGN01";
constexpr uint32_t kAtTime = 8;
constexpr uint32_t kAtNonce = 16;
constexpr uint32_t kNonceBytes = 16;
constexpr uint32_t kAtSignature = 32;
constexpr uint32_t kTrailer = kAtSignature + crypto_sign_BYTES;
constexpr uint32_t kVersion = 1;
constexpr uint32_t kSignedWords = 8 + kUserField;  // version, msgLength, user
static_assert(kTrailer == 96 && sizeof(kMark) - 1 == kAtTime);

thread_local char sign_error[kErrorText];
thread_local char authenticate_error[kErrorText];
thread_local uint8_t accepted_nonce[kNonceBytes];

std::atomic<MqcClock> application_clock;
std::atomic<uint32_t> window_seconds = 300;

int64_t Now() {
  const MqcClock clock = application_clock.load(std::memory_order_acquire);
  if (clock != nullptr) return clock();
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

void StoreBig(uint8_t* at, uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i, value >>= 8) at[i] = static_cast<uint8_t>(value);
}

int64_t LoadBigTime(const uint8_t* at) {
  uint64_t value = 0;
  for (int i = 0; i < 8; ++i) value = value << 8 | at[i];
  // Limited, so that differences of times do not overflow. The limit is still outside every window.
  return value > INT64_MAX / 2 ? INT64_MAX / 2 : static_cast<int64_t>(value);
}

crypto_sign_state Digest(const SecureHeader& envelope, const uint8_t* trailer, const uint8_t* plain, uint32_t length) {
  uint8_t words[kSignedWords];
  StoreBig(words, envelope.version, 4);
  StoreBig(words + 4, envelope.msgLength, 4);
  memcpy(words + 8, envelope.userId, kUserField);
  crypto_sign_state state;
  crypto_sign_init(&state);
  crypto_sign_update(&state, trailer, kAtSignature);
  crypto_sign_update(&state, words, sizeof(words));
  crypto_sign_update(&state, plain, length);
  return state;
}

// Whether the 12-byte field contains exactly this user, padded with zero bytes.
bool IsFieldOf(const char* user, const char field[kUserField]) {
  char filled[kUserField] = {};
  memcpy(filled, user, strnlen(user, kUserField));
  return memcmp(filled, field, kUserField) == 0;
}

bool CheckForSigning(const MqcSigner& signer, const PcfMessage& msg, ErrorText error) {
  if (signer.mark != kSignerMark) return Fail(error, "the security context is no signer");
  if (Now() > signer.until)
    return Fail(error, "the key of user %s ended on %s", signer.user, DateOf(signer.until).text);
  if (!IsFieldOf(signer.user, msg.secHeader.userId)) {
    return Fail(error, "the node's user is %.12s, the key is that of %s", msg.secHeader.userId, signer.user);
  }
  const PcfRawData& raw = msg.raw;
  if (raw.data == nullptr || raw.length <= kHeader || raw.length > raw.capacity) {
    return Fail(error, "%u bytes in an area of %u are no message", raw.length, raw.capacity);
  }
  if (raw.length > MQ_MAX_MESSAGE - kEnvelope - kTrailer) {
    return Fail(error, "a message of %u bytes passes the bound when it is signed", raw.length);
  }
  if (msg.secHeader.msgLength != raw.length || Load(raw.data + kAtBodyLength) != raw.length - kHeader) {
    return Fail(error, "the headers do not say the message's length of %u", raw.length);
  }
  if (memcmp(raw.data + kAtUser, msg.secHeader.userId, kUserField) != 0) {
    return Fail(error, "header and envelope name different users");
  }
  return true;
}

// Checks the lengths and users of a received message. Sets *plain to the length of the plain message.
bool CheckArrived(const SecureHeader& envelope, const IoBuffer& part, uint32_t* plain, ErrorText error) {
  if (envelope.hdrLength != kEnvelope || envelope.version != kVersion) {
    return Fail(error, "an envelope of %u bytes, version %u", envelope.hdrLength, envelope.version);
  }
  if (part.length != envelope.msgLength) {
    return Fail(error, "the envelope says %u bytes, there are %u", envelope.msgLength, part.length);
  }
  if (part.length <= kHeader + kTrailer) return Fail(error, "%u bytes have no room for a signature", part.length);
  uint8_t header[kHeader];
  memcpy(header, part.data, kHeader);
  if (!HeaderToNative(header, error)) return false;
  *plain = part.length - kTrailer;
  if (Load(header + kAtBodyLength) != *plain - kHeader) {
    return Fail(error, "the header says %u bytes of body, there are %u", Load(header + kAtBodyLength),
                *plain - kHeader);
  }
  if (memcmp(header + kAtUser, envelope.userId, kUserField) != 0) {
    return Fail(error, "header and envelope name different users");
  }
  if (memcmp(part.data + *plain, kMark, kAtTime) != 0) return Fail(error, "no signature follows the message");
  return true;
}

bool CheckSignature(const SecureHeader& envelope, const IoBuffer& part, uint32_t plain, ErrorText error) {
  char user[kUserField + 1] = {};
  memcpy(user, envelope.userId, kUserField);
  uint8_t key[MQC_KEY_BYTES];
  if (!IsUser(user) || !IsFieldOf(user, envelope.userId)) return Fail(error, "the envelope's user cannot be one");
  if (!HaveSodium()) return Fail(error, "the system gives no randomness");  // GCOVR_EXCL_BR_LINE: libsodium aborts
  if (!FindPublicKey(user, Now(), key, error)) return false;
  const uint8_t* trailer = part.data + plain;
  crypto_sign_state state = Digest(envelope, trailer, part.data, plain);
  if (crypto_sign_final_verify(&state, trailer + kAtSignature, key) != 0) {
    return Fail(error, "the signature is not user %s's", user);
  }
  return true;
}

// Checks the age, then for a replay. The signature has been verified.
bool CheckFresh(const SecureHeader& envelope, const uint8_t* trailer, ErrorText error) {
  const int64_t time = LoadBigTime(trailer + kAtTime);
  const int64_t window = int64_t{window_seconds.load(std::memory_order_relaxed)} * 1000;
  const int64_t now = Now();
  const long long age = now - time;
  if (age > window || age < -window) {
    return Fail(error, "signed %lld ms %s the present, the window is %lld ms", age < 0 ? -age : age,
                age < 0 ? "after" : "before", (long long)window);
  }
  switch (RememberMessage(envelope.userId, trailer + kAtNonce, time, {now, window})) {
    case Replay::kNew:
      memcpy(accepted_nonce, trailer + kAtNonce, kNonceBytes);
      return true;
    case Replay::kSeen:
      return Fail(error, "a replay: this message was accepted before");
    case Replay::kBelowFloor:
      return Fail(error, "signed %lld ms ago, longer than accepted messages are remembered", age);
    case Replay::kFull:
      return Fail(error, "user %.12s has filled the memory of accepted messages", envelope.userId);
    case Replay::kNoMemory:
      break;
  }
  return Fail(error, "no memory to remember accepted messages");
}

// Checks that the record contains the bytes of the signed part, so that what is parsed later is what was signed.
bool HoldsPart(const PcfRawData& raw, const IoBuffer& part, ErrorText error) {
  if (raw.data == nullptr || part.data == nullptr || raw.length != part.length || raw.capacity < part.length) {
    return Fail(error, "the record does not hold the %u bytes of the signed part", part.length);
  }
  if (raw.data != part.data && memcmp(raw.data, part.data, part.length) != 0) {
    return Fail(error, "the record holds other bytes than the signed part");
  }
  return true;
}

// All checks of a signed message, each of which relies only on those before it.
bool IsAuthentic(const SecureHeader& envelope, const IoBuffer& part, const PcfRawData& raw, uint32_t* plain) {
  const ErrorText error = {authenticate_error, sizeof(authenticate_error)};
  return HoldsPart(raw, part, error) && CheckArrived(envelope, part, plain, error) &&
         CheckSignature(envelope, part, *plain, error) && CheckFresh(envelope, part.data + *plain, error);
}

}  // namespace
}  // namespace mqc

using namespace mqc;

int mqc_sign(void* context, PcfMessage* msg, IoBuffer* out) {
  const ErrorText error = {sign_error, sizeof(sign_error)};
  const auto* signer = static_cast<const MqcSigner*>(context);
  const PcfRawData& raw = msg->raw;
  if (signer == nullptr) {
    Fail(error, "no security context was given");
    return 0;
  }
  if (!CheckForSigning(*signer, *msg, error)) return 0;
  CreateBuffer(out, kEnvelope + raw.length + kTrailer);
  if (out->data == nullptr) return Fail(error, "no memory to sign a message of %u bytes", raw.length);
  SecureHeader envelope = msg->secHeader;
  envelope.msgLength = raw.length + kTrailer;
  uint8_t* plain = out->data + kEnvelope;
  uint8_t* trailer = plain + raw.length;
  memcpy(out->data, &envelope, kEnvelope);
  memcpy(plain, raw.data, raw.length);
  memcpy(trailer, kMark, kAtTime);
  StoreBig(trailer + kAtTime, static_cast<uint64_t>(Now()), 8);
  randombytes_buf(trailer + kAtNonce, kNonceBytes);
  crypto_sign_state state = Digest(envelope, trailer, plain, raw.length);
  crypto_sign_final_create(&state, trailer + kAtSignature, nullptr, signer->secret);
  return 1;
}

int mqc_authenticate(SecureHeader* envelope, IoBuffer* signedPart, PcfMessage* msg) {
  uint32_t plain = 0;
  Content& content = ContentOf(msg);
  DropContent(content);
  if (!IsAuthentic(*envelope, *signedPart, msg->raw, &plain)) {
    content.ready = kRefused;
    return 0;
  }
  msg->raw.length = plain;
  return 1;
}

int mqc_set_window(uint32_t seconds) {
  if (seconds == 0 || seconds > MQC_WINDOW_MAX) return 0;
  window_seconds.store(seconds, std::memory_order_relaxed);
  return 1;
}

void mqc_set_clock(MqcClock clock) { application_clock.store(clock, std::memory_order_release); }

const char* mqc_sign_error(void) { return sign_error; }

const char* mqc_authenticate_error(void) { return authenticate_error; }

void mqc_nonce(uint8_t nonce[16]) { memcpy(nonce, accepted_nonce, kNonceBytes); }
