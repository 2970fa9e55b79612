// decode.cc - see decode.hh. The layout is that of docs/wire-format.md.
// Invariant: no byte is read before its presence was checked; within a message Part::Has is the only such check.
#include "decode.hh"

#include <algorithm>
#include <cstring>

#include "fmt/chrono.h"
#include "fmt/compile.h"

namespace mqcat {
namespace {

constexpr uint64_t kHeader = 136;
constexpr uint64_t kEnvelope = 32;
constexpr uint64_t kTrailer = 96;
constexpr uint64_t kSeal = 64;
constexpr uint64_t kUser = 12;
constexpr uint32_t kSignedVersion = 1;
constexpr uint32_t kSealedVersion = 2;
constexpr uint64_t kBodyHead = 8;
constexpr uint64_t kParamHead = 12;
constexpr uint64_t kMaxMessage = 67108864;
constexpr uint32_t kMaxParams = 3740;
constexpr uint32_t kEncoding = 1;
constexpr uint64_t kFlags = 16;          // first word, a word, byte order, character set
constexpr uint64_t kLook = 68;           // bytes that LooksLikeMessage looks at
constexpr uint64_t kFreeLook = 1 << 20;  // bytes that the search inside broken messages may cost in any stream
constexpr std::string_view kSignedMark = "MQSIGN01";
constexpr std::string_view kSealedMark = "MQSIGN02";
enum ParamType : uint32_t { kInt32 = 1, kInt64 = 2, kText = 3, kBytes = 4 };

uint32_t Word(Bytes bytes, uint64_t at, bool big) {
  const uint8_t* p = bytes.data() + at;
  const auto shift = [&](int i) { return uint32_t{p[i]} << (big ? 24 - 8 * i : 8 * i); };
  return shift(0) | shift(1) | shift(2) | shift(3);
}

uint64_t LongWord(Bytes bytes, uint64_t at, bool big) {
  const uint64_t first = Word(bytes, at, big);
  const uint64_t second = Word(bytes, at + 4, big);
  return big ? first << 32 | second : second << 32 | first;
}

// Length that the first word announces, 136 or 32, and its byte order; length 0 for any other word.
struct First {
  uint64_t length;
  bool big;
};

First FirstWord(Bytes bytes) {
  if (bytes.size() < 4) return {0, false};
  for (const bool big : {false, true}) {
    const uint32_t word = Word(bytes, 0, big);
    if (word == kHeader || word == kEnvelope) return {word, big};
  }
  return {0, false};
}

bool FlagsAgree(Bytes bytes, bool big) {
  return bytes.size() >= kFlags && Word(bytes, 8, big) == (big ? 1u : 0u) && Word(bytes, 12, big) <= 1;
}

bool LengthIsPossible(uint64_t head, uint64_t announced) { return announced != 0 && head + announced <= kMaxMessage; }

std::string TimeText(uint64_t milliseconds) {
  if (milliseconds > 253402300799999u) return "beyond the year 9999";
  const auto seconds = static_cast<time_t>(milliseconds / 1000);
  return fmt::format("{:%F %T}.{:03} UTC", fmt::gmtime(seconds), milliseconds % 1000);
}

// The bytes that one message announces, as far as they are present, and what was found in them.
class Part {
 public:
  Part(Bytes bytes, uint64_t start, Piece& piece)
      : bytes_(bytes), start_(start), piece_(piece), announced_(bytes.size()) {}

  bool Has(uint64_t at, uint64_t size) const { return at <= bytes_.size() && size <= bytes_.size() - at; }
  uint32_t At(uint64_t at) const { return Word(bytes_, at, piece_.big_endian); }
  uint64_t LongAt(uint64_t at) const { return LongWord(bytes_, at, piece_.big_endian); }
  Bytes Range(uint64_t at, uint64_t size) const { return bytes_.subspan(at, size); }
  uint64_t size() const { return bytes_.size(); }
  bool ebcdic() const { return piece_.ebcdic; }
  bool big_endian() const { return piece_.big_endian; }

  // Ends the part at the end that its headers announce. Announces says whether a range lies before that end, present
  // or not.
  void EndAt(uint64_t size) {
    announced_ = size;
    bytes_ = bytes_.first(std::min<uint64_t>(size, bytes_.size()));
  }
  // The same bytes, decrypted.
  void Replace(Bytes bytes) { bytes_ = bytes; }
  bool Announces(uint64_t at, uint64_t size) const { return at <= announced_ && size <= announced_ - at; }

  // name and meaning are constant texts.
  void AddNumber(uint64_t at, uint64_t size, std::string_view name, ValueKind kind, uint64_t number,
                 std::string_view meaning = "", std::string detail = "") {
    piece_.fields.push_back({start_ + at, size, name, kind, number, {}, meaning, std::move(detail), parameter_});
  }
  // shown: the bytes at at that are the value.
  void AddBytes(uint64_t at, uint64_t size, std::string_view name, ValueKind kind, uint64_t shown,
                std::string_view meaning = "") {
    piece_.fields.push_back({start_ + at, size, name, kind, 0, Range(at, shown), meaning, "", parameter_});
  }
  uint32_t AddWord(uint64_t at, std::string_view name, std::string_view meaning = "") {
    const uint32_t word = At(at);
    AddNumber(at, 4, name, ValueKind::kUnsigned, word, meaning);
    return word;
  }
  // The fields that follow are those of this parameter, or of none.
  void BeginParameter(uint32_t index) { parameter_ = index; }
  void EndParameters() { parameter_ = -1; }
  void Break(uint64_t at, const char* rule, std::string text) {
    piece_.faults.push_back({start_ + at, rule, std::move(text)});
  }

 private:
  Bytes bytes_;
  uint64_t start_;
  Piece& piece_;
  uint64_t announced_;
  int64_t parameter_ = -1;
};

const char* CharsetName(bool ebcdic) { return ebcdic ? "EBCDIC (IBM1047)" : "ASCII or a superset"; }

// A fixed text field, filled with zeros after its characters.
void AddTextField(Part& part, uint64_t at, uint64_t size, const char* name, const char* meaning, bool ebcdic) {
  const Bytes field = part.Range(at, size);
  const auto end = static_cast<uint64_t>(std::find(field.begin(), field.end(), 0) - field.begin());
  part.AddBytes(at, size, name, ebcdic ? ValueKind::kEbcdic : ValueKind::kText, end, meaning);
  const bool filled =
      std::all_of(field.begin() + static_cast<ptrdiff_t>(end), field.end(), [](uint8_t b) { return b == 0; });
  if (!filled)
    part.Break(at + end, "zero-fill", fmt::format(FMT_COMPILE("{} has bytes after its terminating zero"), name));
}

// Byte order and character set, at the same offsets in header and envelope.
void AddFlags(Part& part, uint64_t at) {
  const bool big = part.big_endian();
  const uint32_t order = part.AddWord(at + 8, "bigEndian", big ? "sender is big-endian" : "sender is little-endian");
  if (order != (big ? 1u : 0u)) {
    part.Break(
        at + 8, "byte-order-flag",
        fmt::format(FMT_COMPILE("bigEndian is {}, but the first word is {}-endian"), order, big ? "big" : "little"));
  }
  const uint32_t ascii = part.At(at + 12);
  part.AddNumber(at + 12, 4, "asciiText", ValueKind::kUnsigned, ascii, CharsetName(ascii == 0));
  if (ascii > 1)
    part.Break(at + 12, "charset-flag", fmt::format(FMT_COMPILE("asciiText is {}, neither 0 nor 1"), ascii));
}

// The 136 bytes at at, which are present.
void AddHeader(Part& part, uint64_t at) {
  part.AddWord(at, "hdrLength", "plain header");
  const uint32_t encoding = part.AddWord(at + 4, "encoding", "version of the body's encoding");
  if (encoding != kEncoding) {
    part.Break(at + 4, "encoding-version",
               fmt::format(FMT_COMPILE("the version of the body's encoding is {}, not 1"), encoding));
  }
  AddFlags(part, at);
  part.AddBytes(at + 16, 48, "reserved", ValueKind::kReserved, 48, "ignored");
  part.AddWord(at + 64, "bodyLength", "bytes that follow the header");
  const uint32_t origin = part.AddWord(at + 68, "origin", "0 on the wire");
  if (origin != 0) part.Break(at + 68, "origin-word", fmt::format(FMT_COMPILE("the origin word is {}, not 0"), origin));
  AddTextField(part, at + 72, 12, "userId", "sending user", part.ebcdic());
  AddTextField(part, at + 84, 48, "applName", "sending application", part.ebcdic());
  part.AddBytes(at + 132, 4, "reserved", ValueKind::kReserved, 4, "ignored");
}

void AddEnvelope(Part& part) {
  part.AddWord(0, "hdrLength", "envelope");
  const uint32_t version = part.AddWord(4, "version");
  if (version != kSignedVersion && version != kSealedVersion) {
    part.Break(4, "envelope-version",
               fmt::format(FMT_COMPILE("the version of the envelope is {}, neither 1 nor 2"), version));
  }
  AddFlags(part, 0);
  part.AddWord(16, "msgLength", "bytes that follow the envelope");
  AddTextField(part, 20, 12, "userId", "signing user", part.ebcdic());
}

uint64_t StoredLength(uint32_t type, uint64_t length) { return (length + (type == kText ? 1 : 0) + 3) & ~uint64_t{3}; }

// Whether the bytes are present. Only bytes beyond the announced end break the rule; text() describes that.
template <typename Text>
bool HasOrBreak(Part& part, uint64_t at, uint64_t size, uint64_t where, const char* rule, Text text) {
  if (part.Has(at, size)) return true;
  if (!part.Announces(at, size)) part.Break(where, rule, text());
  return false;
}

struct Param {
  uint32_t index;
  uint32_t id;
  uint32_t type;
  uint64_t length;
  uint64_t at;  // offset of the value
};

const char* TypeName(uint32_t type) {
  constexpr const char* kNames[] = {"int32", "int64", "text", "bytes"};
  return type >= kInt32 && type <= kBytes ? kNames[type - 1] : "unknown type";
}

void AddValue(Part& part, const Param& param) {
  switch (param.type) {
    case kInt32:
      return part.AddNumber(param.at, 4, "value", ValueKind::kSigned,
                            static_cast<uint64_t>(int64_t{static_cast<int32_t>(part.At(param.at))}));
    case kInt64:
      return part.AddNumber(param.at, 8, "value", ValueKind::kSigned, part.LongAt(param.at));
    case kText:
      return part.AddBytes(param.at, param.length, "value", part.ebcdic() ? ValueKind::kEbcdic : ValueKind::kText,
                           param.length);
    default:
      return part.AddBytes(param.at, param.length, "value", ValueKind::kBytes, param.length);
  }
}

bool LengthFitsType(const Param& param) {
  if (param.type == kInt32) return param.length == 4;
  if (param.type == kInt64) return param.length == 8;
  return true;
}

void CheckValue(Part& part, const Param& param, uint64_t stored) {
  const Bytes padding = part.Range(param.at + param.length, stored - param.length);
  const auto odd = std::find_if(padding.begin(), padding.end(), [](uint8_t b) { return b != 0; });
  if (odd != padding.end()) {
    part.Break(param.at + param.length + static_cast<uint64_t>(odd - padding.begin()), "parameter-padding",
               fmt::format(FMT_COMPILE("parameter {}: the padding is not all zero"), param.index));
  }
  if (param.type != kText || param.length == 0) return;
  const Bytes text = part.Range(param.at, param.length);
  const void* zero = memchr(text.data(), 0, text.size());
  if (zero == nullptr) return;
  part.Break(param.at + static_cast<uint64_t>(static_cast<const uint8_t*>(zero) - text.data()), "text-zero-byte",
             fmt::format(FMT_COMPILE("parameter {}: the text contains a zero byte"), param.index));
}

// Adds the parameter at at and moves at to its end. False if the next one cannot be found.
bool AddParam(Part& part, uint32_t index, uint64_t& at) {
  if (!HasOrBreak(part, at, kParamHead, part.size(), "parameter-head",
                  [&] { return fmt::format(FMT_COMPILE("parameter {}: the body ends within its header"), index); })) {
    return false;
  }
  part.BeginParameter(index);
  const Param param = {index, part.At(at), part.At(at + 4), part.At(at + 8), at + kParamHead};
  part.AddWord(at, "id");
  part.AddWord(at + 4, "type", TypeName(param.type));
  part.AddWord(at + 8, "length");
  if (!HasOrBreak(part, param.at, param.length, at + 8, "parameter-length", [&] {
        return fmt::format(FMT_COMPILE("parameter {}: its length is {} bytes, {} are left"), index, param.length,
                           part.size() - param.at);
      })) {
    return false;
  }
  if (param.type < kInt32 || param.type > kBytes) {
    part.Break(at + 4, "parameter-type",
               fmt::format(FMT_COMPILE("parameter {}: the type is {}, not 1 to 4"), index, param.type));
  } else if (!LengthFitsType(param)) {
    part.Break(at + 8, "parameter-length",
               fmt::format(FMT_COMPILE("parameter {}: a length of {} bytes does not fit {}"), index, param.length,
                           TypeName(param.type)));
  } else {
    AddValue(part, param);
  }
  const uint64_t stored = StoredLength(param.type, param.length);
  if (!HasOrBreak(part, param.at, stored, part.size(), "parameter-padding",
                  [&] { return fmt::format(FMT_COMPILE("parameter {}: the body ends within its padding"), index); })) {
    return false;
  }
  CheckValue(part, param, stored);
  at = param.at + stored;
  return true;
}

// The body, from at to the end of the part.
void AddBody(Part& part, uint64_t at) {
  if (!HasOrBreak(part, at, kBodyHead, part.size(), "body-head",
                  [] { return std::string("the body is too short for the command and the number of parameters"); })) {
    return;
  }
  part.AddWord(at, "command");
  const uint32_t count = part.AddWord(at + 4, "parameters");
  if (count > kMaxParams) {
    part.Break(at + 4, "parameter-count", fmt::format(FMT_COMPILE("{} parameters, more than {}"), count, kMaxParams));
  }
  at += kBodyHead;
  for (uint32_t index = 0; index < std::min(count, kMaxParams); ++index) {
    if (!AddParam(part, index, at)) return part.EndParameters();
  }
  part.EndParameters();
  if (at == part.size() || count > kMaxParams) return;
  part.Break(at, "body-rest", fmt::format(FMT_COMPILE("{} bytes follow the last parameter"), part.size() - at));
}

void AddBodyOrBytes(Part& part, uint64_t header, uint64_t body) {
  if (part.At(header + 4) == kEncoding) return AddBody(part, body);
  if (part.size() > body) part.AddBytes(body, part.size() - body, "body", ValueKind::kBytes, part.size() - body);
}

// The same from every sender.
void AddTrailer(Part& part, uint64_t at, std::string_view mark) {
  part.AddBytes(at, 8, "mark", ValueKind::kText, 8, "signature trailer");
  if (memcmp(part.Range(at, 8).data(), mark.data(), 8) != 0) {
    part.Break(at, "trailer-mark", fmt::format(FMT_COMPILE("the trailer does not begin with {}"), mark));
  }
  const uint64_t time = LongWord(part.Range(at + 8, 8), 0, true);
  part.AddNumber(at + 8, 8, "time", ValueKind::kUnsigned, time, "signed",
                 fmt::format(FMT_COMPILE(" {}"), TimeText(time)));
  part.AddBytes(at + 16, 16, "nonce", ValueKind::kBytes, 16);
  part.AddBytes(at + 32, 64, "signature", ValueKind::kBytes, 64, "not verified");
}

// ---- Messages ----

// Where a message ends as it announces, from its start; the end of its header if the length is impossible.
struct Extent {
  uint64_t size;
  bool body_broken;  // a rule was broken after the headers
};

void CheckBodyLength(Part& part, uint64_t header, uint64_t body_length) {
  if (LengthIsPossible(kHeader, body_length)) return;
  part.Break(header + 64, "body-length",
             body_length == 0 ? std::string("the body is empty: such a message is never delivered")
                              : fmt::format(FMT_COMPILE("a body of {} bytes makes the message longer than {}"),
                                            body_length, kMaxMessage));
}

Extent DecodePlain(Part& part, const Piece& piece) {
  AddHeader(part, 0);
  const uint64_t body_length = part.At(64);
  CheckBodyLength(part, 0, body_length);
  if (!LengthIsPossible(kHeader, body_length)) return {kHeader, body_length != 0};
  const uint64_t end = kHeader + body_length;
  const bool whole = part.Has(0, end);
  if (!whole) {
    part.Break(part.size(), "truncated",
               fmt::format(FMT_COMPILE("the message announces {} bytes, {} are present"), end, part.size()));
  }
  part.EndAt(end);
  const size_t before = piece.faults.size();
  AddBodyOrBytes(part, 0, kHeader);
  return {end, piece.faults.size() > before};
}

std::string UserAt(const Part& part, uint64_t at, bool ebcdic) {
  const Bytes field = part.Range(at, 12);
  const std::string raw(field.begin(), field.end());
  return ebcdic ? FromEbcdic(raw).value_or(raw) : raw;
}

// A user of a signed message: 1 to 12 printable ASCII characters other than blank and '#', filled up with zeros.
void CheckUserName(Part& part, uint64_t at, bool ebcdic, const char* whose) {
  const std::string field = UserAt(part, at, ebcdic);
  const size_t length = std::min(field.find('\0'), field.size());
  const bool is_filled = field.find_first_not_of('\0', length) == std::string::npos;
  const bool is_name = length > 0 && std::all_of(field.begin(), field.begin() + static_cast<ptrdiff_t>(length),
                                                 [](char c) { return c > ' ' && c <= '~' && c != '#'; });
  if (!is_filled || !is_name) part.Break(at, "user-name", fmt::format(FMT_COMPILE("the {} user is not valid"), whose));
}

// Envelope and header each state their own character set.
void CheckUsers(Part& part) {
  if (UserAt(part, 20, part.At(12) == 0) != UserAt(part, kEnvelope + 72, part.ebcdic())) {
    part.Break(kEnvelope + 72, "user-mismatch", "header and envelope name different users");
  }
}

// The same from every sender.
void AddSeal(Part& part, uint64_t at) {
  AddTextField(part, at, kUser, "sealedFor", "user whose key opens the message", false);
  CheckUserName(part, at, false, "receiving");
  part.AddBytes(at + kUser, 4, "reserved", ValueKind::kReserved, 4);
  if (Word(part.Range(at + kUser, 4), 0, true) != 0) {
    part.Break(at + kUser, "seal-reserved", "the reserved bytes of the seal are not zero");
  }
  part.AddBytes(at + 16, 32, "ephemeralKey", ValueKind::kBytes, 32);
  part.AddBytes(at + 48, 16, "tag", ValueKind::kBytes, 16);
}

// Header and body after the envelope. end: of the message, as the envelope announces it; behind: bytes of it that
// follow the body. Returns where the body ends according to its header; 0 if there is no header.
uint64_t DecodeEnveloped(Part& part, Piece& piece, uint64_t end, uint64_t behind) {
  if (!part.Has(kEnvelope, 4)) return 0;
  const First first = FirstWord(part.Range(kEnvelope, 4));
  if (first.length != kHeader) {
    part.Break(kEnvelope, "header-in-envelope",
               fmt::format(FMT_COMPILE("the signed message begins with {}, not with 136, the length of a header"),
                           part.At(kEnvelope)));
    return 0;
  }
  if (!part.Has(kEnvelope, kHeader)) return 0;
  piece.big_endian = first.big;
  piece.ebcdic = part.At(kEnvelope + 12) == 0;
  AddHeader(part, kEnvelope);
  CheckUsers(part);
  const uint64_t body_length = part.At(kEnvelope + 64);
  CheckBodyLength(part, kEnvelope, body_length);
  const uint64_t body_end = kEnvelope + kHeader + body_length;
  if (body_end + behind != end) {
    part.Break(kEnvelope + 64, "message-length",
               fmt::format(FMT_COMPILE("header and trailer take {} bytes of the {} that the envelope announces"),
                           kHeader + body_length + behind, end - kEnvelope));
  }
  Part body = part;
  body.EndAt(std::min(body_end, end));
  AddBodyOrBytes(body, kEnvelope, kEnvelope + kHeader);
  return body_end;
}

void DecodeSigned(Part& part, Piece& piece, uint64_t end) {
  const uint64_t trailer = DecodeEnveloped(part, piece, end, kTrailer);
  if (trailer != 0 && trailer + kTrailer <= end && part.Has(trailer, kTrailer)) AddTrailer(part, trailer, kSignedMark);
}

// Decrypts a copy of a sealed message that is present as a whole. False if it remains encrypted.
bool OpenCopy(Part& part, Piece& piece, uint64_t end, uint64_t seal, const MessageOpener& opener) {
  if (!opener.open || !part.Has(0, end) || UserAt(part, seal, false).c_str() != opener.user) return false;
  const Bytes sealed = part.Range(0, end);
  piece.opened.assign(sealed.begin(), sealed.end());
  const std::string why = opener.open(piece.opened);
  if (why.empty()) return true;
  piece.opened.clear();
  part.Break(seal, "seal-broken", why);
  return false;
}

void DecodeSealed(Part& part, Piece& piece, uint64_t end, const MessageOpener& opener) {
  const uint64_t seal = end - kTrailer - kSeal;
  if (OpenCopy(part, piece, end, seal, opener)) {
    part.Replace(piece.opened);
    DecodeEnveloped(part, piece, end, kSeal + kTrailer);
  } else if (part.size() > kEnvelope) {
    const uint64_t present = std::min(part.size(), seal) - kEnvelope;
    part.AddBytes(kEnvelope, present, "message", ValueKind::kBytes, present, "encrypted header and body");
  }
  if (part.Has(seal, kSeal)) AddSeal(part, seal);
  if (part.Has(seal + kSeal, kTrailer)) AddTrailer(part, seal + kSeal, kSealedMark);
}

Extent DecodeSecure(Part& part, Piece& piece, const MessageOpener& opener) {
  AddEnvelope(part);
  const uint64_t announced = part.At(16);
  if (!LengthIsPossible(kEnvelope, announced)) {
    part.Break(16, "message-length",
               announced == 0
                   ? std::string("the envelope is empty: such a message is never delivered")
                   : fmt::format(FMT_COMPILE("{} bytes make the message longer than {}"), announced, kMaxMessage));
    return {kEnvelope, announced != 0};
  }
  const uint64_t end = kEnvelope + announced;
  if (!part.Has(0, end)) {
    part.Break(part.size(), "truncated",
               fmt::format(FMT_COMPILE("the message announces {} bytes, {} are present"), end, part.size()));
  }
  part.EndAt(end);
  CheckUserName(part, 20, piece.ebcdic, "signing");
  const size_t before = piece.faults.size();
  if (announced <= kHeader + (piece.kind == PieceKind::kSealed ? kSeal : 0) + kTrailer) {
    part.Break(16, "message-length", fmt::format(FMT_COMPILE("{} bytes are too short for a signature"), announced));
    return {end, true};
  }
  piece.kind == PieceKind::kSealed ? DecodeSealed(part, piece, end, opener) : DecodeSigned(part, piece, end);
  return {end, piece.faults.size() > before};
}

PieceKind KindOf(Bytes message, const First& first) {
  if (first.length == kHeader) return PieceKind::kPlain;
  const bool sealed = message.size() >= 8 && Word(message, 4, first.big) == kSealedVersion;
  return sealed ? PieceKind::kSealed : PieceKind::kSigned;
}

// Decodes the message that begins rest, at offset start of the stream, into a piece that was begun.
Extent DecodeMessage(Bytes rest, uint64_t start, Piece& piece, const MessageOpener& opener) {
  const First first = FirstWord(rest);
  piece.kind = KindOf(rest, first);
  piece.big_endian = first.big;
  if (rest.size() >= kFlags) piece.ebcdic = Word(rest, 12, first.big) == 0;
  Part part(rest, start, piece);
  if (rest.size() >= first.length) {
    return piece.kind == PieceKind::kPlain ? DecodePlain(part, piece) : DecodeSecure(part, piece, opener);
  }
  const char* const head = piece.kind == PieceKind::kPlain ? "header" : "envelope";
  part.AddWord(0, "hdrLength", piece.kind == PieceKind::kPlain ? "plain header" : "envelope");
  part.Break(rest.size(), "truncated",
             fmt::format(FMT_COMPILE("the {} has {} bytes, {} are present"), head, first.length, rest.size()));
  return {rest.size(), false};
}

// Passes a piece on. What was decrypted is wiped and released.
void Deliver(Piece& piece, const PieceSink& sink) {
  sink(piece);
  if (piece.opened.empty()) return;
  explicit_bzero(piece.opened.data(), piece.opened.size());
  std::vector<uint8_t>().swap(piece.opened);
}

// Begins a piece. Its lists keep their memory.
void Begin(Piece& piece, uint64_t offset) {
  piece.kind = PieceKind::kStray;
  piece.offset = offset;
  piece.size = 0;
  piece.big_endian = piece.ebcdic = false;
  piece.fields.clear();
  piece.faults.clear();
}

// Fills the piece for a run of stray bytes; begin contains its first bytes.
void FillStray(Piece& piece, Bytes begin, uint64_t size) {
  piece.size = size;
  std::string text = begin.size() < 4 ? std::string("too few bytes for a first word")
                                      : fmt::format(FMT_COMPILE("the first word is {} or {}, neither 136 nor 32"),
                                                    Word(begin, 0, false), Word(begin, 0, true));
  piece.fields.push_back({piece.offset, size, "bytes", ValueKind::kBytes, 0, begin, "not part of a message", "", -1});
  piece.faults.push_back({piece.offset, "first-word", std::move(text)});
}

// The first offset in [from, to) that looks like the beginning of a message; to if there is none.
uint64_t FindMessage(Bytes bytes, uint64_t from, uint64_t to) {
  for (; from < to; ++from) {
    const uint8_t byte = bytes[from];
    if (byte != kHeader && byte != kEnvelope && byte != 0) continue;
    if (LooksLikeMessage(bytes.subspan(from))) return from;
  }
  return to;
}

}  // namespace

bool BeginsMessage(Bytes bytes) { return FirstWord(bytes).length != 0; }

bool LooksLikeMessage(Bytes bytes) {
  const First first = FirstWord(bytes);
  if (first.length == 0 || !FlagsAgree(bytes, first.big)) return false;
  if (first.length == kHeader) {
    return bytes.size() < kLook || LengthIsPossible(kHeader, Word(bytes, 64, first.big));
  }
  const uint32_t version = Word(bytes, 4, first.big);
  if (version != kSignedVersion && version != kSealedVersion) return false;
  if (bytes.size() >= 20 && !LengthIsPossible(kEnvelope, Word(bytes, 16, first.big))) return false;
  return version == kSealedVersion || bytes.size() < kEnvelope + 4 ||
         FirstWord(bytes.subspan(kEnvelope)).length == kHeader;
}

Decoder::Decoder(PieceSink sink, size_t keep, MessageOpener opener)
    : sink_(std::move(sink)), keep_(std::max<size_t>(keep, 4)), opener_(std::move(opener)) {}

void Decoder::Take(Bytes bytes) {
  if (held_.empty()) {
    const size_t done = Walk(bytes);
    held_.assign(bytes.begin() + static_cast<ptrdiff_t>(done), bytes.end());
    return;
  }
  held_.insert(held_.end(), bytes.begin(), bytes.end());
  held_.erase(held_.begin(), held_.begin() + static_cast<ptrdiff_t>(Walk(held_)));
}

void Decoder::Finish() {
  ended_ = true;
  Walk(held_);
  held_.clear();
}

// Decodes bytes, the first of which has the offset base_, as far as the pieces are certain. Returns how many bytes that
// took.
size_t Decoder::Walk(Bytes bytes) {
  bytes_ = bytes;
  next_ = 0;
  while (next_ < bytes_.size() || (ended_ && stray_size_ != 0)) {
    const bool is_message = stray_size_ == 0 && BeginsMessage(bytes_.subspan(next_));
    if (!ended_ && bytes_.size() - next_ < 4) break;
    if (!(is_message ? Message() : Stray())) break;
  }
  base_ += next_;
  return next_;
}

// Whether the message at next_ is present as far as it announces.
bool Decoder::IsWhole() const {
  const Bytes rest = bytes_.subspan(next_);
  const First first = FirstWord(rest);
  if (rest.size() < first.length) return false;
  const uint64_t announced = Word(rest, first.length == kHeader ? 64 : 16, first.big);
  return !LengthIsPossible(first.length, announced) || rest.size() >= first.length + announced;
}

// False if more bytes are needed.
bool Decoder::Message() {
  if (!ended_ && (base_ + bytes_.size() < wait_ || !IsWhole())) return false;
  Begin(piece_, base_ + next_);
  const uint64_t start = next_;
  const Extent extent = DecodeMessage(bytes_.subspan(start), base_ + start, piece_, opener_);
  uint64_t end = std::min<uint64_t>(start + extent.size, bytes_.size());
  const uint64_t inner = start + (piece_.kind == PieceKind::kPlain ? kHeader : kEnvelope + kHeader);
  if (extent.body_broken && inner < end) {
    if (!ended_ && bytes_.size() - end < kLook) {
      wait_ = base_ + end + kLook;
      return false;
    }
    end = EndOfBroken(start, inner, end);
  }
  next_ = end;
  piece_.size = end - start;
  Deliver(piece_, sink_);
  return true;
}

// A broken body may contain messages: its length, or some of its bytes, may be missing. The announced end is right if a
// message begins there; else the piece ends at the next message inside. The search ends once it has cost a few times
// the stream, so that no input takes longer than its size allows.
uint64_t Decoder::EndOfBroken(uint64_t start, uint64_t inner, uint64_t end) {
  if (end < bytes_.size() && LooksLikeMessage(bytes_.subspan(end))) return end;
  looked_through_ += end - start;
  return looked_through_ > kFreeLook + 16 * (base_ + end) ? end : FindMessage(bytes_, inner, end);
}

// Takes stray bytes until a message begins. False if more bytes are needed.
bool Decoder::Stray() {
  const uint64_t last = ended_ ? bytes_.size() : bytes_.size() - std::min<uint64_t>(bytes_.size(), kLook - 1);
  const uint64_t from = next_ + (stray_size_ == 0 ? 1 : 0);
  if (from > last) return false;
  const uint64_t end = FindMessage(bytes_, from, last);
  if (stray_size_ == 0) Begin(piece_, base_ + next_);
  const Bytes run = bytes_.subspan(next_, end - next_);
  const Bytes kept = run.first(std::min(run.size(), keep_ - std::min(keep_, stray_.size())));
  stray_.insert(stray_.end(), kept.begin(), kept.end());
  stray_size_ += run.size();
  next_ = end;
  if (end == last && !ended_) return false;
  FillStray(piece_, stray_, stray_size_);
  sink_(piece_);
  stray_.clear();
  stray_size_ = 0;
  return true;
}

void DecodeDatagram(Bytes bytes, const PieceSink& sink, const MessageOpener& opener) {
  if (bytes.empty()) return;
  Piece piece;
  Begin(piece, 0);
  if (!BeginsMessage(bytes)) {
    FillStray(piece, bytes, bytes.size());
    return sink(piece);
  }
  const Extent extent = DecodeMessage(bytes, 0, piece, opener);
  piece.size = bytes.size();
  if (extent.size < bytes.size()) {
    piece.faults.push_back(
        {extent.size, "datagram-size",
         fmt::format(FMT_COMPILE("the datagram has {} bytes, the message {}"), bytes.size(), extent.size)});
  }
  Deliver(piece, sink);
}

}  // namespace mqcat
