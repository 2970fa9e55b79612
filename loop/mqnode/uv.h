/* uv.h - message nodes in a libuv loop. For C11 with POSIX (-std=gnu11) and C++17; link mqnode::uv (mqnode-uv.pc).
 *
 * An application makes an MqUv for its loop, hands nodes over and gets events:
 *
 *   static void answer(MqUvNode* node, PcfMessage* msg) { mq_uv_write(node, msg, NULL, NULL); }
 *   static const MqUvEvents events = {.on_message = answer};
 *
 *   MqUv* uv = mq_uv_new(uv_default_loop(), NULL);
 *   if (uv != NULL && mq_uv_start(uv, listener, 0, &events, NULL) != NULL) uv_run(uv_default_loop(), UV_RUN_DEFAULT);
 *
 * Conventions
 *   Events     run from uv_run, never from within a function of this header. Each may call every function of this
 *              header for every node, but not uv_run. The last event of a node is on_end, which is called exactly once
 *              for each node that was handed over or accepted; the node is released when it returns
 *   Results    1 or a pointer on success; 0 or null on failure, with the code in the error of the MQNode
 *              (mqnode/errors.h)
 *   Ownership  the MQNode belongs to this layer from a successful mq_uv_start or mq_uv_connect until on_end has
 *              returned: do not open, read, write, close or delete it. Its fields may be read; writeLimit, user,
 *              applName and callbacks may be set
 *   Reading    a message is read header first and refused if it is longer than messageBytes. A node reads at most
 *              messagesPerTurn messages before the other nodes have their turn
 *   Writing    what the socket does not take is queued. While more than highBytes are queued, the node is not read: a
 *              peer that takes no answers cannot ask more. When lowBytes are left, reading goes on and on_drain is
 *              called. Above queueBytes, or at the node's writeLimit, a write is refused with -1111
 *   Time       an accepted node has firstMsec for its first message; in the middle of a message, and while writes are
 *              queued, a node has midwayMsec for each message or progressBytes; otherwise idleMsec. Time in which the
 *              loop did not run does not count. Then it is closed. An idle node costs nothing in a turn of the loop
 *   Accepting  acceptsPerTurn connections a turn. When all places or all descriptors are taken, keptMsec decides who
 *              gives way; when nobody does, accepting pauses until a node has gone or a second is over
 *   Memory     at most nodes accepted nodes, each with a receive area of at most one message and a queue of at most
 *              queueBytes and one message. The area of a long message is given back within 20 seconds
 *   Threads    an MqUv and its nodes are used by the thread that runs their loop. Loops in several threads need a
 *              listening node each, with SO_REUSEPORT, or nodes that one thread accepts and hands over
 *   Blocking   nothing here waits, but mq_uv_connect and datagram writes while a name is looked up: give numbers
 *   SIGPIPE    ignore it */
#ifndef MQNODE_MQNODE_UV_H
#define MQNODE_MQNODE_UV_H

#include <uv.h>

#include "mqnode/limits.h"
#include "mqnode/mqnode.h"

MQ_BEGIN_C

typedef struct MqUv MqUv;         /* the nodes of one loop */
typedef struct MqUvNode MqUvNode; /* a node in a loop */

/* The end of a write: code 0 when the system has taken all of it, else why it was dropped: ECONNABORTED when the
 * node was stopped. Called once for each write that was accepted, in their order. */
typedef void (*MqUvWrittenFn)(MqUvNode* node, int code, void* argument);

/* What an application is told. All may be null. The record must live as long as its nodes. */
typedef struct MqUvEvents {
  /* A listening node has accepted a connection. node has the listener's events, data and signer, and may be given
   * others, or be stopped. */
  void (*on_accept)(MqUvNode* listener, MqUvNode* node);
  /* A connect has succeeded. A connect that failed is told by on_end. */
  void (*on_open)(MqUvNode* node);
  /* A message has arrived on a stream node. The record belongs to the layer and may be changed until on_message
   * returns, also to write an answer from. */
  void (*on_message)(MqUvNode* node, PcfMessage* msg);
  /* A datagram has arrived. from may be changed, and given to mq_uv_write_to. */
  void (*on_datagram)(MqUvNode* node, PcfMessage* msg, SockAddrRec* from);
  /* More than highBytes were queued, and no more than lowBytes are left. */
  void (*on_drain)(MqUvNode* node);
  /* A datagram could not be read or sent, or a connection could not be accepted: code says why (EMFILE: accepting
   * pauses). The node goes on. */
  void (*on_lost)(MqUvNode* node, int code);
  /* The node is closed.
   *   code   0 after mq_uv_stop and a successful mq_uv_end; 9004 the peer has closed between two messages, and got what
   *          was queued; ETIMEDOUT; EMSGSIZE a message was too long; ECONNABORTED its place was needed; ECONNREFUSED and other
   *          codes of a connect; other codes of mnRead, mnSRead and mnFinishWrite
   *   why    text for a log; null when nobody has done anything wrong */
  void (*on_end)(MqUvNode* node, int code, const char* why);
} MqUvEvents;

/* mq_uv_new - prepare a loop for nodes.
 *   loop     in   must outlive what is returned
 *   limits   in   copied; null for the default
 * Result   null without memory */
MQ_API MqUv* mq_uv_new(uv_loop_t* loop, const MqLoopLimits* limits);

/* mq_uv_finish - stop the listening nodes, end all others in order (mq_uv_end), then mq_uv_free. */
MQ_API void mq_uv_finish(MqUv* uv);

/* mq_uv_free - stop all nodes and release everything. Run the loop until its handles are closed: on_end is called from
 * there, and uv is valid until then. uv may be null. A second call does nothing. */
MQ_API void mq_uv_free(MqUv* uv);

/* mq_uv_count - nodes in the loop, those included whose on_end is still to come. */
MQ_API int mq_uv_count(const MqUv* uv);

/* mq_uv_start - hand a node over: listening, a datagram node, or connected. It becomes non-blocking, and a listening
 * one gets the accept queue of the limits.
 *   secure   in   1: its messages, and those of the nodes that it accepts, are signed; 0: plain
 *   events   in   not copied
 *   data     in   for the application
 * Result   null: the node is still the caller's, and its error says why */
MQ_API MqUvNode* mq_uv_start(MqUv* uv, MQNode* node, int secure, const MqUvEvents* events, void* data);

/* mq_uv_connect - hand over a stream node that is to be connected; on_open or on_end follows, after connectMsec at most.
 * Arguments and result as for mq_uv_start: a connect that fails at once has the result null. */
MQ_API MqUvNode* mq_uv_connect(MqUv* uv, MQNode* node, int secure, const MqUvEvents* events, void* data);

/* mq_uv_write, mq_uv_write_to - write a message to a stream node, or a datagram to an address; signed if the node is.
 *   msg       in/out   may be reused at once
 *   to        in/out   as for mnWriteTo
 *   fn        in       null, or what is called when the system has taken the message or it was dropped
 *   argument  in       for fn
 * Result   1 sent or queued; 0 not, fn is not called: -1111 too much is queued, ENOTCONN the node is connecting, ending
 *          or closed, ENOMEM, or as in compose.h. After a failure of the connection on_end follows */
MQ_API int mq_uv_write(MqUvNode* node, PcfMessage* msg, MqUvWrittenFn fn, void* argument);
MQ_API int mq_uv_write_to(MqUvNode* node, PcfMessage* msg, SockAddrRec* to, MqUvWrittenFn fn, void* argument);

/* mq_uv_queued - bytes that are queued on a node. */
MQ_API uint64_t mq_uv_queued(const MqUvNode* node);

/* mq_uv_pause, mq_uv_resume - stop reading messages, or accepting connections, and go on. A paused node with an empty
 * queue is not watched at all: it does not notice when its peer goes, does not keep the loop running and has no
 * time-outs. */
MQ_API void mq_uv_pause(MqUvNode* node);
MQ_API void mq_uv_resume(MqUvNode* node);

/* mq_uv_end - end in order: send what is queued, shut down the sending side, discard what the peer still sends until it
 * has closed, and wait until its system has confirmed everything; then on_end with code 0. After endMsec on_end with
 * ETIMEDOUT: the system goes on sending what it has. A connecting or listening node is stopped; of a datagram node only
 * the queue is sent. */
MQ_API void mq_uv_end(MqUvNode* node);

/* mq_uv_stop - close now and discard what is queued; the connection is reset. on_end follows with code 0, or that of an
 * end which had begun before. */
MQ_API void mq_uv_stop(MqUvNode* node);

/* mq_uv_node - the MQNode, until on_end has returned: its names, counters and error. */
MQ_API MQNode* mq_uv_node(const MqUvNode* node);

/* mq_uv_of - what the node was handed to. */
MQ_API MqUv* mq_uv_of(const MqUvNode* node);

/* mq_uv_data, mq_uv_set_data - the application's pointer. */
MQ_API void* mq_uv_data(const MqUvNode* node);
MQ_API void mq_uv_set_data(MqUvNode* node, void* data);

/* mq_uv_set_events - other events from now on; not copied. */
MQ_API void mq_uv_set_events(MqUvNode* node, const MqUvEvents* events);

/* mq_uv_set_signer - the security context that signs the writes of a signed node (mnSWrite); null at first. It must
 * outlive the node. */
MQ_API void mq_uv_set_signer(MqUvNode* node, void* securityContext);

MQ_END_C

#endif
