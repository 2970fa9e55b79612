/* connect.h - connect, bind, listen and accept.
 *
 * Conventions: record.h. Connect and bind first resolve the caller's socket name and may block in the resolver. Connect
 * and accept block if the socket is blocking. */
#ifndef MQNODE_SOCKSIN_CONNECT_H
#define MQNODE_SOCKSIN_CONNECT_H

#include "runtime/api.h"
#include "socksin/record.h"
#include "socksin/sysinfo.h"

MQ_BEGIN_C

/* Actions of SockAction. Any other action makes no socket call and succeeds. */
enum { SOCK_ACTION_CONNECT = 0, SOCK_ACTION_BIND = 1 };

/* SockAction - perform a connect or a bind: resolve the name, connect or bind, and update the names.
 *   addrRec  in/out  host and ip are terminated if necessary; unless the name does not resolve, receives a copy of the
 *                    record's name, even after a failure
 * After a connect, name and from are the target; if it succeeded, from has the resolved address. After a bind, name is
 * the node name of the machine, the caller's protocol and the requested address.
 * Result  1 if done, or if the socket was already connected; else 0
 * error   0; that of AddrToIP; errno, with EINPROGRESS stored as 11. onError is not called */
MQ_API int SockAction(SockRec* rec, SockAddrRec* addrRec, int action);

/* ConnectSocket - connect to target, and set connected to the result.
 * A non-blocking connect that has not completed fails with error 11; a wait for writing completes it.
 * error         as SockAction, reported
 * Trace points  "ConnectSocket:Before", "AddrToIP:Before", "AddrToIP:After", "ConnectSocket:After" */
MQ_API int ConnectSocket(SockRec* rec, SockAddrRec* target);

/* BindSocketName - bind to bindAddr, and set connected to the result: a bound socket counts as connected.
 * error         as SockAction, reported
 * Trace points  "BindSocket:Before", "AddrToIP:Before", "AddrToIP:After", "BindSocket:After" */
MQ_API int BindSocketName(SockRec* rec, SockAddrRec* bindAddr);

/* ListenSocket - make a bound socket listen, with an accept queue of backlog connections.
 * error        errno, reported; unchanged on success
 * Trace point  "ListenSocket" */
MQ_API int ListenSocket(SockRec* rec, int backlog);

/* AcceptClient - accept one connection into child.
 *   child  out  unchanged on failure. On success it is reset and gets the new file descriptor, the client's ip, service
 *               and port as name, the listener's domain, type and protocol, and connected 1; it has no callbacks. The
 *               file descriptor is blocking and inherits socket options from the listener, such as linger
 * error         errno on the listener, reported there; unchanged on success
 * Trace points  "AcceptClient:Before" and "AcceptClient:After" on the listener; "AcceptClient:After:Client" on the
 *               child, which has no trace callback then */
MQ_API int AcceptClient(SockRec* listener, SockRec* child);

MQ_END_C

#endif
