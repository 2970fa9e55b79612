// log.cc - one line a message, to standard error or to a file.
// Everything that LOGMSG reaches is safe in a signal handler: no lock, no allocation, no stdio, no time zone. The file
// is opened for each line, so that no descriptor of ours can be closed and reused under us.
// Invariant: log_path is null or points at a complete path.

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "companion/host.h"
#include "runtime/runtime.h"

namespace {

constexpr size_t kMaxPath = 1024;
constexpr size_t kMaxLine = 1024;  // a longer message is cut
constexpr int kLogMode = 0640;

char path_places[2][kMaxPath];  // the one in use, and the one for the next change
std::atomic<const char*> log_path;
std::atomic<bool> path_known;

bool UsePath(const char* path) {
  if (path == nullptr || path[0] == '\0') {
    log_path.store(nullptr, std::memory_order_release);
  } else {
    const size_t length = strnlen(path, kMaxPath);
    if (length == kMaxPath) return false;
    char* place = path_places[log_path.load(std::memory_order_relaxed) == path_places[0] ? 1 : 0];
    memcpy(place, path, length + 1);
    log_path.store(place, std::memory_order_release);
  }
  path_known.store(true, std::memory_order_release);
  return true;
}

// Runs when the companion is loaded, while the environment is at rest; a line written even earlier runs it first.
__attribute__((constructor)) void TakePathFromEnvironment() {
  if (path_known.load(std::memory_order_acquire)) return;
  if (!UsePath(secure_getenv("MQCOMPANION_LOG"))) path_known.store(true, std::memory_order_release);
}

char* PutNumber(char* at, uint32_t value, int digits) {
  for (int i = digits - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
  return at + digits;
}

struct Date {
  uint32_t year, month, day;
};

// Gregorian date of a day counted from 1970-01-01, in eras of 400 years that begin on the first of March.
Date DateOfDay(uint64_t days) {
  const uint64_t shifted = days + 719468;
  const uint64_t era = shifted / 146097;
  const uint32_t day_of_era = static_cast<uint32_t>(shifted % 146097);
  const uint32_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const uint32_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const uint32_t march_month = (5 * day_of_year + 2) / 153;
  const uint32_t month = march_month < 10 ? march_month + 3 : march_month - 9;
  const uint32_t year = static_cast<uint32_t>(era * 400 + year_of_era + (month <= 2 ? 1 : 0));
  return {year, month, day_of_year - (153 * march_month + 2) / 5 + 1};
}

// "2024-02-29T12:34:56.789Z "
char* PutTime(char* at) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const uint64_t seconds = now.tv_sec < 0 ? 0 : static_cast<uint64_t>(now.tv_sec);
  const uint32_t of_day = static_cast<uint32_t>(seconds % 86400);
  const Date date = DateOfDay(seconds / 86400);
  at = PutNumber(at, date.year, 4);
  *at++ = '-';
  at = PutNumber(at, date.month, 2);
  *at++ = '-';
  at = PutNumber(at, date.day, 2);
  *at++ = 'T';
  at = PutNumber(at, of_day / 3600, 2);
  *at++ = ':';
  at = PutNumber(at, of_day / 60 % 60, 2);
  *at++ = ':';
  at = PutNumber(at, of_day % 60, 2);
  *at++ = '.';
  at = PutNumber(at, static_cast<uint32_t>(now.tv_nsec / 1000000), 3);
  *at++ = 'Z';
  *at++ = ' ';
  return at;
}

void WriteLine(int fd, const char* line, size_t length) {
  while (write(fd, line, length) < 0 && errno == EINTR) {
  }
}

}  // namespace

void LOGMSG(const char* text, int) {
  const int saved = errno;
  char line[kMaxLine];
  char* at = PutTime(line);
  // One message is one line, whatever a peer managed to have put into it.
  for (; *text != '\0' && at < line + kMaxLine - 1; ++text) {
    const bool control = static_cast<unsigned char>(*text) < ' ' || *text == 0x7f;
    *at++ = control ? '.' : *text;
  }
  *at++ = '\n';
  TakePathFromEnvironment();
  const char* path = log_path.load(std::memory_order_acquire);
  // A pipe that nobody reads must not block the caller.
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int fd = path == nullptr ? -1 : open(path, flags, kLogMode);
  WriteLine(fd < 0 ? STDERR_FILENO : fd, line, static_cast<size_t>(at - line));
  if (fd >= 0) close(fd);
  errno = saved;
}

int mqc_log_to(const char* path) { return UsePath(path) ? 1 : 0; }
