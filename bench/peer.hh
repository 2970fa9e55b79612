// peer.hh - the second process, which has the other end of each connection and is controlled through a socket pair.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <random>
#include <vector>

#include "bench/end.hh"

namespace bench {

struct Spent {
  double elapsed;    // seconds
  double processor;  // processor time of both processes in seconds, user and system
};

// Measures exchanges between this process and a forked peer, which therefore has the same contestants.
class Duel {
 public:
  // layout determines the addresses of the contestants' buffers: a copy can be much slower if source and destination
  // are a small distance apart modulo 4096, which must not decide a comparison.
  Duel(std::vector<Contestant> contestants, Pattern pattern, size_t body, unsigned layout);
  ~Duel();
  Duel(const Duel&) = delete;
  Duel& operator=(const Duel&) = delete;

  size_t size() const { return contestants_.size(); }
  const char* name(size_t c) const { return contestants_[c].name; }

  // Measures count messages of contestant c: round trips, or one way until the peer has read the last one.
  Spent Run(size_t c, size_t count);

 private:
  enum class Order : uint32_t { kAccept, kServe };
  struct Command {
    Order order;
    uint32_t contestant;
    uint64_t count;
  };

  void MakeEnd(size_t c);
  [[noreturn]] void Obey();
  void Serve(End& end, size_t count);
  Spent Now() const;
  void Tell(const Command& command);
  void Answer(uint32_t word);
  uint32_t Hear();

  const std::vector<Contestant> contestants_;
  const Pattern pattern_;
  std::vector<std::unique_ptr<End>> ends_;
  std::mt19937 random_;
  std::vector<std::vector<char>> spacers_;
  int control_ = -1;
  pid_t peer_ = -1;
};

}  // namespace bench
