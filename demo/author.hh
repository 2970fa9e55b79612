// author.hh - the content of every honest message. It follows from the client and the number, so that its reader
// can tell whether it is whole, unchanged, there for the first time and in its turn, without anything kept.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mqnode/mqnode.hpp"

namespace demo {

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

// Where a message belongs: a client has sessions, one connection after the other, and numbers its questions in each.
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

  // Writes the message of this place: the question, or its answer. textOnly: nothing but its text. False without
  // memory.
  bool Write(mqnode::MessageRef msg, uint32_t command, const Place& place, bool isLarge, bool textOnly) const;

  // Whether a message is that one, to the last byte. Empty, or the difference. marked: with the mark of an answer to a
  // datagram (examples/answers.h) at its end.
  std::string Compare(mqnode::MessageRef got, uint32_t command, const Place& place, bool isLarge, bool textOnly,
                      bool marked);

  // The place that a message claims; a default one when it claims none.
  static Place PlaceOf(mqnode::MessageRef msg);

 private:
  uint64_t seed_;
  std::vector<uint8_t> pool_;
  std::string letters_;
  mqnode::Message expected_ = mqnode::Message::create();
};

}  // namespace demo
