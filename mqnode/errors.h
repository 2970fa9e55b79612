/* errors.h - every code that the system reports: its name, what it means, where it comes from, what to do.
 *
 * Header-only, for C11 and C++17; no function here is exported, none allocates or blocks, none touches errno. All texts
 * are constants that live as long as the process.
 *
 * A code is read in one of three places, and two codes mean different things in two of them:
 *   node->error   of any operation on a node: MQ_IN_NODE
 *   sock.error    of any operation on a socket record, a node's too: MQ_IN_SOCKET
 *   status        the word that a wait fills: MQ_IN_STATUS
 *   11    in a node: go on later (MQ_AGAIN); in a socket: it would block (EAGAIN)
 *   105   in a node, after mnFinishWrite: MQ_NO_DESCRIPTOR; in a socket, and copied from there: ENOBUFS
 * Give the place where you know it: mq_error_find(code, MQ_IN_SOCKET). MQ_IN_ANY takes the first entry of the table.
 *
 *   const int code = mq_node_cause(node, NULL);
 *   fprintf(stderr, "open: %s: %s; %s\n", mq_error_name(code), mq_error_meaning(code), mq_error_remedy(code));
 *
 * docs/errors.md is this table as a page. */
#ifndef MQNODE_MQNODE_ERRORS_H
#define MQNODE_MQNODE_ERRORS_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

#include "mqnode/node.h"
#include "socksin/record.h"

// NOLINTBEGIN(modernize-use-nullptr): C reads this as well.

/* Where a code is read; values of MqErrorInfo.places are sums of these. */
enum { MQ_IN_ANY = 0, MQ_IN_NODE = 1, MQ_IN_SOCKET = 2, MQ_IN_STATUS = 4 };

typedef struct MqErrorInfo {
  int32_t code;
  uint32_t places;     /* sum of MQ_IN_NODE, MQ_IN_SOCKET, MQ_IN_STATUS */
  const char* name;    /* the constant's name */
  const char* alias;   /* a second name of the same code, as of the system's errno; null for none */
  const char* meaning; /* one line */
  const char* origin;  /* which operations report it */
  const char* remedy;  /* what to do next */
} MqErrorInfo;

/* mq_error_table - the table: the library's own codes first, then the system's in order of their numbers.
 *   count   out  number of entries; may be null */
static inline const MqErrorInfo* mq_error_table(size_t* count) {
  enum { kAll = MQ_IN_NODE | MQ_IN_SOCKET | MQ_IN_STATUS, kBoth = MQ_IN_NODE | MQ_IN_SOCKET };
  static const MqErrorInfo table[] = {
      {MQ_OK, kAll, "MQ_OK", NULL, "no error", "every operation that succeeded", "nothing to do"},
      {MQ_AGAIN, MQ_IN_NODE, "MQ_AGAIN", NULL, "not finished: the operation would block, or a write was dropped",
       "mnRead, mnSRead, mnBrowse, mnOpen and the writes; mnFinishWrite",
       "a read: wait and call again; an open: wait with mnNPost, a node listed for reading only has failed or has "
       "data; "
       "a write with result 1: it is queued, mnFinishWrite sends it; a write with result 0: it is lost, "
       "node->sock.error "
       "says why unless there was no memory (0, 11, or what it was before)"},
      {MQ_NO_DESCRIPTOR, MQ_IN_NODE, "MQ_NO_DESCRIPTOR", NULL, "a queued entry without a write descriptor was dropped",
       "mnFinishWrite; 105 from any other operation is the socket's ENOBUFS",
       "put write descriptors alone into node->pending; call mnFinishWrite again for the rest of the queue"},
      {MQ_BAD_MESSAGE, MQ_IN_NODE, "MQ_BAD_MESSAGE", NULL, "the bytes are not a message, or its length is impossible",
       "mnRead, mnSRead, mnBrowse; the writes, for a raw.length below 136 or above MQ_MAX_MESSAGE",
       "close a stream node: it is out of step; check that both sides use the same framing, plain or signed; look at "
       "the bytes with mqcat decode"},
      {MQ_NO_ROOM, MQ_IN_NODE, "MQ_NO_ROOM", NULL, "no memory to enlarge the message record or the receive buffer",
       "mnRead, mnSRead, mnBrowse",
       "free memory; the message was dropped, the next read goes on behind it or, after a "
       "message that was not gathered, close the node"},
      {MQ_BAD_BODY, MQ_IN_NODE, "MQ_BAD_BODY", NULL, "the message arrived, but its body cannot be converted or parsed",
       "mnRead, mnSRead",
       "the stream is in step, go on reading; mqc_message_error says which byte; ask whoever sent it"},
      {MQ_NOT_SIGNED, MQ_IN_NODE, "MQ_NOT_SIGNED", NULL, "the message could not be signed, nothing was sent",
       "mnSWrite and the other signed writes",
       "mqc_sign_error says why; most often the key belongs to another user than the node"},
      {MQ_NOT_AUTHENTIC, MQ_IN_NODE, "MQ_NOT_AUTHENTIC", NULL,
       "the signature does not hold, is too old, was seen before, or its user is not known", "mnSRead",
       "trust nothing in the message; mqc_authenticate_error says why; the stream is in step, the node may go on"},
      {MQ_WRITE_LIMIT, MQ_IN_NODE, "MQ_WRITE_LIMIT", NULL, "as many writes are outstanding as node->writeLimit allows",
       "the writes",
       "call mnFinishWrite when mnNPost lists the node as writable, then write again; or raise the limit"},
      {SOCK_WAIT_TIMEOUT, MQ_IN_STATUS, "SOCK_WAIT_TIMEOUT", NULL, "nothing was ready within the timeout",
       "mnPost, mnNPost, PostSocket, NPostSocket", "wait again, or give up"},
      {SOCK_SERVICE_UNKNOWN, kBoth, "SOCK_SERVICE_UNKNOWN", NULL, "the service name is not known",
       "creating and opening nodes, ConnectSocket, BindSocketName",
       "use a port number, or add the service to /etc/services"},
      {SOCK_HOST_UNKNOWN, kBoth, "SOCK_HOST_UNKNOWN", NULL, "the host does not resolve to an IPv4 address",
       "creating and opening nodes, ConnectSocket, BindSocketName",
       "check the spelling and the resolver (getent ahostsv4 HOST), or use a dotted quad"},
      {SOCK_PEER_CLOSED, kBoth, "SOCK_PEER_CLOSED", NULL,
       "the peer closed the connection; on a datagram node: an empty datagram came", "mnRead, mnSRead, ReadSocket",
       "a stream node: delete it, connect again if there is more to say; a datagram node: read on"},
      {EPERM, kBoth, "EPERM", NULL, "the system does not permit it", "connect, send: a firewall rule of this host",
       "look at the host's packet filter"},
      {ENOENT, kBoth, "ENOENT", NULL, "a file was missing while a name was looked up",
       "the look-up of a host or service name, in place of 9002 and 9003",
       "check host and service; a port number and a dotted quad need no look-up"},
      {EINTR, kAll, "EINTR", NULL, "a signal arrived while waiting", "waits and calls on blocking sockets",
       "a wait: call again. A read or write of a blocking node has lost what was gathered, or the message: close the "
       "node, "
       "and install handlers with SA_RESTART"},
      {EBADF, kAll, "EBADF", NULL, "the descriptor is not open",
       "any call on a socket that was closed elsewhere; a wait reports it only below the size of the process's "
       "descriptor table",
       "find who closed the descriptor; a closed node can only be deleted"},
      {EAGAIN, MQ_IN_SOCKET, "SOCK_WOULD_BLOCK", "EAGAIN", "it would block, or a connect is in progress",
       "calls on non-blocking sockets; EINPROGRESS is stored as this",
       "wait until the socket is ready, then call again"},
      {ENOMEM, kAll, "ENOMEM", NULL, "no memory", "socket calls; a wait with descriptors of 1024 and above",
       "free memory, then call again"},
      {EACCES, kBoth, "EACCES", NULL, "not allowed",
       "bind to a port below 1024; a broadcast address without its option",
       "use a higher port or grant CAP_NET_BIND_SERVICE; set SOCK_OPT_BROADCAST"},
      {EFAULT, kAll, "EFAULT", NULL, "an address outside the process's memory was given", "any socket call",
       "a record was released or overwritten: run the host under a memory checker"},
      {EINVAL, kAll, "EINVAL", NULL, "an argument is not valid here",
       "bind of a bound socket, accept on a socket that does not listen, options out of range; a wait with a "
       "work record of a size below 1",
       "check the order of the calls and the values"},
      {ENFILE, kBoth, "ENFILE", NULL, "the system has no descriptors left", "creating nodes, accepting",
       "close files, or raise fs.file-max"},
      {EMFILE, kBoth, "EMFILE", NULL, "the process has no descriptors left", "creating nodes, accepting",
       "delete nodes that are no longer used, or raise the limit (ulimit -n)"},
      {ENOTTY, kBoth, "ENOTTY", NULL, "a look-up left an errno of its own behind",
       "the look-up of a host or service name, in place of 9002 and 9003", "check host and service"},
      {EPIPE, kBoth, "EPIPE", NULL, "the connection is closed for writing", "sending to a peer that is gone",
       "delete the node; ignore SIGPIPE in the host, or the signal ends it first"},
      {EDOM, kBoth, "EDOM", NULL, "the value of an option is out of its range", "SetSocketOptions",
       "use a smaller value"},
      {ENOSYS, kBoth, "ENOSYS", NULL, "the system does not have this call", "system calls under a filter (seccomp)",
       "allow the socket calls in the sandbox"},
      {EPROTO, kBoth, "EPROTO", NULL, "a protocol error", "accept: the connection failed before it was taken",
       "accept the next connection"},
      {ENOTSOCK, kBoth, "ENOTSOCK", NULL, "the descriptor is not a socket", "nodes over an existing descriptor",
       "give CreateSocketFromExisting a socket"},
      {EDESTADDRREQ, kBoth, "SOCK_NO_DESTINATION", "EDESTADDRREQ",
       "a datagram has no destination, or it does not resolve",
       "WriteSocket, and so mnWriteTo and the other writes on datagram nodes",
       "pass a destination whose host and service resolve; mnWrite passes none and serves streams only"},
      {EMSGSIZE, kBoth, "EMSGSIZE", NULL, "the datagram or message is too long",
       "writes on datagram nodes; reads of nodes in an event loop, above messageBytes",
       "keep messages on datagram nodes to at most 16520 bytes, which is all that a reader takes, or use a stream; "
       "raise messageBytes for peers that may send more"},
      {EPROTOTYPE, kBoth, "EPROTOTYPE", NULL, "protocol and socket type do not fit", "CreateAnySocket",
       "use CreateSocket or CreateUDPSocket"},
      {ENOPROTOOPT, kBoth, "ENOPROTOOPT", NULL, "the system does not know this option here",
       "SetSocketOptions, GetSocketOptions", "check the option id; SOCK_OPT_TYPE and SOCK_OPT_ERROR can only be read"},
      {EPROTONOSUPPORT, kBoth, "EPROTONOSUPPORT", NULL, "the protocol is not supported", "CreateAnySocket",
       "use CreateSocket or CreateUDPSocket"},
      {ESOCKTNOSUPPORT, kBoth, "ESOCKTNOSUPPORT", NULL, "the socket type is not supported", "CreateAnySocket",
       "use CreateSocket or CreateUDPSocket"},
      {EOPNOTSUPP, kBoth, "EOPNOTSUPP", NULL, "the socket does not support this",
       "listen or accept on a datagram socket", "listen on stream nodes only"},
      {EAFNOSUPPORT, kBoth, "EAFNOSUPPORT", NULL, "the address family is not supported",
       "CreateAnySocket, connect, bind", "use IPv4 addresses"},
      {EADDRINUSE, kBoth, "EADDRINUSE", NULL, "another socket has this address",
       "creating listening and datagram nodes", "choose another port, or find who has it (ss -ltnup)"},
      {EADDRNOTAVAIL, kBoth, "EADDRNOTAVAIL", NULL, "the address is none of this host's, or no port is free",
       "creating listening and datagram nodes; connect",
       "bind to * or an address that ip address shows; when connecting, wait for ports to come free"},
      {ENETDOWN, kBoth, "ENETDOWN", NULL, "the network is down", "connect, send, accept", "bring the interface up"},
      {ENETUNREACH, kBoth, "ENETUNREACH", NULL, "no route to the network", "connect, send", "check ip route"},
      {ENETRESET, kBoth, "ENETRESET", NULL, "the network dropped the connection", "send, receive",
       "delete the node and connect again"},
      {ECONNABORTED, kBoth, "ECONNABORTED", NULL, "the connection was given up before it was accepted",
       "accept, receive", "accept the next connection"},
      {ECONNRESET, kBoth, "ECONNRESET", NULL, "the peer reset the connection",
       "send, receive; a node resets whenever it closes, because it lingers for zero seconds",
       "delete the node and connect again; what was not read is lost"},
      {ENOBUFS, kBoth, "ENOBUFS", NULL, "the system has no buffers left for the network", "send, connect, accept",
       "slow down, then try again"},
      {EISCONN, kBoth, "EISCONN", NULL, "the socket is connected already", "sendto and listen on a connected socket",
       "a connect takes it as success; use a new node for another peer"},
      {ENOTCONN, kBoth, "ENOTCONN", NULL, "the socket is not connected", "send, receive before mnOpen",
       "open the node first; after a connect in progress wait until mnNPost lists it as writable"},
      {ETIMEDOUT, kBoth, "ETIMEDOUT", NULL, "the peer does not answer", "connect, send, receive",
       "check host, port and the packet filters between"},
      {ECONNREFUSED, kBoth, "ECONNREFUSED", NULL, "nobody listens on that port",
       "connect; on datagram nodes the answer to an earlier send", "start the server, check host and port"},
      {EHOSTDOWN, kBoth, "EHOSTDOWN", NULL, "the host is down", "connect, send", "check that the host is up"},
      {EHOSTUNREACH, kBoth, "EHOSTUNREACH", NULL, "no route to the host", "connect, send",
       "check ip route and the host"},
      {EALREADY, kBoth, "EALREADY", NULL, "a connect is in progress already", "mnOpen called again before it completed",
       "wait with mnNPost until the node is listed, instead of opening again"},
      {EINPROGRESS, MQ_IN_SOCKET, "EINPROGRESS", NULL, "a connect is in progress",
       "seen only by the error callback of a transfer; the record keeps 11", "wait until the socket is writable"},
      {ECANCELED, kBoth, "ECANCELED", NULL, "the operation was cancelled, or its node was closed",
       "nodes in an event loop (mqnode/asio.hpp, mqnode/uv.h)",
       "nothing is wrong; repeat a cancelled operation if its node is still open"},
  };
  if (count != NULL) *count = sizeof(table) / sizeof(table[0]);
  return table;
}

/* mq_error_find - the entry of a code, as it is read in that place.
 *   place   MQ_IN_NODE, MQ_IN_SOCKET, MQ_IN_STATUS, or MQ_IN_ANY for the first entry with this code
 * Result   null for a code that the system does not report there */
static inline const MqErrorInfo* mq_error_find(int code, unsigned place) {
  size_t count;
  const MqErrorInfo* const table = mq_error_table(&count);
  for (size_t i = 0; i < count; ++i) {
    if (table[i].code == code && (place == MQ_IN_ANY || (table[i].places & place) != 0)) return &table[i];
  }
  return NULL;
}

/* mq_error_next - the next entry with the same code, null after the last: a code may mean two things. */
static inline const MqErrorInfo* mq_error_next(const MqErrorInfo* entry) {
  size_t count;
  const MqErrorInfo* const end = mq_error_table(&count) + count;
  for (const MqErrorInfo* next = entry + 1; next < end; ++next) {
    if (next->code == entry->code) return next;
  }
  return NULL;
}

/* Internal: whether two names are equal, letters of either case. */
static inline int mq_error_same_name(const char* a, const char* b) {
  for (; *a != '\0' || *b != '\0'; ++a, ++b) {
    const int x = *a >= 'a' && *a <= 'z' ? *a - 'a' + 'A' : *a;
    const int y = *b >= 'a' && *b <= 'z' ? *b - 'a' + 'A' : *b;
    if (x != y) return 0;
  }
  return 1;
}

/* mq_error_by_name - the entry with this name or alias, letters of either case; null when there is none. */
static inline const MqErrorInfo* mq_error_by_name(const char* name) {
  size_t count;
  const MqErrorInfo* const table = mq_error_table(&count);
  for (size_t i = 0; i < count; ++i) {
    if (mq_error_same_name(name, table[i].name)) return &table[i];
    if (table[i].alias != NULL && mq_error_same_name(name, table[i].alias)) return &table[i];
  }
  return NULL;
}

/* mq_error_name, mq_error_meaning, mq_error_remedy - texts of a code's first entry; never null. */
static inline const char* mq_error_name(int code) {
  const MqErrorInfo* const entry = mq_error_find(code, MQ_IN_ANY);
  return entry != NULL ? entry->name : "unknown code";
}

static inline const char* mq_error_meaning(int code) {
  const MqErrorInfo* const entry = mq_error_find(code, MQ_IN_ANY);
  return entry != NULL ? entry->meaning : "a code that this system does not report";
}

static inline const char* mq_error_remedy(int code) {
  const MqErrorInfo* const entry = mq_error_find(code, MQ_IN_ANY);
  return entry != NULL ? entry->remedy : "look it up with errno; if it is not one, the record was overwritten";
}

/* mq_node_cause - the code that says why the last operation on a node failed: node->error, but for a write that was
 * dropped, which leaves 11 there, the code of its socket.
 *   node    in   null stands for a node that there was no memory for: ENOMEM
 *   place   out  where the code is to be looked up, MQ_IN_NODE or MQ_IN_SOCKET; may be null
 * Result   11 when neither says more: the operation can go on later, or a write with result 0 had no memory */
static inline int mq_node_cause(const MQNode* node, unsigned* place) {
  const int own = node != NULL ? node->error : ENOMEM;
  const int below = node != NULL ? node->sock.error : ENOMEM;
  const int dropped = own == MQ_AGAIN && below != 0 && below != SOCK_WOULD_BLOCK;
  /* A code that the node took over from its socket means what it means there. */
  if (place != NULL) *place = dropped || (own == below && own != MQ_AGAIN) ? MQ_IN_SOCKET : MQ_IN_NODE;
  return dropped ? below : own;
}

// NOLINTEND(modernize-use-nullptr)

#endif
