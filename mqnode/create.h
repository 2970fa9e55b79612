/* create.h - create nodes. Conventions: node.h.
 *
 * A creator returns a node whenever its record could be allocated, even if the socket could not be created, configured,
 * bound or made to listen: check node->error, or call IsNodeFailed, before use. The caller releases the node with
 * DeleteMQNode.
 *
 * The identity of a node is the login name (at most 12 characters) and the name of the application (identity.h; found
 * by a shell command if TEVRA_HOME is set). Its trace callback is G_node_trace. Sockets created here linger for zero
 * seconds, so that closing them discards unsent data, and block until NoblockSocket(&node->sock) is called. A socket
 * that the caller passes keeps its options and mode.
 *
 * Arguments
 *   addr  in  address to connect to or to bind: host ("*" any address, "@" local host) or ip, service and protocol. It
 *             is copied; a bind replaces the copy with the socket name
 *   role  in  0 connecting, 1 listening; mnOpen has no effect on a node with another value
 *   opt   in  an option to set on the socket; null for none
 * Result       the node; null if there is no memory for its record
 * error        0; 9002, 9003 or errno for a name that does not resolve; errno of the last socket call
 * Trace point  the name of the creator, at the end; "CreateUDPMQNodeWithOpt" for both datagram creators
 * Blocks       while a name is looked up, and while the shell command runs */
#ifndef MQNODE_MQNODE_CREATE_H
#define MQNODE_MQNODE_CREATE_H

#include "mqnode/node.h"
#include "socksin/options.h"

MQ_BEGIN_C

/* CreateMQNode - create a stream node with address reuse off. A connecting node is not connected yet (mnOpen); a
 * listening node is bound to addr and listens with an accept queue of 5. */
MQ_API MQNode* CreateMQNode(SockAddrRec* addr, int role);

/* CreateMQNodeWithOpt - as CreateMQNode, but set opt instead of switching address reuse off. */
MQ_API MQNode* CreateMQNodeWithOpt(SockAddrRec* addr, int role, SockOption* opt);

/* CreateUDPMQNode, CreateUDPMQNodeWithOpt - create a datagram node that is bound to addr and open. It receives
 * datagrams of at most 16520 bytes. openState is 0 if the bind failed. */
MQ_API MQNode* CreateUDPMQNode(SockAddrRec* addr);
MQ_API MQNode* CreateUDPMQNodeWithOpt(SockAddrRec* addr, SockOption* opt);

/* CreateAndBindMQNode - create a node over an existing socket, connected (role 0) or listening (role 1).
 *   sock  in  copied; the node owns its file descriptor from then on. CreateSocketFromExisting creates such a record
 *             from a file descriptor
 * host is "@", addr all zero, error 0; no option is set. A connected node can be read and written without mnOpen. */
MQ_API MQNode* CreateAndBindMQNode(SockRec* sock, int role);

MQ_END_C

#endif
