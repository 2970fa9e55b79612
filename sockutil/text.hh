// text.hh - fixed-size text fields: the one bounded copy that every module uses.
#pragma once

#include <cstddef>
#include <cstring>

namespace mq {

// Copies text into a field of size bytes: at most size - 1 characters, always terminated. Source and field may be the
// same place.
inline void CopyText(char* field, size_t size, const char* text) {
  const size_t length = strnlen(text, size - 1);
  memmove(field, text, length);
  field[length] = '\0';
}

template <size_t N>
void CopyText(char (&field)[N], const char* text) {
  CopyText(field, N, text);
}

// Copies one field into another; the source need not be terminated.
template <size_t N, size_t M>
void CopyField(char (&field)[N], const char (&text)[M]) {
  const size_t length = strnlen(text, M < N ? M : N - 1);
  memmove(field, text, length);
  field[length] = '\0';
}

// Copies at most limit characters of text and fills the rest of the field with zero bytes; a field no larger than limit
// may end up without a terminator, as fields on the wire do. Text may lie inside the field's own record, not overlap
// it.
inline void CopyPadded(char* field, size_t size, const char* text, size_t limit) {
  const size_t length = strnlen(text, limit);
  memcpy(field, text, length);
  memset(field + length, 0, size - length);
}

// Fills a short field of a header from text: the same with limit and size one constant, without a call.
template <size_t N>
void FillField(char (&field)[N], const char* text) {
  memset(field, 0, N);
  for (size_t i = 0; i < N && text[i] != '\0'; ++i) field[i] = text[i];
}

}  // namespace mq
