// content.hh - what is in every message: it follows from the message's place alone, so that the reader knows what must
// have come without anything being kept.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "companion/host.h"

namespace soak {

// A sequence of random numbers from one key, the same on every machine.
class Dice {
 public:
  explicit Dice(uint64_t key) : state_(key) {}
  uint64_t Next();
  uint64_t Below(uint64_t bound) { return Next() % bound; }
  bool Once(uint64_t in) { return Below(in) == 0; }

 private:
  uint64_t state_;
};

// The place of a message: which flow, which of its messages.
struct Place {
  uint32_t pair;
  uint32_t session;  // of a pair: connections one after the other
  uint32_t way;      // 0 from the pair's first node to its second, 1 back
  uint64_t number;   // from 0 in each session and way
};

// The command of a message tells its number, so that those with nothing else can be told apart.
inline uint32_t CommandOf(uint64_t number) { return static_cast<uint32_t>(number) + 1; }

class Author {
 public:
  explicit Author(uint64_t seed);

  // Builds a message: from nothing but its command to several MiB, at most so many bytes of parameters. False without
  // memory.
  bool Build(PcfMessage* msg, const Place& place, uint32_t most) const;

  // Whether the message is, to the last byte, what was built. Empty, or the first difference.
  std::string Compare(const PcfMessage* msg, const Place& place, uint32_t most) const;

 private:
  struct Field {
    uint32_t type;    // an MqcType
    uint32_t length;  // of texts and bytes
    size_t offset;    // of their content in the pool
    int64_t number;
  };
  std::vector<Field> Plan(const Place& place, uint32_t most) const;

  uint64_t seed_;
  std::vector<uint8_t> pool_;
  std::string letters_;
};

}  // namespace soak
