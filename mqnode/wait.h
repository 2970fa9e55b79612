/* wait.h - wait on many nodes at once and learn which can be accepted on, read and written. Conventions: node.h.
 *
 * Two families: mnPost waits for reading and connections to accept, mnNPost for writing too. In each the plain form
 * takes seconds and sets up a work record for the one call, Ex takes seconds and the caller's record, ExMSec
 * milliseconds and the caller's record; a record kept for many waits saves the allocations (socksin/wait.h says when a
 * wait allocates).
 *
 * Arguments
 *   nodes         in   the nodes to wait on, ended by a null pointer. A record of size n takes n - 1, the plain forms
 *                      2512; nodes past that are not waited on
 *   listenReady   out  listening nodes with a connection to accept: mnOpen each
 *   readReady     out  other nodes with something to read: data, a closed peer or an error. mnNPost also lists nodes
 *                      with an exceptional condition here, or in listenReady, after the readable ones
 *   writeReady    out  mnNPost: nodes with queued writes that can go on (mnFinishWrite), then nodes whose connect
 *                      completed, which are open now. A node whose connect failed, or whose peer has sent already, is
 *                      in readReady only and stays as it is: read from it, and the error or the data tells
 *                 Each array has room for one entry more than there are nodes, keeps the order of nodes and is ended by
 *                 a null pointer; read it only after result 1
 *   seconds, milliseconds  0 polls; negative counts as 0; seconds above 2147483 count as that
 *   status        out  0; errno of select (EINTR: a signal came); 9000 timed out; ENOMEM and EINVAL (socksin/wait.h);
 *                      untouched when a plain form has no memory
 *   work          in   from InitSocketPostData, with all its lists
 * A node may be in readReady and in writeReady of one wait: close it (mnClose) where it fails, and delete closed nodes
 * once both arrays were walked.
 * Result        1 something was ready; 0 failed, timed out, or no memory: the arrays are untouched
 * error         no node's error is set
 * Trace points  on each listed node: "mnPost::Ready"; "mnNPost::Ready", "mnNPost::Exception", "mnNPost::Write". Those
 *               of PostSocket and NPostSocket run on the sockets before
 * Blocks        for at most the timeout */
#ifndef MQNODE_MQNODE_WAIT_H
#define MQNODE_MQNODE_WAIT_H

#include "mqnode/node.h"
#include "socksin/wait.h"

MQ_BEGIN_C

MQ_API int mnPost(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status);
MQ_API int mnPostEx(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status,
                    SockPostData* work);
MQ_API int mnPostExMSec(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int milliseconds, int* status,
                        SockPostData* work);

MQ_API int mnNPost(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady, int seconds,
                   int* status);
MQ_API int mnNPostEx(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady, int seconds,
                     int* status, SockPostData* work);
MQ_API int mnNPostExMSec(MQNode** nodes, MQNode** listenReady, MQNode** readReady, MQNode** writeReady,
                         int milliseconds, int* status, SockPostData* work);

MQ_END_C

#endif
