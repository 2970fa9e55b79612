// secure_read.cc - a stream of signed messages.
#include "tests/fuzz/reader.hh"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ReadTwice(data, size, true, false);
  return 0;
}
