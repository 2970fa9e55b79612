// ring.hh - the users whose signatures are accepted, and their public keys; one ring per process.
#pragma once

#include "companion/errors.hh"
#include "companion/host.h"

namespace mqc {

// Copies the public key of a user. now is in milliseconds since 1970. Returns false and sets error if the ring has no
// key of the user, or if it is revoked or has expired.
bool FindPublicKey(const char* user, int64_t now, uint8_t key[MQC_KEY_BYTES], ErrorText error);

}  // namespace mqc
