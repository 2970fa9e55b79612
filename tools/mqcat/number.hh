// number.hh - numbers from text; the whole text must be a number within the bounds.
#pragma once

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>
#include <system_error>

namespace mqcat {

// Decimal, or hexadecimal after 0x; a sign only where T has one.
template <typename T>
std::optional<T> ParseNumber(std::string_view text, T min, T max) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
    if (text[0] == '-') return std::nullopt;
  }
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc{} || end != text.data() + text.size() || value < min || value > max) return std::nullopt;
  return value;
}

// Seconds with a fraction.
inline std::optional<double> ParseSeconds(std::string_view text, double min, double max) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
  if (error != std::errc{} || end != text.data() + text.size() || !(value >= min && value <= max)) return std::nullopt;
  return value;
}

}  // namespace mqcat
