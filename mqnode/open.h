/* open.h - give a node its connection, take it away, release the node. Conventions: node.h. */
#ifndef MQNODE_MQNODE_OPEN_H
#define MQNODE_MQNODE_OPEN_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnOpen - connect a connecting node to its addr, or accept one waiting connection on a listening node.
 * An accepted connection becomes a new child node, left in node->child: a copy of the listening node with the accepted
 * socket, role 0, openState 1 and a receive buffer of its own. It is the caller's, who takes it from there after each
 * success and later deletes it; it shares nothing with its parent and may go to another thread. A listening node's own
 * openState never changes, so every call accepts one more. A call that accepts nothing leaves child as it is: it still
 * points at the node of the last success, which may have been deleted since.
 * Result       openState when the node was open already (nothing else happens, no trace point); else 1 connected or
 *              accepted, 0 not, also for a role that is neither 0 nor 1. Result 1 with child null: there was no memory
 *              for the child, and the connection was closed
 * error        0 or the socket's code: 11 while a non-blocking connect is in progress (mnNPost completes it) or when
 *              nothing waits to be accepted; for a name that does not resolve errno or 9002 and 9003; an errno value.
 *              After an accept that succeeded, what the listening socket's last failure left: trust the result
 * Trace point  "mnOpen"
 * Blocks       when the socket does, and while a name is looked up */
MQ_API int mnOpen(MQNode* node);

/* mnClose - discard queued writes, close the socket, release the receive buffer. A closed node keeps its record, which
 * only DeleteMQNode has a use for: it cannot be opened again.
 * Result        1
 * error         the socket's error, which closing does not change
 * Trace points  "mnClose", "mnClearPeningIO"
 * Unsent data is thrown away: nodes linger for zero seconds. */
MQ_API int mnClose(MQNode* node);

/* mnClearPeningIO - discard the queued writes. writesOutstanding and writesCompleted keep their values: with a
 * writeLimit, set writesOutstanding to 0 to write on.
 * Trace point  "mnClearPeningIO" */
MQ_API void mnClearPeningIO(MQNode* node);

/* DeleteMQNode - close the node, whether it was closed before or not, and release its record; its child stays.
 *   node    may be null
 * Result        1; 0 for a null node
 * Trace points  "DeleteMQNode", "mnClose", "mnClearPeningIO" */
MQ_API int DeleteMQNode(MQNode* node);

MQ_END_C

#endif
