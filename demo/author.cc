#include "demo/author.hh"

#include <fmt/format.h>
#include <fmt/printf.h>

#include <algorithm>
#include <cstring>

#include "demo/bare.hh"
#include "examples/answers.h"

namespace demo {
namespace {

constexpr uint32_t kBytes = 2;                                      // parameter id
constexpr const char* kForm = "client %u, session %u, message %u";  // begins each text
constexpr size_t kMostText = 400;
constexpr uint32_t kSmall = 1024;
constexpr uint32_t kMedium = 12 * 1024;  // fits into one datagram with header and signature

// Bytes of content. Every eighth large message has the largest size, the others 64 KiB to 2 MiB.
uint32_t SizeOf(Dice* dice, uint32_t number, bool isLarge) {
  if (!isLarge) return static_cast<uint32_t>(dice->Below(dice->Once(8) ? kMedium : kSmall));
  if (number % 8 == 3) return kLargest;
  const uint32_t base = 64u * 1024u << dice->Below(5);
  return base + static_cast<uint32_t>(dice->Below(base));
}

}  // namespace

uint64_t Dice::Next() {
  uint64_t mixed = state_ += 0x9e3779b97f4a7c15;
  mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
  return mixed ^ (mixed >> 31);
}

Author::Author(uint64_t seed) : seed_(seed), pool_(kLargest + (1 << 20)), letters_(2 * kMostText, 'a') {
  Dice dice(seed);
  for (size_t i = 0; i < pool_.size(); i += sizeof(uint64_t)) {
    const uint64_t next = dice.Next();
    memcpy(&pool_[i], &next, sizeof next);
  }
  for (char& letter : letters_) letter = static_cast<char>('a' + dice.Below(26));
}

// Every message has a text that begins with its place. Most also have bytes, some have many small parameters.
bool Author::Write(mqnode::MessageRef msg, uint32_t command, const Place& place, bool isLarge, bool textOnly) const {
  Dice key(seed_ ^ (uint64_t{place.client} << 32 | place.session));
  Dice dice(key.Next() ^ place.number);
  const std::string letters = letters_.substr(dice.Below(kMostText), dice.Below(kMostText));
  const std::string text = fmt::sprintf(kForm, place.client, place.session, place.number) +
                           fmt::format(": {:016x} {}", dice.Next(), letters);
  if (!msg.begin(command) || !msg.add(kText, text)) return false;
  if (textOnly) return true;
  bool added = true;
  const uint64_t shape = dice.Below(8);
  for (uint64_t left = shape == 1 ? dice.Below(100) : 0; left > 0; --left) {
    const auto number = static_cast<int64_t>(dice.Next());
    added = added && (number % 2 ? msg.add(kBytes, number) : msg.add(kBytes, static_cast<int32_t>(number)));
  }
  if (shape < 2 && !isLarge) return added;
  const uint32_t size = SizeOf(&dice, place.number, isLarge);
  return added && msg.add(kBytes, mqnode::Bytes(&pool_[dice.Below(pool_.size() - size)], size));
}

// Compares everything except the header.
std::string Author::Compare(mqnode::MessageRef got, uint32_t command, const Place& place, bool isLarge, bool textOnly,
                            bool marked) {
  if (!Write(expected_, command, place, isLarge, textOnly)) return "no memory";
  if (marked && !mark_answer(expected_.get())) return "no memory";
  const mqnode::Bytes is = got.raw(), should = expected_.raw();
  const size_t header = sizeof(MsgHeader), size = std::min(is.size(), should.size());
  const auto [at, other] = std::mismatch(is.begin() + header, is.begin() + size, should.begin() + header);
  if (at == is.end() && other == should.end()) return {};
  return fmt::format("byte {} of {} bytes instead of {}, in '{:.36}' instead of '{:.36}'", at - is.begin(), is.size(),
                     should.size(), got.text_or(kText, ""), expected_.text_or(kText, ""));
}

Place Author::PlaceOf(mqnode::MessageRef msg) {
  Place place;
  const std::string text(msg.text_or(kText, "").substr(0, kMostText));
  if (sscanf(text.c_str(), kForm, &place.client, &place.session, &place.number) != 3) return {};
  return place;
}

}  // namespace demo
