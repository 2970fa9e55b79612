// decode.cc - see decode.hh. The layout is that of docs/wire-format.md.
// Invariant: no byte is read before the span was seen to hold it; Part::Has is the one place that decides.
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
constexpr uint64_t kBodyHead = 8;
constexpr uint64_t kParamHead = 12;
constexpr uint64_t kMaxMessage = 67108864;
constexpr uint32_t kMaxParams = 3740;
constexpr uint32_t kEncoding = 1;
constexpr uint64_t kFlags = 16;  // first word, a word, byte order, character set
constexpr char kMark[] = "MQSIGN01";
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

// The stretch of the stream that one message announces, cut at the end of what is there, and what was found in it.
class Part {
 public:
  Part(Bytes bytes, uint64_t start, const DecodeOptions& options, Piece& piece)
      : bytes_(bytes), start_(start), options_(options), piece_(piece), announced_(bytes.size()) {}

  bool Has(uint64_t at, uint64_t size) const { return at <= bytes_.size() && size <= bytes_.size() - at; }
  uint32_t At(uint64_t at) const { return Word(bytes_, at, piece_.big_endian); }
  uint64_t LongAt(uint64_t at) const { return LongWord(bytes_, at, piece_.big_endian); }
  Bytes Range(uint64_t at, uint64_t size) const { return bytes_.subspan(at, size); }
  uint64_t size() const { return bytes_.size(); }
  bool ebcdic() const { return piece_.ebcdic; }
  bool big_endian() const { return piece_.big_endian; }

  // Ends the part where its headers say that it ends. Announces tells what is only missing from what is no part of it.
  void EndAt(uint64_t size) {
    announced_ = size;
    bytes_ = bytes_.first(std::min<uint64_t>(size, bytes_.size()));
  }
  bool Announces(uint64_t at, uint64_t size) const { return at <= announced_ && size <= announced_ - at; }

  // name and meaning are constant texts.
  void Add(uint64_t at, uint64_t size, std::string_view name, std::string value, std::string_view meaning = "",
           std::string detail = "") {
    piece_.fields.push_back({start_ + at, size, name, std::move(value), meaning, std::move(detail), parameter_});
  }
  uint32_t AddWord(uint64_t at, std::string_view name, std::string_view meaning = "") {
    const uint32_t word = At(at);
    Add(at, 4, name, std::to_string(word), meaning);
    return word;
  }
  // The fields that follow are those of this parameter, or of none.
  void BeginParameter(uint32_t index) { parameter_ = index; }
  void EndParameters() { parameter_ = -1; }
  void Break(uint64_t at, const char* rule, std::string text) {
    piece_.faults.push_back({start_ + at, rule, std::move(text)});
  }

  std::string Shown(uint64_t at, uint64_t size) const {
    const Bytes range = Range(at, size);
    const std::string_view raw(reinterpret_cast<const char*>(range.data()), range.size());
    if (!ebcdic()) return Quote(raw, options_.text_limit);
    const auto text = FromEbcdic(raw);
    return text ? Quote(*text, options_.text_limit) : Hex(range, options_.text_limit);
  }
  std::string ShownHex(uint64_t at, uint64_t size) const { return Hex(Range(at, size), options_.text_limit); }

 private:
  Bytes bytes_;
  uint64_t start_;
  const DecodeOptions& options_;
  Piece& piece_;
  uint64_t announced_;
  int64_t parameter_ = -1;
};

const char* CharsetName(bool ebcdic) { return ebcdic ? "EBCDIC (IBM1047)" : "ASCII or a superset"; }

// A fixed text field: zero-filled behind its characters.
void AddTextField(Part& part, uint64_t at, uint64_t size, const char* name, const char* meaning) {
  const Bytes field = part.Range(at, size);
  const auto end = static_cast<uint64_t>(std::find(field.begin(), field.end(), 0) - field.begin());
  part.Add(at, size, name, part.Shown(at, end), meaning);
  const bool filled =
      std::all_of(field.begin() + static_cast<ptrdiff_t>(end), field.end(), [](uint8_t b) { return b == 0; });
  if (!filled)
    part.Break(at + end, "zero-fill", fmt::format(FMT_COMPILE("{} has bytes behind its terminating zero"), name));
}

// Byte order and character set, which stand at the same place in header and envelope.
void AddFlags(Part& part, uint64_t at) {
  const bool big = part.big_endian();
  const uint32_t order = part.AddWord(at + 8, "bigEndian", big ? "sender is big-endian" : "sender is little-endian");
  if (order != (big ? 1u : 0u)) {
    part.Break(
        at + 8, "byte-order-flag",
        fmt::format(FMT_COMPILE("bigEndian is {}, but the first word is {}-endian"), order, big ? "big" : "little"));
  }
  const uint32_t ascii = part.At(at + 12);
  part.Add(at + 12, 4, "asciiText", std::to_string(ascii), CharsetName(ascii == 0));
  if (ascii > 1)
    part.Break(at + 12, "charset-flag", fmt::format(FMT_COMPILE("asciiText is {}, neither 0 nor 1"), ascii));
}

void AddReserved(Part& part, uint64_t at, uint64_t size, const char* name) {
  const Bytes range = part.Range(at, size);
  const bool zero = std::all_of(range.begin(), range.end(), [](uint8_t b) { return b == 0; });
  part.Add(at, size, name, zero ? "0" : Hex(range), "not looked at");
}

// The 136 bytes at at, which are there.
void AddHeader(Part& part, uint64_t at) {
  part.AddWord(at, "hdrLength", "plain header");
  const uint32_t encoding = part.AddWord(at + 4, "encoding", "version of the body's encoding");
  if (encoding != kEncoding) {
    part.Break(at + 4, "encoding-version",
               fmt::format(FMT_COMPILE("the body's encoding is version {}, known is 1"), encoding));
  }
  AddFlags(part, at);
  AddReserved(part, at + 16, 48, "reserved");
  part.AddWord(at + 64, "bodyLength", "bytes that follow the header");
  const uint32_t origin = part.AddWord(at + 68, "origin", "0 on the wire");
  if (origin != 0) part.Break(at + 68, "origin-word", fmt::format(FMT_COMPILE("the origin word is {}, not 0"), origin));
  AddTextField(part, at + 72, 12, "userId", "who sends");
  AddTextField(part, at + 84, 48, "applName", "which program sends");
  AddReserved(part, at + 132, 4, "reserved");
}

void AddEnvelope(Part& part) {
  part.AddWord(0, "hdrLength", "envelope");
  const uint32_t version = part.AddWord(4, "version");
  if (version != 1)
    part.Break(4, "envelope-version", fmt::format(FMT_COMPILE("the envelope's version is {}, known is 1"), version));
  AddFlags(part, 0);
  part.AddWord(16, "msgLength", "bytes that follow the envelope");
  AddTextField(part, 20, 12, "userId", "who signed");
}

uint64_t StoredLength(uint32_t type, uint64_t length) { return (length + (type == kText ? 1 : 0) + 3) & ~uint64_t{3}; }

// Whether the body holds these bytes. Bytes that are announced but not there break no rule of their own.
// text() says what is missing.
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
  uint64_t at;  // of its value
};

const char* TypeName(uint32_t type) {
  constexpr const char* kNames[] = {"int32", "int64", "text", "bytes"};
  return type >= kInt32 && type <= kBytes ? kNames[type - 1] : "unknown type";
}

std::string ValueText(const Part& part, const Param& param) {
  switch (param.type) {
    case kInt32:
      return std::to_string(static_cast<int32_t>(part.At(param.at)));
    case kInt64:
      return std::to_string(static_cast<int64_t>(part.LongAt(param.at)));
    case kText:
      return part.Shown(param.at, param.length);
    default:
      return part.ShownHex(param.at, param.length);
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
               fmt::format(FMT_COMPILE("parameter {}: the bytes behind the value are not all zero"), param.index));
  }
  if (param.type != kText || param.length == 0) return;
  const Bytes text = part.Range(param.at, param.length);
  const void* zero = memchr(text.data(), 0, text.size());
  if (zero == nullptr) return;
  part.Break(param.at + static_cast<uint64_t>(static_cast<const uint8_t*>(zero) - text.data()), "text-zero-byte",
             fmt::format(FMT_COMPILE("parameter {}: a text holds a zero byte"), param.index));
}

// The parameter at at. Moves at behind it; false when the walk cannot go on.
bool AddParam(Part& part, uint32_t index, uint64_t& at) {
  if (!HasOrBreak(part, at, kParamHead, part.size(), "parameter-head",
                  [&] { return fmt::format(FMT_COMPILE("parameter {}: the body ends in its head"), index); })) {
    return false;
  }
  part.BeginParameter(index);
  const Param param = {index, part.At(at), part.At(at + 4), part.At(at + 8), at + kParamHead};
  part.AddWord(at, "id");
  part.AddWord(at + 4, "type", TypeName(param.type));
  part.AddWord(at + 8, "length");
  if (!HasOrBreak(part, param.at, param.length, at + 8, "parameter-length", [&] {
        return fmt::format(FMT_COMPILE("parameter {}: {} bytes, only {} are left"), index, param.length,
                           part.size() - param.at);
      })) {
    return false;
  }
  if (param.type < kInt32 || param.type > kBytes) {
    part.Break(at + 4, "parameter-type",
               fmt::format(FMT_COMPILE("parameter {}: type {} is none of 1 to 4"), index, param.type));
  } else if (!LengthFitsType(param)) {
    part.Break(at + 8, "parameter-length",
               fmt::format(FMT_COMPILE("parameter {}: {} bytes are no {}"), index, param.length, TypeName(param.type)));
  } else {
    part.Add(param.at, param.length, "value", ValueText(part, param));
  }
  const uint64_t stored = StoredLength(param.type, param.length);
  if (!HasOrBreak(part, param.at, stored, part.size(), "parameter-padding",
                  [&] { return fmt::format(FMT_COMPILE("parameter {}: the body ends in its padding"), index); })) {
    return false;
  }
  CheckValue(part, param, stored);
  at = param.at + stored;
  return true;
}

// The body at at, which runs to the end of the part.
void AddBody(Part& part, uint64_t at) {
  if (!HasOrBreak(part, at, kBodyHead, part.size(), "body-head",
                  [] { return std::string("the body has no room for a command and a number of parameters"); })) {
    return;
  }
  part.AddWord(at, "command");
  const uint32_t count = part.AddWord(at + 4, "parameters");
  if (count > kMaxParams) {
    part.Break(at + 4, "parameter-count",
               fmt::format(FMT_COMPILE("{} parameters, a record holds {}"), count, kMaxParams));
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
  if (part.size() > body) part.Add(body, part.size() - body, "body", part.ShownHex(body, part.size() - body));
}

void AddTrailer(Part& part, uint64_t at) {
  part.Add(at, 8, "mark", Quote({reinterpret_cast<const char*>(part.Range(at, 8).data()), 8}), "signature trailer");
  if (memcmp(part.Range(at, 8).data(), kMark, 8) != 0) {
    part.Break(at, "trailer-mark", fmt::format(FMT_COMPILE("the trailer does not begin with {}"), kMark));
  }
  const uint64_t time = LongWord(part.Range(at + 8, 8), 0, true);
  part.Add(at + 8, 8, "time", std::to_string(time), "signed", fmt::format(FMT_COMPILE(" {}"), TimeText(time)));
  part.Add(at + 16, 16, "nonce", Hex(part.Range(at + 16, 16)));
  part.Add(at + 32, 64, "signature", Hex(part.Range(at + 32, 64)), "not checked");
}

// ---- Messages ----

// What one message came to: where it says it ends, and whether that can be believed.
struct Outcome {
  uint64_t end;      // as announced, from the start of the message; the header's end when the length is impossible
  bool body_broken;  // a rule was broken behind the headers
};

void CheckBodyLength(Part& part, uint64_t header, uint64_t body_length) {
  if (LengthIsPossible(kHeader, body_length)) return;
  part.Break(header + 64, "body-length",
             body_length == 0
                 ? std::string("a message without a body is never delivered")
                 : fmt::format(FMT_COMPILE("a body of {} bytes passes the bound of {}"), body_length, kMaxMessage));
}

Outcome DecodePlain(Part& part, const Piece& piece) {
  AddHeader(part, 0);
  const uint64_t body_length = part.At(64);
  CheckBodyLength(part, 0, body_length);
  if (!LengthIsPossible(kHeader, body_length)) return {kHeader, body_length != 0};
  const uint64_t end = kHeader + body_length;
  const bool whole = part.Has(0, end);
  if (!whole) {
    part.Break(part.size(), "truncated",
               fmt::format(FMT_COMPILE("the message announces {} bytes, {} are there"), end, part.size()));
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

// Envelope and header state their character sets each for itself.
void CheckUsers(Part& part) {
  if (UserAt(part, 20, part.At(12) == 0) != UserAt(part, kEnvelope + 72, part.ebcdic())) {
    part.Break(kEnvelope + 72, "user-mismatch", "header and envelope name different users");
  }
}

// The signed part, behind the envelope; end is where the envelope says that the message ends.
void DecodeSigned(Part& part, Piece& piece, uint64_t end) {
  if (!part.Has(kEnvelope, 4)) return;
  const First first = FirstWord(part.Range(kEnvelope, 4));
  if (first.length != kHeader) {
    return part.Break(
        kEnvelope, "header-in-envelope",
        fmt::format(FMT_COMPILE("the signed message begins with {}, not a header's 136"), part.At(kEnvelope)));
  }
  if (!part.Has(kEnvelope, kHeader)) return;
  piece.big_endian = first.big;
  piece.ebcdic = part.At(kEnvelope + 12) == 0;
  AddHeader(part, kEnvelope);
  CheckUsers(part);
  const uint64_t body_length = part.At(kEnvelope + 64);
  CheckBodyLength(part, kEnvelope, body_length);
  const uint64_t trailer = kEnvelope + kHeader + body_length;
  if (trailer + kTrailer != end) {
    part.Break(kEnvelope + 64, "message-length",
               fmt::format(FMT_COMPILE("header and trailer take {} bytes of the {} that the envelope announces"),
                           kHeader + body_length + kTrailer, end - kEnvelope));
  }
  Part body = part;
  body.EndAt(std::min(trailer, end));
  AddBodyOrBytes(body, kEnvelope, kEnvelope + kHeader);
  if (trailer + kTrailer <= end && part.Has(trailer, kTrailer)) AddTrailer(part, trailer);
}

Outcome DecodeSecure(Part& part, Piece& piece) {
  AddEnvelope(part);
  const uint64_t announced = part.At(16);
  if (!LengthIsPossible(kEnvelope, announced)) {
    part.Break(16, "message-length",
               announced == 0 ? std::string("an envelope without a message is never delivered")
                              : fmt::format(FMT_COMPILE("{} bytes pass the bound of {}"), announced, kMaxMessage));
    return {kEnvelope, announced != 0};
  }
  const uint64_t end = kEnvelope + announced;
  if (!part.Has(0, end)) {
    part.Break(part.size(), "truncated",
               fmt::format(FMT_COMPILE("the message announces {} bytes, {} are there"), end, part.size()));
  }
  part.EndAt(end);
  const size_t before = piece.faults.size();
  DecodeSigned(part, piece, end);
  return {end, piece.faults.size() > before};
}

// Walks a stream. next_ is where the next piece begins.
class Walker {
 public:
  Walker(Bytes bytes, const DecodeOptions& options, const std::function<void(const Piece&)>& sink)
      : bytes_(bytes), options_(options), sink_(sink) {}

  void Run() {
    while (next_ < bytes_.size()) {
      if (BeginsMessage(bytes_.subspan(next_))) {
        Message();
      } else {
        Stray();
      }
    }
  }

  // One datagram is one message, and its size is the message's.
  void RunDatagram() {
    if (!BeginsMessage(bytes_)) return Stray();
    Piece& piece = Begin();
    const Outcome outcome = DecodeAt(piece);
    if (outcome.end < bytes_.size()) {
      piece.faults.push_back(
          {options_.base + outcome.end, "datagram-size",
           fmt::format(FMT_COMPILE("the datagram has {} bytes, the message {}"), bytes_.size(), outcome.end)});
    }
    piece.size = bytes_.size();
    sink_(piece);
  }

 private:
  // The piece that begins here. Its lists keep their memory.
  Piece& Begin() {
    piece_.kind = PieceKind::kStray;
    piece_.offset = options_.base + next_;
    piece_.size = 0;
    piece_.big_endian = piece_.ebcdic = false;
    piece_.fields.clear();
    piece_.faults.clear();
    return piece_;
  }

  Outcome DecodeAt(Piece& piece) {
    const Bytes rest = bytes_.subspan(next_);
    const First first = FirstWord(rest);
    piece.kind = first.length == kHeader ? PieceKind::kPlain : PieceKind::kSecure;
    piece.big_endian = first.big;
    if (rest.size() >= kFlags) piece.ebcdic = Word(rest, 12, first.big) == 0;
    Part part(rest, options_.base + next_, options_, piece);
    if (rest.size() < first.length) {
      part.AddWord(0, "hdrLength", piece.kind == PieceKind::kPlain ? "plain header" : "envelope");
      part.Break(rest.size(), "truncated",
                 fmt::format(FMT_COMPILE("the {} has {} bytes, {} are there"),
                             piece.kind == PieceKind::kPlain ? "header" : "envelope", first.length, rest.size()));
      return {rest.size(), false};
    }
    return piece.kind == PieceKind::kPlain ? DecodePlain(part, piece) : DecodeSecure(part, piece);
  }

  void Message() {
    Piece& piece = Begin();
    const uint64_t start = next_;
    const Outcome outcome = DecodeAt(piece);
    const uint64_t end = std::min<uint64_t>(start + outcome.end, bytes_.size());
    next_ = outcome.body_broken ? EndOfBroken(start, end, piece.kind) : end;
    piece.size = next_ - start;
    sink_(piece);
  }

  // A broken body may have swallowed messages: its length, or some of its bytes, may be missing. The announced end
  // holds when something goes on there; else the next message inside is where to go on. Looking inside is given up
  // when it has cost a few times the stream, so that no input takes longer than its size allows.
  uint64_t EndOfBroken(uint64_t start, uint64_t end, PieceKind kind) {
    if (end < bytes_.size() && LooksLikeMessage(bytes_.subspan(end))) return end;
    looked_through_ += end - start;
    if (looked_through_ > 16 * bytes_.size()) return end;
    const uint64_t inner = start + (kind == PieceKind::kPlain ? kHeader : kEnvelope + kHeader);
    return inner < end ? FindMessage(inner, end) : end;
  }

  // The first place from from on that looks like a message; to when there is none.
  uint64_t FindMessage(uint64_t from, uint64_t to) const {
    for (; from < to; ++from) {
      const uint8_t byte = bytes_[from];
      if (byte != kHeader && byte != kEnvelope && byte != 0) continue;
      if (LooksLikeMessage(bytes_.subspan(from))) return from;
    }
    return to;
  }

  void Stray() {
    Piece& piece = Begin();
    const uint64_t start = next_;
    next_ = options_.datagram ? bytes_.size() : FindMessage(start + 1, bytes_.size());
    piece.size = next_ - start;
    const Bytes stray = bytes_.subspan(start, piece.size);
    std::string text = stray.size() < 4 ? std::string("too few bytes for a first word")
                                        : fmt::format(FMT_COMPILE("the first word is {} or {}, neither 136 nor 32"),
                                                      Word(stray, 0, false), Word(stray, 0, true));
    piece.fields.push_back(
        {piece.offset, piece.size, "bytes", Hex(stray, options_.text_limit), "belong to no message", "", -1});
    piece.faults.push_back({piece.offset, "first-word", std::move(text)});
    sink_(piece);
  }

  Bytes bytes_;
  const DecodeOptions& options_;
  const std::function<void(const Piece&)>& sink_;
  Piece piece_ = {};
  uint64_t next_ = 0;
  uint64_t looked_through_ = 0;
};

}  // namespace

bool BeginsMessage(Bytes bytes) { return FirstWord(bytes).length != 0; }

bool LooksLikeMessage(Bytes bytes) {
  const First first = FirstWord(bytes);
  if (first.length == 0 || !FlagsAgree(bytes, first.big)) return false;
  if (first.length == kHeader) {
    return bytes.size() < 68 || LengthIsPossible(kHeader, Word(bytes, 64, first.big));
  }
  if (Word(bytes, 4, first.big) != 1) return false;
  if (bytes.size() >= 20 && !LengthIsPossible(kEnvelope, Word(bytes, 16, first.big))) return false;
  return bytes.size() < kEnvelope + 4 || FirstWord(bytes.subspan(kEnvelope)).length == kHeader;
}

void Decode(Bytes bytes, const DecodeOptions& options, const std::function<void(const Piece&)>& sink) {
  if (bytes.empty()) return;
  Walker walker(bytes, options, sink);
  if (options.datagram) {
    walker.RunDatagram();
  } else {
    walker.Run();
  }
}

}  // namespace mqcat
