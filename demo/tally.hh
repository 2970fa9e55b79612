// tally.hh - memory shared by the processes of a run: flags, and the counts of each process.
//
// Every tally is written by one process. Atomic counters may be read during the run, the others only after that process
// has ended.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "demo/peers.hh"

namespace demo {

// Monotonic time in seconds.
double Now();

// Durations in logarithmic buckets, 16 per factor of two: a few kilobytes for any number of samples.
struct Histogram {
  static constexpr double kSteps = 16;
  static constexpr size_t kBuckets = 33 * 16;

  void Add(double seconds);
  void Merge(const Histogram& other);
  double Percentile(double share) const;  // seconds; 0 without any

  uint64_t total;
  double longest;
  uint64_t counts[kBuckets];
};

// Counts of the messages of one kind of client, by the clients and, where given, by the server.
enum Count {
  kClients,
  kSessions,   // connections; sockets of datagram clients
  kQuestions,  // accepted by the library; at the server: read, complete and unchanged
  kAnswers,    // received complete, unchanged and once; at the server: written
  kLost,       // questions without an answer: the connection was cut or a datagram lost
  kAgain,      // repeated datagrams
  kRefused,    // datagrams refused by the server
  kSent,       // bytes of messages, without envelope and signature trailer
  kReceived,
  kCut,  // connections; this and the following are effects of the chaos
  kDropped,
  kDoubled,
  kShort,   // partial sends and receives
  kStalls,  // pauses in sending or receiving
  kCounts
};

// The phase of a run in which a round trip ended: before, during and after an attack; before and among the rogues.
enum Phase { kBefore, kDuring, kAfter, kPhases };

struct Tally {
  std::atomic<uint64_t> counts[kCounts];
  Histogram latency[kPhases];  // from writing a question to reading the answer

  std::atomic<uint64_t>& at(Count count) { return counts[count]; }
  uint64_t operator[](Count count) const { return counts[count]; }
};

// The first faults of a process.
struct Faults {
  static constexpr uint32_t kMost = 12;
  static constexpr size_t kLength = 240;

  void Add(std::string_view text);
  uint32_t kept() const { return count < kMost ? count.load() : kMost; }

  std::atomic<uint32_t> count;
  char lines[kMost][kLength];
};

// Resources of a process between two rounds.
struct Rest {
  uint64_t blocks;      // of the companion's account
  int64_t unexplained;  // resident bytes beyond the account
  int descriptors;
};

// A client process, or the server.
struct Process {
  Tally kinds[kKindCount];
  Faults faults;
  std::atomic<uint32_t> connected;      // clients with a first answer; at the server: open connections
  std::atomic<bool> resting;            // no question is unanswered
  std::atomic<uint64_t> blocks, bytes;  // of the companion's account, without connections
  uint64_t rounds;
  double talking;         // seconds from go to the last answer
  Rest warm[2], last[2];  // of this process and of the server, between two rounds
  // The server's.
  std::atomic<uint64_t> messages;  // read and written
  std::atomic<uint64_t> dropped;
  uint64_t accepted, farewells, most, waits, peakBuffers, leftBlocks;
};

// How a rogue was treated.
struct Seen {
  int port;  // of the rogue, as in the server's log
  size_t answers;
  bool ended;  // by the server
  double seconds;
};

struct Usage {
  long residentKb;
  long peakKb;  // highest resident size
  int descriptors;
  double processor;  // seconds
};

constexpr uint32_t kMostProcesses = 32;
constexpr int kMostRogues = 24;

struct Shared {
  std::atomic<bool> ready;  // the server listens
  std::atomic<bool> go;     // every client is connected
  std::atomic<bool> stop;   // clients ask no more questions
  std::atomic<bool> pause;  // clients ask no questions for now
  std::atomic<int> phase;
  int ports[kPorts];
  Process server;
  Process workers[kMostProcesses];
  Seen rogues[kMostRogues];
  Usage before, held, after;  // of an attacked server; held: the attackers are still connected
  bool ended;
};
static_assert(std::atomic<uint64_t>::is_always_lock_free, "atomics between processes must not need a lock");

// Zeroed memory, unmapped with the pointer. Throws if out of memory. Untouched pages use no memory.
using SharedPtr = std::unique_ptr<Shared, void (*)(Shared*)>;
SharedPtr MakeShared();

}  // namespace demo
