/* runtime.h - the services that mqnode takes from its companion runtime.
 *
 * The host loads the companion before libmqnode.so.1; the names below are bound when the library is loaded, and a host
 * without a companion is told the missing name then. libmqcompanion.so.1 is this project's own companion; a host may
 * bring another one that keeps the contract written here.
 *
 * Conventions: every pointer is required and not null unless its line says otherwise. Sizes are bytes. The services are
 * called on the thread that called into the library, and the library adds no lock of its own. */
#ifndef MQNODE_RUNTIME_RUNTIME_H
#define MQNODE_RUNTIME_RUNTIME_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"

MQ_BEGIN_C

/* A byte buffer with the counters of one transfer.
 * The record belongs to its holder; the data area belongs to the buffer functions below.
 * While receiving, received <= length <= capacity; while sending, sent <= length.
 * A write descriptor is an IoBuffer allocated on its own with the tag "MQNODE": whoever finishes with it calls
 * DeleteBuffer on it and then FreeMemory on the record. */
typedef struct IoBuffer {
  uint8_t* data;     /* the data area */
  uint32_t length;   /* bytes that the current transfer wants in all */
  uint32_t capacity; /* size of the data area */
  uint32_t flags;    /* handed unchanged to send, sendto and recvfrom; 0 normally */
  uint32_t received; /* bytes received so far into data */
  uint32_t sent;     /* bytes of data sent so far */
} IoBuffer;

MQ_STATIC_ASSERT(sizeof(IoBuffer) == 32, "IoBuffer is 32 bytes");
MQ_STATIC_ASSERT(offsetof(IoBuffer, length) == 8, "IoBuffer.length");
MQ_STATIC_ASSERT(offsetof(IoBuffer, capacity) == 12, "IoBuffer.capacity");
MQ_STATIC_ASSERT(offsetof(IoBuffer, flags) == 16, "IoBuffer.flags");
MQ_STATIC_ASSERT(offsetof(IoBuffer, received) == 20, "IoBuffer.received");
MQ_STATIC_ASSERT(offsetof(IoBuffer, sent) == 24, "IoBuffer.sent");

/* ---- Memory ---- */

/* fNewMemory - allocate size bytes, all zero, and store their address in *out.
 *   tag     names the allocation for the runtime's accounting; constant text. The library's tags: "MQNode" (node),
 *           "MQNODE" (write descriptor), "QALLOC" (queue), "QPUT" and "QPUTHEAD" (queue entries)
 * Result   nonzero; 0 when there is no memory, *out is null then */
MQ_RUNTIME int fNewMemory(void** out, uint32_t size, const char* tag);

/* FreeMemory - release a block that fNewMemory gave. */
MQ_RUNTIME void FreeMemory(void* p);

/* ---- Buffers ---- */

/* CreateBuffer - give buf a fresh data area of size bytes.
 * Afterwards capacity and length are size; flags, received and sent are 0. A data area that the record named before is
 * neither read nor released: a copy of the record may own it. Without memory: data null, every other field 0. */
MQ_RUNTIME void CreateBuffer(IoBuffer* buf, uint32_t size);

/* ResetBuffer - arm buf for a new transfer: length as given, received and sent 0; data, capacity and flags stay. */
MQ_RUNTIME void ResetBuffer(IoBuffer* buf, uint32_t length);

/* SizeBuffer - grow the data area to at least size bytes, keeping the bytes received and all counters.
 * data may move, capacity becomes the new size. Without memory nothing changes: compare capacity with size. */
MQ_RUNTIME void SizeBuffer(IoBuffer* buf, uint32_t size);

/* DeleteBuffer - release the data area, not the record.
 * Afterwards data is null and capacity, length, received and sent are 0; a second call releases nothing. */
MQ_RUNTIME void DeleteBuffer(IoBuffer* buf);

/* ---- Log ---- */

/* LOGMSG - write one line to the product's log.
 *   text    four digits, one severity letter ("I" information, "W" warning), one blank, the message; no newline
 *   kind    the library always passes 1
 * Must be safe in a signal handler: AlarmHandler calls it from one. */
MQ_RUNTIME void LOGMSG(const char* text, int kind);

/* ---- Identity and text ---- */

/* GetUserName - the current user's login name.
 *   buf     out     receives the name, NUL-terminated
 *   len     in/out  size of buf; on success the length of the name, from 0 to less than that size
 * Result   nonzero; 0 when the user cannot be told, buf is not to be used then */
MQ_RUNTIME int GetUserName(char* buf, int* len);

/* strip_spaces - remove every blank from s in place. */
MQ_RUNTIME void strip_spaces(char* s);

/* strupper - turn the lower-case letters of s into upper case in place. */
MQ_RUNTIME void strupper(char* s);

/* trim_str - remove leading and trailing white space from s in place. */
MQ_RUNTIME void trim_str(char* s);

/* ---- Byte order and character set ---- */

/* bwlong - v with its four bytes in reverse order. */
MQ_RUNTIME uint32_t bwlong(uint32_t v);

/* IsLtEndian - nonzero on a little-endian host. */
MQ_RUNTIME int IsLtEndian(void);

/* IsAscText - nonzero when the host's text is ASCII. */
MQ_RUNTIME int IsAscText(void);

MQ_END_C

#endif
