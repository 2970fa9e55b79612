// relay.hh - a process between the nodes that does to their bytes what networks do, and counts what it did.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace soak {

constexpr int kMostPairs = 2048;

enum Kind { kStream, kSignedStream, kDatagram, kSignedDatagram, kKinds };
constexpr bool IsSigned(int kind) { return kind == kSignedStream || kind == kSignedDatagram; }
constexpr bool IsDatagram(int kind) { return kind == kDatagram || kind == kSignedDatagram; }

struct DatagramCounts {
  std::atomic<uint64_t> taken;      // came in
  std::atomic<uint64_t> dropped;    // not passed on
  std::atomic<uint64_t> repeated;   // passed on once more
  std::atomic<uint64_t> late;       // passed on later: others may overtake them
  std::atomic<uint64_t> forwarded;  // passed on, repeats included
};

// The memory that the relay shares with its parent.
struct Shared {
  // Set before the relay starts: where the streams go, by kind, and the two ends of each pair of datagram nodes.
  int pairs;
  int targets[kKinds];
  struct {
    int kind;
    int ends[2];
    int relay;  // set by the relay: where both ends send to
  } datagrams[kMostPairs];
  // Set by the relay.
  int ports[kKinds];
  std::atomic<bool> ready;
  std::atomic<uint64_t> connections, bytes, pieces, splits, joins, pauses, cuts;
  DatagramCounts counts[kKinds];
  std::atomic<uint64_t> held;  // datagrams that are to be passed on
  // Set by the parent while the relay runs.
  std::atomic<bool> cutting;
  std::atomic<bool> stop;
};

// Seconds of a clock that only goes forward.
double Now();

// Starts a relay. The pid, to be waited for once stop is set; its exit code is 0 when it could do its work. It never
// outlives its parent.
pid_t StartRelay(Shared* shared, uint64_t seed);

}  // namespace soak
