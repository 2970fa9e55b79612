// replay.hh - the memory of accepted messages, so that none is accepted twice.
//
// Invariant: every accepted message whose time is above its user's floor is in the memory. Forgetting a message raises
// the floor of the user who signed it, and messages at or below the floor are refused. A wider window, a clock that is
// set back or a full memory may therefore cause a valid message to be refused, but never one to be accepted twice.
//
// All users share one limit. When it is reached, one of the users with the most messages loses its oldest, so that no
// user can fill the memory at the expense of others: a user loses messages only while it has more than half of an equal
// share.
#pragma once

#include <stdint.h>

namespace mqc {

enum class Replay { kNew, kSeen, kBelowFloor, kFull, kNoMemory };

struct Moment {
  int64_t now;     // milliseconds since 1970
  int64_t window;  // milliseconds; messages older than now - window are refused by their age
};

// Remembers a message by its user, its nonce and the time of signing, which is in the window. kNew: it was not known
// before. kFull: this user has the most messages, and none of them is older than both the new one and now.
Replay RememberMessage(const char user[12], const uint8_t nonce[16], int64_t time, Moment moment);

}  // namespace mqc
