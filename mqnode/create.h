/* create.h - make nodes. Conventions: node.h.
 *
 * A creator returns the node once its record could be allocated, even when the socket could not be created, configured,
 * bound or made to listen: test node->error, or IsNodeFailed, before use. The caller owns the node: DeleteMQNode.
 *
 * Every node takes the login name (at most 12 characters) and the program's name (identity.h: a shell runs when
 * TEVRA_HOME is set) as its identity, and G_node_trace as its trace callback. Sockets made here linger for zero
 * seconds, closing throws away what was not sent, and they block until NoblockSocket(&node->sock); a socket that the
 * caller brings keeps its options and mode.
 *
 * Arguments
 *   addr  in  where to connect, or what to bind: host ("*" any address, "@" local host) or ip, service and protocol;
 *             copied whole. A bind replaces the copy with the socket name
 *   role  in  0 connecting, 1 listening; another value makes a node that mnOpen does nothing with
 *   opt   in  an option for the socket, null for none
 * Result       the node; null without memory for its record
 * error        the outcome of the last socket call: an errno value, for a name that does not resolve errno or
 *              9002 and 9003
 * Trace point  the creator's name, at the end; "CreateUDPMQNodeWithOpt" for both datagram creators
 * Blocks       while a name is looked up, and while the shell runs */
#ifndef MQNODE_MQNODE_CREATE_H
#define MQNODE_MQNODE_CREATE_H

#include "mqnode/node.h"
#include "socksin/options.h"

MQ_BEGIN_C

/* CreateMQNode - a stream node, closed, address reuse off. A listening one is bound to addr and listens, with room for
 * 5 waiting connections. */
MQ_API MQNode* CreateMQNode(SockAddrRec* addr, int role);

/* CreateMQNodeWithOpt - the same with opt in place of address reuse off. */
MQ_API MQNode* CreateMQNodeWithOpt(SockAddrRec* addr, int role, SockOption* opt);

/* CreateUDPMQNode, CreateUDPMQNodeWithOpt - a datagram node, bound to addr and open. Its datagrams are at most 16520
 * bytes long. openState is 0 when the bind failed. */
MQ_API MQNode* CreateUDPMQNode(SockAddrRec* addr);
MQ_API MQNode* CreateUDPMQNodeWithOpt(SockAddrRec* addr, SockOption* opt);

/* CreateAndBindMQNode - a node over a socket that the caller holds, connected (role 0) or listening (role 1).
 *   sock  in  copied whole; the node owns its descriptor from here on. CreateSocketFromExisting makes one from a bare
 *             descriptor
 * host is "@", addr all zero, error 0; no option is set. A connected node is read and written at once, without
 * mnOpen. */
MQ_API MQNode* CreateAndBindMQNode(SockRec* sock, int role);

MQ_END_C

#endif
