// text.cc - the user's name, the three in-place text functions, byte order and character set of the host.

#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <bit>

#include "runtime/runtime.h"

namespace {

bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

int CopyName(const char* name, char* buf, int* len) {
  const size_t length = strlen(name);
  if (length == 0 || length >= static_cast<size_t>(*len)) return 0;
  memcpy(buf, name, length + 1);
  *len = static_cast<int>(length);
  return 1;
}

}  // namespace

// The name in the effective user's passwd entry; LOGNAME if there is no entry, as in many containers.
int GetUserName(char* buf, int* len) {
  if (*len <= 0) return 0;
  passwd entry;
  passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(geteuid(), &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr) {
    return CopyName(found->pw_name, buf, len);
  }
  const char* name = secure_getenv("LOGNAME");
  return name != nullptr ? CopyName(name, buf, len) : 0;
}

void strip_spaces(char* s) {
  char* out = s;
  for (; *s != '\0'; ++s) {
    if (!IsSpace(*s)) *out++ = *s;
  }
  *out = '\0';
}

// ASCII letters only: what is sent must not depend on the application's locale.
void strupper(char* s) {
  for (; *s != '\0'; ++s) {
    if (*s >= 'a' && *s <= 'z') *s = static_cast<char>(*s - 'a' + 'A');
  }
}

void trim_str(char* s) {
  const char* start = s;
  while (IsSpace(*start)) ++start;
  size_t length = strlen(start);
  while (length > 0 && IsSpace(start[length - 1])) --length;
  memmove(s, start, length);
  s[length] = '\0';
}

uint32_t bwlong(uint32_t v) { return __builtin_bswap32(v); }

int IsLtEndian(void) { return std::endian::native == std::endian::little ? 1 : 0; }

int IsAscText(void) { return 'A' == 0x41 ? 1 : 0; }
