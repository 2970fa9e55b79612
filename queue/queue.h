/* queue.h - a small first-in first-out queue of untyped pointers.
 *
 *   Ownership    the queue owns its record and its entries; the caller owns the queued items. The exception is Qfree,
 *                which calls FreeMemory on items that are still queued: if items own other memory, take them out with
 *                Qget first
 *   Allocation   one block for a queue (tag "QALLOC"), one for each entry ("QPUT", "QPUTHEAD"), all from the companion
 *   Null queues  Qput, QputHigh, Qget and Qputhead print one line on standard output and do nothing; the other
 *                functions accept a null queue silently
 *   Threads      a queue must be used by one thread at a time. No function blocks */
#ifndef MQNODE_QUEUE_QUEUE_H
#define MQNODE_QUEUE_QUEUE_H

#include "queue/record.h"
#include "runtime/api.h"

MQ_BEGIN_C

typedef struct MQQueueEntry QueueEntry;
typedef struct MQQueue Queue;

/* Qalloc - create an empty queue with limit -1.
 * Result   the queue, to be released with Qfree; null if there is no memory */
MQ_API Queue* Qalloc(void);

/* Qfree - release a queue, its entries and the items still queued, and set *pq to null.
 *   pq      in/out  the caller's pointer; when pq or the queue is null, nothing happens */
MQ_API void Qfree(Queue** pq);

/* Qput - append item at the tail. If there is no memory, nothing is queued and nothing is reported: compare Qdepth. */
MQ_API void Qput(Queue* q, void* item);

/* QputHigh - the same as Qput: the item gets no precedence over queued items. */
MQ_API void QputHigh(Queue* q, void* item);

/* Qputhead - insert item at the head, so that the next Qget returns it. If there is no memory, as Qput. */
MQ_API void Qputhead(Queue* q, void* item);

/* Qget - remove the entry at the head.
 * Result   its item; null if the queue is empty */
MQ_API void* Qget(Queue* q);

/* Qremove - remove each entry whose item equals this pointer. The item itself is not released. */
MQ_API void Qremove(Queue* q, void* item);

/* Qstart - set the cursor to the head. Only Qstart and Qnext move the cursor: after the entry at the cursor has been
 * removed, call Qstart again. */
MQ_API void Qstart(Queue* q);

/* Qnext - return the item at the cursor, and advance the cursor.
 * Result   the item; null at the end, and if the queue is empty */
MQ_API void* Qnext(Queue* q);

/* Qdepth - return the number of entries; 0 for a null queue. */
MQ_API int Qdepth(Queue* q);

/* SetQLimit - set the advisory limit; -1 for none. Only IsQReady uses it. */
MQ_API void SetQLimit(Queue* q, int limit);

/* GetQLimit - return the advisory limit; -1 for a null queue. */
MQ_API int GetQLimit(Queue* q);

/* IsQReady - check whether the queue is within its limit.
 * Result   1 for a null queue, for limit -1 and if count is at most limit; else 0 */
MQ_API int IsQReady(Queue* q);

MQ_END_C

#endif
