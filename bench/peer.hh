// peer.hh - the second process: holds the far end of a connection and does as it is told through a socket pair.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <random>
#include <vector>

#include "bench/end.hh"

namespace bench {

struct Spent {
  double elapsed;    // seconds
  double processor;  // seconds that both processes ran, the system's work for them included
};

// What this process measures, against a peer that was forked from it and so has the same contestants.
class Duel {
 public:
  // layout picks where in memory the contestants' areas come to lie: a copy can run much slower when its two places are
  // a little apart modulo 4096, and nobody shall win by that.
  Duel(std::vector<Contestant> contestants, Pattern pattern, size_t body, unsigned layout);
  ~Duel();
  Duel(const Duel&) = delete;
  Duel& operator=(const Duel&) = delete;

  size_t size() const { return contestants_.size(); }
  const char* name(size_t c) const { return contestants_[c].name; }

  // What count messages of contestant c take: there and back, or one way until the peer has read the last one.
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
