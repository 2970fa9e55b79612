/* open.h - connect, accept, close and delete nodes. Conventions: node.h. */
#ifndef MQNODE_MQNODE_OPEN_H
#define MQNODE_MQNODE_OPEN_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnOpen - connect a connecting node to its addr, or accept one connection on a listening node.
 * An accepted connection becomes a new node in node->child: a copy of the listening node with the accepted socket, role
 * 0, openState 1 and its own receive buffer. The caller owns it: take it from child after each success, and delete it
 * when done. It shares nothing with its parent and may be passed to another thread. The openState of a listening node
 * never changes, so each call accepts one more connection. A call that accepts nothing does not change child, which
 * then still points to the previous node, even if that was deleted.
 * Result       openState if the node was already open (nothing else happens, and no trace point runs); else 1 if it was
 *              connected or accepted, 0 if not or if the role is neither 0 nor 1. Result 1 with a null child means that
 *              there was no memory for the child; the connection was closed. After a successful accept the error is
 *              that of the listening socket's last failure: rely on the result
 * error        0; 11 while a non-blocking connect is in progress (mnNPost completes it), or if no connection is
 *              waiting; 9002, 9003 or errno for a name that does not resolve; errno of connect or accept
 * Trace point  "mnOpen"
 * Blocks       while the socket blocks, and while a name is looked up */
MQ_API int mnOpen(MQNode* node);

/* mnClose - discard queued writes, close the socket and release the receive buffer. A closed node cannot be opened
 * again; release its record with DeleteMQNode.
 * Result        1
 * error         the error of the socket, which closing does not change
 * Trace points  "mnClose", "mnClearPeningIO"
 * Data that the system has not sent yet is discarded, because nodes linger for zero seconds. */
MQ_API int mnClose(MQNode* node);

/* mnClearPeningIO - discard the queued writes. writesOutstanding and writesCompleted do not change: if writeLimit is
 * set, set writesOutstanding to 0 before the next write.
 * Trace point  "mnClearPeningIO" */
MQ_API void mnClearPeningIO(MQNode* node);

/* DeleteMQNode - close the node, unless it is closed, and release its record. Its child is not deleted.
 *   node    may be null
 * Result        1; 0 for a null node
 * Trace points  "DeleteMQNode", "mnClose", "mnClearPeningIO" */
MQ_API int DeleteMQNode(MQNode* node);

MQ_END_C

#endif
