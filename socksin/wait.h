/* wait.h - wait on many sockets at once, with one timeout and one select.
 *
 * The work record contains the input and output lists. The caller owns it and may use it for any number of waits, one
 * at a time. Fill sockets (and, for NPostSocket, writable) with at most size - 1 pointers and a null pointer, wait, and
 * read the output lists. Each socket of the writable input list must also be in sockets; then no output list overflows.
 *
 * Results  1 if a socket was ready: the output lists are filled, in the order of the input lists, and terminated;
 *          0 if the wait failed or timed out: the output lists are unchanged and may not be terminated
 * status   0; 9000 timed out; EINTR a signal arrived; ENOMEM no memory for the file descriptor sets, see Memory; EINVAL
 *          size is below 1: the lists have no space for a terminator, and are neither read nor written; another errno
 *          of select
 * Blocks   in select, for at most the timeout
 * Memory   a wait allocates nothing while all file descriptors are below 1024. With a higher one it allocates file
 *          descriptor sets as large as necessary and releases them before it returns; without memory for them the
 *          result is 0 and the status ENOMEM
 * A socket with a negative fd is ignored. An application must not close a file descriptor behind its record, and select
 * does not always detect this: within the process's file descriptor table the status is EBADF; beyond it, such a socket
 * is ignored, or listed as ready when another socket is.
 * A trace callback may close or replace sockets that have not been reported yet, and shorten the input lists: results
 * are collected from the lists and file descriptors as they are at that time. */
#ifndef MQNODE_SOCKSIN_WAIT_H
#define MQNODE_SOCKSIN_WAIT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>

#include "runtime/api.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* Size of the records that mnPost and mnNPost allocate: 2512 sockets and the terminator. */
#define SOCK_POST_SIZE 2513

/* SockPostData - the work record of a wait. */
typedef struct SockPostData {
  int32_t size;          /* entries of each list, terminator included; at least 1 for a wait */
  SockRec** sockets;     /* in: the sockets to wait on */
  SockRec** readable;    /* out: ready to read; null: reading is not watched */
  SockRec** writable;    /* NPostSocket. in: writes are waiting; out: ready to write; null: writing is not watched */
  SockRec** exceptional; /* out: exceptional condition; null: not watched */
  fd_set* readSet;       /* the sets passed to select while all file descriptors are below 1024 */
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

/* PostTimeout - the longest time of a wait: sec seconds and msec milliseconds; 0 and 0 poll. msec must be below 1000.
 * */
typedef struct PostTimeout {
  uint32_t msec;
  uint32_t sec;
} PostTimeout;

MQ_STATIC_ASSERT(sizeof(PostTimeout) == 8, "PostTimeout is 8 bytes");
MQ_STATIC_ASSERT(offsetof(PostTimeout, sec) == 4, "PostTimeout.sec");

/* InitSocketPostData - initialise a work record for size - 1 sockets: four lists and three sets, from malloc. No wait
 * accepts a record of a size below 1.
 * Result  1; 0 if there is no memory: call FreeSocketPostData nevertheless */
MQ_API int InitSocketPostData(SockPostData* work, int size);

/* FreeSocketPostData - release the lists and sets of the record, and set all its fields to null and 0. It may be called
 * again, and the record may be initialised again. */
MQ_API void FreeSocketPostData(SockPostData* work);

/* PostSocket - wait for reading and exceptional conditions. A socket with both is listed as readable only.
 * Trace points  on each listed socket: "PostSocket:Ready", "PostSocket:Exception" */
MQ_API int PostSocket(SockPostData* work, const PostTimeout* timeout, int* status);

/* NPostSocket - wait as PostSocket, and for writing: on the sockets of the writable list, and on stream sockets whose
 * connected is 0, that is, whose non-blocking connect has not completed. connected is set to 1 for each socket listed
 * as writable, whether its connect succeeded or not: the first transfer reports the failure. A pending connect that is
 * also readable is listed as readable only.
 * Trace points  on each listed socket: first "NPostSocket:Write" for queued writes; then, in the order of sockets,
 *               "NPostSocket:Ready", "NPostSocket:Exception" or "NPostSocket:Write" (completed connects) */
MQ_API int NPostSocket(SockPostData* work, const PostTimeout* timeout, int* status);

MQ_END_C

#endif
