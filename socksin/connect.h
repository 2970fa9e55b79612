/* connect.h - give a created socket its place on the network: connect, bind, listen, accept.
 *
 * The conventions of record.h hold. Connect and bind resolve the caller's name record first and may block in the
 * resolver; connect and accept block when the socket does. */
#ifndef MQNODE_SOCKSIN_CONNECT_H
#define MQNODE_SOCKSIN_CONNECT_H

#include "runtime/api.h"
#include "socksin/record.h"
#include "socksin/sysinfo.h"

MQ_BEGIN_C

/* The actions of SockAction; any other action makes no socket call and succeeds. */
enum { SOCK_ACTION_CONNECT = 0, SOCK_ACTION_BIND = 1 };

/* SockAction - the step that connect and bind share: resolve, act, keep the record's names and the caller's up to date.
 *   addrRec  in/out  its host and ip are cut to their fields; afterwards a copy of the record's name, whatever the
 *                    outcome, but for a name that did not resolve
 * After a connect name and from are the target, from refreshed with the resolved address when it succeeded. After a
 * bind name is the machine's node name, the caller's protocol and the address asked for.
 * Result  1 done (an already connected socket counts), 0 not
 * error   0; what AddrToIP left; errno, with EINPROGRESS stored as 11. onError is not called */
MQ_API int SockAction(SockRec* rec, SockAddrRec* addrRec, int action);

/* ConnectSocket - connect to target. connected becomes the result.
 * A non-blocking connect that has not completed is a failure with error 11; a readiness wait for writing completes it.
 * error         as SockAction, reported
 * Trace points  "ConnectSocket:Before", "AddrToIP:Before", "AddrToIP:After", "ConnectSocket:After" */
MQ_API int ConnectSocket(SockRec* rec, SockAddrRec* target);

/* BindSocketName - bind to bindAddr. connected becomes the result: a bound socket counts as connected.
 * error         as SockAction, reported
 * Trace points  "BindSocket:Before", "AddrToIP:Before", "AddrToIP:After", "BindSocket:After" */
MQ_API int BindSocketName(SockRec* rec, SockAddrRec* bindAddr);

/* ListenSocket - let a bound socket listen with room for backlog waiting connections.
 * error        errno, reported; left alone on success
 * Trace point  "ListenSocket" */
MQ_API int ListenSocket(SockRec* rec, int backlog);

/* AcceptClient - accept one connection into child.
 *   child  out  untouched on failure. On success reset, then the new descriptor, the client's ip, service and port as
 *               name, the listener's domain, type and protocol, connected 1; no callbacks. The descriptor is
 *               blocking and has the options that the system hands down from the listener, linger among them
 * error         errno on the listener, reported there; left alone on success
 * Trace points  "AcceptClient:Before" and "AcceptClient:After" on the listener; "AcceptClient:After:Client" on the
 *               child, which has no trace callback at that moment */
MQ_API int AcceptClient(SockRec* listener, SockRec* child);

MQ_END_C

#endif
