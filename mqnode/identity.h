/* identity.h - the application name in the messages of a process.
 *
 * Each node stores the name of the application when it is created. A shell command finds the name, but only if the
 * environment variable TEVRA_HOME names a scratch directory: the command writes a file named after the process id
 * there, which is then read and removed.
 *
 * TEVRA_HOME is trusted: it decides where the shell writes, and the environment decides which ps the shell runs. Use a
 * directory that no other user can write to. The variable is ignored in a process with more privileges than its caller
 * (set-user-ID, capabilities). If the path exists and is not a file of this user, no command is run. One gap remains: a
 * user who can write to the directory can create a link or a FIFO after that check. On file systems that assign new
 * files to another user, every name is "UNKNOWN". */
#ifndef MQNODE_MQNODE_IDENTITY_H
#define MQNODE_MQNODE_IDENTITY_H

#include "runtime/api.h"

MQ_BEGIN_C

/* G_szApplName - the application's own name for itself, at most 48 characters; empty at first. Set by SetApplName; the
 * library never reads it. */
extern MQ_API char G_szApplName[49];

/* SetApplName - copy at most 48 characters of name to G_szApplName; does nothing if name is null. */
MQ_API void SetApplName(const char* name);

/* GetApplName - get the command name of the calling process in upper case, without blanks.
 *   out     out     at least 48 bytes, and at least len; receives "UNKNOWN" if TEVRA_HOME is not set, ignored or longer
 *                   than 244 characters, or if the scratch file cannot be opened or belongs to another user. Characters
 *                   that are not printable ASCII become "?". A name of 48 characters is not terminated
 *   len     in/out  number of bytes of out to clear first; then the length of the name, 0 for "UNKNOWN"
 * Returns 1. If TEVRA_HOME is set, starts a shell and waits for it. */
MQ_API int GetApplName(char* out, int* len);

MQ_END_C

#endif
