// plain_read.cc - a stream of plain messages.
#include "tests/fuzz/reader.hh"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::ReadTwice(data, size, false, false);
  return 0;
}
