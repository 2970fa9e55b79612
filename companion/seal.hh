// seal.hh - sealed messages: encrypted for one user of the ring, whose key alone opens them.
//
// A sealed message is the encrypted plain message, of the same length, and a seal of 64 bytes:
//    0, 12  user that the message is sealed for, in ASCII, padded with zeros
//   12,  4  reserved, zero
//   16, 32  X25519 key that the sender made for this message alone
//   48, 16  Poly1305 tag
// The seal follows the message, so that a reader decrypts in place.
//
// Key: BLAKE2b-256 of "MQSEAL02", the X25519 secret that the key in the seal and the user's key have in common, the key
// in the seal and the user's key. The user's X25519 key is made from the Ed25519 key.
// Cipher: XChaCha20-Poly1305. Its nonce is the time and the nonce of the trailer (sign.cc). Its additional data are the
// envelope, as the signature covers it, and the first 48 bytes of the seal: nobody can sign another user's sealed
// message as their own.
#pragma once

#include <stdint.h>

#include "companion/errors.hh"
#include "companion/keys.hh"

namespace mqc {

constexpr uint32_t kSeal = 64;
constexpr uint32_t kSealNonce = 24;
constexpr uint32_t kWords = 20;  // the envelope as a signature covers it: version, msgLength, user

// What a seal binds to its message. Both point to as many bytes as their names say.
struct Bound {
  const uint8_t* words;  // kWords
  const uint8_t* nonce;  // kSealNonce
};

// Looks up the X25519 key of the user that this signer seals for. False with the reason when that user's key in the
// ring is missing, revoked or past its end.
bool FindRecipient(const MqcSigner& signer, int64_t now, uint8_t x25519[MQC_KEY_BYTES], ErrorText error);

// Writes the encrypted message and its seal to out, length + kSeal bytes.
bool Seal(const MqcSigner& signer, const uint8_t x25519[MQC_KEY_BYTES], Bound bound, const uint8_t* plain,
          uint32_t length, uint8_t* out, ErrorText error);

// False with the reason when the settings of this process refuse a message, which has this seal or, if it is null,
// none. Nothing is decrypted: a seal that passes may be broken.
bool CheckSeal(const uint8_t* seal, int64_t now, ErrorText error);

// Decrypts a message of length bytes, which its seal follows, in place. If the seal is broken, the message becomes
// all zero.
bool Open(uint8_t* message, uint32_t length, Bound bound, int64_t now, ErrorText error);

// The same with the key of a signer, whether or not its last day is over.
bool OpenWith(const MqcSigner& signer, uint8_t* message, uint32_t length, Bound bound, ErrorText error);

}  // namespace mqc
