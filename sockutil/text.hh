// text.hh - bounded copies into fixed-size text fields.
#pragma once

#include <cstddef>
#include <cstring>

namespace mq {

// Copies at most size - 1 characters of text into field, which is always null-terminated. text and field may overlap.
inline void CopyText(char* field, size_t size, const char* text) {
  const size_t length = strnlen(text, size - 1);
  memmove(field, text, length);
  field[length] = '\0';
}

template <size_t N>
void CopyText(char (&field)[N], const char* text) {
  CopyText(field, N, text);
}

// Copies one field into another, which is always null-terminated; the source need not be.
template <size_t N, size_t M>
void CopyField(char (&field)[N], const char (&text)[M]) {
  const size_t length = strnlen(text, M < N ? M : N - 1);
  memmove(field, text, length);
  field[length] = '\0';
}

// Copies at most limit characters of text, limit being at most size, and fills the rest of the field with zero bytes.
// If limit equals size, the field may end up without a terminator, like the fields of a header. text must not overlap
// field.
inline void CopyPadded(char* field, size_t size, const char* text, size_t limit) {
  const size_t length = strnlen(text, limit);
  memcpy(field, text, length);
  memset(field + length, 0, size - length);
}

// CopyPadded with limit N, for the short fields of a header: a loop instead of library calls.
template <size_t N>
void FillField(char (&field)[N], const char* text) {
  memset(field, 0, N);
  for (size_t i = 0; i < N && text[i] != '\0'; ++i) field[i] = text[i];
}

}  // namespace mq
