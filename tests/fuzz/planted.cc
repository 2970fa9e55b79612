// planted.cc - a planted fault: after four comparisons, a byte beyond a block is read. ./run fuzz fails if it is not
// found in time, and the tests fail if the sanitizer does not report the input that triggers it.
#include "tests/fuzz/fuzz.hh"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> bytes(data, data + size);
  if (size < 8 || !fuzz::TextOf(bytes).starts_with("mq!")) return 0;
  const volatile uint8_t* const block = bytes.data();
  if (block[3] > size) static_cast<void>(block[size]);
  return 0;
}
