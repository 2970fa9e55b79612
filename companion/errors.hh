// errors.hh - one bounded line of error text.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

namespace mqc {

constexpr size_t kErrorText = 160;  // enough for every text of the messages and the signatures

// Where an error text goes: a caller's place, which may be null, or one of ours.
struct ErrorText {
  char* place;
  size_t size;
};

inline void Clear(ErrorText error) {
  if (error.place != nullptr && error.size != 0) error.place[0] = '\0';
}

// Always false, so that a check reads: return Fail(error, ...).
[[gnu::cold, gnu::noinline, gnu::format(printf, 2, 3)]] inline bool Fail(ErrorText error, const char* format, ...) {
  if (error.place == nullptr || error.size == 0) return false;
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(error.place, error.size, format, arguments);
  va_end(arguments);
  return false;
}

}  // namespace mqc
