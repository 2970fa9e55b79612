/* answers.h - what keeps a datagram server from answering for ever, and from being turned against others.
 *
 * Anybody can put a foreign address into a datagram. Two servers that answer whatever arrives then answer each other
 * until one of them ends, and answers reach hosts that asked nothing. So an answer carries a mark, a message with the
 * mark is never answered, and an address receives a bounded number of answers a second. docs/wire-format.md describes
 * the mark, which mqcat shares. */
#ifndef MQNODE_EXAMPLES_ANSWERS_H
#define MQNODE_EXAMPLES_ANSWERS_H

#include <arpa/inet.h>

#include "companion/host.h"
#include "mqnode/mqnode.h"

enum {
  PARAM_IS_ANSWER = 0x414e5357, /* id of the mark, "ANSW": a 32-bit integer, 1. The id alone counts */
  MOST_ANSWERS = 1000,          /* a second, to one address */
  ANSWER_SLOT_BITS = 12         /* the table has 2 to the power of this many slots */
};

/* How many answers the addresses of each slot received in a second. Addresses that share a slot share its bound, so
 * that neither memory nor time grows with the number of addresses. All zero at first. */
typedef struct Answers {
  struct {
    long second;
    uint32_t sent;
  } slots[1 << ANSWER_SLOT_BITS];
} Answers;

/* Whether a message is marked as an answer. */
static inline int is_answer(const PcfMessage* msg) {
  MqcParam mark;
  return mqc_find(msg, PARAM_IS_ANSWER, &mark);
}

/* Marks a message that was begun or read as an answer. 1; 0 as mqc_add_int32. */
static inline int mark_answer(PcfMessage* msg) { return mqc_add_int32(msg, PARAM_IS_ANSWER, 1); }

/* Whether an address may receive one more answer in this second, of which it receives most at most; counts it then.
 * The port does not count: all ports of a host share its bound. */
static inline int may_answer(Answers* answers, const SockAddrRec* to, long second, uint32_t most) {
  const uint32_t golden = 2654435769u; /* spreads neighbouring addresses over the table */
  const uint32_t slot = ntohl(inet_addr(to->ip)) * golden >> (32 - ANSWER_SLOT_BITS);
  if (answers->slots[slot].second != second) {
    answers->slots[slot].second = second;
    answers->slots[slot].sent = 0;
  }
  if (answers->slots[slot].sent >= most) return 0;
  ++answers->slots[slot].sent;
  return 1;
}

#endif
