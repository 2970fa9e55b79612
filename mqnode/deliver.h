/* deliver.h - send write descriptors at once, or queue them and send them later, in order. Conventions: node.h.
 *
 * A node has no queue until a write cannot complete; from then on every write joins the queue behind it, untried, and
 * only mnFinishWrite touches the socket, until it has emptied the queue.
 *
 * An application may put write descriptors of its own into node->pending: an IoBuffer from fNewMemory, with a data area
 * from CreateBuffer, received 0, sent at most length. The library owns it from then on. On a datagram node it has no
 * destination: mnFinishWrite drops it with 89 in node->sock.error. The queued datagrams of mnWriteToNode keep their
 * destination behind the descriptor and carry a mark in received; an application does not change or copy them.
 *
 * A message that was sent in part and then dropped leaves the stream out of step: the peer would read what follows as
 * the rest of it. So a node whose write or mnFinishWrite has result 0 and error 11 on a stream must be closed. This
 * holds for every code in node->sock.error, EINTR too: mnFinishWrite puts a message back only when the socket is full.
 * Install signal handlers with SA_RESTART. */
#ifndef MQNODE_MQNODE_DELIVER_H
#define MQNODE_MQNODE_DELIVER_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnWriteToNode - send a write descriptor, or queue it when the socket does not take all of it.
 *   to            in/out  destination on a datagram node; a queued datagram keeps its own copy. Null fails there with
 *                         89 in node->sock.error, reported. Not read on a stream node
 *   desc          in      the library's from here on, whatever the result; must come from fNewMemory
 *   highPriority  in      nonzero queues with QputHigh, which is Qput: nothing overtakes
 * Result        1 sent (error 0) or queued (error 11, or 0 behind an existing queue); 0 refused or dropped
 * error         0; 11 queued, or dropped when the result is 0: without memory for the queue, or because the socket
 *               failed with the code that node->sock.error holds: close the node; -1111 refused by writeLimit, nothing
 *               was sent
 * Trace points  "mnWriteToNode": once; twice for a write that starts the queue, first with the socket's code in
 *               error */
MQ_API int mnWriteToNode(MQNode* node, SockAddrRec* to, IoBuffer* desc, int highPriority);

/* mnFinishWrite - send what is queued on a node, oldest first, until the queue is empty or the socket is full.
 * Call it when mnNPost lists the node as ready to write.
 * Result        1  the queue is empty (mnIsPendingIO says 0), or the socket took what it could (it says 1: wait again)
 *               0  a queued message was dropped, perhaps in the middle: the socket failed, a signal interrupted the
 *                  send, or there was no memory to put it back. Later ones are still queued, but must not be sent:
 *                  close a stream node. With error 105 nothing was lost: call again
 * error         0; 11 when the socket is full or a message was dropped, node->sock.error has the socket's code; 0
 *               beside result 1 when the socket took a part and the rest is still queued; 105 when an entry without a
 *               descriptor was dropped
 * Trace points  "mnFinishWrite": once for each failed send and once when the queue was emptied */
MQ_API int mnFinishWrite(MQNode* node);

/* mnIsPendingIO - 1 while the node has a queue of writes, else 0. */
MQ_API int mnIsPendingIO(MQNode* node);

/* IsNodeQReady - whether the node's queue is within its advisory limit.
 *   node    may be null
 * Result   1 for a null node and a node without a queue; else as IsQReady */
MQ_API int IsNodeQReady(MQNode* node);

/* SetNodeQLimit - give pendingLimit to the node's queue, when both exist. A queue gets it when it is created too. */
MQ_API void SetNodeQLimit(MQNode* node);

MQ_END_C

#endif
