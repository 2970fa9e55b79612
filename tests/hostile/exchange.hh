// exchange.hh - an honest client that asks and checks the answers, on a thread of its own, and measures round trips.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "demo/histogram.hh"
#include "tests/hostile/server.hh"

namespace hostile {

// Microseconds of round trips, and questions without a right answer.
struct Trips {
  demo::Histogram times{};
  uint64_t failures = 0;
  std::string firstFailure;
};

class Exchange {
 public:
  enum Kind { kSteady, kNewcomer };

  // kSteady asks over one connection, about a thousand times a second; kNewcomer connects anew for each question, a few
  // times a second, and its times include that. Where the server wants signed questions, they are; a datagram that is
  // not answered is sent again.
  Exchange(int port, const Target& target, Kind kind);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  // What happened since the last call.
  Trips Take();
  // Answers since then.
  uint64_t Answers();

  // Returns when no question is on its way any more, and none will be until Resume.
  void Pause();
  void Resume() { asking_.unlock(); }

 private:
  void Run();

  const int port_;
  const Target& target_;
  const Kind kind_;
  std::atomic<bool> stop_ = false;
  std::mutex asking_;  // held while a question is on its way
  std::mutex tallying_;
  Trips trips_;
  std::thread thread_;
};

}  // namespace hostile
