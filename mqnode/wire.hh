// wire.hh - the headers of plain and signed messages: recognising, measuring and filling them.
// Not here: where the bytes come from (read.cc) and go to (compose.cc).
#pragma once

#include <cstdint>
#include <cstring>

#include "runtime/message.h"
#include "runtime/runtime.h"

namespace mq {

constexpr uint32_t kHeaderLength = sizeof(MsgHeader);
constexpr uint32_t kEnvelopeLength = sizeof(SecureHeader);
constexpr uint32_t kEnvelopeVersion = 1;

inline MsgHeader* HeaderOf(uint8_t* data) { return reinterpret_cast<MsgHeader*>(data); }
inline SecureHeader* EnvelopeOf(uint8_t* data) { return reinterpret_cast<SecureHeader*>(data); }

// Whether the first word at data is headerLength in either byte order.
inline bool IsHeader(const uint8_t* data, uint32_t headerLength) {
  uint32_t first;
  memcpy(&first, data, sizeof first);
  return first == headerLength || first == bwlong(headerLength);
}

// Length of a whole message whose converted header announces that many bytes after it. 0 if that is not valid: no
// bytes, or more than MQ_MAX_MESSAGE in total.
inline uint32_t TotalLength(uint32_t headerLength, uint32_t announced) {
  const uint64_t total = uint64_t{headerLength} + announced;
  return announced != 0 && total <= MQ_MAX_MESSAGE ? static_cast<uint32_t>(total) : 0;
}

// Writes the byte order and character set of this host into a header of either kind.
template <typename Header>
void FillForm(Header* header) {
  header->bigEndian = IsLtEndian() == 0;
  header->asciiText = IsAscText() != 0;
}

// Fills the library's fields in the header of a raw message, except userId and applName.
inline void FillHeader(PcfRawData* raw) {
  MsgHeader* const header = HeaderOf(raw->data);
  header->hdrLength = kHeaderLength;
  FillForm(header);
  header->bodyLength = raw->length - kHeaderLength;
}

}  // namespace mq
