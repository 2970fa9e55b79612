// charset.hh - text of senders that use EBCDIC.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace mqc {

// Table that maps each byte of IBM-1047 to a character of the host, one to one; only byte 0 maps to 0. Null if the
// system's iconv does not support that character set. Built on the first call; valid until the process ends.
const uint8_t* EbcdicTable();

inline void FromEbcdic(uint8_t* text, size_t length, const uint8_t* table) {
  for (size_t i = 0; i < length; ++i) text[i] = table[text[i]];
}

}  // namespace mqc
