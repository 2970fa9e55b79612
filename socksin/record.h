/* record.h - one IPv4 socket in a plain record, and its names as text.
 *
 * Conventions of the whole socket layer (record.h, resolve.h, sysinfo.h, connect.h, transfer.h, options.h, wait.h):
 *   Results    1 success, 0 failure, unless a function says otherwise.
 *   Errors     a failure leaves its code in rec->error: the errno of the failing system call or one of the codes below.
 *              Reporting a failure means: error is set; onError, when set, is called with the record and its int result
 *              is kept in errorResult (0 without a callback); the operation then goes on to its closing trace point.
 *   Trace      a trace point calls rec->onTrace, when set, with a fixed name and the record.
 *   Pointers   required and not checked, unless a function says otherwise.
 *   Ownership  a SockRec belongs to its holder, by value; the layer never allocates or frees one.
 *   exec       created and accepted sockets are made close-on-exec, so that programs that the process starts do not
 *              inherit them, unless another thread starts one between the two system calls. An adopted descriptor keeps
 *              its flags. A child of fork without exec inherits every socket
 *   Threads    one thread at a time uses a record. No locks. G_socket_trace is set before other threads use records.
 *              Names are looked up by one thread at a time in the whole process, since the system library keeps its
 *              answers in one place; so it does with the time of day in lines that DeleteSocket and bTcpipNotActive
 *              print. Nothing is looked up for the host "*", a host that begins with a digit, a dotted quad in ip, and
 *              services that begin with a digit. */
#ifndef MQNODE_SOCKSIN_RECORD_H
#define MQNODE_SOCKSIN_RECORD_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"
#include "runtime/runtime.h"

MQ_BEGIN_C

/* Codes of the socket layer beside errno values. */
enum {
  SOCK_WOULD_BLOCK = 11,       /* EAGAIN, also stored for EINPROGRESS after transfers, connect and bind */
  SOCK_NO_DESTINATION = 89,    /* a datagram's destination is missing or does not resolve */
  SOCK_WAIT_TIMEOUT = 9000,    /* a readiness wait timed out; only ever in a wait's status word */
  SOCK_SERVICE_UNKNOWN = 9002, /* a service name that is not known, when errno is 0 */
  SOCK_HOST_UNKNOWN = 9003,    /* a host that does not resolve, when errno is 0 */
  SOCK_PEER_CLOSED = 9004      /* the peer closed the connection */
};

/* Kinds of socket: the values of SockRec.type. */
enum { SOCK_TYPE_STREAM = 1, SOCK_TYPE_DATAGRAM = 2 };

typedef struct SockRec SockRec;

/* Called once for each reported failure, after error was set. Its result is kept in errorResult; it cannot stop or
 * repeat the operation. The operation still uses the record afterwards, and in the node layer its node: a callback may
 * read both and set callbacks, but must not close or delete them or start another operation on them. mnOpen on a
 * listening node uses its child as well. */
typedef int (*SockErrorFn)(SockRec* rec);

/* Called at each trace point with the point's name. The rules of SockErrorFn hold here, with one
 * exception: during a wait a callback may close or replace sockets that have not been reported yet (wait.h). */
typedef void (*SockTraceFn)(const char* point, SockRec* rec);

/* A socket name held as text. Callers fill host, ip, service and protocol; the layer writes port, and the others where
 * an operation says so. Records are copied whole. Texts are NUL-terminated. */
typedef struct SockAddrRec {
  char host[256];    /* host name; "*" is the any-address, "@" the local host */
  char ip[40];       /* dotted quad; a valid one is used in preference to host */
  char service[33];  /* service name, or a port in decimal */
  char protocol[47]; /* for the service lookup, such as "tcp" */
  uint32_t port;     /* host byte order, written by resolution */
} SockAddrRec;

MQ_STATIC_ASSERT(sizeof(SockAddrRec) == 380, "SockAddrRec is 380 bytes");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, ip) == 256, "SockAddrRec.ip");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, service) == 296, "SockAddrRec.service");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, protocol) == 329, "SockAddrRec.protocol");
MQ_STATIC_ASSERT(offsetof(SockAddrRec, port) == 376, "SockAddrRec.port");

struct SockRec {
  int32_t fd;             /* descriptor; -1 when the record holds none */
  uint32_t domain;        /* address family: 2 (AF_INET) */
  uint32_t type;          /* 1 stream (TCP), 2 datagram (UDP) */
  uint32_t protocol;      /* protocol number given to socket(): 0 */
  uint64_t bytesSent;     /* total that send and sendto accepted */
  uint64_t bytesReceived; /* total that recvfrom returned, looked-ahead bytes included */
  int32_t error;          /* last error */
  int32_t errorResult;    /* what onError returned at the last reported failure; 0 without a callback */
  SockErrorFn onError;    /* may be null */
  SockTraceFn onTrace;    /* may be null */
  uint32_t connected;     /* 1 after a connect, bind or accept that succeeded */
  SockAddrRec name;       /* the socket name */
  SockAddrRec from;       /* the from address: the target, or the sender of the last datagram */
  IoBuffer* buffer;       /* the buffer of the transfer in progress; null outside of one */
  void* owner;            /* the holder's; a node points it at itself */
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

/* The trace callback that creation copies into each new record; null when the library is loaded. */
extern MQ_API SockTraceFn G_socket_trace;

/* InitSocket - all of the record zero, then fd -1. Callbacks are gone. Always 1. */
MQ_API int InitSocket(SockRec* rec);

/* OSInitSocket - the platform's start-up hook for sockets; nothing to do on Linux. Always 1. */
MQ_API int OSInitSocket(SockRec* rec);

/* CreateAnySocket - reset the record and create a blocking socket in it.
 *   domain  address family, 2 for IPv4
 *   type    1 stream, 2 datagram
 * The record's onTrace becomes G_socket_trace, the protocol text of from "tcp" for either type.
 * error        errno of socket(), reported; fd is -1 then
 * Trace point  "CreateAnySocket", at the end */
MQ_API int CreateAnySocket(SockRec* rec, int domain, int type);

/* CreateSocket - a TCP socket: CreateAnySocket(rec, 2, 1). */
MQ_API int CreateSocket(SockRec* rec);

/* CreateUDPSocket - a UDP socket: CreateAnySocket(rec, 2, 2). */
MQ_API int CreateUDPSocket(SockRec* rec);

/* CreateSocketFromExisting - reset the record and adopt an open TCP descriptor, which the record's holder owns from now
 * on. The descriptor is taken as given; the first operation on it reports what is wrong with it. Always 1.
 * Trace point  "CreateSocketFromExisting" */
MQ_API int CreateSocketFromExisting(SockRec* rec, int descriptor);

/* DeleteSocket - close the record's descriptor, if it holds one above 0, and set fd to -1.
 * Descriptor 0 is never closed. A close that fails prints one line with the time, the descriptor and errno on standard
 * output; error, names, totals and callbacks stay. Always 1; a second call closes nothing.
 * Trace point  "DeleteSocket", before closing */
MQ_API int DeleteSocket(SockRec* rec);

/* NoblockSocket, BlockSocket - make the descriptor non-blocking or blocking; its other flags stay.
 * error        0, or errno of fcntl, reported
 * Trace point  "NoblockSocket" or "BlockSocket", at the end */
MQ_API int NoblockSocket(SockRec* rec);
MQ_API int BlockSocket(SockRec* rec);

/* OnSocketError, OnSocketTrace - set the record's callback, null for none. Creation resets both. Always 1. */
MQ_API int OnSocketError(SockRec* rec, SockErrorFn fn);
MQ_API int OnSocketTrace(SockRec* rec, SockTraceFn fn);

/* OnGSocketTrace - set G_socket_trace, which only records created afterwards take. Null for none. Always 1. */
MQ_API int OnGSocketTrace(SockTraceFn fn);

/* GetSocketName, GetFromAddr - copy the record's name, or its from address, whole into out. Always 1. */
MQ_API int GetSocketName(SockRec* rec, SockAddrRec* out);
MQ_API int GetFromAddr(SockRec* rec, SockAddrRec* out);

/* GetHostIP - write "0.0.0.0", the any-address, into addr->ip and nothing else. Always 1. */
MQ_API int GetHostIP(SockAddrRec* addr);

MQ_END_C

#endif
