/* wheel.h - lists, and a timer wheel of list members. Internal to libmqnode-uv.
 *
 * The wheel has a list for each tick of the next 20 seconds. An entry that is due later goes into the last of them, and
 * is looked at early. Adding and removing take constant time. */
#ifndef MQNODE_LOOP_WHEEL_H
#define MQNODE_LOOP_WHEEL_H

#include <stddef.h>
#include <stdint.h>

/* A member of a circular list, or its head. Null pointers: in no list. */
typedef struct Link {
  struct Link *next, *prev;
} Link;

static inline void list_init(Link* head) { head->next = head->prev = head; }

static inline int list_is_empty(const Link* head) { return head->next == head; }

static inline void list_remove(Link* link) {
  if (link->next == NULL) return;
  link->prev->next = link->next;
  link->next->prev = link->prev;
  link->next = link->prev = NULL;
}

static inline void list_append(Link* head, Link* link) {
  link->prev = head->prev;
  link->next = head;
  head->prev->next = link;
  head->prev = link;
}

/* Moves all members to another head, which need not be initialised. */
static inline void list_move(Link* from, Link* to) {
  list_init(to);
  if (list_is_empty(from)) return;
  *to = *from;
  to->next->prev = to->prev->next = to;
  list_init(from);
}

enum { WHEEL_TICK_MSEC = 20, WHEEL_SLOTS = 1024, WHEEL_WORD = 64 };

#define WHEEL_NEVER INT64_MAX

typedef struct Wheel {
  Link slots[WHEEL_SLOTS];
  uint64_t used[WHEEL_SLOTS / WHEEL_WORD]; /* slots that may have members */
  int64_t first;                           /* next tick; all entries are less than WHEEL_SLOTS beyond it */
} Wheel;

static inline void wheel_init(Wheel* wheel) {
  for (int i = 0; i < WHEEL_SLOTS; ++i) list_init(&wheel->slots[i]);
  for (int i = 0; i < WHEEL_SLOTS / WHEEL_WORD; ++i) wheel->used[i] = 0;
  wheel->first = 0;
}

/* The first tick by which a time, in milliseconds, has passed. */
static inline int64_t wheel_tick(const Wheel* wheel, int64_t at) {
  const int64_t last = wheel->first + WHEEL_SLOTS - 1;
  const int64_t tick = at / WHEEL_TICK_MSEC >= last ? last : at / WHEEL_TICK_MSEC + 1;
  return tick < wheel->first ? wheel->first : tick;
}

static inline void wheel_put(Wheel* wheel, Link* link, int64_t tick) {
  const size_t slot = (size_t)(tick % WHEEL_SLOTS);
  list_append(&wheel->slots[slot], link);
  wheel->used[slot / WHEEL_WORD] |= UINT64_C(1) << slot % WHEEL_WORD;
}

/* The first tick that may have entries; WHEEL_NEVER if none has. */
static inline int64_t wheel_next(const Wheel* wheel) {
  for (int64_t tick = wheel->first; tick < wheel->first + WHEEL_SLOTS; tick += WHEEL_WORD - tick % WHEEL_WORD) {
    const size_t slot = (size_t)(tick % WHEEL_SLOTS);
    const uint64_t word = wheel->used[slot / WHEEL_WORD] >> slot % WHEEL_WORD;
    if (word != 0) return tick + __builtin_ctzll(word);
  }
  return WHEEL_NEVER;
}

/* Moves the entries of all ticks up to now to a list, and continues with the next tick. */
static inline void wheel_turn(Wheel* wheel, int64_t now, Link* due) {
  const int64_t last = now / WHEEL_TICK_MSEC;
  list_init(due);
  for (int64_t i = 0, tick = wheel->first; i < WHEEL_SLOTS && tick <= last; ++i, ++tick) {
    const size_t slot = (size_t)(tick % WHEEL_SLOTS);
    if ((wheel->used[slot / WHEEL_WORD] >> slot % WHEEL_WORD & 1) == 0) continue;
    wheel->used[slot / WHEEL_WORD] &= ~(UINT64_C(1) << slot % WHEEL_WORD);
    while (!list_is_empty(&wheel->slots[slot])) {
      Link* const link = wheel->slots[slot].next;
      list_remove(link);
      list_append(due, link);
    }
  }
  if (last >= wheel->first) wheel->first = last + 1;
}

#endif
