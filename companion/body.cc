// body.cc - checks bodies, converts them to native form, and indexes their parameters.
// Not here: headers (header.cc), building a body and reading its parameters (record.cc).
// Invariant: every length is checked against raw.length before the bytes that it covers are read, and a whole body is
// checked before any of it is converted.

#include "companion/charset.hh"
#include "companion/message.hh"

namespace mqc {
namespace {

// A parameter in raw. Its head is decoded; its value is still in the sender's form.
struct Param {
  uint32_t index;
  uint32_t id;
  uint32_t type;
  uint32_t length;
  uint32_t at;  // of the parameter's head, from the start of raw
};

// Takes the parameter by value: with a reference, the compiler would store each Param of a body to memory.
[[gnu::cold, gnu::noinline]] bool FailParam(ErrorText error, Param param, const char* what, uint32_t number) {
  return Fail(error, "parameter %u (id %u, type %u): %s %u", param.index, param.id, param.type, what, number);
}

// Number of bytes that a value takes in the body, with its padding. length is at most MQ_MAX_MESSAGE.
inline uint32_t StoredLength(uint32_t type, uint32_t length) { return (length + (type == MQC_TEXT ? 1 : 0) + 3) & ~3u; }

// Whether the bytes from length to stored are zero. There are at most four of them.
inline bool IsPaddingZero(const uint8_t* value, uint32_t length, uint32_t stored) {
  const uint32_t padding = stored - length;
  if (padding == 0) return true;
  const uint32_t last = LoadAs<kHostIsBig == 1>(value + stored - 4);  // as little-endian: the last byte is the highest
  return last >> 8 * (4 - padding) == 0;
}

// left: number of bytes in the body after the parameter's head, at least param.length.
inline bool CheckPadded(const uint8_t* value, const Param& param, uint32_t left, ErrorText error) {
  const uint32_t stored = StoredLength(param.type, param.length);
  if (stored > left) return FailParam(error, param, "padding beyond the body, bytes left:", left);
  if (!IsPaddingZero(value, param.length, stored)) {
    return FailParam(error, param, "padding is not zero after", param.length);
  }
  if (param.type == MQC_TEXT && memchr(value, 0, param.length) != nullptr) {
    return FailParam(error, param, "text with a zero byte among its", param.length);
  }
  return true;
}

inline bool CheckParam(const uint8_t* value, const Param& param, uint32_t left, ErrorText error) {
  if (param.length > left) return FailParam(error, param, "longer than the body, bytes left:", left);
  switch (param.type) {
    case MQC_INT32:
      return param.length == sizeof(int32_t) || FailParam(error, param, "an integer of length", param.length);
    case MQC_INT64:
      return param.length == sizeof(int64_t) || FailParam(error, param, "an integer of length", param.length);
    case MQC_TEXT:
    case MQC_BYTES:
      return CheckPadded(value, param, left, error);
    default:
      return FailParam(error, param, "unknown type, length", param.length);
  }
}

// Walks the body of raw, whose integers are in host byte order or, with kSwap, in the opposite one. Calls visit(param)
// for every parameter that is valid; stops at the first that is not.
template <bool kSwap, typename Visit>
bool WalkBody(const PcfRawData& raw, ErrorText error, Visit visit) {
  const uint32_t end = raw.length;
  if (end < kHeader + kBodyHead) return Fail(error, "a body of %u bytes is too short for its head", end - kHeader);
  const uint32_t count = LoadAs<kSwap>(raw.data + kHeader + 4);
  if (count > MQC_MAX_PARAMS) return Fail(error, "%u parameters, at most %u are supported", count, MQC_MAX_PARAMS);
  uint32_t at = kHeader + kBodyHead;
  for (uint32_t i = 0; i < count; ++i) {
    if (end - at < kParamHead) return Fail(error, "parameter %u of %u: the body ends in its head", i, count);
    const uint8_t* head = raw.data + at;
    const Param param = {i, LoadAs<kSwap>(head), LoadAs<kSwap>(head + 4), LoadAs<kSwap>(head + 8), at};
    if (!CheckParam(head + kParamHead, param, end - at - kParamHead, error)) return false;
    visit(param);
    at += kParamHead + StoredLength(param.type, param.length);
  }
  if (at != end) return Fail(error, "%u bytes follow the last parameter", end - at);
  return true;
}

void SwapParam(uint8_t* head, uint32_t type) {
  SwapWord(head);
  SwapWord(head + 4);
  SwapWord(head + 8);
  uint8_t* value = head + kParamHead;
  if (type == MQC_INT32) SwapWord(value);
  if (type == MQC_INT64) {
    uint64_t number;
    memcpy(&number, value, sizeof(number));
    number = __builtin_bswap64(number);
    memcpy(value, &number, sizeof(number));
  }
}

// Checks the whole body first, so that it is converted completely or not at all.
template <bool kSwap>
bool ConvertBody(PcfRawData& raw, const uint8_t* ebcdic, ErrorText error) {
  if (!WalkBody<kSwap>(raw, error, [](const Param&) {})) return false;
  WalkBody<kSwap>(raw, error, [&raw, ebcdic](const Param& param) {
    uint8_t* head = raw.data + param.at;
    if (ebcdic != nullptr && param.type == MQC_TEXT) FromEbcdic(head + kParamHead, param.length, ebcdic);
    if (kSwap) SwapParam(head, param.type);
  });
  if (kSwap) {
    SwapWord(raw.data + kHeader);
    SwapWord(raw.data + kHeader + 4);
  }
  return true;
}

[[gnu::noinline]] bool ConvertAlienBody(PcfRawData& raw, uint32_t origin, ErrorText error) {
  if (origin > (kOriginSwapped | kOriginEbcdic)) return Fail(error, "the origin word is %u", origin);
  const bool is_ebcdic = (origin & kOriginEbcdic) != 0;
  const uint8_t* ebcdic = is_ebcdic ? EbcdicTable() : nullptr;
  if (is_ebcdic && ebcdic == nullptr) return Fail(error, "the system's iconv does not know IBM1047");
  const bool swapped = (origin & kOriginSwapped) != 0;
  if (!(swapped ? ConvertBody<true>(raw, ebcdic, error) : ConvertBody<false>(raw, ebcdic, error))) return false;
  Store(raw.data + kAtOrigin, 0);
  return true;
}

bool CheckComplete(const PcfRawData& raw, ErrorText error) {
  if (raw.data == nullptr || raw.length > raw.capacity || raw.length < kHeader) {
    return Fail(error, "%u bytes in an area of %u are not a message", raw.length, raw.capacity);
  }
  return IsNativeMessage(raw.data, raw.length) || CheckNativeHeader(raw.data, raw.length, error);
}

// The fast path: a complete message in native form.
inline bool IsConverted(const PcfRawData& raw) {
  return raw.data != nullptr && raw.length >= kHeader && raw.length <= raw.capacity &&
         IsNativeMessage(raw.data, raw.length) && Load(raw.data + kAtOrigin) == 0;
}

[[gnu::cold, gnu::noinline]] int FailUnconverted(const PcfRawData& raw, ErrorText error) {
  return CheckComplete(raw, error) && Fail(error, "the body is still in its sender's form");
}

[[gnu::noinline]] int ConvertOther(PcfRawData& raw, ErrorText error) {
  if (!CheckComplete(raw, error)) return 0;
  const uint32_t origin = Load(raw.data + kAtOrigin);
  return origin == 0 || ConvertAlienBody(raw, origin, error);
}

}  // namespace

bool CheckBody(const PcfRawData& raw, ErrorText error) {
  return WalkBody<false>(raw, error, [](const Param&) {});
}

}  // namespace mqc

using namespace mqc;

int AlienPcfToNative(PcfMessage* msg) {
  Content& content = ContentOf(msg);
  if (content.ready != kOpened) [[likely]]
    msg->library0 = 0;
  DropContent(content);
  return IsConverted(msg->raw) ? 1 : ConvertOther(msg->raw, ErrorOf(content));
}

int RawToPcf(PcfMessage* msg) {
  Content& content = ContentOf(msg);
  const ErrorText error = ErrorOf(content);
  const PcfRawData& raw = msg->raw;
  content.error[0] = '\0';
  if (!IsConverted(raw)) [[unlikely]] {
    content.ready = 0;
    return FailUnconverted(raw, error);
  }
  Entry* const entries = content.entries;
  const bool whole = WalkBody<false>(raw, error, [entries](const Param& param) {
    entries[param.index] = {param.id, param.type, param.at + kParamHead, param.length};
  });
  if (!whole) {
    content.ready = 0;
    return 0;
  }
  content.command = Load(raw.data + kHeader);
  content.count = Load(raw.data + kHeader + 4);
  content.ready = kReady;
  return 1;
}
