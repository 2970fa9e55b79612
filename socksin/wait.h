/* wait.h - wait on many sockets at once, with one timeout and one select.
 *
 * The work record carries the socket lists in and out; the caller owns it and keeps it for any number of waits, one at
 * a time. Fill sockets (and, for NPostSocket, writable) with at most size - 1 pointers and a null pointer, wait, read
 * the output lists. Every socket of the writable input list must be in sockets too; then no output list can overflow.
 *
 * Results  1 when something was ready: the output lists are filled, in the order of the input lists, and terminated.
 *          0 when the wait failed or timed out: the output lists are untouched, not even terminated
 * status   0; errno of select (EINTR when a signal arrived); 9000 timed out; ENOMEM, see below; EINVAL for a record
 *          whose size is below 1: its lists have no room for a terminator, and nothing is read or written there
 * Blocks   in select, for at most the timeout
 * Memory   a wait allocates nothing while all descriptors are below 1024. With a descriptor of 1024 or more it
 *          allocates descriptor sets sized from the highest one and releases them before it returns; without memory for
 *          them the result is 0 and the status ENOMEM
 * A socket whose fd is negative is passed over. A descriptor that was closed without its record being told is an error
 * of the application, and select does not always report it: below the size of the process's descriptor table the status
 * is EBADF; above it, such a socket is ignored, or listed as ready when another socket is.
 * A trace callback may close or replace sockets that have not been reported yet, and end the input lists: results are
 * collected from the lists up to their null pointers, and from the descriptors, as they are at that moment. */
#ifndef MQNODE_SOCKSIN_WAIT_H
#define MQNODE_SOCKSIN_WAIT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>

#include "runtime/api.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* The waits of many nodes set up records of this size: 2512 sockets and the terminator. */
#define SOCK_POST_SIZE 2513

typedef struct SockPostData {
  int32_t size;          /* entries of each list, terminator included; at least 1 for a wait */
  SockRec** sockets;     /* in: the sockets to wait on */
  SockRec** readable;    /* out: ready to read; null: reading is not watched */
  SockRec** writable;    /* NPostSocket. in: writes are waiting; out: ready to write; null: writing is not watched */
  SockRec** exceptional; /* out: exceptional condition; null: not watched */
  fd_set* readSet;       /* the sets handed to select while every descriptor is below 1024 */
  fd_set* writeSet;
  fd_set* exceptSet;
} SockPostData;

MQ_STATIC_ASSERT(sizeof(SockPostData) == 64, "SockPostData is 64 bytes");
MQ_STATIC_ASSERT(offsetof(SockPostData, sockets) == 8, "SockPostData.sockets");
MQ_STATIC_ASSERT(offsetof(SockPostData, readable) == 16, "SockPostData.readable");
MQ_STATIC_ASSERT(offsetof(SockPostData, writable) == 24, "SockPostData.writable");
MQ_STATIC_ASSERT(offsetof(SockPostData, exceptional) == 32, "SockPostData.exceptional");
MQ_STATIC_ASSERT(offsetof(SockPostData, readSet) == 40, "SockPostData.readSet");
MQ_STATIC_ASSERT(offsetof(SockPostData, writeSet) == 48, "SockPostData.writeSet");
MQ_STATIC_ASSERT(offsetof(SockPostData, exceptSet) == 56, "SockPostData.exceptSet");
MQ_STATIC_ASSERT(sizeof(fd_set) == 128, "a descriptor set is 128 bytes");

/* A wait lasts at most sec seconds plus msec milliseconds; both 0 polls. msec is below 1000. */
typedef struct PostTimeout {
  uint32_t msec;
  uint32_t sec;
} PostTimeout;

MQ_STATIC_ASSERT(sizeof(PostTimeout) == 8, "PostTimeout is 8 bytes");
MQ_STATIC_ASSERT(offsetof(PostTimeout, sec) == 4, "PostTimeout.sec");

/* InitSocketPostData - set up a work record for size - 1 sockets: four lists and three sets, from malloc. A size below
 * 1 makes a record that no wait accepts.
 * Result  1; 0 without memory: release the record with FreeSocketPostData all the same */
MQ_API int InitSocketPostData(SockPostData* work, int size);

/* FreeSocketPostData - release what the record points to; all its fields are null and 0 afterwards. May be called
 * again, and the record set up again. */
MQ_API void FreeSocketPostData(SockPostData* work);

/* PostSocket - wait for reading and exceptional conditions. A socket that is both is listed as readable only.
 * Trace points  on each listed socket: "PostSocket:Ready", "PostSocket:Exception" */
MQ_API int PostSocket(SockPostData* work, const PostTimeout* timeout, int* status);

/* NPostSocket - wait for writing too: for the sockets of the writable list, and for stream sockets whose connected is
 * 0, whose non-blocking connect has not completed. Every socket listed as writable has connected 1 afterwards, whether
 * its connect succeeded or not: the first transfer tells. A pending connect that is readable too is listed as readable
 * only.
 * Trace points  on each listed socket: "NPostSocket:Write" (waiting writes, first), then in the order of sockets
 *               "NPostSocket:Ready", "NPostSocket:Exception" or "NPostSocket:Write" (completed connects) */
MQ_API int NPostSocket(SockPostData* work, const PostTimeout* timeout, int* status);

MQ_END_C

#endif
