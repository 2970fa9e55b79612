// sealing.hh - signatures that hold, for bytes that a fuzzer chose.
//
// A fuzzer never guesses a signature, so the verifier would refuse everything at its first door. Targets sign on its
// behalf, always as alice and always with the same key. A nonce is the input's, mixed with the number of the execution,
// and the clock jumps between executions: none sees what an earlier one left behind.
#pragma once

#include <optional>

#include "companion/host.h"
#include "tests/fuzz/fuzz.hh"

namespace fuzz {

// Readies the verifier for an execution: the ring holds alice and bob, the clock stands still.
void BeginSigned();

// A signer with alice's key, for mqc_signer_free.
MqcSigner* NewSigner();

// Signs a message that begins with its envelope and is as long as the envelope says. The last two bytes of the
// trailer's time are seconds, before or after the present, as the input has them; mark, header and body stay.
// Result   those seconds; nothing, and nothing changed, for bytes that are no envelope or too short for a trailer
std::optional<int> Seal(std::span<uint8_t> message);

// Signs every message of a stream that a secure reader would find in it.
void SealStream(std::span<uint8_t> stream);

}  // namespace fuzz
