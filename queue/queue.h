/* queue.h - a small first-in first-out queue of untyped pointers.
 *
 * Ownership: the queue owns its record and its entries, the caller owns the items while they are queued. The one
 * exception is Qfree, which releases items still queued with FreeMemory; a caller whose items own further memory takes
 * them out with Qget first.
 * Memory: one block for a queue (tag "QALLOC"), one for each entry ("QPUT", "QPUTHEAD"), all from the companion.
 * Null queues: Qput, QputHigh, Qget and Qputhead print one line on standard output and do nothing; Qremove, Qstart,
 * Qnext, Qdepth, SetQLimit, GetQLimit and IsQReady accept one silently.
 * Threads: one thread at a time uses a queue. No function blocks. */
#ifndef MQNODE_QUEUE_QUEUE_H
#define MQNODE_QUEUE_QUEUE_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"

MQ_BEGIN_C

typedef struct QueueEntry {
  struct QueueEntry* next; /* towards the tail; null for the last */
  void* item;              /* the caller's */
} QueueEntry;

/* head and tail are both null exactly when count is 0. */
typedef struct Queue {
  QueueEntry* head;   /* what Qget takes next */
  QueueEntry* tail;   /* what Qput links after */
  QueueEntry* cursor; /* what Qnext returns next; null before Qstart and after the last entry */
  int32_t count;      /* entries */
  int32_t limit;      /* advisory maximum of count; -1 means none */
} Queue;

MQ_STATIC_ASSERT(sizeof(QueueEntry) == 16, "QueueEntry is 16 bytes");
MQ_STATIC_ASSERT(offsetof(QueueEntry, item) == 8, "QueueEntry.item");
MQ_STATIC_ASSERT(sizeof(Queue) == 32, "Queue is 32 bytes");
MQ_STATIC_ASSERT(offsetof(Queue, tail) == 8, "Queue.tail");
MQ_STATIC_ASSERT(offsetof(Queue, cursor) == 16, "Queue.cursor");
MQ_STATIC_ASSERT(offsetof(Queue, count) == 24, "Queue.count");
MQ_STATIC_ASSERT(offsetof(Queue, limit) == 28, "Queue.limit");

/* Qalloc - a new empty queue with limit -1.
 * Result   the queue, the caller's to Qfree; null without memory */
MQ_API Queue* Qalloc(void);

/* Qfree - release a queue with its entries and the items still queued, and store null through pq.
 *   pq      in/out  the caller's pointer; when pq or the queue is null, nothing happens */
MQ_API void Qfree(Queue** pq);

/* Qput - append item at the tail. Without memory nothing is queued and nothing is reported: compare Qdepth. */
MQ_API void Qput(Queue* q, void* item);

/* QputHigh - exactly Qput: gives the item no precedence over items already queued. */
MQ_API void QputHigh(Queue* q, void* item);

/* Qputhead - push item at the head, so that the next Qget returns it. Without memory as Qput. */
MQ_API void Qputhead(Queue* q, void* item);

/* Qget - take the head entry.
 * Result   its item; null when the queue is empty */
MQ_API void* Qget(Queue* q);

/* Qremove - take out every entry whose item is this very pointer; the item itself is not released. */
MQ_API void Qremove(Queue* q, void* item);

/* Qstart - put the cursor at the head. Puts, gets and removals never move the cursor: whoever takes out the entry at
 * the cursor starts over. */
MQ_API void Qstart(Queue* q);

/* Qnext - the item at the cursor; the cursor moves on.
 * Result   null at the end, and when the queue is empty */
MQ_API void* Qnext(Queue* q);

/* Qdepth - the number of entries; 0 for a null queue. */
MQ_API int Qdepth(Queue* q);

/* SetQLimit - set the advisory limit; -1 means none. No put looks at it. */
MQ_API void SetQLimit(Queue* q, int limit);

/* GetQLimit - the advisory limit; -1 for a null queue. */
MQ_API int GetQLimit(Queue* q);

/* IsQReady - whether the queue is within its limit.
 * Result   1 for a null queue, for limit -1 and while count is at most limit; else 0 */
MQ_API int IsQReady(Queue* q);

MQ_END_C

#endif
