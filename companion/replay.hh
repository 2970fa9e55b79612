// replay.hh - the memory of accepted messages, so that none is accepted twice.
//
// One invariant carries all of it: every accepted message whose time is above its user's floor is in the memory.
// Whatever is forgotten raises the floor of the user who signed it, and a message at or below the floor is refused. So a
// wider window, a clock that goes back or a full memory may refuse a message too many, but never accept one twice.
//
// All users share one limit. When it is reached, the user that holds the most makes room, so nobody can fill the memory
// for the others: a user is made to forget only while it holds more than half of an equal share.
#pragma once

#include <stdint.h>

namespace mqc {

enum class Replay { kNew, kSeen, kBelowFloor, kFull, kNoMemory };

struct Moment {
  int64_t now;     // milliseconds since 1970
  int64_t window;  // milliseconds; messages older than now - window are refused by their age
};

// Remembers the message that this user signed at time, at most a window from now, with this nonce. kNew: it was not
// known and is now. kFull: the user holds the most, and none of its messages is older than both this one and now.
Replay RememberMessage(const char user[12], const uint8_t nonce[16], int64_t time, Moment moment);

}  // namespace mqc
