/* identity.h - the names under which a process's messages travel.
 *
 * Each node takes the name of the calling program when it is created. The name is found through a shell pipeline, and
 * only when the environment variable TEVRA_HOME names a scratch directory: the pipeline writes a file named by the
 * process id there, which is read and removed.
 *
 * TEVRA_HOME is trusted: it decides where the shell writes, and the environment decides which ps the shell runs. Name a
 * directory that no other user can write to. The variable is ignored in a process that has more rights than its caller
 * (set-user-ID, capabilities). When something other than a file of this user is found under the process id, no command
 * is run. That leaves one gap: a user who can write to the directory can put a link or a FIFO there after that check.
 * On file systems that give files to another user, every name is "UNKNOWN". */
#ifndef MQNODE_MQNODE_IDENTITY_H
#define MQNODE_MQNODE_IDENTITY_H

#include "runtime/api.h"

MQ_BEGIN_C

/* A name of the host's own, at most 48 characters, empty when the library is loaded. Set by SetApplName; the library
 * never reads it. */
extern MQ_API char G_szApplName[49];

/* SetApplName - copy at most 48 characters of name into G_szApplName; null changes nothing. */
MQ_API void SetApplName(const char* name);

/* GetApplName - the calling program's command name in upper case, without blanks.
 *   out     out     at least 48 bytes, and as many as len says; "UNKNOWN" when TEVRA_HOME is not set, ignored or longer
 *                   than 244 characters, or the scratch file cannot be opened or is not this user's. Characters that
 *                   are not printable ASCII are replaced by "?". A name of 48 characters fills it without a terminator
 *   len     in/out  bytes of out to clear first; then the length of the name, 0 for "UNKNOWN"
 * Always 1. Starts a shell and waits for it when TEVRA_HOME is set. */
MQ_API int GetApplName(char* out, int* len);

MQ_END_C

#endif
