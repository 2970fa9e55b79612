/* buffer.h - byte buffers: the record, and the functions of the companion that manage its data area.
 *
 * Conventions: runtime.h. */
#ifndef MQNODE_RUNTIME_BUFFER_H
#define MQNODE_RUNTIME_BUFFER_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"

MQ_BEGIN_C

/* IoBuffer - a byte buffer with the counters of one transfer. The data area is managed by the buffer functions below.
 * While receiving, received <= length <= capacity; while sending, sent <= length.
 * A write descriptor is an IoBuffer allocated with the tag "MQNODE"; it is released with DeleteBuffer and then
 * FreeMemory. */
typedef struct IoBuffer {
  uint8_t* data;     /* the data area */
  uint32_t length;   /* total number of bytes of the current transfer */
  uint32_t capacity; /* size of the data area */
  uint32_t flags;    /* passed unchanged to send, sendto and recvfrom; usually 0 */
  uint32_t received; /* bytes received so far into data */
  uint32_t sent;     /* bytes of data sent so far */
} IoBuffer;

MQ_STATIC_ASSERT(sizeof(IoBuffer) == 32, "IoBuffer is 32 bytes");
MQ_STATIC_ASSERT(offsetof(IoBuffer, length) == 8, "IoBuffer.length");
MQ_STATIC_ASSERT(offsetof(IoBuffer, capacity) == 12, "IoBuffer.capacity");
MQ_STATIC_ASSERT(offsetof(IoBuffer, flags) == 16, "IoBuffer.flags");
MQ_STATIC_ASSERT(offsetof(IoBuffer, received) == 20, "IoBuffer.received");
MQ_STATIC_ASSERT(offsetof(IoBuffer, sent) == 24, "IoBuffer.sent");

/* CreateBuffer - allocate a data area of size bytes for buf.
 * Sets capacity and length to size; flags, received and sent to 0. A previous data area is neither read nor released,
 * because a copy of the record may own it. If there is no memory, data is null and all other fields are 0. */
MQ_RUNTIME void CreateBuffer(IoBuffer* buf, uint32_t size);

/* ResetBuffer - prepare buf for a new transfer: set length as given, received and sent to 0. Nothing else changes. */
MQ_RUNTIME void ResetBuffer(IoBuffer* buf, uint32_t length);

/* SizeBuffer - enlarge the data area to at least size bytes, preserving the received bytes and all counters.
 * data may move; capacity is set to the new size. If there is no memory, nothing changes: compare capacity with size.
 * */
MQ_RUNTIME void SizeBuffer(IoBuffer* buf, uint32_t size);

/* DeleteBuffer - release the data area, but not the record.
 * Sets data to null and capacity, length, received and sent to 0; a second call releases nothing. */
MQ_RUNTIME void DeleteBuffer(IoBuffer* buf);

MQ_END_C

#endif
