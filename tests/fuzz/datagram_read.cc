// datagram_read.cc - datagrams, read as plain or, with the last bit of the options, as signed messages.
#include "tests/fuzz/reader.hh"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const bool secure = size != 0 && (data[0] & 0x80) != 0;
  fuzz::ReadTwice(data, size, secure, true);
  return 0;
}
