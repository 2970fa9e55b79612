// end.hh - the interface of a contestant: one end of a connection, which writes and reads whole messages. To add a
// contestant, derive a class from End in a source file of its own, and add a line to contestants.cc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace bench {

// A paced writer is at most a few groups of messages ahead of the reader. Without pacing, small messages fill the
// receive buffer, the kernel drops segments and waits for their retransmission, and the figures measure little but
// that.
enum class Pattern { kRoundTrip, kOneWay, kPacedOneWay };

class End {
 public:
  virtual ~End() = default;

  // An end either listens on a port of 127.0.0.1 that the kernel picks and Listen returns, and accepts one connection,
  // or it connects to such a port.
  virtual uint16_t Listen() = 0;
  virtual void Accept() = 0;
  virtual void Connect(uint16_t port) = 0;

  // Creates the message that the first Write sends, with a body of this size. Later writes send it again, or the
  // message that was read last.
  virtual void Prepare(size_t body) = 0;

  virtual void Write() = 0;
  virtual void Read() = 0;

  // The body of the message that the next Write would send.
  virtual std::span<const uint8_t> Body() const = 0;
};

struct Contestant {
  const char* name;
  std::unique_ptr<End> (*make)(Pattern pattern);
};

Contestant Nodes();
Contestant SignedNodes();
Contestant BareSockets();
Contestant Zmq();  // if libzmq was found at build time
Contestant Nng();  // if nng was found at build time

// Nodes, and last, as the baseline, bare sockets.
std::vector<Contestant> Contestants();

// The same with the other libraries found at build time; empty if there are none.
std::vector<Contestant> OtherContestants();

// Size of the send and receive buffers of the sockets of every contestant, in bytes.
constexpr int kSocketBuffer = 256 * 1024;

// Bytes to fill a message with; the same on each call.
std::vector<uint8_t> SomeBytes(size_t size);

}  // namespace bench
