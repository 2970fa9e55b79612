/* limits.h - what keeps a server of strangers bounded: how much a client may cost, how long it may owe something, who
 * makes room when the table is full, and how many lines a second tell of those who were dropped. The servers of many
 * clients share it. */
#ifndef MQNODE_EXAMPLES_LIMITS_H
#define MQNODE_EXAMPLES_LIMITS_H

#include <stdlib.h>
#include <time.h>

#include "example.h"

enum {
  MOST_CLIENTS = 1000,
  MOST_LENGTH = 65536,   /* bytes of a question, without its header */
  MOST_WAITING = 262144, /* bytes of answers that wait for a client; one that asks on while more do is dropped */
  USUAL_AREA = 16520,    /* bytes of a node's first receive area; a larger one is given back after the message */
  SOCKET_BUFFER = 65536, /* bytes, each direction: what the system holds for a client is bounded too */
  BACKLOG = 128,         /* connections that wait to be accepted; a node's own five are few for a crowd */
  MOST_ACCEPTED = 32,    /* connections accepted in one round: clients that are connected are served in between */
  PATIENCE = 10,         /* seconds, with a client that owes something */
  IDLE = 600,            /* seconds, with a client that owes nothing */
  KEPT = 1000,           /* milliseconds that a client keeps its place, however many others want it */
  MOST_LINES = 20        /* a second */
};

/* A client, as the limits see it. */
typedef struct Watch {
  MQNode* node;
  in_addr_t address;
  uint32_t done; /* messages read and written until the last look */
  int midway;    /* at the last look */
  long accepted; /* milliseconds of now_msec */
  long since;    /* the same: when one of the two was last seen to change, at first when the client was accepted */
  long turn;     /* the clients of one address make room in this order; in the future: not yet */
} Watch;

/* How many lines were written in this second, and how many were not. All zero at first. */
typedef struct Teller {
  int lines;
  int untold;
} Teller;

/* Milliseconds of a clock that only goes forward. */
static inline long now_msec(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (long)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* The watch of a client that has just been accepted. */
static inline Watch watch_client(MQNode* node) {
  const long now = now_msec();
  const Watch watch = {node, inet_addr(node->sock.name.ip), 0, 0, now, now, 0};
  return watch;
}

/* Whether a client is in the middle of something: part of a question is here, or answers wait to be taken. */
static inline int is_midway(const MQNode* node) { return node->recvBuffer.received > 0 || node->pending != NULL; }

/* Whether the header that a node has gathered announces more than a question may be: a body that is not wanted is never
 * taken in. The header is as its sender wrote it: its first word, which is its length, tells in which byte order. */
static inline int is_too_long(const MQNode* node) {
  MsgHeader header;
  if (node->recvBuffer.received < sizeof header) return 0;
  memcpy(&header, node->recvBuffer.data, sizeof header);
  const int swapped = header.hdrLength != sizeof header;
  return (swapped ? __builtin_bswap32(header.bodyLength) : header.bodyLength) > MOST_LENGTH;
}

/* Whether more bytes wait for a client than may. A limit on their number alone (writeLimit) would not bound them. */
static inline int takes_no_answers(const MQNode* node) {
  uint64_t waiting = 0;
  const IoBuffer* write;
  if (node->pending == NULL) return 0;
  Qstart(node->pending);
  while ((write = (const IoBuffer*)Qnext(node->pending)) != NULL) waiting += write->length - write->sent;
  return waiting > MOST_WAITING;
}

/* Gives back the receive area that a large question has made grow, unless part of the next question is in it. */
static inline void give_back(MQNode* node) {
  IoBuffer* const area = &node->recvBuffer;
  if (area->capacity <= USUAL_AREA || area->received > 0) return;
  DeleteBuffer(area);
  CreateBuffer(area, USUAL_AREA);
  ResetBuffer(area, sizeof(MsgHeader)); /* without memory the next read fails, and the client is dropped */
}

/* Milliseconds since a client was last seen to finish or to begin something. A byte now and then is no progress, a whole
 * message is. Exact to the interval between two calls. */
static inline long quiet_msec(Watch* watch, long now) {
  const uint32_t done = watch->node->msgsRead + watch->node->writesCompleted;
  const int midway = is_midway(watch->node);
  if (done != watch->done || midway != watch->midway) watch->since = now;
  watch->done = done;
  watch->midway = midway;
  return now - watch->since;
}

/* Looks at a client, once a second: why it is to be dropped, or a null pointer. A client that has never asked owes a
 * question. */
static inline const char* overdue(Watch* watch, int patience, long now) {
  const int owes = is_midway(watch->node) || watch->node->msgsRead == 0;
  const long quiet = quiet_msec(watch, now);
  if (owes) return quiet >= patience * 1000L ? "too slow" : NULL;
  return quiet >= IDLE * 1000L ? "idle" : NULL;
}

/* Orders clients by address, those of one address by turn. */
static inline int compare_watches(const void* a, const void* b) {
  const Watch* const x = (const Watch*)a;
  const Watch* const y = (const Watch*)b;
  if (x->address != y->address) return x->address < y->address ? -1 : 1;
  return (x->turn > y->turn) - (x->turn < y->turn);
}

/* The client that a full table drops for a newcomer: of the address with the most clients, the one that has been quiet
 * longest. A single address can therefore push out clients of others only until it has as many as they have. A null
 * pointer when there is none that has had its place long enough to ask a question. Sorts the watches. */
static inline MQNode* makes_room(Watch* watches, int count, long now) {
  int chosen = 0, most = 0, first = 0;
  for (int i = 0; i < count; ++i) {
    quiet_msec(&watches[i], now);
    watches[i].turn = now - watches[i].accepted < KEPT ? now + 1 : watches[i].since;
  }
  qsort(watches, (size_t)count, sizeof *watches, compare_watches);
  for (int i = 0; i < count; ++i) {
    if (watches[i].address != watches[first].address) first = i;
    const int clients = i - first + 1; /* of this address, so far */
    if (clients < most || (clients == most && watches[first].turn >= watches[chosen].turn)) continue;
    most = clients;
    chosen = first;
  }
  return count > 0 && watches[chosen].turn <= now ? watches[chosen].node : NULL;
}

/* Whether one more line may be written in this second; counts it when not. The reader of the log may be slow, and a
 * crowd of strangers must not fill a disk. */
static inline int may_tell(Teller* teller) {
  if (teller->lines++ < MOST_LINES) return 1;
  ++teller->untold;
  return 0;
}

/* Says which client is dropped and why. Always 0. */
static inline int tell_drop(Teller* teller, const MQNode* node, const char* why) {
  if (may_tell(teller)) fprintf(stderr, "dropped %s:%s: %s\n", node->sock.name.ip, node->sock.name.service, why);
  return 0;
}

/* Ends a second: says how many lines were not written in it. */
static inline void tell_untold(Teller* teller) {
  if (teller->untold > 0) fprintf(stderr, "... and %d more\n", teller->untold);
  teller->lines = teller->untold = 0;
}

#endif
