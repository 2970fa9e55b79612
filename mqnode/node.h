/* node.h - the message node: one endpoint over one socket, with its identity, counters, callbacks and error.
 *
 * Conventions of the node layer (all headers of this directory):
 *   Results    1 on success, or another nonzero value where documented; 0 on failure.
 *   Errors     every open, read and write first sets node->error to 0 and stores the reason for a failure there: a code
 *              of the socket layer (an errno value, 89, 9002, 9003 or 9004) or one of the codes below. mqnode/errors.h
 *              gives the name, meaning and remedy of each.
 *   Trace      a trace point calls node->onTrace, if set, with the operation's name and the node. In between, the trace
 *              points of the socket layer call the socket's own callback. A callback may inspect the node and set
 *              callbacks and limits. It must not open, close, delete, read, write or finish its node, or any node of a
 *              wait in progress.
 *   Pointers   must not be null unless documented otherwise; they are not checked.
 *   Ownership  the caller owns each node that it creates or accepts, and releases it with DeleteMQNode.
 *   Threads    a node, its messages and a wait record must be used by one thread at a time. Different threads may use
 *              different ones at the same time. The library takes no locks. Set the state of the process
 *              (mnGSetTraceCallBack and the globals G_node_trace and G_socket_trace, SetApplName, the environment)
 *              before other threads use nodes. Only one thread at a time may look up names (socksin/record.h), which
 *              mnOpen, creation and datagram writes do unless the names are numbers or "*"; or create nodes while
 *              TEVRA_HOME is set, because creation then writes a file named after the process id.
 *   Blocking   a call blocks while the node's socket blocks, unless NoblockSocket(&node->sock) was called, and while a
 *              name is looked up.
 *   SIGPIPE    writing to a closed connection raises SIGPIPE, which terminates the process by default. Ignore it. */
#ifndef MQNODE_MQNODE_NODE_H
#define MQNODE_MQNODE_NODE_H

#include <stddef.h>
#include <stdint.h>

#include "queue/record.h"
#include "runtime/api.h"
#include "runtime/buffer.h"
#include "runtime/message.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* Codes of the node layer. */
enum {
  MQ_OK = 0,
  MQ_AGAIN = 11,            /* read incomplete: call again; write queued, or dropped if the result is 0 */
  MQ_NO_DESCRIPTOR = 105,   /* a pending entry without a write descriptor was dropped */
  MQ_BAD_MESSAGE = 2026,    /* not a message: wrong first word, length or size, or its header could not be converted */
  MQ_NO_ROOM = 2102,        /* a message record or a receive buffer could not be enlarged */
  MQ_BAD_BODY = 4005,       /* the message was consumed, but its body could not be converted or parsed */
  MQ_NOT_SIGNED = -1000,    /* signing failed */
  MQ_NOT_AUTHENTIC = -1001, /* the message was consumed, but its signature or seal is not accepted */
  MQ_WRITE_LIMIT = -1111    /* the limit of outstanding writes is reached */
};

/* Values of MQNode.role. */
enum { MQ_ROLE_CONNECT = 0, MQ_ROLE_LISTEN = 1 };

typedef struct MQNode MQNode;

/* MQNodeTraceFn - a trace callback: called at each trace point of a node operation, with the name of the point. */
typedef void (*MQNodeTraceFn)(const char* point, MQNode* node);

/* MQNodeFn, MQMessageFn, MQPostFn - types of the operations of a node, for callers that use them through the record. */
typedef int (*MQNodeFn)(MQNode* node);
typedef int (*MQMessageFn)(PcfMessage* msg, MQNode* node);
typedef int (*MQPostFn)(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status);

/* MQNode - a message node. Callers may read any field, and may set writeLimit and pendingLimit. To write as another
 * user than the login name, or to name the application, store that text, zero-padded, in user or applName before
 * writing. To release the memory of a receive area that a long message has enlarged, call DeleteBuffer, CreateBuffer
 * with 16520 bytes, and ResetBuffer on recvBuffer between two messages (while recvBuffer.received is 0). Reset it to
 * the length of the next header (136, or 32 for a signed message), or on a datagram node to the capacity. */
struct MQNode {
  uint32_t nodeType;         /* 2 */
  uint32_t role;             /* 0 connecting or datagram, 1 listening */
  char host[256];            /* host text of the address; "@" over an existing socket */
  char platform[256];        /* "UNIX" */
  char user[13];             /* at most 12 characters of the login name; every message carries it */
  char applName[48];         /* name of the application, zero-padded; not terminated if it has 48 characters */
  SockRec sock;              /* sock.owner points back at the node */
  MQNode* child;             /* the connection that a listening node accepted last; owned by the caller */
  int32_t writeLimit;        /* upper bound of outstanding writes; 0 or less: none */
  int32_t writesOutstanding; /* writes queued and not yet sent or dropped */
  uint32_t writesCompleted;  /* writes sent completely */
  uint32_t msgsRead;         /* messages read */
  int32_t error;             /* error of the last operation */
  uint32_t openState;        /* 1 when connected, accepted or bound; else 0 */
  MQNodeFn opOpen;           /* mnOpen */
  MQNodeFn opClose;          /* mnClose */
  MQMessageFn opRead;        /* mnRead */
  MQMessageFn opBrowse;      /* mnBrowse */
  MQMessageFn opWrite;       /* mnWrite */
  MQPostFn opPost;           /* mnPost */
  MQNodeTraceFn onTrace;     /* may be null */
  SockAddrRec addr;          /* address to connect to, or that was bound */
  struct MQQueue* pending;   /* a Queue of write descriptors (deliver.h); null if there are none */
  uint32_t pendingLimit;     /* advisory limit of pending, set when pending is created */
  IoBuffer recvBuffer;       /* bytes that a read has received so far */
};

MQ_STATIC_ASSERT(sizeof(MQNode) == 1944, "MQNode is 1944 bytes");
MQ_STATIC_ASSERT(offsetof(MQNode, role) == 4, "MQNode.role");
MQ_STATIC_ASSERT(offsetof(MQNode, host) == 8, "MQNode.host");
MQ_STATIC_ASSERT(offsetof(MQNode, platform) == 264, "MQNode.platform");
MQ_STATIC_ASSERT(offsetof(MQNode, user) == 520, "MQNode.user");
MQ_STATIC_ASSERT(offsetof(MQNode, applName) == 533, "MQNode.applName");
MQ_STATIC_ASSERT(offsetof(MQNode, sock) == 584, "MQNode.sock");
MQ_STATIC_ASSERT(offsetof(MQNode, child) == 1424, "MQNode.child");
MQ_STATIC_ASSERT(offsetof(MQNode, writeLimit) == 1432, "MQNode.writeLimit");
MQ_STATIC_ASSERT(offsetof(MQNode, writesOutstanding) == 1436, "MQNode.writesOutstanding");
MQ_STATIC_ASSERT(offsetof(MQNode, writesCompleted) == 1440, "MQNode.writesCompleted");
MQ_STATIC_ASSERT(offsetof(MQNode, msgsRead) == 1444, "MQNode.msgsRead");
MQ_STATIC_ASSERT(offsetof(MQNode, error) == 1448, "MQNode.error");
MQ_STATIC_ASSERT(offsetof(MQNode, openState) == 1452, "MQNode.openState");
MQ_STATIC_ASSERT(offsetof(MQNode, opOpen) == 1456, "MQNode.opOpen");
MQ_STATIC_ASSERT(offsetof(MQNode, opClose) == 1464, "MQNode.opClose");
MQ_STATIC_ASSERT(offsetof(MQNode, opRead) == 1472, "MQNode.opRead");
MQ_STATIC_ASSERT(offsetof(MQNode, opBrowse) == 1480, "MQNode.opBrowse");
MQ_STATIC_ASSERT(offsetof(MQNode, opWrite) == 1488, "MQNode.opWrite");
MQ_STATIC_ASSERT(offsetof(MQNode, opPost) == 1496, "MQNode.opPost");
MQ_STATIC_ASSERT(offsetof(MQNode, onTrace) == 1504, "MQNode.onTrace");
MQ_STATIC_ASSERT(offsetof(MQNode, addr) == 1512, "MQNode.addr");
MQ_STATIC_ASSERT(offsetof(MQNode, pending) == 1896, "MQNode.pending");
MQ_STATIC_ASSERT(offsetof(MQNode, pendingLimit) == 1904, "MQNode.pendingLimit");
MQ_STATIC_ASSERT(offsetof(MQNode, recvBuffer) == 1912, "MQNode.recvBuffer");

/* G_node_trace - the trace callback that each new node gets; null at first. */
extern MQ_API MQNodeTraceFn G_node_trace;

/* RunTraceMethod - call node->onTrace with name, if it is set. */
MQ_API void RunTraceMethod(const char* name, MQNode* node);

/* mnSetTraceCallBack - set the node's trace callback; null removes it. Returns 1. */
MQ_API int mnSetTraceCallBack(MQNodeTraceFn fn, MQNode* node);

/* mnGSetTraceCallBack - set G_node_trace, the callback of nodes created from then on; null for none. Returns 1. */
MQ_API int mnGSetTraceCallBack(MQNodeTraceFn fn);

/* SetMQNodeError - copy the socket's error into the node's. */
MQ_API void SetMQNodeError(MQNode* node);

/* IsNodeFailed - check whether the last operation failed.
 *   node    may be null
 * Result   1 for a null node and for every error other than 0 and -1111, including 11; else 0 */
MQ_API int IsNodeFailed(MQNode* node);

/* mnSetBufferSize - set the size in bytes of the socket's send buffer, then of its receive buffer.
 * Result   1 if both were set, else 0. node->error does not change; node->sock.error is that of the receive buffer */
MQ_API int mnSetBufferSize(MQNode* node, uint32_t size);

MQ_END_C

#endif
