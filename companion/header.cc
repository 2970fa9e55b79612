// header.cc - converts plain headers and envelopes to native form.
// Not here: bodies (body.cc), signatures (sign.cc).
// Invariant: a header is converted completely or not changed at all. A native header does not change.

#include "companion/charset.hh"
#include "companion/message.hh"

namespace mqc {
namespace {

thread_local char header_error[kErrorText];

ErrorText HeaderError() { return {header_error, sizeof(header_error)}; }

struct Form {
  bool swapped;
  bool ebcdic;
};

// Determines the sender's form from a header or envelope, whose first word must be length, and checks that its fields
// are consistent.
bool TellForm(const uint8_t* h, uint32_t length, Form* form, ErrorText error) {
  const uint32_t first = Load(h + kAtLength);
  form->swapped = first == __builtin_bswap32(length);
  if (first != length && !form->swapped) return Fail(error, "the first word is %u, not the length %u", first, length);
  const uint32_t big = form->swapped ? LoadAs<true>(h + kAtBigEndian) : Load(h + kAtBigEndian);
  const uint32_t ascii = form->swapped ? LoadAs<true>(h + kAtAscii) : Load(h + kAtAscii);
  if (big > 1) return Fail(error, "the byte order flag is %u, neither 0 nor 1", big);
  if (ascii > 1) return Fail(error, "the character set flag is %u, neither 0 nor 1", ascii);
  if ((big != kHostIsBig) != form->swapped) return Fail(error, "the byte order flag contradicts the first word");
  form->ebcdic = ascii != kHostIsAscii;
  return true;
}

// Sets *table to the conversion table for the sender's text, null if no conversion is needed. Returns false if it is
// needed but not available.
bool NeedTable(const Form& form, const uint8_t** table, ErrorText error) {
  *table = form.ebcdic ? EbcdicTable() : nullptr;
  if (form.ebcdic && *table == nullptr) return Fail(error, "the system's iconv does not know IBM1047");
  return true;
}

[[gnu::noinline]] bool ConvertHeader(uint8_t* h, const Form& form, ErrorText error) {
  const uint8_t* table;
  if (!NeedTable(form, &table, error)) return false;
  if (form.swapped) {
    SwapWord(h + kAtLength);
    SwapWord(h + kAtEncoding);
    SwapWord(h + kAtBodyLength);
    SwapWord(h + kAtLast);
  }
  if (form.ebcdic) {
    FromEbcdic(h + kAtUser, kUserField, table);
    FromEbcdic(h + kAtApplication, sizeof(MsgHeader::applName), table);
  }
  Store(h + kAtBigEndian, kHostIsBig);
  Store(h + kAtAscii, kHostIsAscii);
  Store(h + kAtOrigin, (form.swapped ? kOriginSwapped : 0) | (form.ebcdic ? kOriginEbcdic : 0));
  return true;
}

[[gnu::cold, gnu::noinline]] int FailRoom(const PcfRawData* raw) {
  return Fail(HeaderError(), "no room for a header at %u bytes", raw->capacity);
}

[[gnu::noinline]] int ConvertAlienHeader(PcfRawData* raw) { return HeaderToNative(raw->data, HeaderError()); }

}  // namespace

bool HeaderToNative(uint8_t* h, ErrorText error) {
  Form form = {};
  if (IsNative(h, kHeader)) return true;
  return TellForm(h, kHeader, &form, error) && ConvertHeader(h, form, error);
}

bool EnvelopeToNative(SecureHeader* envelope, ErrorText error) {
  auto* h = reinterpret_cast<uint8_t*>(envelope);
  Form form = {};
  const uint8_t* table;
  if (IsNative(h, kEnvelope)) return true;
  if (!TellForm(h, kEnvelope, &form, error) || !NeedTable(form, &table, error)) return false;
  if (form.swapped) {
    SwapWord(h + offsetof(SecureHeader, hdrLength));
    SwapWord(h + offsetof(SecureHeader, version));
    SwapWord(h + offsetof(SecureHeader, msgLength));
  }
  if (form.ebcdic) FromEbcdic(h + offsetof(SecureHeader, userId), kUserField, table);
  Store(h + kAtBigEndian, kHostIsBig);
  Store(h + kAtAscii, kHostIsAscii);
  return true;
}

bool CheckNativeHeader(const uint8_t* h, uint32_t length, ErrorText error) {
  const uint32_t body = Load(h + kAtBodyLength);
  const uint32_t encoding = Load(h + kAtEncoding);
  Form form = {};
  if (!IsNative(h, kHeader)) {
    return TellForm(h, kHeader, &form, error) && Fail(error, "the header is still in its sender's form");
  }
  if (length < kHeader || length - kHeader != body) {
    return Fail(error, "the header says %u bytes of body, the message has %lld", body, (long long)length - kHeader);
  }
  return encoding == kEncoding || Fail(error, "the body's encoding is version %u, not %u", encoding, kEncoding);
}

}  // namespace mqc

using namespace mqc;

// After a browse, length may be 0 although there is a header: capacity shows whether one fits.
int AlienToNative(PcfRawData* raw) {
  if (raw->data == nullptr || raw->capacity < kHeader) [[unlikely]]
    return FailRoom(raw);
  return IsNative(raw->data, kHeader) ? 1 : ConvertAlienHeader(raw);
}

int AlienToNativeExt(SecureHeader* envelope) { return EnvelopeToNative(envelope, HeaderError()); }

int VerifyMessage(PcfRawData* raw) {
  if (raw->data == nullptr || raw->length < kHeader || raw->length > raw->capacity) {
    return Fail(HeaderError(), "%u bytes in an area of %u are not a message", raw->length, raw->capacity);
  }
  return CheckNativeHeader(raw->data, raw->length, HeaderError()) && CheckBody(*raw, HeaderError());
}

const char* mqc_header_error(void) { return header_error; }
