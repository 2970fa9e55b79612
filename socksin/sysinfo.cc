// sysinfo.cc - information about the host: its label, its processors, and whether TCP/IP is active.
// Not here: the alarm guard (alarm.cc).
// Invariant: labels and log lines never exceed the size of their buffers.
#include "socksin/sysinfo.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "runtime/runtime.h"
#include "sockutil/text.hh"

namespace {

constexpr size_t kPieceSize = 256;
constexpr size_t kFieldLength = 48;
constexpr char kSeparator[] = "::";
constexpr size_t kHostNameSize = 256;
constexpr size_t kLogLineSize = 512;
constexpr unsigned kCheckSeconds = 5;
constexpr unsigned kCycleSeconds = 300;

// Appends piece and separator if, with the terminator, they take fewer than *room bytes.
void AppendPiece(char* label, int* room, const char* piece) {
  const int cost = static_cast<int>(strlen(piece)) + static_cast<int>(sizeof kSeparator);
  if (cost >= *room) return;
  strcat(label, piece);
  strcat(label, kSeparator);
  *room -= cost;
}

// Copies a field, which need not be null-terminated, and trims the copy.
template <size_t N>
void TrimmedCopy(char (&copy)[N], const char* field, size_t fieldSize) {
  mq::CopyPadded(copy, N, field, fieldSize < N - 1 ? fieldSize : N - 1);
  trim_str(copy);
}

// Logs prefix, who and suffix as one line. Truncates who if the line would be too long.
void LogWho(const char* prefix, const char* who, const char* suffix) {
  char line[kLogLineSize];
  const int room = static_cast<int>(sizeof line - 1 - strlen(prefix) - strlen(suffix));
  snprintf(line, sizeof line, "%s%.*s%s", prefix, room, who, suffix);
  LOGMSG(line, 1);
}

}  // namespace

int GetSysInfo(utsname* info) {
  memset(info, 0, sizeof *info);
  return uname(info) >= 0;
}

void GetSysLabel(const utsname* info, char* label, int room, int withMachine) {
  char piece[kPieceSize];
  TrimmedCopy(piece, info->sysname, sizeof info->sysname);
  AppendPiece(label, &room, piece);

  char version[kFieldLength + 1];
  char release[kFieldLength + 1];
  TrimmedCopy(version, info->version, sizeof info->version);
  TrimmedCopy(release, info->release, sizeof info->release);
  snprintf(piece, sizeof piece, "V%s.R%s", version, release);
  AppendPiece(label, &room, piece);

  if (!withMachine) return;
  TrimmedCopy(piece, info->machine, sizeof info->machine);
  AppendPiece(label, &room, piece);
}

int GetProcessorCount(void) {
  if (const char* const text = getenv("TEVRA_CPU_COUNT"); text != nullptr) {
    const int count = atoi(text);
    return count < 1 ? 1 : count;
  }
  errno = ENOSYS;
  return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
}

int bTcpipNotActive(int verbose) {
  char name[kHostNameSize] = {};
  const int result = gethostname(name, sizeof name - 1);
  const int code = result < 0 ? errno : 0;
  if (result >= 0) return 0;
  if (verbose) {
    const time_t now = time(nullptr);
    const char* const date = ctime(&now);
    printf("Date: %s", date != nullptr ? date : "\n");
    printf("SOCKSIN: bTcpipNotActive() = %s; gethostname() RC(%d) errno(%d) nodename(%s)\n", "ITRUE", result, code,
           name);
  }
  return 1;
}

int bWaitForTcpip(int verbose, const char* who) {
  if (!bTcpipNotActive(1)) return 0;
  for (bool first = true;; first = false) {
    LogWho("1157I ", who, " Waiting for TCP/IP to become active");
    for (unsigned waited = 0; waited < kCycleSeconds; waited += kCheckSeconds) {
      sleep(kCheckSeconds);
      if (bTcpipNotActive(verbose || (!first && waited == 0))) continue;
      LogWho("1158I TCP/IP now active, initialization will proceed for ", who, "");
      sleep(kCheckSeconds);
      return 0;
    }
  }
}
