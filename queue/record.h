/* record.h - the records of a queue, for code that only inspects one. queue.h has the operations, and the names Queue
 * and QueueEntry. */
#ifndef MQNODE_QUEUE_RECORD_H
#define MQNODE_QUEUE_RECORD_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"

/* QueueEntry - an entry of a queue. */
struct MQQueueEntry {
  struct MQQueueEntry* next; /* towards the tail; null for the last */
  void* item;                /* owned by the caller */
};

/* Queue - a first-in first-out queue of pointers. head and tail are both null exactly when count is 0. */
struct MQQueue {
  struct MQQueueEntry* head;   /* the entry that Qget removes next */
  struct MQQueueEntry* tail;   /* the entry after which Qput appends */
  struct MQQueueEntry* cursor; /* the entry that Qnext returns next; null before Qstart and after the last entry */
  int32_t count;               /* number of entries */
  int32_t limit;               /* advisory maximum of count; -1 means none */
};

MQ_STATIC_ASSERT(sizeof(struct MQQueueEntry) == 16, "QueueEntry is 16 bytes");
MQ_STATIC_ASSERT(offsetof(struct MQQueueEntry, item) == 8, "QueueEntry.item");
MQ_STATIC_ASSERT(sizeof(struct MQQueue) == 32, "Queue is 32 bytes");
MQ_STATIC_ASSERT(offsetof(struct MQQueue, tail) == 8, "Queue.tail");
MQ_STATIC_ASSERT(offsetof(struct MQQueue, cursor) == 16, "Queue.cursor");
MQ_STATIC_ASSERT(offsetof(struct MQQueue, count) == 24, "Queue.count");
MQ_STATIC_ASSERT(offsetof(struct MQQueue, limit) == 28, "Queue.limit");

#endif
