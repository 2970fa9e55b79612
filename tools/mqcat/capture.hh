// capture.hh - finds the byte streams in an input as it arrives: raw bytes, a hexadecimal dump, or captured packets
// from a file, a pipe or a network interface. Trusts nothing, as decode.hh does; memory is bounded by the size of the
// input, and for captured packets by kMostHeld in packets.cc.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "text.hh"

namespace mqcat {

enum class CaptureFormat { kAuto, kRaw, kHex, kPcap };

// Receives one direction of a connection, or the whole input.
class Stream {
 public:
  virtual ~Stream() = default;
  virtual void Take(Bytes bytes) = 0;
  virtual void End() = 0;
  virtual size_t held() const = 0;  // bytes of memory
};

// Receives what a capture contains, in the order of arrival.
class Receiver {
 public:
  virtual ~Receiver() = default;
  // A stream begins. The name is empty for the whole input.
  virtual std::unique_ptr<Stream> Begin(std::string name) = 0;
  virtual void Datagram(const std::string& name, Bytes bytes) = 0;
  virtual void Fault(std::string text) = 0;  // what is wrong with the capture, or missing from it
  virtual void Note(std::string text) = 0;   // what was left out on purpose
};

// The next bytes of an input, valid until the next call; none at its end.
using ByteSource = std::function<Bytes()>;

// Reads an input to its end. An input that could be raw bytes or a dump is held until that is known.
void ReadCapture(const ByteSource& next, CaptureFormat format, Receiver& receiver);

// Reads a dump as xxd, hexdump -C, od -Ax -tx1 and mqcat listen --format hex write it, or digits alone. Lines that
// begin with '#' are skipped; '*' repeats the line before up to the next offset. Result   false with the number of the
// first line that is not part of a dump
bool ReadHexDump(Bytes text, std::vector<uint8_t>& bytes, size_t& bad_line);

// Reads a pcap or pcapng file, whose first bytes are begin. pcap.cc
void ReadPcap(Bytes begin, const ByteSource& next, Receiver& receiver);

// Captures up to count packets that match the filter (pcap-filter(7)) from an interface; fewer after SIGINT or SIGTERM.
// idle is called before each wait. Throws a Failure if the interface cannot be opened. pcap.cc
void CaptureInterface(const std::string& name, const std::string& filter, uint64_t count,
                      const std::function<void()>& idle, Receiver& receiver);

}  // namespace mqcat
