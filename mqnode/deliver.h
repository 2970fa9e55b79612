/* deliver.h - send write descriptors immediately, or queue them and send them later, in order. Conventions: node.h.
 *
 * A node gets a queue when a write cannot complete. From then on every write is appended to the queue without trying to
 * send, and only mnFinishWrite uses the socket, until the queue is empty.
 *
 * An application may append write descriptors of its own to node->pending: an IoBuffer from fNewMemory with a data area
 * from CreateBuffer, received 0 and sent at most length. The library owns it from then on. On a datagram node it has no
 * destination: mnFinishWrite drops it with 89 in node->sock.error. The descriptor of a datagram queued by mnWriteToNode
 * is followed by its destination and is marked in received; do not change or copy it.
 *
 * After part of a message was sent and the rest was dropped, the stream is out of step: the peer would read what
 * follows as the rest of that message. Close a stream node when a write or mnFinishWrite returns 0 with error 11,
 * whatever code is in node->sock.error, including EINTR: mnFinishWrite puts a message back only if the socket is full.
 * Install signal handlers with SA_RESTART. */
#ifndef MQNODE_MQNODE_DELIVER_H
#define MQNODE_MQNODE_DELIVER_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnWriteToNode - send a write descriptor, or queue it if the socket does not accept all of it.
 *   to            in/out  destination on a datagram node, of which a queued datagram keeps a copy; a null destination
 *                         fails with 89 in node->sock.error, reported. Not read on a stream node
 *   desc          in      owned by the library from then on, whatever the result; must come from fNewMemory
 *   highPriority  in      nonzero: queue with QputHigh, which is the same as Qput
 * Result        1 sent (error 0) or queued (error 11, or 0 behind an existing queue); 0 refused or dropped
 * error         0; 11 with result 1: queued; with result 0: dropped, because there was no memory for the queue or
 *               because the socket failed with the code in node->sock.error: close the node; -1111 refused by
 *               writeLimit, nothing was sent
 * Trace points  "mnWriteToNode": once; twice for a write that starts the queue, first with the socket's code in
 *               error */
MQ_API int mnWriteToNode(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority);

/* mnFinishWrite - send the queued writes of a node, oldest first, until the queue is empty or the socket is full.
 * Call it when mnNPost lists the node as ready to write.
 * Result        1  the queue is empty (mnIsPendingIO returns 0), or the socket is full (it returns 1: wait again)
 *               0  a queued message was dropped, possibly after part of it was sent: the socket failed, a signal
 *                  interrupted the send, or there was no memory to put the message back. Later messages are still
 *                  queued but must not be sent: close a stream node. With error 105 nothing was lost: call again
 * error         0, also with result 1 if the socket accepted a part and the rest is still queued; 11 if the socket is
 *               full or a message was dropped, with the code of the socket in node->sock.error; 105 if an entry without
 *               a descriptor was dropped
 * Trace points  "mnFinishWrite": once for each failed send, and once when the queue becomes empty */
MQ_API int mnFinishWrite(MQNode* node);

/* mnIsPendingIO - check whether the node has a queue of writes.
 * Result   1 if it has one, else 0 */
MQ_API int mnIsPendingIO(MQNode* node);

/* IsNodeQReady - check whether the node's queue is within its advisory limit.
 *   node    may be null
 * Result   1 for a null node or a node without a queue; else the result of IsQReady */
MQ_API int IsNodeQReady(MQNode* node);

/* SetNodeQLimit - set the limit of the node's queue to pendingLimit. Does nothing for a null node or without a queue; a
 * new queue gets this limit anyway. */
MQ_API void SetNodeQLimit(MQNode* node);

MQ_END_C

#endif
