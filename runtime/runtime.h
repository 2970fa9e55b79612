/* runtime.h - the functions that libmqnode calls in its companion.
 *
 * The application loads the companion before libmqnode.so.1. The functions are bound when the library is loaded;
 * without a companion, loading fails and names a missing function. libmqcompanion.so.1 is the companion of this
 * project; an application may use another one that fulfils this contract.
 *
 * Conventions: pointers are not null unless documented otherwise. Sizes are in bytes. The functions are called on the
 * thread that called the library, which takes no locks. */
#ifndef MQNODE_RUNTIME_RUNTIME_H
#define MQNODE_RUNTIME_RUNTIME_H

#include <stdint.h>

#include "runtime/api.h"
#include "runtime/buffer.h"

MQ_BEGIN_C

/* ---- Memory ---- */

/* fNewMemory - allocate size bytes, set to zero, and store their address in *out.
 *   tag     name of the allocation for accounting; constant text. The library's tags: "MQNode" (node), "MQNODE" (write
 *           descriptor), "QALLOC" (queue), "QPUT" and "QPUTHEAD" (queue entries)
 * Result   nonzero; 0 if there is no memory, with *out null */
MQ_RUNTIME int fNewMemory(void** out, uint32_t size, const char* tag);

/* FreeMemory - release a block from fNewMemory. */
MQ_RUNTIME void FreeMemory(void* p);

/* ---- Log ---- */

/* LOGMSG - write one line to the log.
 *   text    four digits, one severity letter ("I" information, "W" warning), one blank, the message; no newline
 *   kind    the library always passes 1
 * Must be async-signal-safe: AlarmHandler calls it. */
MQ_RUNTIME void LOGMSG(const char* text, int kind);

/* ---- Identity and text ---- */

/* GetUserName - get the current user's login name.
 *   buf     out     receives the name, null-terminated
 *   len     in/out  size of buf; on success the length of the name, less than that size
 * Result   nonzero; 0 if the name is not known, with the contents of buf undefined */
MQ_RUNTIME int GetUserName(char* buf, int* len);

/* strip_spaces - remove every blank from s in place. */
MQ_RUNTIME void strip_spaces(char* s);

/* strupper - convert the lower-case letters of s to upper case in place. */
MQ_RUNTIME void strupper(char* s);

/* trim_str - remove leading and trailing white space from s in place. */
MQ_RUNTIME void trim_str(char* s);

/* ---- Byte order and character set ---- */

/* bwlong - return v with its four bytes in reverse order. */
MQ_RUNTIME uint32_t bwlong(uint32_t v);

/* IsLtEndian - check the byte order of the host.
 * Result   nonzero on a little-endian host, else 0 */
MQ_RUNTIME int IsLtEndian(void);

/* IsAscText - check the character set of the host.
 * Result   nonzero if it is ASCII, else 0 */
MQ_RUNTIME int IsAscText(void);

MQ_END_C

#endif
