/* limits.h - what the nodes in an event loop may cost. For mqnode/uv.h and mqnode/asio.hpp, in C and C++. */
#ifndef MQNODE_MQNODE_LIMITS_H
#define MQNODE_MQNODE_LIMITS_H

#include <stdint.h>

/* Upper bounds of one node, and of the nodes of one loop. In brackets the default, which mq_loop_limits returns. */
typedef struct MqLoopLimits {
  uint32_t messageBytes; /* bytes of a message without its header or envelope (65536). A longer one is not received */
  uint32_t messagesPerTurn; /* messages that a node reads before other nodes have their turn (16) */
  uint32_t acceptsPerTurn;  /* connections that a listening node accepts before (32) */
  uint32_t highBytes;       /* bytes queued on a node, above which it is not read (262144) */
  uint32_t lowBytes;        /* bytes queued, at which reading goes on (65536) */
  uint32_t queueBytes;      /* bytes queued, above which a write is refused (4194304) */
  uint32_t progressBytes;   /* bytes moved within a message that count as progress (65536) */
  uint32_t socketBytes; /* bytes of the system's buffers of an accepted node, each direction (65536); 0: as the system
                               likes, which is faster far away, and hides from midwayMsec who takes no answers */
  int firstMsec;        /* milliseconds until an accepted node has sent a message (10000); 0: as idleMsec */
  int midwayMsec;       /* milliseconds without progress in a message, or with queued writes (10000); 0: no limit */
  int idleMsec;         /* milliseconds without a message otherwise (600000); 0: no limit */
  int connectMsec;      /* milliseconds for a connect (10000); 0: no limit but the system's */
  int endMsec;          /* milliseconds for a graceful end (10000); 0: no limit */
  int backlog;          /* connections that wait to be accepted (1024). The system may allow fewer */
  int nodes;            /* accepted nodes at once (10000) */
  int keptMsec;         /* when all places or all descriptors are taken, a newcomer takes the place of an accepted
                               node of the address with the most of them, the one that has been quiet longest, but none
                               that was accepted in the last so many milliseconds (1000); -1: newcomers wait */
} MqLoopLimits;

static inline MqLoopLimits mq_loop_limits(void) {
  const MqLoopLimits limits = {65536, 16,    32,     262144, 65536, 4194304, 65536, 65536,
                               10000, 10000, 600000, 10000,  10000, 1024,    10000, 1000};
  return limits;
}

#endif
