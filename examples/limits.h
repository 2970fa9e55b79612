/* limits.h - what keeps a server of strangers bounded: how much a client may cost, how long it may owe something, and
 * how many lines a second tell of those who were dropped. The servers of many clients share it. */
#ifndef MQNODE_EXAMPLES_LIMITS_H
#define MQNODE_EXAMPLES_LIMITS_H

#include <time.h>

#include "example.h"

enum {
  MOST_CLIENTS = 1000,
  MOST_LENGTH = 65536,   /* bytes of a question, without its header */
  MOST_QUEUED = 16,      /* answers that wait for a client: it costs no more than these, and a question */
  SOCKET_BUFFER = 65536, /* bytes, each direction: what the system holds for a client is bounded too */
  BACKLOG = 128,         /* connections that wait to be accepted; a node's own five are few for a crowd */
  MOST_ACCEPTED = 32,    /* connections taken in at once: those who are here are served in between */
  PATIENCE = 10,         /* seconds, with a client that owes something */
  IDLE = 600,            /* seconds, with a client that owes nothing */
  PATIENCE_IN_NEED = 2,  /* the same while there is no room for others; not below 2, the first second may be short */
  IDLE_IN_NEED = 5,
  MOST_LINES = 20 /* a second */
};

/* What a look at a client, once a second, remembers of it. All zero for a new one. */
typedef struct Watch {
  uint32_t done; /* messages read and written until the last look */
  int quiet;     /* seconds since that number changed */
} Watch;

/* How many lines were written in this second, and how many were not. All zero at first. */
typedef struct Teller {
  int lines;
  int untold;
} Teller;

/* Seconds of a clock that only goes forward. */
static inline long now_seconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (long)now.tv_sec;
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

/* Looks at a client, once a second: whether it has owed something, or been idle, for too long. A byte now and then is
 * no progress, a whole message is. Who has never asked owes a question. */
static inline const char* overdue(Watch* watch, const MQNode* node, int patience, int in_need) {
  const uint32_t done = node->msgsRead + node->writesCompleted;
  const int owes = is_midway(node) || node->msgsRead == 0;
  if (in_need && patience > PATIENCE_IN_NEED) patience = PATIENCE_IN_NEED;
  watch->quiet = done == watch->done ? watch->quiet + 1 : 0;
  watch->done = done;
  if (owes) return watch->quiet >= patience ? "too slow" : NULL;
  return watch->quiet >= (in_need ? IDLE_IN_NEED : IDLE) ? "idle, and its place is needed" : NULL;
}

/* Whether one more line may be written in this second; counts it when not. Whoever reads the log may be slow, and a
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

/* Ends a second: says how many lines it had no room for. */
static inline void tell_untold(Teller* teller) {
  if (teller->untold > 0) fprintf(stderr, "... and %d more\n", teller->untold);
  teller->lines = teller->untold = 0;
}

#endif
