// text.hh - bytes and texts made fit to be shown: hexadecimal, quoting, wrapping. Nothing here trusts its input.
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

// Lower-case hexadecimal digits of at most limit bytes; "..." and the number of bytes follow when there are more.
std::string Hex(Bytes bytes, size_t limit = SIZE_MAX);

// Appends the bytes that an even number of hexadecimal digits stand for. False, with nothing appended, for other texts.
bool AppendHex(std::vector<uint8_t>& bytes, std::string_view digits);

// The bytes that an even number of hexadecimal digits stand for; nothing for any other text.
std::optional<std::vector<uint8_t>> FromHex(std::string_view digits);

// Lines of 16 bytes: offset, hexadecimal, the printable characters between bars.
std::string HexDump(Bytes bytes);

// Whether the bytes are well-formed UTF-8 without a zero byte.
bool IsUtf8(std::string_view text);

// Texts of peers, made fit for a terminal. Control characters, stray bytes and marks that turn the direction of writing
// are replaced; other UTF-8 stays.

// In quotes, on one line, with escapes. At most limit characters are shown; "..." and the number of bytes follow when
// there are more.
std::string Quote(std::string_view text, size_t limit = SIZE_MAX);

// With a question mark for each, for names.
std::string Plain(std::string_view text);

// With escapes; lines stay lines.
std::string SafeLines(std::string_view text);

// Appends a string of JSON.
void AppendJsonString(std::string& out, std::string_view text);

// JSON on one line, in UTF-8: with escapes of JSON, so that it stands for the same value.
std::string SafeJson(std::string_view json);

// EBCDIC (IBM1047) as UTF-8; nothing when the system's iconv does not know it.
std::optional<std::string> FromEbcdic(std::string_view text);

// "1 message", "2 messages".
std::string Count(uint64_t number, std::string_view what);

// Breaks lines longer than width at blanks; continued lines are indented as the text of their line is, which begins
// behind the last run of two or more blanks, or at the first character.
std::string Wrap(std::string_view text, size_t width);

}  // namespace mqcat
