// replay.hh - the memory of accepted messages, so that none is accepted twice.
//
// One invariant carries all of it: every accepted message whose time is above the floor is in the table. Whatever is
// forgotten raises the floor, and a message at or below the floor is refused. So a wider window, a clock that goes back
// or a full table may refuse a message too many, but never accept one twice.
#pragma once

#include <stdint.h>

namespace mqc {

enum class Replay { kNew, kSeen, kBelowFloor, kFull, kNoMemory };

struct Moment {
  int64_t now;     // milliseconds since 1970
  int64_t window;  // milliseconds; messages older than now - window are refused by their age
};

// Remembers the message that this user signed at time with this nonce. kNew: it was not known and is now.
Replay RememberMessage(const char user[12], const uint8_t nonce[16], int64_t time, Moment moment);

}  // namespace mqc
