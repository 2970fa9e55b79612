// charset.hh - EBCDIC text of foreign senders.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace mqc {

// The host's character for each byte of IBM-1047, one for one; byte 0 and only byte 0 gives 0. Null when the system's
// iconv does not know the character set. Built at the first call, good for the life of the process.
const uint8_t* EbcdicTable();

inline void FromEbcdic(uint8_t* text, size_t length, const uint8_t* table) {
  for (size_t i = 0; i < length; ++i) text[i] = table[text[i]];
}

}  // namespace mqc
