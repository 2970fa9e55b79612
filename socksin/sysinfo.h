/* sysinfo.h - the system's identification, a label made from it, the number of processors, and waiting for the network.
 *
 * The identification is the platform's struct utsname, owned by the caller. */
#ifndef MQNODE_SOCKSIN_SYSINFO_H
#define MQNODE_SOCKSIN_SYSINFO_H

#include <sys/utsname.h>

#include "runtime/api.h"

MQ_BEGIN_C

/* GetSysInfo - get the identification of the system.
 * Result  1; 0 if uname failed, with the record all zero */
MQ_API int GetSysInfo(struct utsname* info);

/* GetSysLabel - append up to three pieces to label, each followed by "::": the system name, "V<version>.R<release>"
 * and, if withMachine is nonzero, the machine. Texts are trimmed; version and release are cut to 48 characters first.
 *   label  in/out  null-terminated text
 *   room   in      free bytes in label. A piece takes its length plus 3 bytes, and is appended if that is less than the
 *                  bytes left; otherwise it is omitted, and the next piece is tried */
MQ_API void GetSysLabel(const struct utsname* info, char* label, int room, int withMachine);

/* GetProcessorCount - get the number in the environment variable TEVRA_CPU_COUNT, at least 1; if it is not set, the
 * number of online processors.
 * Result  the number; -1 if the platform does not know it, with its errno, or ENOSYS if it set none */
MQ_API int GetProcessorCount(void);

/* bTcpipNotActive - check whether the network stack is down, that is, whether gethostname fails.
 *   verbose  nonzero: if it is down, print two lines on standard output: the date, and the result of gethostname
 * Result   1 if down, 0 if up */
MQ_API int bTcpipNotActive(int verbose);

/* bWaitForTcpip - wait without limit until the network stack is up. If it is not up already, check every 5 seconds in
 * cycles of 300 seconds, and wait 5 more seconds when it is up. Each cycle logs "1157I", the end logs "1158I".
 *   verbose  nonzero: print at each check; zero: only at the first check, and at the first check of each later cycle
 *   who      name in the log lines; cut so that a line fits into 512 bytes
 * Result   0
 * Blocks   while the network is down */
MQ_API int bWaitForTcpip(int verbose, const char* who);

MQ_END_C

#endif
