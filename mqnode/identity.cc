// identity.cc - finds the application's name in the process listing.
// Not here: the user name (the companion's GetUserName), the names in a message (compose.cc).
// Invariant: only the first 48 bytes of the caller's buffer are written, and the *len bytes that are cleared.
#include "mqnode/identity.h"

#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/runtime.h"
#include "sockutil/text.hh"

char G_szApplName[49] = "";

namespace {

constexpr size_t kNameLength = 48;
constexpr size_t kCommandSize = 512;
constexpr size_t kPathSize = 256;
constexpr size_t kLineSize = 512;
constexpr size_t kLongestHome = 244;  // kPathSize less a slash, ten digits and the terminator
constexpr char kUnknown[] = "UNKNOWN";
constexpr char kListingCommand[] = "ps -p %d | grep -v CMD | grep -v COMMAND  | awk '{print $4}'  > $TEVRA_HOME/%d";

// A regular file of the effective or the real user: the shell may drop privileges.
bool IsOwnFile(const struct stat& file) {
  return S_ISREG(file.st_mode) && (file.st_uid == geteuid() || file.st_uid == getuid());
}

// Removes an old scratch file of this user, so that the shell creates a new one. Returns false if anything else has
// that name: it may be a symbolic link or a FIFO of another user, through which the shell would write.
bool ClearPath(const char* path) {
  const int saved = errno;  // a later lookup must not report the ENOENT that is normal here
  struct stat info;
  const bool clear = lstat(path, &info) != 0 || (IsOwnFile(info) && remove(path) == 0);
  errno = saved;
  return clear;
}

// Reads the first line of the scratch file; empty if the file is. Returns false if the file belongs to another user.
bool ReadLine(FILE* file, char (&line)[kLineSize]) {
  struct stat opened;
  if (fstat(fileno(file), &opened) != 0 || !IsOwnFile(opened)) return false;
  line[0] = '\0';
  if (fgets(line, sizeof line, file) == nullptr) line[0] = '\0';
  return true;
}

// Runs the listing and reads the first line of its output.
bool ReadCommandName(int pid, const char* home, char (&line)[kLineSize]) {
  char path[kPathSize];
  snprintf(path, sizeof path, "%s/%d", home, pid);
  if (!ClearPath(path)) return false;

  char command[kCommandSize];
  snprintf(command, sizeof command, kListingCommand, pid, pid);
  // The exit status does not matter: the file shows whether there is a name.
  [[maybe_unused]] const int status = system(command);

  FILE* const file = fopen(path, "r");
  if (file == nullptr) return false;
  const bool own = ReadLine(file, line);
  fclose(file);
  remove(path);
  return own;
}

// The name is sent in messages and may be printed on terminals.
void ReplaceUnprintable(char* name) {
  for (; *name != '\0'; ++name) {
    if (*name < ' ' || *name > '~') *name = '?';
  }
}

// Cuts the line at the first newline after its last blank.
void CutNewline(char* line) {
  for (size_t i = strlen(line); i-- > 0;) {
    if (line[i] == ' ') return;
    if (line[i] == '\n') line[i] = '\0';
  }
}

}  // namespace

void SetApplName(const char* name) {
  if (name != nullptr) mq::CopyText(G_szApplName, name);
}

int GetApplName(char* out, int* len) {
  if (*len > 0) memset(out, 0, static_cast<size_t>(*len));
  memcpy(out, kUnknown, sizeof kUnknown);
  *len = 0;

  const int pid = getpid();
  const char* const home = getenv("TEVRA_HOME");
  if (home == nullptr || pid == 0 || strlen(home) > kLongestHome) return 1;
  // A process with more privileges than its caller must not run commands that the caller's environment selects.
  if (getauxval(AT_SECURE) != 0) return 1;  // GCOVR_EXCL_BR_LINE: set-user-ID programs
  char line[kLineSize];
  if (!ReadCommandName(pid, home, line)) return 1;

  CutNewline(line);
  char name[kNameLength + 1];
  mq::CopyPadded(name, sizeof name, line, kNameLength);
  strip_spaces(name);
  strupper(name);
  ReplaceUnprintable(name);
  *len = static_cast<int>(strnlen(name, kNameLength));
  // strip_spaces leaves characters after the terminator, which are not part of the name.
  mq::CopyPadded(out, kNameLength, name, kNameLength);
  return 1;
}
