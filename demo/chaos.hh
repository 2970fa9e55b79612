// chaos.hh - simulates a bad network for the sockets of this process: partial sends and receives, stalls, connections
// cut at any byte, lost and repeated datagrams. It defines send, sendto and recvfrom, which the library then calls
// instead of the system's. Sockets that are not watched are not affected.
#pragma once

#include <cstdint>

#include "demo/tally.hh"

namespace demo {

// Starts the simulation. The seed determines it.
void BeginChaos(uint64_t seed);

// Affects this descriptor from now on and counts the effects in the tally. Its connection is cut after at most this
// many bytes; 0 for datagrams.
void WatchLine(int fd, uint64_t mostBytes, Tally* tally);

// Stops affecting the descriptor, which may be closed. True if its connection was cut.
bool ForgetLine(int fd);

}  // namespace demo
