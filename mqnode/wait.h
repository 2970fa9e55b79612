/* wait.h - wait until nodes can be accepted on, read from or written to. Conventions: node.h.
 *
 * mnPost waits for data and connections, mnNPost also for the end of queued writes and connects. The plain forms take
 * the timeout in seconds and allocate a work record for the call; the Ex forms take seconds and the caller's record,
 * the ExMSec forms milliseconds and the caller's record. Keep a record for many waits to save its allocation;
 * socksin/wait.h documents when a wait allocates.
 *
 * Arguments
 *   nodes         in   the nodes to wait on, terminated by a null pointer. A record of size n takes n - 1 nodes, the
 *                      plain forms 2512; further nodes are ignored
 *   listenReady   out  listening nodes with a connection to accept: call mnOpen on each
 *   readReady     out  other nodes that are readable: data, a closed connection or an error. mnNPost lists nodes with
 *                      an exceptional condition here or in listenReady, after the readable ones
 *   writeReady    out  mnNPost only: nodes with queued writes that can continue (call mnFinishWrite), then nodes whose
 *                      connect has completed, which are open now. A node whose connect failed, or whose peer has
 *                      already sent data, is in readReady only and does not change: a read returns the error or the
 *                      data
 *   seconds, milliseconds  in  the timeout. 0 polls; negative values count as 0; seconds above 2147483 count as 2147483
 *   status        out  why the call returned 0, see below. Unchanged if a plain form has no memory for its record
 *   work          in   from InitSocketPostData, with all its lists
 * Each array needs space for one entry more than there are nodes, keeps the order of nodes and is terminated by a null
 * pointer. Its contents are valid only if the call returns 1. The error of the nodes does not change.
 *
 * A node may be in both readReady and writeReady. If it fails, close it with mnClose, and delete closed nodes after
 * both arrays were processed.
 * Result        1 if a node was ready; 0 after a failure or a time-out: the arrays are unchanged
 * status        0; 9000 timed out; EINTR a signal arrived; ENOMEM or EINVAL as in socksin/wait.h; another errno of
 *               select
 * Trace points  on each listed node: "mnPost::Ready"; "mnNPost::Ready", "mnNPost::Exception", "mnNPost::Write"; before
 *               that, those of PostSocket and NPostSocket on the sockets
 * Blocks        for at most the timeout */
#ifndef MQNODE_MQNODE_WAIT_H
#define MQNODE_MQNODE_WAIT_H

#include "mqnode/node.h"
#include "socksin/wait.h"

MQ_BEGIN_C

/* mnPost, mnPostEx, mnPostExMSec - wait until nodes can be accepted on or read. */
MQ_API int mnPost(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status);
MQ_API int mnPostEx(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status,
                    SockPostData* work);
MQ_API int mnPostExMSec(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int milliseconds, int* status,
                        SockPostData* work);

/* mnNPost, mnNPostEx, mnNPostExMSec - wait until nodes can be accepted on, read, or written to. */
MQ_API int mnNPost(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady, int seconds,
                   int* status);
MQ_API int mnNPostEx(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady, int seconds,
                     int* status, SockPostData* work);
MQ_API int mnNPostExMSec(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady,
                         int milliseconds, int* status, SockPostData* work);

MQ_END_C

#endif
