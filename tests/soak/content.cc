#include "tests/soak/content.hh"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace soak {
namespace {

constexpr size_t kPoolBytes = 8 << 20;
constexpr uint32_t kMostText = 2000;

// Sizes of messages: so many of a thousand are at most so large.
struct Class {
  uint32_t perMille;
  uint32_t most;
};
constexpr Class kClasses[] = {{400, 200}, {350, 4 << 10}, {200, 64 << 10}, {47, 400 << 10}, {3, 4 << 20}};

uint32_t SizeOf(Dice* dice, uint32_t most) {
  auto roll = static_cast<uint32_t>(dice->Below(1000));
  const Class* which = kClasses;
  for (; roll >= which->perMille; ++which) roll -= which->perMille;
  return std::min(static_cast<uint32_t>(dice->Below(which->most + 1)), most);
}

}  // namespace

uint64_t Dice::Next() {
  uint64_t mixed = state_ += 0x9e3779b97f4a7c15;
  mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
  return mixed ^ (mixed >> 31);
}

Author::Author(uint64_t seed) : seed_(seed), pool_(kPoolBytes), letters_(2 * kMostText, 'a') {
  Dice dice(seed);
  for (size_t i = 0; i < pool_.size(); i += sizeof(uint64_t)) {
    const uint64_t next = dice.Next();
    memcpy(&pool_[i], &next, sizeof next);
  }
  for (char& letter : letters_) letter = static_cast<char>('a' + dice.Below(26));
}

std::vector<Author::Field> Author::Plan(const Place& place, uint32_t most) const {
  enum { kEmpty, kOfEach, kBytesAlone = 4, kMany = 9, kShapes };
  Dice key(seed_ ^ (uint64_t{place.pair} << 40) ^ (uint64_t{place.session} << 8) ^ place.way);
  Dice dice(key.Next() ^ place.number);
  const uint64_t shape = dice.Below(kShapes);
  std::vector<Field> fields;
  const auto add = [&](uint32_t type, uint32_t length) {
    const size_t room = type == MQC_BYTES ? pool_.size() : letters_.size();
    fields.push_back({type, length, dice.Below(room - length), static_cast<int64_t>(dice.Next())});
  };
  if (shape == kEmpty) return fields;
  const uint32_t size = SizeOf(&dice, most);
  if (shape >= kOfEach && shape < kBytesAlone) {
    add(MQC_INT32, 0);
    add(MQC_INT64, 0);
    add(MQC_TEXT, std::min(size, kMostText) / 2);
  }
  if (shape < kMany) {
    add(MQC_BYTES, size - size / 4);  // the rest is room for what each parameter takes
  } else {
    for (uint64_t left = 1 + dice.Below(std::min(most / 64, 300u)); left > 0; --left) {
      add(MQC_INT32 + static_cast<uint32_t>(dice.Below(4)), static_cast<uint32_t>(dice.Below(20)));
    }
  }
  return fields;
}

bool Author::Build(PcfMessage* msg, const Place& place, uint32_t most) const {
  if (!mqc_begin(msg, CommandOf(place.number))) return false;
  uint32_t id = 0;
  char text[2 * kMostText];
  for (const Field& field : Plan(place, most)) {
    ++id;
    int added = 0;
    switch (field.type) {
      case MQC_INT32:
        added = mqc_add_int32(msg, id, static_cast<int32_t>(field.number));
        break;
      case MQC_INT64:
        added = mqc_add_int64(msg, id, field.number);
        break;
      case MQC_TEXT:
        text[letters_.copy(text, field.length, field.offset)] = '\0';
        added = mqc_add_text(msg, id, text);
        break;
      default:
        added = mqc_add_bytes(msg, id, pool_.data() + field.offset, field.length);
    }
    if (!added) return false;
  }
  return true;
}

std::string Author::Compare(const PcfMessage* msg, const Place& place, uint32_t most) const {
  if (mqc_command(msg) != CommandOf(place.number)) {
    return fmt::format("message {} where {} was expected", mqc_command(msg) - 1, place.number);
  }
  const std::vector<Field> fields = Plan(place, most);
  if (mqc_count(msg) != fields.size()) return fmt::format("{} parameters of {}", mqc_count(msg), fields.size());
  for (uint32_t i = 0; i < fields.size(); ++i) {
    const Field& field = fields[i];
    MqcParam param;
    mqc_param(msg, i, &param);
    bool same = param.id == i + 1 && param.type == field.type;
    if (field.type == MQC_INT32) same = same && param.number == static_cast<int32_t>(field.number);
    if (field.type == MQC_INT64) same = same && param.number == field.number;
    if (field.type == MQC_TEXT || field.type == MQC_BYTES) same = same && param.length == field.length;
    if (same && field.type == MQC_TEXT) same = letters_.compare(field.offset, field.length, param.text) == 0;
    if (same && field.type == MQC_BYTES) same = memcmp(param.bytes, &pool_[field.offset], field.length) == 0;
    if (!same) return fmt::format("parameter {} of {} is another", i + 1, fields.size());
  }
  return {};
}

}  // namespace soak
