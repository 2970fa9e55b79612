// identity.cc - finds the program's name in the process listing.
// Not here: the user's name, the companion's; where the names go in a message (compose.cc).
// Invariant: of the caller's area only its first 48 bytes and those it asked to clear are written.
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
constexpr size_t kLongestHome = 244;  // leaves room for a slash and a process id in the path
constexpr char kUnknown[] = "UNKNOWN";
constexpr char kListingCommand[] = "ps -p %d | grep -v CMD | grep -v COMMAND  | awk '{print $4}'  > $TEVRA_HOME/%d";

// The shell may run with the real user's rights.
bool IsOwnFile(const struct stat& file) {
  return S_ISREG(file.st_mode) && (file.st_uid == geteuid() || file.st_uid == getuid());
}

// Makes sure that the shell creates the scratch file. One that this user left behind is removed; anything else at that
// place, a symbolic link or a FIFO, may have been put there by another user: the shell would write through it.
bool ClearPath(const char* path) {
  const int before = errno;  // that nothing is there is no error that a lookup should report later
  struct stat there;
  const bool clear = lstat(path, &there) != 0 || (IsOwnFile(there) && remove(path) == 0);
  errno = before;
  return clear;
}

// Reads the first line of the scratch file; the line is empty when the file is.
bool ReadLine(FILE* file, char (&line)[kLineSize]) {
  struct stat opened;
  if (fstat(fileno(file), &opened) != 0 || !IsOwnFile(opened)) return false;
  line[0] = '\0';
  if (fgets(line, sizeof line, file) == nullptr) line[0] = '\0';
  return true;
}

// Runs the listing and reads the first line of what it wrote.
bool ReadCommandName(int pid, const char* home, char (&line)[kLineSize]) {
  char path[kPathSize];
  snprintf(path, sizeof path, "%s/%d", home, pid);
  if (!ClearPath(path)) return false;

  char command[kCommandSize];
  snprintf(command, sizeof command, kListingCommand, pid, pid);
  // The shell's status does not matter: the file tells whether there is a name.
  [[maybe_unused]] const int status = system(command);

  FILE* const file = fopen(path, "r");
  if (file == nullptr) return false;
  const bool own = ReadLine(file, line);
  fclose(file);
  remove(path);
  return own;
}

// The name travels in messages and ends up on terminals.
void ReplaceUnprintable(char* name) {
  for (; *name != '\0'; ++name) {
    if (*name < ' ' || *name > '~') *name = '?';
  }
}

// Cuts the newline off the end of the line, looking no further back than to the last blank.
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
  // A process with more rights than its caller does not run commands that the caller's environment chooses.
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
  // Taking out blanks leaves characters behind the terminator; they are no part of the name.
  mq::CopyPadded(out, kNameLength, name, kNameLength);
  return 1;
}
