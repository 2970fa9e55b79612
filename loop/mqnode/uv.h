/* uv.h - message nodes in a libuv loop. For C11 with POSIX (-std=gnu11) and C++17; link mqnode::uv (mqnode-uv.pc).
 *
 * An application creates an MqUv for its loop, passes nodes to it and receives events:
 *
 *   static void answer(MqUvNode* node, PcfMessage* msg) { mq_uv_write(node, msg, NULL, NULL); }
 *   static const MqUvEvents events = {.on_message = answer};
 *
 *   MqUv* uv = mq_uv_new(uv_default_loop(), NULL);
 *   if (uv != NULL && mq_uv_start(uv, listener, 0, &events, NULL) != NULL) uv_run(uv_default_loop(), UV_RUN_DEFAULT);
 *
 * Conventions
 *   Events     are called by uv_run, never by a function of this header. An event may call every function of this
 *              header for every node, but not uv_run. The last event of a node is on_end. It is called exactly once for
 *              each node that was passed to the MqUv or accepted; the node is released when it returns
 *   Results    1 or a pointer on success; 0 or null on failure, with the code in the error of the MQNode
 *              (mqnode/errors.h)
 *   Ownership  after a successful mq_uv_start or mq_uv_connect the MQNode belongs to this layer until on_end has
 *              returned: do not open, read, write, close or delete it. You may read its fields, and set writeLimit,
 *              user, applName and callbacks
 *   Reading    the header of a message is read first; a message longer than messageBytes is refused. A node reads at
 *              most messagesPerTurn messages before other nodes have their turn
 *   Writing    a message is queued if the socket does not accept all of it. While more than highBytes are queued, the
 *              node is not read, so a peer that does not read its answers cannot send more questions. When no more than
 *              lowBytes are left, reading continues and on_drain is called. A write is refused with -1111 while more
 *              than queueBytes are queued, and at the node's writeLimit
 *   Time       an accepted node must send its first message within firstMsec. In the middle of a message, and while
 *              writes are queued, a node must complete a message or transfer progressBytes within midwayMsec.
 *              Otherwise, it may be idle for idleMsec. A node that exceeds these limits is closed. Time in which the
 *              loop did not run does not count. An idle node adds no cost to a turn of the loop
 *   Accepting  a listening node accepts at most acceptsPerTurn connections in a turn. When the limit of nodes is
 *              reached, or no descriptor is free, a new connection replaces another node, as documented for keptMsec.
 *              If no node can be replaced, accepting pauses until one has gone, or for a second
 *   Memory     the limit nodes bounds the number of accepted nodes. Each has a receive area for one message, and a
 *              queue of at most queueBytes and one message. The area of a long message is given back within 20 seconds
 *   Threads    an MqUv and its nodes must be used by the thread that runs their loop
 *   Blocking   mq_uv_connect and datagram writes block while a name is looked up: use IP addresses. Nothing else blocks
 *   SIGPIPE    must be ignored */
#ifndef MQNODE_MQNODE_UV_H
#define MQNODE_MQNODE_UV_H

#include <uv.h>

#include "mqnode/limits.h"
#include "mqnode/mqnode.h"

MQ_BEGIN_C

typedef struct MqUv MqUv;         /* the nodes of one loop */
typedef struct MqUvNode MqUvNode; /* a node in a loop */

/* Called once for each accepted write, in the order of the writes.
 *   code   0: the system has accepted the whole message; else the reason why it was dropped, ECONNABORTED if the node
 *          was stopped */
typedef void (*MqUvWrittenFn)(MqUvNode* node, int code, void* argument);

/* The events of a node. Each may be null. The record must live as long as its nodes. */
typedef struct MqUvEvents {
  /* A listening node has accepted a connection. node has the events, data and signer of the listening node. */
  void (*on_accept)(MqUvNode* listener, MqUvNode* node);
  /* A connect has succeeded. If it fails, on_end is called instead. */
  void (*on_open)(MqUvNode* node);
  /* A message has arrived on a stream node. msg belongs to the layer; it may be changed, and written, until on_message
   * returns. */
  void (*on_message)(MqUvNode* node, PcfMessage* msg);
  /* A datagram has arrived. msg as above; from may be passed to mq_uv_write_to. */
  void (*on_datagram)(MqUvNode* node, PcfMessage* msg, SockAddrRec* from);
  /* More than highBytes were queued, and now no more than lowBytes are left. */
  void (*on_drain)(MqUvNode* node);
  /* A datagram could not be read or sent, or a connection could not be accepted (EMFILE: accepting pauses). The node
   * remains open. */
  void (*on_lost)(MqUvNode* node, int code);
  /* The node is closed.
   *   code   0 after mq_uv_stop or a successful mq_uv_end; 9004 the peer closed between two messages, and the queued
   *          messages were sent; ETIMEDOUT; EMSGSIZE the message is too long; ECONNABORTED a new connection replaced
   *          it; codes of mnOpen, mnRead, mnSRead and mnFinishWrite
   *   why    text for a log; null if the node ended without a fault */
  void (*on_end)(MqUvNode* node, int code, const char* why);
} MqUvEvents;

/* mq_uv_new - prepare a loop for nodes.
 *   loop     in   must outlive the MqUv
 *   limits   in   copied; null for the default limits
 * Result   the record; null if there is no memory */
MQ_API MqUv* mq_uv_new(uv_loop_t* loop, const MqLoopLimits* limits);

/* mq_uv_finish - stop the listening nodes, call mq_uv_end for all other nodes and, when they have ended, mq_uv_free. */
MQ_API void mq_uv_finish(MqUv* uv);

/* mq_uv_free - stop all nodes and release everything. Run the loop afterwards: it calls on_end for each node, and then
 * releases uv, which may be null. */
MQ_API void mq_uv_free(MqUv* uv);

/* mq_uv_count - count the nodes whose on_end has not been called yet.
 * Result   their number */
MQ_API int mq_uv_count(const MqUv* uv);

/* mq_uv_start - add a listening node, a datagram node or a connected node to the loop. It becomes non-blocking; a
 * listening node gets the accept queue and the buffers of the limits.
 *   secure   in   1: the messages of this node, and of the nodes that it accepts, are signed; 0: plain
 *   events   in   not copied
 *   data     in   for the application
 * Result   the node in the loop; null after a failure, with the reason in node->error: the caller still owns node */
MQ_API MqUvNode* mq_uv_start(MqUv* uv, MQNode* node, int secure, const MqUvEvents* events, void* data);

/* mq_uv_connect - add a stream node to the loop and connect it. on_open or on_end follows, after at most connectMsec.
 * Arguments as for mq_uv_start.
 * Result   as for mq_uv_start; also null if the connect fails immediately */
MQ_API MqUvNode* mq_uv_connect(MqUv* uv, MQNode* node, int secure, const MqUvEvents* events, void* data);

/* mq_uv_write, mq_uv_write_to - write a message to a stream node, or a datagram to an address; signed if the node is.
 *   msg       in/out   may be reused when the function returns
 *   to        in/out   as for mnWriteTo
 *   fn        in       called when the message was sent or dropped; may be null
 *   argument  in       passed to fn
 * Result   1 sent or queued; 0 refused or dropped, fn is not called: -1111 too much is queued; ENOTCONN the node is
 *          connecting, ending or closed; ENOMEM; codes of compose.h. If the connection has failed, on_end follows */
MQ_API int mq_uv_write(MqUvNode* node, PcfMessage* msg, MqUvWrittenFn fn, void* argument);
MQ_API int mq_uv_write_to(MqUvNode* node, PcfMessage* msg, SockAddrRec* to, MqUvWrittenFn fn, void* argument);

/* mq_uv_queued - get the number of bytes queued on a node. */
MQ_API uint64_t mq_uv_queued(const MqUvNode* node);

/* mq_uv_pause, mq_uv_resume - stop reading messages or accepting connections, and continue. A paused node with an empty
 * queue is not watched: it does not notice that its peer closes, does not keep the loop running and never times out. */
MQ_API void mq_uv_pause(MqUvNode* node);
MQ_API void mq_uv_resume(MqUvNode* node);

/* mq_uv_set_owed - say how many answers the application still has to write to a node; 0 at first. When the peer closes
 * its side between two messages, the node ends: at once, or when this number is 0 again. Until then it can be written,
 * is not read, and has no time-outs unless writes are queued. For applications that answer after on_message. */
MQ_API void mq_uv_set_owed(MqUvNode* node, int answers);

/* mq_uv_end - end a connection without losing messages, as mq_finish does; then on_end is called with code 0. After
 * endMsec it is called with ETIMEDOUT, and the system continues to send what it has accepted. Messages that arrive are
 * discarded. A connecting or listening node is stopped. A datagram node sends its queued messages. */
MQ_API void mq_uv_end(MqUvNode* node);

/* mq_uv_stop - close a node immediately and discard queued messages: the connection is reset. on_end follows, with code
 * 0 or the code of an end that had begun before. */
MQ_API void mq_uv_stop(MqUvNode* node);

/* mq_uv_node - get the MQNode of a node, valid until on_end has returned. */
MQ_API MQNode* mq_uv_node(const MqUvNode* node);

/* mq_uv_of - get the MqUv of a node. */
MQ_API MqUv* mq_uv_of(const MqUvNode* node);

/* mq_uv_data - get the application's pointer. */
MQ_API void* mq_uv_data(const MqUvNode* node);

/* mq_uv_set_data - set the application's pointer. */
MQ_API void mq_uv_set_data(MqUvNode* node, void* data);

/* mq_uv_set_events - set other events for a node; not copied. */
MQ_API void mq_uv_set_events(MqUvNode* node, const MqUvEvents* events);

/* mq_uv_set_signer - set the security context of a signed node, which signs its writes (mnSWrite); null at first. It
 * must outlive the node. */
MQ_API void mq_uv_set_signer(MqUvNode* node, void* securityContext);

MQ_END_C

#endif
