// mutate.cc - the mutator. Most mutations are libFuzzer's own, or change a random byte where it is not linked; some cut
// off the end of a message, or of an input without one. Most of the time, header and envelope are then adjusted to
// announce the bytes present, so that the parser processes the fault.
#include <cstring>
#include <random>

#include "tests/fuzz/oracle.hh"

namespace {

using fuzz::kEnvelope;
using fuzz::kHeader;

uint32_t Load(const uint8_t* at, bool big) {
  uint32_t word;
  memcpy(&word, at, sizeof word);
  return big ? __builtin_bswap32(word) : word;
}
void Store(uint8_t* at, bool big, size_t value) {
  const auto word = static_cast<uint32_t>(value);
  const uint32_t stored = big ? __builtin_bswap32(word) : word;
  memcpy(at, &stored, sizeof stored);
}
bool IsLength(const uint8_t* at, uint32_t length) { return Load(at, false) == length || Load(at, true) == length; }

// Makes header and envelope announce a body that ends there.
void Fit(uint8_t* data, size_t size, size_t begin, size_t end) {
  if (end < begin + kHeader || end > size) return;
  uint8_t *const header = data + begin, *const envelope = header - kEnvelope;
  Store(header + offsetof(MsgHeader, bodyLength), Load(header, true) == kHeader, end - begin - kHeader);
  if (begin < kEnvelope || !IsLength(envelope, kEnvelope)) return;
  const bool sealed = IsLength(envelope + offsetof(SecureHeader, version), 2);
  const size_t behind = fuzz::kTrailer + (sealed ? fuzz::kSeal : 0);
  const size_t length = end - begin + std::min(behind, size - end);
  Store(envelope + offsetof(SecureHeader, msgLength), Load(envelope, true) == kEnvelope, length);
}

}  // namespace

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed) {
  std::minstd_rand random(seed);
  size_t begin = random() % (size + 1) / 2;  // of the header
  while (begin + kHeader <= size && !IsLength(data + begin, kHeader)) ++begin;
  const size_t body = begin + kHeader;
  if (body > size) return size == 0 || random() % 4 != 0 ? LLVMFuzzerMutate(data, size, most) : 1 + random() % size;
  const size_t announced = Load(data + begin + offsetof(MsgHeader, bodyLength), Load(data + begin, true) == kHeader);
  const size_t end = std::min(size, body + announced);
  size_t after = size;
  if (random() % 4 == 0) {
    const size_t cut = random() % (end - body + 1);
    memmove(data + end - cut, data + end, size - end);
    after -= cut;
  } else {
    after = LLVMFuzzerMutate(data, size, most);
  }
  if (random() % 4 != 0) Fit(data, after, begin, end + after - size);
  return after;
}
