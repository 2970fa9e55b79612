/* limits.h - limits of the nodes in an event loop, for mqnode/uv.h and mqnode/asio.hpp. For C11 and C++17. */
#ifndef MQNODE_MQNODE_LIMITS_H
#define MQNODE_MQNODE_LIMITS_H

#include <stdint.h>

/* Limits of the nodes in a loop. The defaults, in parentheses, are those of mq_loop_limits. */
typedef struct MqLoopLimits {
  uint32_t messageBytes;    /* bytes of a message without its header or envelope (65536); longer ones are refused */
  uint32_t messagesPerTurn; /* messages that a node reads before other nodes have their turn (16) */
  uint32_t acceptsPerTurn;  /* connections that a listening node accepts before other nodes have their turn (32) */
  uint32_t highBytes;       /* a node is not read when more bytes than this are queued (262144) */
  uint32_t lowBytes;        /* reading continues when no more bytes than this are left (65536) */
  uint32_t queueBytes;      /* a write is refused while more bytes than this are queued (4194304) */
  uint32_t progressBytes;   /* bytes transferred within a message that count as progress (65536) */
  uint32_t socketBytes;     /* bytes of each system buffer of an accepted node (65536); 0: the system's choice, which is
                               faster over long distances, but delays midwayMsec for peers that do not read */
  int firstMsec;            /* milliseconds for the first message of an accepted node (10000); 0: as idleMsec */
  int midwayMsec;           /* milliseconds without progress in a message, or with queued writes (10000); 0: no limit */
  int idleMsec;             /* milliseconds without a message otherwise (600000); 0: no limit */
  int connectMsec;          /* milliseconds for a connect (10000); 0: only the system's limit */
  int endMsec;              /* milliseconds for mq_uv_end (10000); 0: no limit */
  int backlog;              /* connections that wait to be accepted (1024); the system may allow fewer */
  int nodes;                /* accepted nodes that are open (10000) */
  int keptMsec; /* when the limit of nodes is reached or no descriptor is free, a new connection replaces the longest
                               idle node of the address with the most nodes, if that node was accepted at least this
                               many milliseconds ago (1000); -1: new connections wait */
} MqLoopLimits;

static inline MqLoopLimits mq_loop_limits(void) {
  const MqLoopLimits limits = {65536, 16,    32,     262144, 65536, 4194304, 65536, 65536,
                               10000, 10000, 600000, 10000,  10000, 1024,    10000, 1000};
  return limits;
}

#endif
