// ring.hh - the users whose signatures are accepted, and their public keys; one ring for the process.
#pragma once

#include "companion/errors.hh"
#include "companion/host.h"

namespace mqc {

// Copies the public key of a user that is good at this time, in milliseconds since 1970. False with the reason when the
// ring has none, or one that is revoked or past its end.
bool FindPublicKey(const char* user, int64_t now, uint8_t key[MQC_KEY_BYTES], ErrorText error);

}  // namespace mqc
