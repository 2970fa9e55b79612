// ring.hh - the users whose signatures are accepted, and their public keys; one ring for the process.
#pragma once

#include "companion/host.h"

namespace mqc {

// Copies the public key of a user; false when the ring has no such user.
bool FindPublicKey(const char* user, uint8_t key[MQC_KEY_BYTES]);

}  // namespace mqc
