// wire.hh - a socket without a network: what a peer sent, and in which pieces it arrives.
//
// The programs define recvfrom, poll and nanosleep themselves, and libmqnode binds to those. While a Wire lives, they
// answer for its descriptor: a receive finds what has arrived, as the kernel would hand it out, and time passes only
// where a reader meets an empty buffer or pauses. Names are never looked up outside: "localhost" and the service "mq"
// are all that is known. The login name is "alice".
#pragma once

#include "tests/fuzz/fuzz.hh"

namespace fuzz {

struct Arrivals {
  enum class End { kClosed, kReset, kOpen };  // what comes behind the last byte
  Bytes bytes;
  // Sizes of the arrivals; 255 stands for 4080 bytes and 0 for nothing yet, or an empty datagram. What is left behind
  // the last of them arrives at once.
  Bytes cuts;
  bool datagram = false;
  bool blocking = false;
  End end = End::kClosed;
  size_t padding = 0;  // zeros behind the last datagram
};

class Wire {
 public:
  explicit Wire(const Arrivals& arrivals);
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  int fd() const { return fd_; }  // whoever gets it closes it
  size_t taken() const { return taken_; }
  // Nothing more arrives; silent: and nothing ever tells so.
  bool over() const { return taken_ == what_.bytes.size() && cut_ >= what_.cuts.size(); }
  bool silent() const { return over() && (what_.datagram || (what_.end == Arrivals::End::kOpen && !what_.blocking)); }

  // What the calls of the system do with the descriptor.
  long Receive(uint8_t* to, size_t size, int flags);
  short Events() const;
  void Pause() { Arrive(); }

 private:
  long ReceiveDatagram(uint8_t* to, size_t size, int flags);
  long AtEnd() const;
  void Arrive();

  Arrivals what_;
  int fd_;
  size_t taken_ = 0;    // bytes read, the looked at ones not included
  size_t arrived_ = 0;  // bytes that wait to be read behind them
  size_t cut_ = 0;
};

}  // namespace fuzz
