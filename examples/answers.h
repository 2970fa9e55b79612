/* answers.h - which datagrams a server may answer.
 *
 * The source address of a datagram can be forged. A server that answers everything can therefore be made to flood a
 * third host, or to exchange answers with another such server forever. So an answer carries a mark, a message with the
 * mark is never answered, and each address receives a limited number of answers a second. docs/wire-format.md describes
 * the mark, which mqcat uses too. */
#ifndef MQNODE_EXAMPLES_ANSWERS_H
#define MQNODE_EXAMPLES_ANSWERS_H

#include <arpa/inet.h>

#include "companion/host.h"
#include "mqnode/mqnode.h"

enum {
  PARAM_IS_ANSWER =
      0x414e5357,       /* id of the mark, "ANSW"; its value is the 32-bit integer 1, but only the id is checked */
  MOST_ANSWERS = 1000,  /* answers to one address a second */
  ANSWER_SLOT_BITS = 12 /* the table has 1 << ANSWER_SLOT_BITS slots */
};

/* Counts the answers sent to the addresses of each slot in the current second. Addresses that share a slot share its
 * limit, so neither memory nor time grows with the number of addresses. Initialise with zeros. */
typedef struct Answers {
  struct {
    long second;
    uint32_t sent;
  } slots[1 << ANSWER_SLOT_BITS];
} Answers;

/* Whether a message carries the mark. */
static inline int is_answer(const PcfMessage* msg) {
  MqcParam mark;
  return mqc_find(msg, PARAM_IS_ANSWER, &mark);
}

/* Adds the mark to a message. Returns 1, or 0 if mqc_add_int32 fails. */
static inline int mark_answer(PcfMessage* msg) { return mqc_add_int32(msg, PARAM_IS_ANSWER, 1); }

/* Whether an address may receive another answer in this second; if so, counts it. At most `most` are allowed. All ports
 * of an address share the limit. */
static inline int may_answer(Answers* answers, const SockAddrRec* to, long second, uint32_t most) {
  const uint32_t golden = 2654435769u; /* spreads adjacent addresses over the table */
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
