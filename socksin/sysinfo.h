/* sysinfo.h - what the library can tell about its host: system record, label, processors, network start-up.
 *
 * The system identification record is the platform's struct utsname, owned by the caller. */
#ifndef MQNODE_SOCKSIN_SYSINFO_H
#define MQNODE_SOCKSIN_SYSINFO_H

#include <sys/utsname.h>

#include "runtime/api.h"

MQ_BEGIN_C

/* GetSysInfo - zero the record and fill it.
 * Result  1; 0 when uname failed, the record is all zero then */
MQ_API int GetSysInfo(struct utsname* info);

/* GetSysLabel - append up to three pieces to label, each followed by "::": the system name, "V<version>.R<release>"
 * and, when withMachine is nonzero, the machine. Texts are trimmed; version and release are cut to 48 characters first.
 *   label  in/out  NUL-terminated text
 *   room   in      bytes still free in label. A piece is appended when its length plus 3 is less than what is left of
 *                  the room, and takes that much of it; one that does not fit is left out and the next is tried */
MQ_API void GetSysLabel(const struct utsname* info, char* label, int room, int withMachine);

/* GetProcessorCount - the environment variable TEVRA_CPU_COUNT as a number, at least 1; when it is not set, the number
 * of processors online.
 * Result  the count; -1 when the platform cannot tell, errno says why (ENOSYS when it does not) */
MQ_API int GetProcessorCount(void);

/* bTcpipNotActive - whether the network stack is still down, judged by whether the host name can be read.
 *   verbose  nonzero: two lines on standard output when it is down: the date, and what gethostname did
 * Result   1 down, 0 up */
MQ_API int bTcpipNotActive(int verbose);

/* bWaitForTcpip - wait until the network stack is up, without limit: at once when it is, else a check every 5 seconds
 * in cycles of 300 seconds, and 5 seconds more after it came up. Each cycle logs "1157I", the end "1158I".
 *   verbose  nonzero: print at every check; zero: only at the first test and at the first check of each later cycle
 *   who      name for the log lines; cut so that a line fits 512 bytes
 * Result   always 0
 * Blocks   as long as the network is down */
MQ_API int bWaitForTcpip(int verbose, const char* who);

MQ_END_C

#endif
