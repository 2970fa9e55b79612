// log.cc - writes one line per message to standard error or to a file.
// LOGMSG is async-signal-safe: it takes no lock, allocates nothing, and uses neither stdio nor the time zone. The file
// is opened for each line, so that the application cannot close its file descriptor and reuse the number. The only
// socket that is written to is the journal's: in a process that was started without standard error, file descriptor 2
// may be a connection.
// Invariants: log_file is null or points to a complete entry. A line that cannot be written at once is dropped and
// counted.

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "companion/host.h"
#include "runtime/runtime.h"

namespace {

constexpr size_t kMaxPath = 1024;
constexpr size_t kMaxLine = 1024;  // longer messages are truncated; below PIPE_BUF, so that writes to a pipe are atomic
constexpr int kLogMode = 0640;

struct LogFile {
  char path[kMaxPath];
  bool is_checked;  // named by the environment: it must be a regular file of this user
};

LogFile log_files[2];  // the one in use, and the one for the next change
std::atomic<const LogFile*> log_file;
std::atomic<bool> file_known;
std::atomic<uint32_t> lost_lines;

// The socket that the service manager passed to this process as standard error.
dev_t journal_device;
ino_t journal_inode;

bool UsePath(const char* path, bool is_checked) {
  if (path == nullptr || path[0] == '\0') {
    log_file.store(nullptr, std::memory_order_release);
  } else {
    const size_t length = strnlen(path, kMaxPath);
    if (length == kMaxPath) return false;
    LogFile& next = log_files[log_file.load(std::memory_order_relaxed) == &log_files[0] ? 1 : 0];
    memcpy(next.path, path, length + 1);
    next.is_checked = is_checked;
    log_file.store(&next, std::memory_order_release);
  }
  file_known.store(true, std::memory_order_release);
  return true;
}

// JOURNAL_STREAM is "device:inode" of that socket.
void TakeJournal(const char* stream) {
  char* end = nullptr;
  if (stream == nullptr) return;
  const auto device = strtoull(stream, &end, 10);
  if (*end != ':') return;
  journal_device = device;
  journal_inode = strtoull(end + 1, nullptr, 10);
}

// Runs when the companion is loaded, before other threads can change the environment. LOGMSG runs it if called earlier.
__attribute__((constructor)) void TakeEnvironment() {
  if (file_known.load(std::memory_order_acquire)) return;
  TakeJournal(secure_getenv("JOURNAL_STREAM"));
  if (!UsePath(secure_getenv("MQCOMPANION_LOG"), true)) file_known.store(true, std::memory_order_release);
}

char* PutNumber(char* at, uint32_t value, int digits) {
  for (int i = digits - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
  return at + digits;
}

struct Date {
  uint32_t year, month, day;
};

// Gregorian date of a day counted from 1970-01-01, computed in eras of 400 years that begin on 1 March.
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

// Forms the line for this text. Returns its length, at most kMaxLine.
size_t FormLine(char line[kMaxLine], const char* text) {
  char* at = PutTime(line);
  // The text may contain data of a peer: without control characters, one message is always one line.
  for (; *text != '\0' && at < line + kMaxLine - 1; ++text) {
    const bool control = static_cast<unsigned char>(*text) < ' ' || *text == 0x7f;
    *at++ = control ? '.' : *text;
  }
  *at++ = '\n';
  return static_cast<size_t>(at - line);
}

bool IsOwnRegularFile(int fd) {
  struct stat about;
  return fstat(fd, &about) == 0 && S_ISREG(about.st_mode) && about.st_uid == geteuid();
}

// Opens the log file. Returns its file descriptor, or -1 if there is no file or it must not be written to.
int OpenFile(const LogFile* file) {
  if (file == nullptr) return -1;
  // O_NONBLOCK, because a FIFO without a reader must not block the caller.
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int fd = open(file->path, file->is_checked ? flags | O_NOFOLLOW : flags, kLogMode);
  if (fd < 0 || !file->is_checked || IsOwnRegularFile(fd)) return fd;
  close(fd);
  return -1;
}

// Whether standard error may and can be written to now. Sets *is_pipe if so.
bool IsStandardErrorWritable(bool* is_pipe) {
  struct stat about;
  if (fstat(STDERR_FILENO, &about) != 0) return false;
  const bool is_journal = about.st_dev == journal_device && about.st_ino == journal_inode;
  if (S_ISSOCK(about.st_mode) && !is_journal) return false;
  *is_pipe = S_ISFIFO(about.st_mode);
  pollfd state = {STDERR_FILENO, POLLOUT, 0};
  return poll(&state, 1, 0) == 1 && state.revents == POLLOUT;
}

// Returns a file descriptor for writing one line to standard error: 2 or a new one; -1 if it is not writable now. A
// pipe is opened again, non-blocking, because other processes may fill it after the poll; O_NONBLOCK on descriptor 2
// itself would affect all processes that share it.
int OpenStandardError() {
  bool is_pipe = false;
  if (!IsStandardErrorWritable(&is_pipe)) return -1;
  const int reopened = is_pipe ? open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY) : -1;
  return reopened >= 0 ? reopened : STDERR_FILENO;
}

bool WriteText(int fd, const char* text) {
  char line[kMaxLine];
  const size_t length = FormLine(line, text);
  ssize_t put;
  do {
    put = write(fd, line, length);
  } while (put < 0 && errno == EINTR);
  return put == static_cast<ssize_t>(length);
}

// "1903W lines lost before this one: 17"
bool ReportLost(int fd, uint32_t lost) {
  char text[64] = "1903W lines lost before this one: ";
  int digits = 1;
  for (uint32_t rest = lost; rest > 9; rest /= 10) ++digits;
  *PutNumber(text + strlen(text), lost, digits) = '\0';
  return WriteText(fd, text);
}

// Writes the line, after a line with the number of lost ones, if any. Returns false if this line is lost.
bool WriteLines(int fd, const char* text) {
  const uint32_t lost = fd < 0 ? 0 : lost_lines.exchange(0, std::memory_order_relaxed);
  if (lost != 0 && !ReportLost(fd, lost)) {
    lost_lines.fetch_add(lost, std::memory_order_relaxed);
    return false;
  }
  return fd >= 0 && WriteText(fd, text);
}

}  // namespace

void LOGMSG(const char* text, int) {
  const int saved = errno;
  TakeEnvironment();
  int fd = OpenFile(log_file.load(std::memory_order_acquire));
  const bool to_file = fd >= 0;
  if (!to_file) fd = OpenStandardError();
  if (!WriteLines(fd, text)) lost_lines.fetch_add(1, std::memory_order_relaxed);
  if (fd >= 0 && (to_file || fd != STDERR_FILENO)) close(fd);
  errno = saved;
}

int mqc_log_to(const char* path) { return UsePath(path, false) ? 1 : 0; }
