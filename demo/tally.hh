// tally.hh - the memory that the processes of a run share: signals, and what each of them counted.
//
// Every tally has one writer, its process. Counters may be read while the run goes on, the rest once their writer has
// ended.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "demo/peers.hh"

namespace demo {

// Seconds of a clock that only goes forward.
double Now();

// Durations, in buckets that are 1/16 of a doubling wide, so that percentiles of millions cost a few kilobytes.
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

// What is counted of the messages of one kind of client, by the clients and, where it applies, by the server.
enum Count {
  kClients,
  kSessions,   // connections, of datagram clients sockets
  kQuestions,  // that the library took; at the server: that were read, whole and unchanged
  kAnswers,    // that came whole, unchanged and once; at the server: that were written
  kLost,       // questions without an answer: on a connection that was cut, or a datagram was lost
  kAgain,      // datagrams that came once more
  kRefused,    // datagrams that the server did not accept
  kSent,       // bytes of raw messages: without envelope and signature
  kReceived,
  kCut,  // by the chaos from here on: connections
  kDropped,
  kDoubled,
  kShort,   // sends and receives that moved only a part
  kStalls,  // or nothing for a while
  kCounts
};

// The part of a run that a round trip fell into. Only an attack has three.
enum Phase { kBefore, kDuring, kAfter, kPhases };

struct Tally {
  std::atomic<uint64_t> counts[kCounts];
  Histogram latency[kPhases];  // from writing a question to reading the answer

  std::atomic<uint64_t>& at(Count count) { return counts[count]; }
  uint64_t operator[](Count count) const { return counts[count]; }
};

// What went wrong in a process: the first lines.
struct Faults {
  static constexpr uint32_t kMost = 12;
  static constexpr size_t kLength = 240;

  void Add(std::string_view text);
  uint32_t kept() const { return count < kMost ? count.load() : kMost; }

  std::atomic<uint32_t> count;
  char lines[kMost][kLength];
};

// What a process holds between two rounds.
struct Rest {
  uint64_t blocks;      // of the companion's account
  int64_t unexplained;  // resident bytes beside those of the account
  int descriptors;
};

// A client process, or the server.
struct Process {
  Tally kinds[kKindCount];
  Faults faults;
  std::atomic<uint32_t> connected;      // clients that have had a first answer; at the server: connections now
  std::atomic<bool> resting;            // no question is on its way
  std::atomic<uint64_t> blocks, bytes;  // of the companion's account, while there is no connection
  uint64_t rounds;
  double talking;         // seconds from the signal to go to the last answer
  Rest warm[2], last[2];  // of this process and of the server, between two rounds
  // The server's.
  std::atomic<uint64_t> messages;  // read and written
  std::atomic<uint64_t> dropped;
  uint64_t accepted, farewells, most, waits, peakBuffers, leftBlocks;
};

// What a rogue saw.
struct Seen {
  int port;  // its own, by which the server's log tells of it
  size_t answers;
  bool ended;  // by the server
  double seconds;
};

struct Usage {
  long residentKb;
  long peakKb;  // most that was ever resident
  int descriptors;
  double processor;  // seconds
};

constexpr uint32_t kMostProcesses = 32;
constexpr int kMostRogues = 24;

struct Shared {
  std::atomic<bool> ready;  // the server listens
  std::atomic<bool> go;     // every client is connected
  std::atomic<bool> stop;   // clients ask nothing more
  std::atomic<bool> pause;  // clients ask nothing for now
  std::atomic<int> phase;
  int ports[kPorts];
  Process server;
  Process workers[kMostProcesses];
  Seen rogues[kMostRogues];
  Usage before, held, after;  // of an attacked server; held: the attackers are quiet but still there
  bool ended;
};
static_assert(std::atomic<uint64_t>::is_always_lock_free, "atomics between processes must not need a lock");

// The memory, all zero, until the pointer's end. Throws without memory. Pages that are not written to take no memory.
using SharedPtr = std::unique_ptr<Shared, void (*)(Shared*)>;
SharedPtr MakeShared();

}  // namespace demo
