// text.hh - makes bytes and texts safe to print: hexadecimal, quoting, wrapping. Nothing here trusts its input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mqcat {

using Bytes = std::span<const uint8_t>;

inline Bytes BytesOf(std::string_view text) { return {reinterpret_cast<const uint8_t*>(text.data()), text.size()}; }

// Lower-case hexadecimal digits of at most limit bytes. If size, the number of all bytes, is more than are shown, "..."
// and that number follow.
std::string Hex(Bytes bytes, size_t limit, uint64_t size);
inline std::string Hex(Bytes bytes, size_t limit = SIZE_MAX) { return Hex(bytes, limit, bytes.size()); }

// Appends the bytes given by an even number of hexadecimal digits. False, with nothing appended, for other texts.
bool AppendHex(std::vector<uint8_t>& bytes, std::string_view digits);

// The bytes given by an even number of hexadecimal digits; nothing for any other text.
std::optional<std::vector<uint8_t>> FromHex(std::string_view digits);

// Lines of 16 bytes: offset, hexadecimal, the printable characters between bars.
std::string HexDump(Bytes bytes);

// Whether the bytes are well-formed UTF-8 without a zero byte.
bool IsUtf8(std::string_view text);

// Texts of peers, made safe for a terminal: control characters, stray bytes and marks that change the direction of
// writing are replaced; other UTF-8 stays.

// In quotes, on one line, with escapes. At most limit characters are shown; if there are more, "..." and the number of
// bytes follow.
std::string Quote(std::string_view text, size_t limit = SIZE_MAX);

// With a question mark in place of each, for names.
std::string Plain(std::string_view text);

// With escapes; lines stay lines.
std::string SafeLines(std::string_view text);

// Appends at most limit characters as a JSON string, with U+FFFD for a byte that is not UTF-8. Returns how many bytes
// of text it contains.
size_t AppendJsonString(std::string& out, std::string_view text, size_t limit = SIZE_MAX);

// JSON on one line, in UTF-8, with JSON's own escapes, so that the value is the same.
std::string SafeJson(std::string_view json);

// EBCDIC (IBM1047) as UTF-8; nothing when the system's iconv does not know it.
std::optional<std::string> FromEbcdic(std::string_view text);

// "1 message", "2 messages".
std::string Count(uint64_t number, std::string_view what);

// Breaks lines longer than width at blanks. Continuation lines are indented to the column where the text of their line
// begins: after the last run of two or more blanks, or at the first character.
std::string Wrap(std::string_view text, size_t width);

}  // namespace mqcat
