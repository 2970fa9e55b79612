// identity.cc - finds the program's name in the process listing.
// Not here: the user's name, the companion's; where the names go in a message (compose.cc).
// Invariant: of the caller's area only its first 48 bytes and those it asked to clear are written.
#include "mqnode/identity.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/runtime.h"
#include "runtime/text.hh"

char G_szApplName[49] = "";

namespace {

constexpr size_t kNameLength = 48;
constexpr size_t kCommandSize = 512;
constexpr size_t kPathSize = 256;
constexpr size_t kLineSize = 512;
constexpr size_t kLongestHome = 244;  // leaves room for a slash and a process id in the path
constexpr char kUnknown[] = "UNKNOWN";
constexpr char kListingCommand[] = "ps -p %d | grep -v CMD | grep -v COMMAND  | awk '{print $4}'  > $TEVRA_HOME/%d";

// Runs the listing and reads the first line of what it wrote; the line is empty when it wrote nothing.
bool ReadCommandName(int pid, const char* home, char (&line)[kLineSize]) {
  char command[kCommandSize];
  snprintf(command, sizeof command, kListingCommand, pid, pid);
  // What the shell says of itself does not matter: the file tells whether there is a name.
  [[maybe_unused]] const int status = system(command);

  char path[kPathSize];
  snprintf(path, sizeof path, "%s/%d", home, pid);
  FILE* const file = fopen(path, "r");
  if (file == nullptr) return false;
  line[0] = '\0';
  if (fgets(line, sizeof line, file) == nullptr) line[0] = '\0';
  fclose(file);
  remove(path);
  return true;
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
  char line[kLineSize];
  if (!ReadCommandName(pid, home, line)) return 1;

  CutNewline(line);
  char name[kNameLength + 1];
  mq::CopyPadded(name, sizeof name, line, kNameLength);
  strip_spaces(name);
  strupper(name);
  *len = static_cast<int>(strnlen(name, kNameLength));
  // Taking out blanks leaves characters behind the terminator; they are no part of the name.
  mq::CopyPadded(out, kNameLength, name, kNameLength);
  return 1;
}
