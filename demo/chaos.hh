// chaos.hh - does to the sockets of this process what bad networks do: sends and receives that move only a part, or
// nothing for a while, connections that are cut in the middle of anything, datagrams that get lost or come twice. It
// defines send, sendto and recvfrom, which the library then calls instead of the system's, as in any host that does so.
// Sockets that are not watched meet the system itself.
#pragma once

#include <cstdint>

#include "demo/tally.hh"

namespace demo {

// From here on: what is done follows from the seed.
void BeginChaos(uint64_t seed);

// Makes a descriptor a bad line; what is done to it is counted here. Its connection is cut after so many bytes at most;
// 0 for datagrams.
void WatchLine(int fd, uint64_t mostBytes, Tally* tally);

// The descriptor is a good one again, or closed. True when its connection was cut.
bool ForgetLine(int fd);

}  // namespace demo
