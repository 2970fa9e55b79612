// keys.hh - keys as bytes, as text and in files; signers.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "companion/errors.hh"
#include "companion/host.h"

// The security context of a signed write. Not changed after it is made, so that threads may share it.
struct MqcSigner {
  uint32_t mark;  // kSignerMark while it lives
  char user[MQC_USER_MAX + 1];
  uint8_t secret[64];  // as libsodium wants it: seed, public key
  uint8_t public_key[MQC_KEY_BYTES];
  int64_t until;  // milliseconds since 1970; MQC_NO_END
  // Of a signer that seals: whom for, and the key of that user when the signer was made, as Ed25519 and as X25519 key.
  char recipient[MQC_USER_MAX + 1];  // empty for a signer that does not seal
  uint8_t recipient_key[MQC_KEY_BYTES];
  uint8_t recipient_x25519[MQC_KEY_BYTES];
};

namespace mqc {

constexpr uint32_t kSignerMark = 0x4D515347;

// libsodium made ready; false when it cannot be, which means that the system gives no randomness.
bool HaveSodium();

// The present by the clock of mqc_set_clock, in milliseconds since 1970.
int64_t Now();

// True for 1 to 12 printable ASCII characters, no blank, no '#'.
bool IsUser(const char* user);
constexpr char kNotUser[] = "\"%.40s\" is not a user: 1 to 12 printable ASCII characters, without blanks and #";

// The day of a time in milliseconds since 1970, UTC: "2027-06-30".
struct Date {
  char text[16];
};
Date DateOf(int64_t time);

struct KeyLine : MqcKey {
  uint32_t number;  // line of the file, from 1
};

// A key file in memory for secrets.
class KeyFile {
 public:
  ~KeyFile();
  // secret: the file holds secret keys and nobody but its owner may have access to it. Nobody but its owner may write
  // to the others. The owner is the user of this process or root.
  bool Open(const char* path, bool secret, size_t max_size, ErrorText error);
  // The next line that holds a key. False at the end, and with bad() after a malformed line.
  bool Next(KeyLine* line, ErrorText error);
  bool bad() const { return bad_; }
  // No more keys than this can be in the file.
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
