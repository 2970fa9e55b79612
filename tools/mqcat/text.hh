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

// The bytes that an even number of hexadecimal digits stand for; nothing for any other text.
std::optional<std::vector<uint8_t>> FromHex(std::string_view digits);

// Lines of 16 bytes: offset, hexadecimal, the printable characters between bars.
std::string HexDump(Bytes bytes);

// Whether the bytes are well-formed UTF-8 without a zero byte.
bool IsUtf8(std::string_view text);

// The text in quotes, on one line: valid UTF-8 stays, control characters and stray bytes become escapes. At most limit
// characters are shown; "..." and the number of bytes follow when there are more.
std::string Quote(std::string_view text, size_t limit = SIZE_MAX);

// The text without control characters and stray bytes, for names that came from a peer.
std::string Plain(std::string_view text);

// EBCDIC (IBM1047) as UTF-8; nothing when the system's iconv does not know it.
std::optional<std::string> FromEbcdic(std::string_view text);

// "1 message", "2 messages".
std::string Count(uint64_t number, std::string_view what);

// Breaks lines longer than width at blanks; continued lines are indented as the text of their line is, which begins
// behind the last run of two or more blanks, or at the first character.
std::string Wrap(std::string_view text, size_t width);

}  // namespace mqcat
