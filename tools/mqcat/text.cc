// text.cc - see text.hh.
#include "text.hh"

#include <iconv.h>

#include <algorithm>
#include <array>

#include "fmt/format.h"

namespace mqcat {
namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr size_t kDumpLine = 16;
constexpr size_t kNarrowest = 12;  // columns that wrapped text has at least

constexpr uint8_t kNoDigit = 0xff;
constexpr std::array<uint8_t, 256> kDigitValues = [] {
  std::array<uint8_t, 256> values{};
  values.fill(kNoDigit);
  for (uint8_t i = 0; i < 16; ++i) values[static_cast<uint8_t>(kDigits[i])] = i;
  for (uint8_t i = 10; i < 16; ++i) values[static_cast<size_t>('A' + i - 10)] = i;
  return values;
}();

bool IsPrintable(uint8_t c) { return c >= 0x20 && c < 0x7f; }

// Bytes of the UTF-8 character that begins at text[at]; 0 when none does.
size_t CharacterLength(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t first = byte(at);
  if (first < 0x80) return 1;
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() - at < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xc0) != 0x80) return 0;
  }
  const uint8_t second = byte(at + 1);
  if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f)) return 0;  // overlong; surrogates
  if ((first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f)) return 0;  // overlong; beyond U+10FFFF
  return length;
}

// The code point of a well-formed character.
uint32_t CodePoint(std::string_view character) {
  uint32_t point = static_cast<uint8_t>(character[0]);
  if (character.size() > 1) point &= 0xffu >> (character.size() + 1);
  for (const char c : character.substr(1)) point = point << 6 | (static_cast<uint8_t>(c) & 0x3f);
  return point;
}

// False for control characters and for marks that begin a line or change the direction of writing: they make the rest
// of a line look like something else.
bool IsSafe(uint32_t point) {
  if (point < 0x20 || (point >= 0x7f && point < 0xa0) || point == 0x61c) return false;
  if (point == 0x200e || point == 0x200f || (point >= 0x2028 && point <= 0x202e)) return false;
  return point < 0x2066 || point > 0x2069;
}

// Bytes that are appended unchanged: [0] without quotes, [1] within quotes.
constexpr std::array<std::array<bool, 256>, 2> kStays = [] {
  std::array<std::array<bool, 256>, 2> stays{};
  for (int c = 0x20; c < 0x7f; ++c) stays[0][c] = stays[1][c] = true;
  stays[1]['"'] = stays[1]['\\'] = false;
  return stays;
}();

// Appends at most limit characters of text. Characters that are not safe, bytes that are not UTF-8 and, when quoted,
// quotes and backslashes are appended by replace(out, bytes). Returns how many bytes were taken.
template <typename Replace>
size_t AppendSafe(std::string& out, std::string_view text, size_t limit, bool quoted, Replace replace) {
  const bool* const stays = kStays[quoted].data();
  size_t at = 0;
  for (size_t shown = 0; at < text.size() && shown < limit; ++shown) {
    const size_t begin = at;
    const size_t end = begin + std::min(text.size() - begin, limit - shown);
    while (at < end && stays[static_cast<uint8_t>(text[at])]) ++at;
    out.append(text, begin, at - begin);
    shown += at - begin;
    if (at == text.size() || shown == limit) break;
    const size_t length = CharacterLength(text, at);
    const std::string_view bytes = text.substr(at, std::max<size_t>(length, 1));
    if (length > 1 && IsSafe(CodePoint(bytes))) {
      out += bytes;
    } else {
      replace(out, bytes);
    }
    at += bytes.size();
  }
  return at;
}

std::string Escape(char c) {
  switch (c) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    case '"':
    case '\\':
      return std::string{'\\', c};
    default:
      return fmt::format("\\x{:02x}", static_cast<uint8_t>(c));
  }
}

void AppendEscaped(std::string& out, std::string_view bytes) {
  for (const char c : bytes) out += Escape(c);
}

// The same character in JSON; U+FFFD for a stray byte.
void AppendJsonEscape(std::string& out, std::string_view bytes) {
  const uint32_t point = CodePoint(bytes);
  if (point == '"' || point == '\\') {
    out.append("\\").append(bytes);
  } else {
    out += fmt::format("\\u{:04x}", bytes.size() == 1 && point > 0x7f ? 0xfffd : point);
  }
}

std::string DumpLine(Bytes line, size_t offset) {
  std::string hex, shown;
  for (size_t i = 0; i < kDumpLine; ++i) {
    if (i == kDumpLine / 2) hex += ' ';
    hex += i < line.size() ? fmt::format("{:02x} ", line[i]) : "   ";
    if (i < line.size()) shown += IsPrintable(line[i]) ? static_cast<char>(line[i]) : '.';
  }
  return fmt::format("{:08x}  {} |{}|\n", offset, hex, shown);
}

// Where the text of a line begins: after the last wide gap in its first half, else at its first character.
size_t HangingIndent(std::string_view line, size_t width) {
  const size_t first = std::min(line.find_first_not_of(' '), line.size());
  const size_t gap = line.substr(0, std::min(line.size(), width / 2 + 2)).rfind("  ");
  size_t indent = gap == std::string_view::npos || gap < first ? first : line.find_first_not_of(' ', gap);
  if (indent == std::string_view::npos || indent + kNarrowest > width) indent = std::min<size_t>(first, 4);
  return indent;
}

void WrapLine(std::string_view line, size_t width, std::string& out) {
  line = line.substr(0, line.find_last_not_of(' ') + 1);
  if (line.size() <= width) {
    out.append(line).append("\n");
    return;
  }
  const size_t indent = HangingIndent(line, width);
  size_t room = width;
  size_t floor = indent;  // no break before the text of the line begins
  while (line.size() > room) {
    size_t cut = line.rfind(' ', room);
    if (cut == std::string_view::npos || cut < floor) cut = line.find(' ', std::max(room, floor));
    if (cut == std::string_view::npos) break;
    out.append(line.substr(0, line.find_last_not_of(' ', cut) + 1)).append("\n").append(indent, ' ');
    line.remove_prefix(line.find_first_not_of(' ', cut));
    room = width - indent;
    floor = 0;
  }
  out.append(line).append("\n");
}

// Every byte of IBM1047 in UTF-8; nothing when the system's iconv does not know it.
std::optional<std::array<std::string, 256>> EbcdicTable() {
  const iconv_t converter = iconv_open("UTF-8", "IBM1047");
  if (converter == reinterpret_cast<iconv_t>(-1)) return std::nullopt;
  std::array<std::string, 256> table;
  bool whole = true;
  for (size_t i = 0; i < table.size(); ++i) {
    char byte = static_cast<char>(i), place[4];
    char *from = &byte, *to = place;
    size_t from_left = 1, to_left = sizeof place;
    whole = iconv(converter, &from, &from_left, &to, &to_left) == 0 && whole;
    table[i].assign(place, sizeof place - to_left);
  }
  iconv_close(converter);
  return whole ? std::optional(std::move(table)) : std::nullopt;
}

}  // namespace

std::string Hex(Bytes bytes, size_t limit, uint64_t size) {
  std::string out;
  for (const uint8_t byte : bytes.first(std::min(bytes.size(), limit))) {
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
  }
  if (size > std::min(bytes.size(), limit)) out += fmt::format("... ({} bytes)", size);
  return out;
}

bool AppendHex(std::vector<uint8_t>& bytes, std::string_view digits) {
  if (digits.size() % 2 != 0) return false;
  const size_t before = bytes.size();
  bytes.resize(before + digits.size() / 2);
  uint8_t wrong = 0;
  for (size_t i = 0; i < digits.size(); i += 2) {
    const uint8_t high = kDigitValues[static_cast<uint8_t>(digits[i])];
    const uint8_t low = kDigitValues[static_cast<uint8_t>(digits[i + 1])];
    wrong |= high | low;
    bytes[before + i / 2] = static_cast<uint8_t>(high << 4 | low);
  }
  if (wrong == kNoDigit) bytes.resize(before);
  return wrong != kNoDigit;
}

std::optional<std::vector<uint8_t>> FromHex(std::string_view digits) {
  std::vector<uint8_t> bytes;
  return AppendHex(bytes, digits) ? std::optional(std::move(bytes)) : std::nullopt;
}

std::string HexDump(Bytes bytes) {
  std::string out;
  for (size_t at = 0; at < bytes.size(); at += kDumpLine) {
    out += DumpLine(bytes.subspan(at, std::min(kDumpLine, bytes.size() - at)), at);
  }
  return out;
}

bool IsUtf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = CharacterLength(text, at);
    if (length == 0 || text[at] == '\0') return false;
    at += length;
  }
  return true;
}

std::string Quote(std::string_view text, size_t limit) {
  std::string out = "\"";
  const size_t shown = AppendSafe(out, text, limit, true, AppendEscaped);
  out += '"';
  if (shown < text.size()) out += fmt::format("... ({} bytes)", text.size());
  return out;
}

std::string Plain(std::string_view text) {
  std::string out;
  AppendSafe(out, text, SIZE_MAX, false, [](std::string& to, std::string_view) { to += '?'; });
  return out;
}

std::string SafeLines(std::string_view text) {
  std::string out;
  AppendSafe(out, text, SIZE_MAX, false, [](std::string& to, std::string_view bytes) {
    bytes == "\n" ? void(to += bytes) : AppendEscaped(to, bytes);
  });
  return out;
}

std::string SafeJson(std::string_view json) {
  std::string out;
  AppendSafe(out, json, SIZE_MAX, false, AppendJsonEscape);
  return out;
}

size_t AppendJsonString(std::string& out, std::string_view text, size_t limit) {
  out += '"';
  const size_t taken = AppendSafe(out, text, limit, true, AppendJsonEscape);
  out += '"';
  return taken;
}

std::optional<std::string> FromEbcdic(std::string_view text) {
  static const std::optional<std::array<std::string, 256>> table = EbcdicTable();
  if (!table) return std::nullopt;
  std::string out;
  for (const char c : text) out += (*table)[static_cast<uint8_t>(c)];
  return out;
}

std::string Count(uint64_t number, std::string_view what) {
  return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

std::string Wrap(std::string_view text, size_t width) {
  std::string out;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    WrapLine(text.substr(0, end), width, out);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return out;
}

}  // namespace mqcat
