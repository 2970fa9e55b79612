/* node.h - the message node: one endpoint over one socket, with its identity, counters, callbacks and error.
 *
 * Conventions of the whole node layer (every header of this folder):
 *   Results    1, or another nonzero value where a function says so, for success; 0 for failure.
 *   Errors     every open, read and write sets node->error to 0 first and leaves the reason of a failure there: a code
 *              of the socket layer (an errno value, 9002, 9003, 9004, 89) or one of the codes below. mqnode/errors.h
 *              knows them all by name, with what to do.
 *   Trace      a trace point calls node->onTrace, when set, with the operation's name and the node. Trace points of the
 *              socket layer run on the socket's own callback in between. A callback looks, and may set callbacks and
 *              limits; it must not open, close, delete, read, write or finish its node, nor any node of a running wait.
 *   Pointers   required and not checked, unless a function says otherwise.
 *   Ownership  the caller owns every node it creates or accepts, until DeleteMQNode.
 *   Threads    one node, its messages and a wait record are used by one thread at a time, different ones by different
 *              threads at once. No locks. What belongs to the process is not covered by that:
 *                before other threads use nodes   mnGSetTraceCallBack and the globals G_node_trace, G_socket_trace;
 *                                                 SetApplName; the environment
 *                by one thread at a time          whatever looks a name up (socksin/record.h): mnOpen, creation and
 *                                                 datagram writes with other names than numbers, "*"; creation while
 *                                                 TEVRA_HOME is set, which writes a file named by the process id
 *   Blocking   a call blocks when the node's socket does (NoblockSocket(&node->sock) changes that), and while a name is
 *              looked up.
 *   SIGPIPE    sending to a closed peer raises it; a host that does not want to end there ignores the signal. */
#ifndef MQNODE_MQNODE_NODE_H
#define MQNODE_MQNODE_NODE_H

#include <stddef.h>
#include <stdint.h>

#include "queue/queue.h"
#include "runtime/api.h"
#include "runtime/message.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* Codes of the node layer. */
enum {
  MQ_OK = 0,
  MQ_AGAIN = 11,            /* read unfinished: call again; write queued, or dropped when the result is 0 */
  MQ_NO_DESCRIPTOR = 105,   /* a pending entry without a write descriptor was dropped */
  MQ_BAD_MESSAGE = 2026,    /* not a message: first word, length or size is wrong, or it could not be converted */
  MQ_NO_ROOM = 2102,        /* a message record or a receive buffer could not be enlarged */
  MQ_BAD_BODY = 4005,       /* the message was consumed but its body could not be converted or parsed */
  MQ_NOT_SIGNED = -1000,    /* signing failed */
  MQ_NOT_AUTHENTIC = -1001, /* the message was consumed but its signature does not hold */
  MQ_WRITE_LIMIT = -1111    /* the limit of outstanding writes is reached */
};

/* What a node does: the values of MQNode.role. */
enum { MQ_ROLE_CONNECT = 0, MQ_ROLE_LISTEN = 1 };

typedef struct MQNode MQNode;

/* Called at each trace point of a node operation with the point's name. */
typedef void (*MQNodeTraceFn)(const char* point, MQNode* node);

/* A node's own operations, for callers that drive nodes through the record. */
typedef int (*MQNodeFn)(MQNode* node);
typedef int (*MQMessageFn)(PcfMessage* msg, MQNode* node);
typedef int (*MQPostFn)(MQNode** nodes, MQNode** listenReady, MQNode** readReady, int seconds, int* status);

/* Callers may read any field, and set writeLimit and pendingLimit. An application that writes as another user than its
 * login puts that user, zero-padded, into user before it writes. Between two messages (recvBuffer.received is 0) it may
 * replace a receive area that a long message has made large: DeleteBuffer, CreateBuffer with 16520 bytes, ResetBuffer to
 * the length of the next header (136, or 32 of a signed message; on a datagram node to the capacity). */
struct MQNode {
  uint32_t nodeType;         /* 2 */
  uint32_t role;             /* 0 connecting or datagram, 1 listening */
  char host[256];            /* host text of the address; "@" over an existing socket */
  char platform[256];        /* "UNIX" */
  char user[13];             /* at most 12 characters of the login name; every message carries it */
  char applName[48];         /* this program's name, zero-padded, without a terminator when 48 long; as above */
  SockRec sock;              /* sock.owner points back at the node */
  MQNode* child;             /* the last connection that a listening node accepted; the caller's */
  int32_t writeLimit;        /* most writes that may be outstanding; 0 or less: no limit */
  int32_t writesOutstanding; /* writes queued and not yet sent or dropped */
  uint32_t writesCompleted;  /* writes sent whole */
  uint32_t msgsRead;         /* messages read */
  int32_t error;             /* of the last operation */
  uint32_t openState;        /* 1 connected, accepted or bound; else 0 */
  MQNodeFn opOpen;           /* mnOpen */
  MQNodeFn opClose;          /* mnClose */
  MQMessageFn opRead;        /* mnRead */
  MQMessageFn opBrowse;      /* mnBrowse */
  MQMessageFn opWrite;       /* mnWrite */
  MQPostFn opPost;           /* mnPost */
  MQNodeTraceFn onTrace;     /* may be null */
  SockAddrRec addr;          /* where to connect, or what was bound */
  Queue* pending;            /* write descriptors that wait to be sent (deliver.h); null when there are none */
  uint32_t pendingLimit;     /* advisory limit that pending gets when it is created */
  IoBuffer recvBuffer;       /* what a read has gathered so far */
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

/* The trace callback that creation copies into each new node; null when the library is loaded. */
extern MQ_API MQNodeTraceFn G_node_trace;

/* RunTraceMethod - call node->onTrace with name, when it is set. */
MQ_API void RunTraceMethod(const char* name, MQNode* node);

/* mnSetTraceCallBack - set the node's trace callback, null for none. Always 1. */
MQ_API int mnSetTraceCallBack(MQNodeTraceFn fn, MQNode* node);

/* mnGSetTraceCallBack - set G_node_trace, which only nodes created afterwards take. Null for none. Always 1. */
MQ_API int mnGSetTraceCallBack(MQNodeTraceFn fn);

/* SetMQNodeError - copy the socket's error into the node's. */
MQ_API void SetMQNodeError(MQNode* node);

/* IsNodeFailed - whether the last operation failed.
 *   node    may be null
 * Result   1 for a null node and for every error but 0 and -1111, 11 included; else 0 */
MQ_API int IsNodeFailed(MQNode* node);

/* mnSetBufferSize - size of the socket's send and receive buffers, bytes; both are tried.
 * Result   1 both set, 0 not; node->error is left alone, node->sock.error has the outcome of the second */
MQ_API int mnSetBufferSize(MQNode* node, uint32_t size);

MQ_END_C

#endif
