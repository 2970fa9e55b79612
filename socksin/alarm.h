/* alarm.h - a guard that logs a warning when a blocking operation outlasts a time limit.
 *
 * The guard is SIGALRM and the process's one alarm: one thread at a time may use it, an alarm set elsewhere is replaced
 * by enable_alarm and cancelled by disable_alarm. Pairs do not nest: a second enable_alarm saves AlarmHandler
 * itself. */
#ifndef MQNODE_SOCKSIN_ALARM_H
#define MQNODE_SOCKSIN_ALARM_H

#include "runtime/api.h"

MQ_BEGIN_C

typedef void (*AlarmFn)(int signalNumber);

/* The SIGALRM handler that enable_alarm replaced; null, the default action, when the library is loaded. */
extern MQ_API AlarmFn pSavedAlarm;

/* enable_alarm - install AlarmHandler for SIGALRM, keep the handler it replaces, and arm the alarm.
 *   seconds  until the signal
 * Result  seconds that were left of an earlier alarm, 0 when there was none */
MQ_API unsigned enable_alarm(unsigned seconds);

/* disable_alarm - cancel the alarm and install the handler that pSavedAlarm holds. */
MQ_API void disable_alarm(void);

/* AlarmHandler - the signal handler: logs "0106W" through LOGMSG, which must be safe in a signal handler, and keeps
 * errno. Whether the interrupted system call goes on is the platform's signal semantics. */
MQ_API void AlarmHandler(int signalNumber);

MQ_END_C

#endif
