// keyline.cc - keys as text: hexadecimal digits, and the lines of key files.
// Not here: files (keys.cc), the ring (ring.cc).

#include <sodium.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iterator>

#include "companion/keys.hh"

namespace mqc {
namespace {

constexpr char kBlanks[] = " \t\r";
constexpr char kUntil[] = "until=";
constexpr size_t kDate = 10;           // length of 2027-06-30
constexpr int64_t kDay = 86400000;     // milliseconds
constexpr int64_t kLastDay = 2932896;  // 9999-12-31

struct Word {
  const char* start;
  size_t length;
};

bool Is(Word word, const char* text) {
  return word.length == strlen(text) && memcmp(word.start, text, word.length) == 0;
}

// The next word of the line; empty at its end and at a comment. Moves *line past the word.
Word NextWord(const char** line) {
  const char* start = *line + strspn(*line, kBlanks);
  const size_t length = strcspn(start, " \t\r#");
  *line = start + length;
  return {start, length};
}

bool ReadUser(Word word, char user[MQC_USER_MAX + 1]) {
  if (word.length > MQC_USER_MAX) return false;
  memcpy(user, word.start, word.length);
  user[word.length] = '\0';
  return IsUser(user);
}

bool ReadDigits(const char* digits, size_t length, uint8_t key[MQC_KEY_BYTES]) {
  size_t size = 0;
  const bool valid = length == 2 * MQC_KEY_BYTES &&
                     sodium_hex2bin(key, MQC_KEY_BYTES, digits, length, nullptr, &size, nullptr) == 0 &&
                     size == MQC_KEY_BYTES;
  if (!valid) sodium_memzero(key, MQC_KEY_BYTES);
  return valid;
}

bool ReadNumber(const char* digits, size_t length, unsigned* number) {
  const auto [end, error] = std::from_chars(digits, digits + length, *number);
  return error == std::errc{} && end == digits + length;
}

// Sets *until to the last millisecond of a day, given as YYYY-MM-DD.
bool ReadDate(const char* text, size_t length, int64_t* until) {
  unsigned year, month, day;
  if (length != kDate || text[4] != '-' || text[7] != '-') return false;
  if (!ReadNumber(text, 4, &year) || !ReadNumber(text + 5, 2, &month) || !ReadNumber(text + 8, 2, &day)) return false;
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(year)), std::chrono::month(month),
                                         std::chrono::day(day)};
  if (!date.ok() || year < 1970) return false;
  *until = (std::chrono::sys_days(date).time_since_epoch().count() + 1) * kDay - 1;
  return true;
}

// Reads one of the words after the key. They may come in any order, but each only once.
bool ReadAttribute(Word word, MqcKey* key) {
  if (Is(word, "public") || Is(word, "secret")) {
    if (key->kind != MQC_KEY_UNMARKED) return false;
    key->kind = Is(word, "public") ? MQC_KEY_PUBLIC : MQC_KEY_SECRET;
    return true;
  }
  if (Is(word, "revoked")) {
    const bool first = key->revoked == 0;
    key->revoked = 1;
    return first;
  }
  constexpr size_t kStart = sizeof(kUntil) - 1;
  return key->until == MQC_NO_END && word.length > kStart && memcmp(word.start, kUntil, kStart) == 0 &&
         ReadDate(word.start + kStart, word.length - kStart, &key->until);
}

bool ReadLine(const char* line, MqcKey* key) {
  Word word = NextWord(&line);
  if (word.length == 0) return true;
  if (!ReadUser(word, key->user)) return false;
  word = NextWord(&line);
  if (!ReadDigits(word.start, word.length, key->key)) return false;
  while ((word = NextWord(&line)).length != 0) {
    if (!ReadAttribute(word, key)) return false;
  }
  return true;
}

}  // namespace

bool IsUser(const char* user) {
  size_t length = 0;
  for (; user[length] != '\0'; ++length) {
    const char c = user[length];
    if (length == MQC_USER_MAX || c <= ' ' || c > '~' || c == '#') return false;
  }
  return length != 0;
}

Date DateOf(int64_t time) {
  const int64_t days = std::clamp<int64_t>(time / kDay, 0, kLastDay);
  const std::chrono::year_month_day day{std::chrono::sys_days(std::chrono::days(days))};
  Date date;
  snprintf(date.text, sizeof(date.text), "%04d-%02u-%02u", static_cast<int>(day.year()),
           static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
  return date;
}

}  // namespace mqc

using namespace mqc;

void mqc_key_text(const uint8_t key[MQC_KEY_BYTES], char text[MQC_KEY_TEXT]) {
  sodium_bin2hex(text, MQC_KEY_TEXT, key, MQC_KEY_BYTES);
}

int mqc_key_from_text(const char* text, uint8_t key[MQC_KEY_BYTES]) {
  return ReadDigits(text, strnlen(text, 2 * MQC_KEY_BYTES + 1), key);
}

int mqc_key_read(const char* line, MqcKey* key) {
  *key = {};
  key->until = MQC_NO_END;
  if (ReadLine(line, key)) return 1;
  sodium_memzero(key, sizeof(*key));
  return 0;
}

void mqc_key_write(const MqcKey* key, char line[MQC_KEY_LINE]) {
  constexpr const char* kKinds[] = {"", " public", " secret"};
  const size_t user = strnlen(key->user, MQC_USER_MAX);
  memcpy(line, key->user, user);
  line[user] = ' ';
  char* const digits = line + user + 1;
  mqc_key_text(key->key, digits);
  const bool ends = key->until != MQC_NO_END;
  char* const rest = digits + 2 * MQC_KEY_BYTES;
  snprintf(rest, static_cast<size_t>(line + MQC_KEY_LINE - rest), "%s%s%s%s",
           key->kind < std::size(kKinds) ? kKinds[key->kind] : "", ends ? " until=" : "",
           ends ? DateOf(key->until).text : "", key->revoked != 0 ? " revoked" : "");
}
