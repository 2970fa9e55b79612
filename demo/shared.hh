// shared.hh - the memory that the processes of a run share: signals to go and to stop, and everybody's tallies.
//
// Every tally has one writer, its process. Atomic fields may be read while the run goes on; the others only after their
// writer has ended.
#ifndef MQNODE_DEMO_SHARED_HH
#define MQNODE_DEMO_SHARED_HH

#include <atomic>
#include <cstdint>

#include "demo/histogram.hh"
#include "demo/plan.hh"

namespace demo {

// What the honest clients of one kind in one process did.
struct KindTally {
  uint64_t clients;
  uint64_t questions;  // each counted once, however often it was sent
  uint64_t answers;    // that came and were right
  uint64_t bytesSent;  // raw messages, as the message library counts them: without envelope and signature
  uint64_t bytesReceived;
  uint64_t resends;   // datagrams sent once more because no answer came in time
  uint64_t repeats;   // answers to a question that was answered already
  uint64_t queued;    // questions that the socket did not take at once
  Histogram latency;  // from writing the question to reading the answer
};

struct WorkerTally {
  std::atomic<uint32_t> connected;  // clients that have had a first answer
  std::atomic<uint64_t> answers;
  KindTally kinds[kKinds];
  double asking;  // seconds from the signal to go to the last answer
  uint32_t failures;
  char firstFailure[256];
};

enum class End : int32_t {
  kReadFailed,   // the read said no: not a message, not authentic, connection lost
  kUnfinished,   // part of a message, and nothing more for too long
  kUnread,       // an answer that the peer does not take, for too long
  kWriteFailed,  // an answer was refused or dropped
};

// A connection that did not end as it should, or a datagram that was refused.
struct Event {
  Port port;
  uint32_t peerPort;
  End end;
  int32_t code;  // node error, or the socket's when the node's only says that a write was dropped
};

struct PortTally {
  uint64_t questions;  // of honest clients
  uint64_t answers;
  uint64_t bytesReceived;
  uint64_t bytesSent;
  uint64_t rogueQuestions;
};

struct ErrorTally {
  int32_t code;
  uint32_t count;
};

struct ServerTally {
  static constexpr int kMostEvents = 512;
  static constexpr int kMostErrors = 64;

  std::atomic<uint32_t> connections;  // now
  std::atomic<uint64_t> messages;     // read and written
  std::atomic<uint64_t> bytes;
  std::atomic<uint32_t> dropped;
  PortTally ports[kPorts];
  uint32_t peakConnections;
  uint32_t accepted;
  uint32_t farewells;  // connections that ended between two messages
  uint64_t waits;
  uint64_t queued;       // answers that the socket did not take at once
  uint64_t finished;     // calls of mnFinishWrite
  uint32_t peakWrites;   // answers waiting at once, over all connections
  uint32_t peakNodes;    // connections with answers waiting at once
  uint64_t peakBuffers;  // bytes in receive buffers and write descriptors, looked at ten times a second
  uint64_t leftBlocks;   // allocated blocks after the last node was deleted
  double cpuSeconds;
  std::atomic<uint32_t> eventCount;  // may pass kMostEvents; events before it may be read while the run goes on
  Event events[kMostEvents];
  uint32_t errorCount;
  ErrorTally errors[kMostErrors];
  char failure[256];  // why the server could not go on

  // The first event with this peer; null when there is none.
  const Event* FindEvent(Port port, uint32_t peerPort) const {
    const uint32_t count = eventCount;
    for (uint32_t i = 0; i < count && i < kMostEvents; ++i) {
      if (events[i].port == port && events[i].peerPort == peerPort) return &events[i];
    }
    return nullptr;
  }
};

// What a misbehaving client saw.
struct RogueTally {
  uint32_t port;      // its own, by which the server's events are found
  uint32_t answers;   // that it got
  bool cutOff;        // the server ended the connection
  double seconds;     // until then
  char failure[256];  // why it could not even misbehave
};

constexpr int kMostRogues = 24;

struct Shared {
  std::atomic<bool> ready;  // the server listens, ports are set
  std::atomic<bool> go;     // every client is connected
  std::atomic<bool> stop;   // the clients have ended
  int ports[kPorts];
  ServerTally server;
  WorkerTally workers[kMostProcesses];
  RogueTally rogues[kMostRogues];
};

static_assert(std::atomic<uint64_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "atomics between processes must not need a lock");

}  // namespace demo

#endif
