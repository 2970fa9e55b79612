// errors.hh - one bounded line of error text.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

namespace mqc {

constexpr size_t kErrorText = 160;  // no error text about messages or signatures is longer

// Destination of an error text: the caller's buffer, which may be null, or one of the companion's.
struct ErrorText {
  char* text;
  size_t size;
};

inline void Clear(ErrorText error) {
  if (error.text != nullptr && error.size != 0) error.text[0] = '\0';
}

// Formats the text. Always returns false, so that a check can end with: return Fail(error, ...).
[[gnu::cold, gnu::noinline, gnu::format(printf, 2, 3)]] inline bool Fail(ErrorText error, const char* format, ...) {
  if (error.text == nullptr || error.size == 0) return false;
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(error.text, error.size, format, arguments);
  va_end(arguments);
  return false;
}

}  // namespace mqc
