// message.hh - the wire form of a message and the index of its parameters; shared by header.cc, body.cc and record.cc.
//
// Header fields of the companion (offset, length):
//     4,  4   version of the body's encoding, 1
//    16, 48   written as zero, ignored by readers
//    68,  4   origin: sent as 0. AlienToNative stores here which parts of the body are still in the sender's form, and
//             AlienPcfToNative resets it to 0
//   132,  4   written as zero, ignored by readers
// Body: command, number of parameters, then the parameters: id, type, length, value, zero bytes up to a multiple of 4.
// At least one zero byte follows a text, which is therefore null-terminated in place.
#pragma once

#include <stdint.h>
#include <string.h>
#include <bit>

#include "companion/errors.hh"
#include "companion/host.h"
#include "runtime/message.h"

namespace mqc {

constexpr uint32_t kHeader = sizeof(MsgHeader);
constexpr uint32_t kEnvelope = sizeof(SecureHeader);
constexpr uint32_t kEncoding = 1;
constexpr uint32_t kBodyHead = 8;
constexpr uint32_t kParamHead = 12;
constexpr uint32_t kHostIsBig = std::endian::native == std::endian::big ? 1 : 0;
constexpr uint32_t kHostIsAscii = 1;

constexpr uint32_t kOriginSwapped = 1;  // integers of the body are in the opposite byte order
constexpr uint32_t kOriginEbcdic = 2;   // text of the body is EBCDIC

// Offsets in a MsgHeader; those of hdrLength, bigEndian and asciiText are the same in a SecureHeader.
constexpr uint32_t kAtLength = offsetof(MsgHeader, hdrLength);
constexpr uint32_t kAtEncoding = offsetof(MsgHeader, library4);
constexpr uint32_t kAtBigEndian = offsetof(MsgHeader, bigEndian);
constexpr uint32_t kAtAscii = offsetof(MsgHeader, asciiText);
constexpr uint32_t kAtBodyLength = offsetof(MsgHeader, bodyLength);
constexpr uint32_t kAtOrigin = offsetof(MsgHeader, library68);
constexpr uint32_t kAtUser = offsetof(MsgHeader, userId);
constexpr uint32_t kAtApplication = offsetof(MsgHeader, applName);
constexpr uint32_t kAtLast = offsetof(MsgHeader, library132);
static_assert(offsetof(SecureHeader, bigEndian) == kAtBigEndian && offsetof(SecureHeader, asciiText) == kAtAscii);

constexpr size_t kUserField = sizeof(MsgHeader::userId);

// Whether the 12-byte field contains exactly this user, padded with zero bytes.
inline bool IsFieldOf(const char* user, const void* field) {
  char filled[kUserField] = {};
  memcpy(filled, user, strnlen(user, kUserField));
  return memcmp(filled, field, kUserField) == 0;
}

// A raw area may be the application's: no alignment is assumed.
inline uint32_t Load(const uint8_t* at) {
  uint32_t value;
  memcpy(&value, at, sizeof(value));
  return value;
}

// Two consecutive words, for one comparison instead of two.
inline uint64_t LoadPair(const uint8_t* at) {
  uint64_t value;
  memcpy(&value, at, sizeof(value));
  return value;
}

constexpr uint64_t Pair(uint32_t first, uint32_t second) {
  return kHostIsBig == 1 ? uint64_t{first} << 32 | second : uint64_t{second} << 32 | first;
}

inline void Store(uint8_t* at, uint32_t value) { memcpy(at, &value, sizeof(value)); }

template <bool kSwap>
inline uint32_t LoadAs(const uint8_t* at) {
  return kSwap ? __builtin_bswap32(Load(at)) : Load(at);
}

inline void SwapWord(uint8_t* at) { Store(at, __builtin_bswap32(Load(at))); }

// Whether a header or envelope of this length is in native form.
inline bool IsNative(const uint8_t* h, uint32_t length) {
  static_assert(kAtAscii == kAtBigEndian + 4);
  return Load(h + kAtLength) == length && LoadPair(h + kAtBigEndian) == Pair(kHostIsBig, kHostIsAscii);
}

// Whether h is the native header of a message of length bytes.
inline bool IsNativeMessage(const uint8_t* h, uint32_t length) {
  static_assert(kAtEncoding == kAtLength + 4);
  return LoadPair(h + kAtLength) == Pair(kHeader, kEncoding) &&
         LoadPair(h + kAtBigEndian) == Pair(kHostIsBig, kHostIsAscii) && Load(h + kAtBodyLength) == length - kHeader;
}

struct Entry {
  uint32_t id;
  uint32_t type;
  uint32_t offset;  // of the value, from the start of raw
  uint32_t length;
};

// The parsed content of a record. Valid only while ready is kReady, except error, which is always valid.
struct Content {
  uint32_t ready;
  uint32_t command;
  uint32_t count;
  char error[kErrorText];
  Entry entries[MQC_MAX_PARAMS];
};
static_assert(sizeof(Content) <= sizeof(PcfMessage::libraryData) && alignof(Content) == 4);

// Arbitrary, so that a record that was cleared or never initialised does not seem to have content.
constexpr uint32_t kReady = 0x4D514331;
// The record contains a signed message that was refused, and names no sender. DropContent ends this state.
constexpr uint32_t kRefused = 0x4D514332;
// The record holds a signed message that was accepted and opened, and is not converted yet.
constexpr uint32_t kOpened = 0x4D514333;
// PcfMessage::library0 of a record whose message was sealed.
constexpr uint32_t kWasSealed = 0x4D514334;

inline Content& ContentOf(PcfMessage* msg) { return *reinterpret_cast<Content*>(msg->libraryData); }

inline const Content& ContentOf(const PcfMessage* msg) { return *reinterpret_cast<const Content*>(msg->libraryData); }

inline ErrorText ErrorOf(Content& content) { return {content.error, sizeof(content.error)}; }

inline void DropContent(Content& content) {
  content.ready = 0;
  content.error[0] = '\0';
}

// Converts the header at h, of 136 bytes, as AlienToNative does.
bool HeaderToNative(uint8_t* h, ErrorText error);

// Converts an envelope as AlienToNativeExt does.
bool EnvelopeToNative(SecureHeader* envelope, ErrorText error);

// Checks a native header for a message of length bytes; origin is not checked.
bool CheckNativeHeader(const uint8_t* h, uint32_t length, ErrorText error);

// Checks a body in native form. Its header has been checked.
bool CheckBody(const PcfRawData& raw, ErrorText error);

// Enlarges raw.capacity to at least size, preserving the message or, after a browse, the header.
bool GrowRaw(PcfMessage* msg, uint32_t size);

}  // namespace mqc
