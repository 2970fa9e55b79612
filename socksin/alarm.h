/* alarm.h - a guard that logs a warning when a blocking operation outlasts a time limit.
 *
 * The guard uses SIGALRM and the alarm of the process: only one thread at a time may use it, and enable_alarm replaces,
 * disable_alarm cancels an alarm that was set elsewhere. Calls do not nest: a second enable_alarm saves AlarmHandler
 * itself. */
#ifndef MQNODE_SOCKSIN_ALARM_H
#define MQNODE_SOCKSIN_ALARM_H

#include "runtime/api.h"

MQ_BEGIN_C

/* AlarmFn - a signal handler. */
typedef void (*AlarmFn)(int signalNumber);

/* pSavedAlarm - the SIGALRM handler that enable_alarm replaced; null, the default action, at first. */
extern MQ_API AlarmFn pSavedAlarm;

/* enable_alarm - install AlarmHandler for SIGALRM, save the handler that it replaces, and set the alarm.
 *   seconds  until the signal
 * Result  the seconds that were left of an earlier alarm; 0 if there was none */
MQ_API unsigned enable_alarm(unsigned seconds);

/* disable_alarm - cancel the alarm and install the handler in pSavedAlarm. */
MQ_API void disable_alarm(void);

/* AlarmHandler - the signal handler: logs "0106W" with LOGMSG, which must be async-signal-safe, and preserves errno.
 * Whether the interrupted system call is restarted depends on the platform. */
MQ_API void AlarmHandler(int signalNumber);

MQ_END_C

#endif
