// wire.hh - the two framings: how a header is recognised, measured and filled.
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

// The length of a whole message whose converted header announces that many more bytes; 0 when there can be no such
// message: nothing follows the header, or more than the bound allows.
inline uint32_t TotalLength(uint32_t headerLength, uint32_t announced) {
  const uint64_t total = uint64_t{headerLength} + announced;
  return announced != 0 && total <= MQ_MAX_MESSAGE ? static_cast<uint32_t>(total) : 0;
}

// States the host's byte order and character set in a header of either kind.
template <typename Header>
void FillForm(Header* header) {
  header->bigEndian = IsLtEndian() == 0;
  header->asciiText = IsAscText() != 0;
}

// Fills what the library owns in the header of a raw message, but for userId and applName.
inline void FillHeader(PcfRawData* raw) {
  MsgHeader* const header = HeaderOf(raw->data);
  header->hdrLength = kHeaderLength;
  FillForm(header);
  header->bodyLength = raw->length - kHeaderLength;
}

}  // namespace mq
