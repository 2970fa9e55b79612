// keys.hh - keys as bytes, as text and in files; signers.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "companion/errors.hh"
#include "companion/host.h"

// The security context of a signed write. Not changed after it was created: threads may share it.
struct MqcSigner {
  uint32_t mark;  // kSignerMark until the signer is released
  char user[MQC_USER_MAX + 1];
  uint8_t secret[64];  // in libsodium's format: seed, public key
  uint8_t public_key[MQC_KEY_BYTES];
  int64_t until;  // milliseconds since 1970; MQC_NO_END
  // Of a signer that seals: whom for, and the key of that user when the signer was made, as Ed25519 and as X25519 key.
  char recipient[MQC_USER_MAX + 1];  // empty for a signer that does not seal
  uint8_t recipient_key[MQC_KEY_BYTES];
  uint8_t recipient_x25519[MQC_KEY_BYTES];
};

namespace mqc {

constexpr uint32_t kSignerMark = 0x4D515347;

// Initialises libsodium on the first call. False if that failed: the system provides no random numbers.
bool HaveSodium();

// The current time, from the clock set by mqc_set_clock, in milliseconds since 1970.
int64_t Now();

// Whether user consists of 1 to 12 printable ASCII characters, without blanks and '#'.
bool IsUser(const char* user);
constexpr char kNotUser[] = "\"%.40s\" is not a user: 1 to 12 printable ASCII characters, without blanks and #";

// The UTC date of a time in milliseconds since 1970, as in "2027-06-30".
struct Date {
  char text[16];
};
Date DateOf(int64_t time);

struct KeyLine : MqcKey {
  uint32_t number;  // line of the file, from 1
};

// The contents of a key file, in secret memory.
class KeyFile {
 public:
  ~KeyFile();
  // secret: the file contains secret keys, so only its owner may have access to it. Other files may be written only by
  // their owner. The owner must be the user of this process or root.
  bool Open(const char* path, bool secret, size_t max_size, ErrorText error);
  // Reads the next line that contains a key. Returns false at the end of the file, and at a malformed line, after which
  // bad() is true.
  bool Next(KeyLine* line, ErrorText error);
  bool bad() const { return bad_; }
  // Upper bound of the number of keys in the file.
  size_t MaxKeys() const;

 private:
  bool Read(int fd, ErrorText error);

  const char* path_ = nullptr;
  char* bytes_ = nullptr;
  size_t size_ = 0;
  size_t at_ = 0;
  uint32_t number_ = 0;
  bool bad_ = false;
};

}  // namespace mqc
