/* record.h - one IPv4 socket in a plain record, and its names as text.
 *
 * Conventions of the socket layer (all headers of this directory):
 *   Results    1 on success, 0 on failure, unless documented otherwise.
 *   Errors     a failure stores its code in rec->error: the errno of the failing system call or one of the codes below.
 *              Where a failure is reported, error is set; then onError, if set, is called with the record and its
 *              result is stored in errorResult (0 without a callback); then the operation continues to its last trace
 *              point.
 *   Trace      a trace point calls rec->onTrace, if set, with a fixed name and the record.
 *   Pointers   must not be null unless documented otherwise; they are not checked.
 *   Ownership  the caller owns each SockRec; the layer never allocates or frees one.
 *   exec       created and accepted sockets are close-on-exec, so that programs started by the process do not inherit
 *              them, unless another thread starts one between the two system calls. An adopted file descriptor keeps
 *              its flags. A child of fork without exec inherits every socket.
 *   Threads    a record must be used by one thread at a time. The layer takes no locks. Set G_socket_trace before other
 *              threads use records. In the whole process only one thread at a time may look up names, because the C
 *              library returns them in static storage. The same applies to the lines that DeleteSocket and
 *              bTcpipNotActive print, which contain the time. No lookup is made for the host "*", a host or service
 *              that begins with a digit, or a dotted quad in ip. */
#ifndef MQNODE_SOCKSIN_RECORD_H
#define MQNODE_SOCKSIN_RECORD_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"
#include "runtime/buffer.h"

MQ_BEGIN_C

/* Codes of the socket layer in addition to errno values. */
enum {
  SOCK_WOULD_BLOCK = 11,       /* EAGAIN; also stored in place of EINPROGRESS by transfers, connect and bind */
  SOCK_NO_DESTINATION = 89,    /* a datagram's destination is missing or does not resolve */
  SOCK_WAIT_TIMEOUT = 9000,    /* a wait timed out; only in the status of a wait */
  SOCK_SERVICE_UNKNOWN = 9002, /* unknown service name, if errno is 0 */
  SOCK_HOST_UNKNOWN = 9003,    /* the host does not resolve, if errno is 0 */
  SOCK_PEER_CLOSED = 9004      /* the peer closed the connection */
};

/* Values of SockRec.type. */
enum { SOCK_TYPE_STREAM = 1, SOCK_TYPE_DATAGRAM = 2 };

typedef struct SockRec SockRec;

/* SockErrorFn - an error callback: called once for each reported failure, after error was set. Its result is stored in
 * errorResult and has no other effect. The operation continues to use the record and, in the node layer, its node: a
 * callback may read both and set callbacks, but must not close or delete them or start another operation on them.
 * During mnOpen on a listening node the same applies to its child. */
typedef int (*SockErrorFn)(SockRec* rec);

/* SockTraceFn - a trace callback: called at each trace point with the name of the point. The rules of SockErrorFn
 * apply, with one exception: during a wait a callback may close or replace sockets that have not been reported yet
 * (wait.h). */
typedef void (*SockTraceFn)(const char* point, SockRec* rec);

/* SockAddrRec - a socket name as text. The caller sets host, ip, service and protocol. The layer sets port, and the
 * other fields where documented. Texts are null-terminated. */
typedef struct SockAddrRec {
  char host[256];    /* host name; "*" is the any-address, "@" the local host */
  char ip[40];       /* dotted quad; takes precedence over host if valid */
  char service[33];  /* service name, or a port in decimal */
  char protocol[47]; /* for the service lookup, such as "tcp" */
  uint32_t port;     /* host byte order, written by resolution */
} SockAddrRec;

MQ_STATIC_ASSERT(sizeof(SockAddrRec) == 380, "SockAddrRec is 380 bytes");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, ip) == 256, "SockAddrRec.ip");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, service) == 296, "SockAddrRec.service");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, protocol) == 329, "SockAddrRec.protocol");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, port) == 376, "SockAddrRec.port");

/* SockRec - an IPv4 socket. The caller owns the record. */
struct SockRec {
  int32_t fd;             /* file descriptor; -1 for none */
  uint32_t domain;        /* address family: 2 (AF_INET) */
  uint32_t type;          /* 1 stream (TCP), 2 datagram (UDP) */
  uint32_t protocol;      /* protocol number given to socket(): 0 */
  uint64_t bytesSent;     /* total of bytes accepted by send and sendto */
  uint64_t bytesReceived; /* total of bytes returned by recvfrom, including peeked bytes */
  int32_t error;          /* last error */
  int32_t errorResult;    /* result of onError at the last reported failure; 0 without a callback */
  SockErrorFn onError;    /* may be null */
  SockTraceFn onTrace;    /* may be null */
  uint32_t connected;     /* 1 after a successful connect, bind or accept */
  SockAddrRec name;       /* the socket name */
  SockAddrRec from;       /* the from address: the target, or the sender of the last datagram */
  IoBuffer* buffer;       /* the buffer of the transfer in progress; else null */
  void* owner;            /* for the owner of the record; a node stores its own address */
};

MQ_STATIC_ASSERT(sizeof(SockRec) == 840, "SockRec is 840 bytes");
MQ_STATIC_ASSERT(offsetof(SockRec, domain) == 4, "SockRec.domain");
MQ_STATIC_ASSERT(offsetof(SockRec, type) == 8, "SockRec.type");
MQ_STATIC_ASSERT(offsetof(SockRec, protocol) == 12, "SockRec.protocol");
MQ_STATIC_ASSERT(offsetof(SockRec, bytesSent) == 16, "SockRec.bytesSent");
MQ_STATIC_ASSERT(offsetof(SockRec, bytesReceived) == 24, "SockRec.bytesReceived");
MQ_STATIC_ASSERT(offsetof(SockRec, error) == 32, "SockRec.error");
MQ_STATIC_ASSERT(offsetof(SockRec, errorResult) == 36, "SockRec.errorResult");
MQ_STATIC_ASSERT(offsetof(SockRec, onError) == 40, "SockRec.onError");
MQ_STATIC_ASSERT(offsetof(SockRec, onTrace) == 48, "SockRec.onTrace");
MQ_STATIC_ASSERT(offsetof(SockRec, connected) == 56, "SockRec.connected");
MQ_STATIC_ASSERT(offsetof(SockRec, name) == 60, "SockRec.name");
MQ_STATIC_ASSERT(offsetof(SockRec, from) == 440, "SockRec.from");
MQ_STATIC_ASSERT(offsetof(SockRec, buffer) == 824, "SockRec.buffer");
MQ_STATIC_ASSERT(offsetof(SockRec, owner) == 832, "SockRec.owner");

/* G_socket_trace - the trace callback that each created record gets; null at first. */
extern MQ_API SockTraceFn G_socket_trace;

/* InitSocket - set the record to zero, including its callbacks, and fd to -1. Returns 1. */
MQ_API int InitSocket(SockRec* rec);

/* OSInitSocket - initialise sockets on other platforms; does nothing on Linux. Returns 1. */
MQ_API int OSInitSocket(SockRec* rec);

/* CreateAnySocket - reset the record and create a blocking socket.
 *   domain  address family, 2 for IPv4
 *   type    1 stream, 2 datagram
 * onTrace is set to G_socket_trace, and from.protocol to "tcp" for both types.
 * error        errno of socket(), reported; fd is -1 then
 * Trace point  "CreateAnySocket", at the end */
MQ_API int CreateAnySocket(SockRec* rec, int domain, int type);

/* CreateSocket - create a TCP socket: CreateAnySocket(rec, 2, 1). */
MQ_API int CreateSocket(SockRec* rec);

/* CreateUDPSocket - create a UDP socket: CreateAnySocket(rec, 2, 2). */
MQ_API int CreateUDPSocket(SockRec* rec);

/* CreateSocketFromExisting - reset the record and adopt an open TCP file descriptor, which the owner of the record owns
 * from then on. It is not checked: the first operation on it reports any error. Returns 1.
 * Trace point  "CreateSocketFromExisting" */
MQ_API int CreateSocketFromExisting(SockRec* rec, int descriptor);

/* DeleteSocket - close the file descriptor, if it is above 0, and set fd to -1.
 * File descriptor 0 is never closed. If close fails, one line with the time, the file descriptor and errno is printed
 * on standard output. error, names, totals and callbacks do not change. Returns 1; a second call closes nothing.
 * Trace point  "DeleteSocket", before closing */
MQ_API int DeleteSocket(SockRec* rec);

/* NoblockSocket, BlockSocket - make the descriptor non-blocking or blocking; its other flags do not change.
 * error        0; errno of fcntl, reported
 * Trace point  "NoblockSocket" or "BlockSocket", at the end */
MQ_API int NoblockSocket(SockRec* rec);
MQ_API int BlockSocket(SockRec* rec);

/* OnSocketError, OnSocketTrace - set a callback of the record; null removes it. Creation resets both. Returns 1. */
MQ_API int OnSocketError(SockRec* rec, SockErrorFn fn);
MQ_API int OnSocketTrace(SockRec* rec, SockTraceFn fn);

/* OnGSocketTrace - set G_socket_trace, the callback of records created from then on; null for none. Returns 1. */
MQ_API int OnGSocketTrace(SockTraceFn fn);

/* GetSocketName, GetFromAddr - copy name, or from, to out. Returns 1. */
MQ_API int GetSocketName(SockRec* rec, SockAddrRec* out);
MQ_API int GetFromAddr(SockRec* rec, SockAddrRec* out);

/* GetHostIP - set addr->ip to "0.0.0.0", the any-address; nothing else changes. Returns 1. */
MQ_API int GetHostIP(SockAddrRec* addr);

MQ_END_C

#endif
