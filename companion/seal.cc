// seal.cc - seals and opens messages (seal.hh); the key and the settings of the process for it.
// Not here: signatures and the order of checks (sign.cc).
// Invariant: whatever a call derives for one message is wiped before the call returns. The key that opens messages is
// kept in memory for secrets (secret.hh); a call copies it for as long as it takes to use it once.

#include "companion/seal.hh"

#include <sodium.h>
#include <string.h>

#include <atomic>
#include <utility>

#include "companion/locks.hh"
#include "companion/message.hh"
#include "companion/ring.hh"
#include "companion/secret.hh"

namespace mqc {
namespace {

constexpr uint32_t kAtReserved = 12;
constexpr uint32_t kAtEphemeral = 16;
constexpr uint32_t kAtTag = 48;
constexpr char kContext[] = "MQSEAL02";
constexpr char kNoSealing[] = "nothing can be sealed for the key of user %s";
static_assert(kAtTag + crypto_aead_xchacha20poly1305_ietf_ABYTES == kSeal && kAtReserved == kUserField);
static_assert(kSealNonce == crypto_aead_xchacha20poly1305_ietf_NPUBBYTES);
static_assert(crypto_scalarmult_BYTES == MQC_KEY_BYTES && crypto_scalarmult_SCALARBYTES == MQC_KEY_BYTES);
static_assert(crypto_aead_xchacha20poly1305_ietf_KEYBYTES == MQC_KEY_BYTES);

struct Opener {
  char user[MQC_USER_MAX + 1];
  int64_t until;  // milliseconds since 1970; MQC_NO_END
  uint8_t secret[MQC_KEY_BYTES];
  uint8_t x25519[MQC_KEY_BYTES];
};

Opener* opener;  // under its lock; null when there is none
std::atomic<uint32_t> sealing = MQC_SEAL_MAY;

// A T that is wiped at its end.
template <typename T>
class Wiped {
 public:
  Wiped() = default;
  ~Wiped() { sodium_memzero(&value_, sizeof(value_)); }
  Wiped(const Wiped&) = delete;
  Wiped& operator=(const Wiped&) = delete;
  T* operator->() { return &value_; }
  T& operator*() { return value_; }

 private:
  T value_ = {};
};

struct Derivation {
  struct Input {
    char context[sizeof(kContext) - 1];
    uint8_t shared[MQC_KEY_BYTES];
    uint8_t ephemeral[MQC_KEY_BYTES];
    uint8_t recipient[MQC_KEY_BYTES];
  } input;
  uint8_t key[MQC_KEY_BYTES];
};
static_assert(sizeof(Derivation::Input) == 8 + 3 * MQC_KEY_BYTES);

// The message's key, from one party's secret key and the other party's public key, which is one of the last two. False
// for a public key that makes the common secret zero.
bool Derive(Derivation* derivation, const uint8_t* secret, const uint8_t* other, const uint8_t* ephemeral,
            const uint8_t* recipient) {
  Derivation::Input& input = derivation->input;
  memcpy(input.context, kContext, sizeof(input.context));
  memcpy(input.ephemeral, ephemeral, MQC_KEY_BYTES);
  memcpy(input.recipient, recipient, MQC_KEY_BYTES);
  if (crypto_scalarmult(input.shared, secret, other) != 0) return false;
  crypto_generichash(derivation->key, MQC_KEY_BYTES, reinterpret_cast<const uint8_t*>(&input), sizeof(input), nullptr,
                     0);
  return true;
}

struct Additional {
  uint8_t bytes[kWords + kAtTag];
};

Additional AdditionalOf(Bound bound, const uint8_t* seal) {
  Additional additional;
  memcpy(additional.bytes, bound.words, kWords);
  memcpy(additional.bytes + kWords, seal, kAtTag);
  return additional;
}

bool ConvertKey(const char* user, const uint8_t ed25519[MQC_KEY_BYTES], uint8_t x25519[MQC_KEY_BYTES],
                ErrorText error) {
  const bool converted = crypto_sign_ed25519_pk_to_curve25519(x25519, ed25519) == 0;
  return converted || Fail(error, kNoSealing, user);  // GCOVR_EXCL_BR_LINE: the ring takes no such key
}

void FillOpener(Opener* own, const MqcSigner& signer) {
  memcpy(own->user, signer.user, sizeof(own->user));
  own->until = signer.until;
  crypto_sign_ed25519_sk_to_curve25519(own->secret, signer.secret);
  crypto_scalarmult_base(own->x25519, own->secret);
}

// The user that a message is sealed for.
struct Recipient {
  char user[kUserField + 1] = {};
};

bool ReadRecipient(const uint8_t* seal, Recipient* recipient, ErrorText error) {
  memcpy(recipient->user, seal, kUserField);
  return (IsUser(recipient->user) && IsFieldOf(recipient->user, seal)) ||
         Fail(error, "the user that it is sealed for is not valid");
}

// Copies the opener to *copy, unless copy is null. False with the reason when there is none for the seal's user.
bool FindOpener(const uint8_t* seal, int64_t now, Opener* copy, ErrorText error) {
  Recipient recipient;
  if (!ReadRecipient(seal, &recipient, error)) return false;
  const char* const user = recipient.user;
  const Locked locked(kLockOpener);
  if (opener == nullptr) return Fail(error, "sealed for %s, and no key to open it is set", user);
  if (strcmp(opener->user, user) != 0) return Fail(error, "sealed for %s, this reader is %s", user, opener->user);
  if (now > opener->until) return Fail(error, "the key of user %s ended on %s", user, DateOf(opener->until).text);
  if (copy != nullptr) *copy = *opener;
  return true;
}

bool Decrypt(const Opener& own, uint8_t* message, uint32_t length, Bound bound, ErrorText error) {
  Wiped<Derivation> derivation;
  const uint8_t* const seal = message + length;
  const Additional additional = AdditionalOf(bound, seal);
  const bool opened = Derive(&*derivation, own.secret, seal + kAtEphemeral, seal + kAtEphemeral, own.x25519) &&
                      crypto_aead_xchacha20poly1305_ietf_decrypt_detached(
                          message, nullptr, message, length, seal + kAtTag, additional.bytes, sizeof(additional),
                          bound.nonce, derivation->key) == 0;
  if (opened) return true;
  sodium_memzero(message, length);
  return Fail(error, "the seal is broken, or was made for another key of user %s", own.user);
}

}  // namespace

bool FindRecipient(const MqcSigner& signer, int64_t now, uint8_t x25519[MQC_KEY_BYTES], ErrorText error) {
  uint8_t key[MQC_KEY_BYTES];
  if (!FindPublicKey(signer.recipient, now, key, error)) return false;
  // A conversion would make sealing a short message about half as slow again.
  if (memcmp(key, signer.recipient_key, MQC_KEY_BYTES) == 0) {
    memcpy(x25519, signer.recipient_x25519, MQC_KEY_BYTES);
    return true;
  }
  return ConvertKey(signer.recipient, key, x25519, error);
}

bool Seal(const MqcSigner& signer, const uint8_t x25519[MQC_KEY_BYTES], Bound bound, const uint8_t* plain,
          uint32_t length, uint8_t* out, ErrorText error) {
  struct Ephemeral {
    uint8_t secret[MQC_KEY_BYTES];
  };
  Wiped<Ephemeral> ephemeral;
  Wiped<Derivation> derivation;
  uint8_t* const seal = out + length;
  memset(seal, 0, kAtEphemeral);
  memcpy(seal, signer.recipient, strlen(signer.recipient));
  randombytes_buf(ephemeral->secret, MQC_KEY_BYTES);
  crypto_scalarmult_base(seal + kAtEphemeral, ephemeral->secret);
  const bool derived = Derive(&*derivation, ephemeral->secret, x25519, seal + kAtEphemeral, x25519);
  if (!derived) return Fail(error, kNoSealing, signer.recipient);  // GCOVR_EXCL_BR_LINE: the ring takes no such key
  const Additional additional = AdditionalOf(bound, seal);
  crypto_aead_xchacha20poly1305_ietf_encrypt_detached(out, seal + kAtTag, nullptr, plain, length, additional.bytes,
                                                      sizeof(additional), nullptr, bound.nonce, derivation->key);
  return true;
}

bool CheckSeal(const uint8_t* seal, int64_t now, ErrorText error) {
  const uint32_t setting = sealing.load(std::memory_order_relaxed);
  if (seal == nullptr) {
    return setting != MQC_SEAL_MUST || Fail(error, "not sealed, and only sealed messages are accepted");
  }
  if (setting == MQC_SEAL_NEVER) return Fail(error, "sealed, and sealed messages are not accepted");
  if (!sodium_is_zero(seal + kAtReserved, kAtEphemeral - kAtReserved)) {
    return Fail(error, "the reserved bytes of the seal are not zero");
  }
  return FindOpener(seal, now, nullptr, error);
}

bool Open(uint8_t* message, uint32_t length, Bound bound, int64_t now, ErrorText error) {
  Wiped<Opener> own;
  if (!FindOpener(message + length, now, &*own, error)) return false;  // it may have been replaced since CheckSeal
  return Decrypt(*own, message, length, bound, error);
}

bool OpenWith(const MqcSigner& signer, uint8_t* message, uint32_t length, Bound bound, ErrorText error) {
  Recipient recipient;
  if (!ReadRecipient(message + length, &recipient, error)) return false;
  if (strcmp(signer.user, recipient.user) != 0) {
    return Fail(error, "sealed for %s, the key is that of %s", recipient.user, signer.user);
  }
  Wiped<Opener> own;
  FillOpener(&*own, signer);
  return Decrypt(*own, message, length, bound, error);
}

}  // namespace mqc

using namespace mqc;

MqcSigner* mqc_signer_sealing(const MqcSigner* signer, const char* user, char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  uint8_t key[MQC_KEY_BYTES], x25519[MQC_KEY_BYTES];
  if (!IsUser(user)) return Fail(text, kNotUser, user), nullptr;
  if (!FindPublicKey(user, Now(), key, text) || !ConvertKey(user, key, x25519, text)) return nullptr;
  auto* const seals = static_cast<MqcSigner*>(AllocateSecret(sizeof(MqcSigner), tags[kTagSigner]));
  if (seals == nullptr) return Fail(text, "no memory for a signer"), nullptr;
  *seals = *signer;
  memcpy(seals->recipient, user, strlen(user) + 1);
  memcpy(seals->recipient_key, key, MQC_KEY_BYTES);
  memcpy(seals->recipient_x25519, x25519, MQC_KEY_BYTES);
  return seals;
}

int mqc_set_opener(const MqcSigner* signer) {
  Opener* next = nullptr;
  if (signer != nullptr) {
    next = static_cast<Opener*>(AllocateSecret(sizeof(Opener), tags[kTagSigner]));
    if (next == nullptr) return 0;
    FillOpener(next, *signer);
  }
  {
    const Locked locked(kLockOpener);
    std::swap(opener, next);
  }
  ReleaseSecret(next);
  return 1;
}

int mqc_set_sealing(uint32_t setting) {
  if (setting > MQC_SEAL_NEVER) return 0;
  sealing.store(setting, std::memory_order_relaxed);
  return 1;
}
