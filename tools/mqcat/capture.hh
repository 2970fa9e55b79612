// capture.hh - finds the byte streams in a file (raw bytes, a hexadecimal dump, or a capture of packets) or on an
// interface of the network. Trusts nothing, as decode.hh does; memory grows with the size of the input only.
#pragma once

#include <string>
#include <vector>

#include "text.hh"

namespace mqcat {

enum class CaptureFormat { kAuto, kRaw, kHex, kPcap };

// One direction of a connection, one datagram, or the whole file.
struct Stream {
  std::string name;  // empty for the whole file
  bool datagram = false;
  std::vector<uint8_t> bytes;
};

struct Capture {
  CaptureFormat format = CaptureFormat::kRaw;
  std::vector<Stream> streams;      // TCP before UDP, each in the order of first packets
  std::vector<std::string> faults;  // what is wrong with the file, or missing from it
  std::vector<std::string> notes;   // what was passed over on purpose
};

Capture ReadCapture(Bytes file, CaptureFormat format);

// A dump as xxd, hexdump -C, od -Ax -tx1 and mqcat listen --format hex write it, or digits alone. Lines that begin with
// '#' are skipped; '*' repeats the line before up to the next offset.
// Result   false with the number of the first line that is not a dump
bool ReadHexDump(Bytes text, std::vector<uint8_t>& bytes, size_t& bad_line);

// The streams in a pcap or pcapng file. pcap.cc
Capture ReadPcap(Bytes file);

// The streams in up to count packets of an interface, those that match the filter (pcap-filter(7)); fewer after SIGINT.
// Throws a Failure when the interface cannot be opened. pcap.cc
Capture CaptureInterface(const std::string& name, const std::string& filter, uint64_t count);

}  // namespace mqcat
