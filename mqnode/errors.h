/* errors.h - the error codes of mqnode: name, meaning, origin and remedy of each.
 *
 * Header-only, for C11 and C++17. The functions do not allocate, block or change errno. All texts are constants.
 *
 * A code is found in one of three places, and two codes have different meanings in two of them:
 *   node->error   after an operation on a node: MQ_IN_NODE
 *   sock.error    after an operation on a socket record, including that of a node: MQ_IN_SOCKET
 *   status        the status word of a wait: MQ_IN_STATUS
 *   11    in a node: continue later (MQ_AGAIN); in a socket: the call would block (EAGAIN)
 *   105   in a node, after mnFinishWrite: MQ_NO_DESCRIPTOR; in a socket, or copied from there: ENOBUFS
 * Pass the place if you know it: mq_error_find(code, MQ_IN_SOCKET). MQ_IN_ANY finds the first entry.
 *
 *   const int code = mq_node_cause(node, NULL);
 *   fprintf(stderr, "open: %s: %s; %s\n", mq_error_name(code), mq_error_meaning(code), mq_error_remedy(code));
 *
 * docs/errors.md is generated from this table. */
#ifndef MQNODE_MQNODE_ERRORS_H
#define MQNODE_MQNODE_ERRORS_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

#include "mqnode/node.h"
#include "socksin/record.h"

// NOLINTBEGIN(modernize-use-nullptr): C reads this as well.

/* Places where a code is found; MqErrorInfo.places is a sum of these. */
enum { MQ_IN_ANY = 0, MQ_IN_NODE = 1, MQ_IN_SOCKET = 2, MQ_IN_STATUS = 4 };

/* MqErrorInfo - an entry of the table of errors. */
typedef struct MqErrorInfo {
  int32_t code;
  uint32_t places;     /* sum of MQ_IN_NODE, MQ_IN_SOCKET, MQ_IN_STATUS */
  const char* name;    /* name of the constant */
  const char* alias;   /* second name, such as that of the errno value; null for none */
  const char* meaning; /* one line */
  const char* origin;  /* operations that report it */
  const char* remedy;  /* what to do next */
} MqErrorInfo;

/* mq_error_table - get the table of all codes: those of the library first, then errno values in numeric order.
 *   count   out  number of entries; may be null */
static inline const MqErrorInfo* mq_error_table(size_t* count) {
  enum { kAll = MQ_IN_NODE | MQ_IN_SOCKET | MQ_IN_STATUS, kBoth = MQ_IN_NODE | MQ_IN_SOCKET };
  static const MqErrorInfo table[] = {
      {MQ_OK, kAll, "MQ_OK", NULL, "no error", "every successful operation", "nothing to do"},
      {MQ_AGAIN, MQ_IN_NODE, "MQ_AGAIN", NULL, "the operation is incomplete, or a write was dropped",
       "mnRead, mnSRead, mnBrowse, mnOpen, mnFinishWrite and the writes",
       "a read: wait and call again; an open: wait with mnNPost, and read if the node is listed for reading only; a "
       "write with result 1: it is queued, call mnFinishWrite; a write with result 0: it is lost, and "
       "node->sock.error gives the reason, unless there was no memory"},
      {MQ_NO_DESCRIPTOR, MQ_IN_NODE, "MQ_NO_DESCRIPTOR", NULL, "a queued entry without a write descriptor was dropped",
       "mnFinishWrite; from other operations, 105 is the socket's ENOBUFS",
       "put only write descriptors into node->pending; call mnFinishWrite again for the rest of the queue"},
      {MQ_BAD_MESSAGE, MQ_IN_NODE, "MQ_BAD_MESSAGE", NULL, "not a message, or its length is not valid",
       "mnRead, mnSRead, mnBrowse; the writes, for a raw.length below 136 or above MQ_MAX_MESSAGE",
       "close a stream node, which is out of step; read on from a datagram node; check that both sides use the same "
       "framing, plain or signed; "
       "examine the bytes with mqcat decode"},
      {MQ_NO_ROOM, MQ_IN_NODE, "MQ_NO_ROOM", NULL, "no memory to enlarge the message record or the receive buffer",
       "mnRead, mnSRead, mnBrowse",
       "free memory; if the record could not grow, the message was dropped: read on; if the receive buffer could not "
       "grow, close the node"},
      {MQ_BAD_BODY, MQ_IN_NODE, "MQ_BAD_BODY", NULL, "the body of the message cannot be converted or parsed",
       "mnRead, mnSRead", "read on, the stream is in step; mqc_message_error gives the reason; ask the sender"},
      {MQ_NOT_SIGNED, MQ_IN_NODE, "MQ_NOT_SIGNED", NULL, "the message could not be signed and was not sent",
       "mnSWrite and the other signed writes",
       "mqc_sign_error gives the reason; often the key belongs to another user than the node"},
      {MQ_NOT_AUTHENTIC, MQ_IN_NODE, "MQ_NOT_AUTHENTIC", NULL,
       "the signature is not valid, too old or already used, or its user is not known; or the message is sealed for "
       "another reader, or not sealed where it must be",
       "mnSRead", "do not trust the message; mqc_authenticate_error gives the reason; the stream is in step"},
      {MQ_WRITE_LIMIT, MQ_IN_NODE, "MQ_WRITE_LIMIT", NULL, "node->writeLimit writes are outstanding", "the writes",
       "call mnFinishWrite when mnNPost lists the node as writable, then write again; or raise the limit"},
      {SOCK_WAIT_TIMEOUT, MQ_IN_STATUS, "SOCK_WAIT_TIMEOUT", NULL, "nothing was ready before the time-out",
       "mnPost, mnNPost, PostSocket, NPostSocket", "wait again, or give up"},
      {SOCK_SERVICE_UNKNOWN, kBoth, "SOCK_SERVICE_UNKNOWN", NULL, "the service name is not known",
       "creating and opening nodes, ConnectSocket, BindSocketName",
       "use a port number, or add the service to /etc/services"},
      {SOCK_HOST_UNKNOWN, kBoth, "SOCK_HOST_UNKNOWN", NULL, "the host does not resolve to an IPv4 address",
       "creating and opening nodes, ConnectSocket, BindSocketName",
       "check the spelling and the resolver (getent ahostsv4 HOST), or use a dotted quad"},
      {SOCK_PEER_CLOSED, kBoth, "SOCK_PEER_CLOSED", NULL,
       "the peer closed the connection; on a datagram node: an empty datagram arrived", "mnRead, mnSRead, ReadSocket",
       "a stream node: call mq_finish and delete it; a datagram node: read on"},
      {EPERM, kBoth, "EPERM", NULL, "the system does not permit it", "connect, send: a firewall rule of this host",
       "check the packet filter of this host"},
      {ENOENT, kBoth, "ENOENT", NULL, "a file was missing while a name was looked up",
       "the look-up of a host or service name, instead of 9002 and 9003",
       "check host and service; port numbers and dotted quads need no look-up"},
      {EINTR, kAll, "EINTR", NULL, "a signal arrived while waiting", "waits and calls on blocking sockets",
       "a wait: call again; a read or write of a blocking node has lost its message: close the node, and install "
       "handlers with SA_RESTART"},
      {EBADF, kAll, "EBADF", NULL, "the file descriptor is not open",
       "any call on a socket that was closed elsewhere; a wait reports it only below the size of the process's "
       "descriptor table",
       "find the code that closed the descriptor; a closed node can only be deleted"},
      {EAGAIN, MQ_IN_SOCKET, "SOCK_WOULD_BLOCK", "EAGAIN", "the call would block, or a connect is in progress",
       "calls on non-blocking sockets; also stored for EINPROGRESS", "wait until the socket is ready, then call again"},
      {ENOMEM, kAll, "ENOMEM", NULL, "no memory", "socket calls; waits with descriptors of 1024 and above",
       "free memory, then call again"},
      {EACCES, kBoth, "EACCES", NULL, "permission denied",
       "bind to a port below 1024; a broadcast address without its option",
       "use a higher port or grant CAP_NET_BIND_SERVICE; set SOCK_OPT_BROADCAST"},
      {EFAULT, kAll, "EFAULT", NULL, "an invalid address was passed to the system", "any socket call",
       "a record was released or overwritten: run the application under a memory checker"},
      {EINVAL, kAll, "EINVAL", NULL, "an argument is not valid",
       "bind of a bound socket, accept on a socket that does not listen, options out of range; a wait with a "
       "work record of a size below 1",
       "check the order of the calls and the values"},
      {ENFILE, kBoth, "ENFILE", NULL, "the system has no file descriptors left", "creating nodes, accepting",
       "close files, or raise fs.file-max"},
      {EMFILE, kBoth, "EMFILE", NULL, "the process has no file descriptors left", "creating nodes, accepting",
       "delete unused nodes, or raise the limit (ulimit -n)"},
      {ENOTTY, kBoth, "ENOTTY", NULL, "a look-up left an unrelated errno value",
       "the look-up of a host or service name, instead of 9002 and 9003", "check host and service"},
      {EPIPE, kBoth, "EPIPE", NULL, "the connection is closed for writing", "sending to a peer that has closed",
       "delete the node; ignore SIGPIPE, which otherwise terminates the process"},
      {EDOM, kBoth, "EDOM", NULL, "the value of an option is out of range", "SetSocketOptions", "use a smaller value"},
      {ENOSYS, kBoth, "ENOSYS", NULL, "the system does not have this call", "system calls under a filter (seccomp)",
       "allow the socket calls in the sandbox"},
      {EPROTO, kBoth, "EPROTO", NULL, "protocol error", "accept: the connection failed before it was accepted",
       "accept the next connection"},
      {ENOTSOCK, kBoth, "ENOTSOCK", NULL, "the file descriptor is not a socket", "nodes over an existing descriptor",
       "pass a socket to CreateSocketFromExisting"},
      {EDESTADDRREQ, kBoth, "SOCK_NO_DESTINATION", "EDESTADDRREQ",
       "a datagram has no destination, or its destination does not resolve",
       "WriteSocket, and so mnWriteTo and the other writes on datagram nodes",
       "pass a destination that resolves; mnWrite passes none and is for streams only"},
      {EMSGSIZE, kBoth, "EMSGSIZE", NULL, "the datagram or message is too long",
       "writes on datagram nodes; reads of nodes in an event loop, above messageBytes",
       "send at most 16520 bytes in a datagram, which is what a node receives, or use a stream; raise messageBytes if "
       "peers may send more"},
      {EPROTOTYPE, kBoth, "EPROTOTYPE", NULL, "protocol and socket type do not match", "CreateAnySocket",
       "use CreateSocket or CreateUDPSocket"},
      {ENOPROTOOPT, kBoth, "ENOPROTOOPT", NULL, "the option is not supported", "SetSocketOptions, GetSocketOptions",
       "check the option id; SOCK_OPT_TYPE and SOCK_OPT_ERROR are read-only"},
      {EPROTONOSUPPORT, kBoth, "EPROTONOSUPPORT", NULL, "the protocol is not supported", "CreateAnySocket",
       "use CreateSocket or CreateUDPSocket"},
      {ESOCKTNOSUPPORT, kBoth, "ESOCKTNOSUPPORT", NULL, "the socket type is not supported", "CreateAnySocket",
       "use CreateSocket or CreateUDPSocket"},
      {EOPNOTSUPP, kBoth, "EOPNOTSUPP", NULL, "the socket does not support this operation",
       "listen or accept on a datagram socket", "listen on stream nodes only"},
      {EAFNOSUPPORT, kBoth, "EAFNOSUPPORT", NULL, "the address family is not supported",
       "CreateAnySocket, connect, bind", "use IPv4 addresses"},
      {EADDRINUSE, kBoth, "EADDRINUSE", NULL, "another socket uses this address",
       "creating listening and datagram nodes", "choose another port, or find the process that uses it (ss -ltnup)"},
      {EADDRNOTAVAIL, kBoth, "EADDRNOTAVAIL", NULL, "the address does not belong to this host, or no port is free",
       "creating listening and datagram nodes; connect",
       "bind to * or to an address that ip address lists; when connecting, wait for free ports"},
      {ENETDOWN, kBoth, "ENETDOWN", NULL, "the network is down", "connect, send, accept", "bring the interface up"},
      {ENETUNREACH, kBoth, "ENETUNREACH", NULL, "no route to the network", "connect, send", "check ip route"},
      {ENETRESET, kBoth, "ENETRESET", NULL, "the network dropped the connection", "send, receive",
       "delete the node and connect again"},
      {ECONNABORTED, kBoth, "ECONNABORTED", NULL, "the connection was aborted before it was accepted",
       "accept, receive", "accept the next connection"},
      {ECONNRESET, kBoth, "ECONNRESET", NULL, "the peer reset the connection",
       "send, receive; deleting a node resets its connection, unless mq_finish was called before",
       "delete the node and connect again; data that was not read is lost"},
      {ENOBUFS, kBoth, "ENOBUFS", NULL, "the system has no network buffers left", "send, connect, accept",
       "slow down, then try again"},
      {EISCONN, kBoth, "EISCONN", NULL, "the socket is already connected", "sendto and listen on a connected socket",
       "use a new node for another peer; a connect treats this code as success"},
      {ENOTCONN, kBoth, "ENOTCONN", NULL, "the socket is not connected", "send, receive before mnOpen",
       "open the node first; while a connect is in progress, wait until mnNPost lists the node as writable"},
      {ETIMEDOUT, kBoth, "ETIMEDOUT", NULL, "the peer does not answer", "connect, send, receive; mq_finish",
       "check host, port and the packet filters in between"},
      {ECONNREFUSED, kBoth, "ECONNREFUSED", NULL, "no process listens on this port",
       "connect; on datagram nodes, the answer to an earlier send", "start the server, check host and port"},
      {EHOSTDOWN, kBoth, "EHOSTDOWN", NULL, "the host is down", "connect, send", "check that the host is up"},
      {EHOSTUNREACH, kBoth, "EHOSTUNREACH", NULL, "no route to the host", "connect, send",
       "check ip route and the host"},
      {EALREADY, kBoth, "EALREADY", NULL, "a connect is already in progress",
       "mnOpen, called again before it completed",
       "wait with mnNPost until the node is listed, instead of opening it again"},
      {EINPROGRESS, MQ_IN_SOCKET, "EINPROGRESS", NULL, "a connect is in progress",
       "seen only by the error callback of a transfer; the record stores 11", "wait until the socket is writable"},
      {ECANCELED, kBoth, "ECANCELED", NULL, "the operation was cancelled, or its node was closed",
       "nodes in an event loop (mqnode/asio.hpp, mqnode/uv.h)",
       "nothing is wrong; a cancelled operation may be repeated while its node is open"},
  };
  if (count != NULL) *count = sizeof(table) / sizeof(table[0]);
  return table;
}

/* mq_error_find - find the entry of a code in a place.
 *   place   MQ_IN_NODE, MQ_IN_SOCKET, MQ_IN_STATUS, or MQ_IN_ANY for the first entry with this code
 * Result   the entry; null for a code that is not reported there */
static inline const MqErrorInfo* mq_error_find(int code, unsigned place) {
  size_t count;
  const MqErrorInfo* const table = mq_error_table(&count);
  for (size_t i = 0; i < count; ++i) {
    if (table[i].code == code && (place == MQ_IN_ANY || (table[i].places & place) != 0)) return &table[i];
  }
  return NULL;
}

/* mq_error_next - get the next entry with the same code; null after the last. */
static inline const MqErrorInfo* mq_error_next(const MqErrorInfo* entry) {
  size_t count;
  const MqErrorInfo* const end = mq_error_table(&count) + count;
  for (const MqErrorInfo* next = entry + 1; next < end; ++next) {
    if (next->code == entry->code) return next;
  }
  return NULL;
}

/* Internal: compare two names, ignoring case. */
static inline int mq_error_same_name(const char* a, const char* b) {
  for (; *a != '\0' || *b != '\0'; ++a, ++b) {
    const int x = *a >= 'a' && *a <= 'z' ? *a - 'a' + 'A' : *a;
    const int y = *b >= 'a' && *b <= 'z' ? *b - 'a' + 'A' : *b;
    if (x != y) return 0;
  }
  return 1;
}

/* mq_error_by_name - find an entry by name or alias, ignoring case.
 * Result   the entry; null if there is none */
static inline const MqErrorInfo* mq_error_by_name(const char* name) {
  size_t count;
  const MqErrorInfo* const table = mq_error_table(&count);
  for (size_t i = 0; i < count; ++i) {
    if (mq_error_same_name(name, table[i].name)) return &table[i];
    if (table[i].alias != NULL && mq_error_same_name(name, table[i].alias)) return &table[i];
  }
  return NULL;
}

/* mq_error_name, mq_error_meaning, mq_error_remedy - get the texts of a code's first entry; never null. */
static inline const char* mq_error_name(int code) {
  const MqErrorInfo* const entry = mq_error_find(code, MQ_IN_ANY);
  return entry != NULL ? entry->name : "unknown code";
}

static inline const char* mq_error_meaning(int code) {
  const MqErrorInfo* const entry = mq_error_find(code, MQ_IN_ANY);
  return entry != NULL ? entry->meaning : "not a code of mqnode";
}

static inline const char* mq_error_remedy(int code) {
  const MqErrorInfo* const entry = mq_error_find(code, MQ_IN_ANY);
  return entry != NULL ? entry->remedy : "look it up as an errno value; if it is not one, the record was overwritten";
}

/* mq_node_cause - get the code of the reason why the last operation on a node failed: that of the socket if a write was
 * dropped, which leaves 11 in node->error; otherwise node->error.
 *   node    in   null for a node that could not be allocated: ENOMEM
 *   place   out  place of the code, MQ_IN_NODE or MQ_IN_SOCKET; may be null
 * Result   the code; 11 if there is no other reason: the operation can continue later, or a write with result 0 had no
 *          memory */
static inline int mq_node_cause(const MQNode* node, unsigned* place) {
  const int own = node != NULL ? node->error : ENOMEM;
  const int below = node != NULL ? node->sock.error : ENOMEM;
  const int dropped = own == MQ_AGAIN && below != 0 && below != SOCK_WOULD_BLOCK;
  /* A code copied from the socket has the meaning that it has there. */
  if (place != NULL) *place = dropped || (own == below && own != MQ_AGAIN) ? MQ_IN_SOCKET : MQ_IN_NODE;
  return dropped ? below : own;
}

// NOLINTEND(modernize-use-nullptr)

#endif
