// end.hh - what a contestant is: one end of a connection that writes and reads whole messages. A further contestant is
// one source file with a class like these and one line in contestants.cc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace bench {

// A paced writer is at most a few groups of messages ahead of the reader. Small messages that fill a receive buffer
// make the kernel drop some of them and wait until they are sent again, and a figure says no more than how often that
// was.
enum class Pattern { kRoundTrip, kOneWay, kPacedOneWay };

class End {
 public:
  virtual ~End() = default;

  // One of: listen on a port of 127.0.0.1 that the kernel picks, which is returned, and then accept one connection; or
  // connect to such a port.
  virtual uint16_t Listen() = 0;
  virtual void Accept() = 0;
  virtual void Connect(uint16_t port) = 0;

  // Makes the message that the first Write sends, with this body. Later ones send it again, or what was read last.
  virtual void Prepare(size_t body) = 0;

  virtual void Write() = 0;
  virtual void Read() = 0;

  // The body of the message in hand.
  virtual std::span<const uint8_t> Body() const = 0;
};

struct Contestant {
  const char* name;
  std::unique_ptr<End> (*make)(Pattern pattern);
};

Contestant Nodes();
Contestant SignedNodes();
Contestant BareSockets();
Contestant Zmq();  // where the build has found libzmq
Contestant Nng();  // where the build has found nng

// Those that are measured beside bare sockets, which come last.
std::vector<Contestant> Contestants();

// The same with the other libraries that the build has found; empty without any.
std::vector<Contestant> OtherContestants();

// Sockets of every contestant get buffers of this size, both ways, and send small segments at once.
constexpr int kSocketBuffer = 256 * 1024;

// Bytes to fill a message with.
std::vector<uint8_t> SomeBytes(size_t size);

}  // namespace bench
