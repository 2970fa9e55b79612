// alarm.cc - arms and disarms the alarm guard and logs when it goes off.
// Not here: the log (the companion's LOGMSG).
// Invariant: AlarmHandler is async-signal-safe, provided that LOGMSG is.
#include "socksin/alarm.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "runtime/runtime.h"
#include "sockutil/text.hh"

AlarmFn pSavedAlarm = nullptr;

namespace {

constexpr size_t kLogLineSize = 512;
constexpr char kTimeout[] = "0106W Timeout received, possible unreachable host";

}  // namespace

unsigned enable_alarm(unsigned seconds) {
  pSavedAlarm = signal(SIGALRM, AlarmHandler);
  return alarm(seconds);
}

void disable_alarm(void) {
  alarm(0);
  signal(SIGALRM, pSavedAlarm);
}

void AlarmHandler(int) {
  const int saved = errno;
  char line[kLogLineSize];
  mq::CopyText(line, kTimeout);
  LOGMSG(line, 1);
  errno = saved;
}
