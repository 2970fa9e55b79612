// sign.cc - signed messages: mqc_sign, mqc_authenticate, and the trailer that they write and read.
// Not here: keys and signers (keys.cc), accepted users (ring.cc), seen messages (replay.cc), encryption (seal.cc).
// Invariant: nothing in a message is trusted, remembered or decrypted before its signature has been verified.
//
// In the envelope, the unchanged plain message, or the encrypted message and its seal, is followed by a trailer of 96
// bytes:
//    0,  8   "MQSIGN01", in a sealed message "MQSIGN02"
//    8,  8   time of signing, milliseconds since 1970-01-01 UTC, big-endian
//   16, 16   nonce, random
//   32, 64   signature: Ed25519ph over the first 32 bytes of the trailer, the envelope's version and msgLength as two
//            big-endian words, the envelope's 12 bytes of user id in ASCII, and everything between envelope and trailer
// These fields of the envelope are signed in a form that is the same on every host, so a receiver may convert the
// envelope first.

#include <sodium.h>
#include <time.h>

#include <atomic>

#include "companion/keys.hh"
#include "companion/message.hh"
#include "companion/replay.hh"
#include "companion/ring.hh"
#include "companion/seal.hh"

namespace mqc {
namespace {

constexpr uint32_t kAtTime = 8;
constexpr uint32_t kAtNonce = 16;
constexpr uint32_t kNonceBytes = 16;
constexpr uint32_t kAtSignature = 32;
constexpr uint32_t kTrailer = kAtSignature + crypto_sign_BYTES;
static_assert(kTrailer == 96 && kWords == 8 + kUserField && kSealNonce == kAtSignature - kAtTime);

// The form of a signed message, which its envelope's version names.
struct Form {
  uint32_t version;
  char mark[kAtTime + 1];
  uint32_t seal;  // bytes between the message and the trailer

  bool IsSealed() const { return seal != 0; }
  uint32_t Behind() const { return seal + kTrailer; }
};
constexpr Form kPlain = {1, "MQSIGN01", 0};
constexpr Form kSealed = {2, "MQSIGN02", kSeal};

// The envelope's values in the form that the signature covers.
struct Words {
  uint8_t bytes[kWords];
};

thread_local char sign_error[kErrorText];
thread_local char authenticate_error[kErrorText];
thread_local uint8_t accepted_nonce[kNonceBytes];

std::atomic<MqcClock> application_clock;
std::atomic<uint32_t> window_seconds = 300;

void StoreBig(uint8_t* at, uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i, value >>= 8) at[i] = static_cast<uint8_t>(value);
}

int64_t LoadBigTime(const uint8_t* at) {
  uint64_t value = 0;
  for (int i = 0; i < 8; ++i) value = value << 8 | at[i];
  // Limited, so that differences of times do not overflow. The limit is still outside every window.
  return value > INT64_MAX / 2 ? INT64_MAX / 2 : static_cast<int64_t>(value);
}

Words WordsOf(const SecureHeader& envelope) {
  Words words;
  StoreBig(words.bytes, envelope.version, 4);
  StoreBig(words.bytes + 4, envelope.msgLength, 4);
  memcpy(words.bytes + 8, envelope.userId, kUserField);
  return words;
}

crypto_sign_state Digest(const Words& words, const uint8_t* part, const uint8_t* trailer) {
  crypto_sign_state state;
  crypto_sign_init(&state);
  crypto_sign_update(&state, trailer, kAtSignature);
  crypto_sign_update(&state, words.bytes, kWords);
  crypto_sign_update(&state, part, static_cast<size_t>(trailer - part));
  return state;
}

bool CheckForSigning(const MqcSigner& signer, const Form& form, const PcfMessage& msg, ErrorText error) {
  if (Now() > signer.until)
    return Fail(error, "the key of user %s ended on %s", signer.user, DateOf(signer.until).text);
  if (!IsFieldOf(signer.user, msg.secHeader.userId)) {
    return Fail(error, "the node's user is %.12s, the key is that of %s", msg.secHeader.userId, signer.user);
  }
  const PcfRawData& raw = msg.raw;
  if (raw.data == nullptr || raw.length <= kHeader || raw.length > raw.capacity) {
    return Fail(error, "%u bytes in an area of %u are not a message", raw.length, raw.capacity);
  }
  if (raw.length > MQ_MAX_MESSAGE - kEnvelope - form.Behind()) {
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

// Checks the length and the user in the plain message's header against the envelope.
bool CheckHeader(const SecureHeader& envelope, const uint8_t* message, uint32_t length, ErrorText error) {
  uint8_t header[kHeader];
  memcpy(header, message, kHeader);
  if (!HeaderToNative(header, error)) return false;
  if (Load(header + kAtBodyLength) != length - kHeader) {
    return Fail(error, "the header says %u bytes of body, there are %u", Load(header + kAtBodyLength),
                length - kHeader);
  }
  if (memcmp(header + kAtUser, envelope.userId, kUserField) != 0) {
    return Fail(error, "header and envelope name different users");
  }
  return true;
}

const Form* FormOf(const SecureHeader& envelope, ErrorText error) {
  for (const Form* form : {&kPlain, &kSealed}) {
    if (envelope.hdrLength == kEnvelope && envelope.version == form->version) return form;
  }
  return Fail(error, "an envelope of %u bytes, version %u", envelope.hdrLength, envelope.version), nullptr;
}

// Checks the lengths of a received message and what of it is not encrypted. Sets *plain to the length of the plain
// message.
bool CheckArrived(const SecureHeader& envelope, const Form& form, const IoBuffer& part, uint32_t* plain,
                  ErrorText error) {
  if (part.length != envelope.msgLength) {
    return Fail(error, "the envelope says %u bytes, there are %u", envelope.msgLength, part.length);
  }
  if (part.length <= kHeader + form.Behind()) return Fail(error, "%u bytes are too short for a signature", part.length);
  *plain = part.length - form.Behind();
  if (!CheckSeal(form.IsSealed() ? part.data + *plain : nullptr, Now(), error)) return false;
  if (!form.IsSealed() && !CheckHeader(envelope, part.data, *plain, error)) return false;
  return memcmp(part.data + *plain + form.seal, form.mark, kAtTime) == 0 ||
         Fail(error, "no signature follows the message");
}

bool CheckSignature(const SecureHeader& envelope, const Words& words, const uint8_t* part, const uint8_t* trailer,
                    ErrorText error) {
  char user[kUserField + 1] = {};
  memcpy(user, envelope.userId, kUserField);
  uint8_t key[MQC_KEY_BYTES];
  if (!IsUser(user) || !IsFieldOf(user, envelope.userId)) return Fail(error, "the user in the envelope is not valid");
  if (!HaveSodium()) return Fail(error, "the system provides no random numbers");  // GCOVR_EXCL_BR_LINE: sodium aborts
  if (!FindPublicKey(user, Now(), key, error)) return false;
  crypto_sign_state state = Digest(words, part, trailer);
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

// Decrypts a sealed message in the record. If the message is refused, nothing of it is left there.
bool OpenSealed(const SecureHeader& envelope, const Words& words, uint8_t* message, uint32_t length, ErrorText error) {
  const uint8_t* const trailer = message + length + kSeal;
  if (!Open(message, length, {words.bytes, trailer + kAtTime}, Now(), error)) return false;
  if (CheckHeader(envelope, message, length, error)) return true;
  sodium_memzero(message, length);
  return false;
}

// All checks of a signed message, each of which relies only on those before it. Returns the form of the message and
// sets *plain to the length of the plain message; null if it is refused.
const Form* Accept(const SecureHeader& envelope, const IoBuffer& part, const PcfRawData& raw, uint32_t* plain) {
  const ErrorText error = {authenticate_error, sizeof(authenticate_error)};
  if (!HoldsPart(raw, part, error)) return nullptr;
  const Form* const form = FormOf(envelope, error);
  if (form == nullptr || !CheckArrived(envelope, *form, part, plain, error)) return nullptr;
  const Words words = WordsOf(envelope);
  const uint8_t* const trailer = part.data + *plain + form->seal;
  if (!CheckSignature(envelope, words, part.data, trailer, error) || !CheckFresh(envelope, trailer, error)) {
    return nullptr;
  }
  if (form->IsSealed() && !OpenSealed(envelope, words, raw.data, *plain, error)) return nullptr;
  memcpy(accepted_nonce, trailer + kAtNonce, kNonceBytes);
  return form;
}

// Writes the trailer except its signature.
void BeginTrailer(const Form& form, uint8_t* trailer) {
  memcpy(trailer, form.mark, kAtTime);
  StoreBig(trailer + kAtTime, static_cast<uint64_t>(Now()), 8);
  randombytes_buf(trailer + kAtNonce, kNonceBytes);
}

// Signs, and seals if the form says so, a message that passed CheckForSigning.
bool Sign(const MqcSigner& signer, const Form& form, const PcfMessage& msg, IoBuffer* out, ErrorText error) {
  const PcfRawData& raw = msg.raw;
  uint8_t x25519[MQC_KEY_BYTES];
  if (form.IsSealed() && !FindRecipient(signer, Now(), x25519, error)) return false;
  CreateBuffer(out, kEnvelope + raw.length + form.Behind());
  if (out->data == nullptr) return Fail(error, "no memory to sign a message of %u bytes", raw.length);
  SecureHeader envelope = msg.secHeader;
  envelope.version = form.version;
  envelope.msgLength = raw.length + form.Behind();
  const Words words = WordsOf(envelope);
  uint8_t* const part = out->data + kEnvelope;
  uint8_t* const trailer = part + raw.length + form.seal;
  memcpy(out->data, &envelope, kEnvelope);
  BeginTrailer(form, trailer);
  if (!form.IsSealed()) {
    memcpy(part, raw.data, raw.length);
  } else if (!Seal(signer, x25519, {words.bytes, trailer + kAtTime}, raw.data, raw.length, part, error)) {
    return false;
  }
  crypto_sign_state state = Digest(words, part, trailer);
  crypto_sign_final_create(&state, trailer + kAtSignature, nullptr, signer.secret);
  return true;
}

}  // namespace

int64_t Now() {
  const MqcClock clock = application_clock.load(std::memory_order_acquire);
  if (clock != nullptr) return clock();
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace mqc

using namespace mqc;

int mqc_sign(void* context, PcfMessage* msg, IoBuffer* out) {
  const ErrorText error = {sign_error, sizeof(sign_error)};
  const auto* signer = static_cast<const MqcSigner*>(context);
  if (signer == nullptr) return Fail(error, "no security context was given");
  if (signer->mark != kSignerMark) return Fail(error, "the security context is not a signer");
  const Form& form = signer->recipient[0] != '\0' ? kSealed : kPlain;
  return CheckForSigning(*signer, form, *msg, error) && Sign(*signer, form, *msg, out, error);
}

int mqc_authenticate(SecureHeader* envelope, IoBuffer* signedPart, PcfMessage* msg) {
  uint32_t plain = 0;
  Content& content = ContentOf(msg);
  DropContent(content);
  msg->library0 = 0;
  const Form* const form = Accept(*envelope, *signedPart, msg->raw, &plain);
  if (form == nullptr) {
    content.ready = kRefused;
    return 0;
  }
  if (form->IsSealed()) {
    content.ready = kOpened;
    msg->library0 = kWasSealed;
  }
  msg->raw.length = plain;
  return 1;
}

int mqc_open_captured(const MqcSigner* signer, uint8_t* message, uint32_t length, char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  SecureHeader envelope;
  if (length < kEnvelope) return Fail(text, "%u bytes are too short for an envelope", length);
  memcpy(&envelope, message, kEnvelope);
  if (!EnvelopeToNative(&envelope, text)) return 0;
  const Form* const form = FormOf(envelope, text);
  if (form == nullptr) return 0;
  if (!form->IsSealed()) return Fail(text, "not sealed");
  const uint32_t part = length - kEnvelope;
  if (envelope.msgLength != part || part <= kHeader + form->Behind()) {
    return Fail(text, "the envelope says %u bytes, there are %u", envelope.msgLength, part);
  }
  const uint8_t* const trailer = message + length - kTrailer;
  const Words words = WordsOf(envelope);
  return OpenWith(*signer, message + kEnvelope, part - form->Behind(), {words.bytes, trailer + kAtTime}, text);
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
