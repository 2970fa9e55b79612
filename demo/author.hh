// author.hh - the content of every honest message. It is computed from the client and the number, so that a receiver
// can detect lost, changed, repeated and reordered messages without storing any.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mqnode/mqnode.hpp"

namespace demo {

// Random numbers from a seed, the same on every machine.
class Dice {
 public:
  explicit Dice(uint64_t key) : state_(key) {}
  uint64_t Next();
  uint64_t Below(uint64_t bound) { return Next() % bound; }
  bool Once(uint64_t in) { return Below(in) == 0; }

 private:
  uint64_t state_;
};

// The place of a message: a client has one session (connection) after another and numbers its questions in each.
struct Place {
  uint32_t client = UINT32_MAX;
  uint32_t session = 0;
  uint32_t number = 0;
};

// The form of an answer: the question's text alone, the question itself, or all its parameters under another command.
enum class Echo { kTextAlone, kSame, kAll };

constexpr uint32_t kLargest = 4 << 20;  // bytes of content

class Author {
 public:
  explicit Author(uint64_t seed);

  // Writes the question of this place, or its answer. textOnly: only the text. False if out of memory.
  bool Write(mqnode::MessageRef msg, uint32_t command, const Place& place, bool isLarge, bool textOnly) const;

  // Compares a message with the expected one, byte by byte. Returns the difference, empty if there is none.
  //   marked   an answer to a datagram, which ends with a mark (examples/answers.h)
  std::string Compare(mqnode::MessageRef got, uint32_t command, const Place& place, bool isLarge, bool textOnly,
                      bool marked);

  // The place that a message states; the default value if it states none.
  static Place PlaceOf(mqnode::MessageRef msg);

 private:
  uint64_t seed_;
  std::vector<uint8_t> pool_;
  std::string letters_;
  mqnode::Message expected_ = mqnode::Message::create();
};

}  // namespace demo
