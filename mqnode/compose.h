/* compose.h - write messages to nodes. Conventions: node.h.
 *
 * Every write takes the host's PcfMessage, whose raw form holds a complete message: room for the 136-byte header, then
 * the body, raw.length the size of both. The write fills hdrLength, bigEndian, asciiText, bodyLength, userId and
 * applName in the header (a signed one the record's secHeader too), copies or signs the bytes, and sends or queues
 * them. The record may be changed or used again as soon as a write returns, also when the message was queued.
 *
 * Memory  one record (tag "MQNODE") and one data area for each message; a queued one takes a queue entry as well
 * Result  nonzero: sent or queued (error 11, or 0 behind an existing queue); 0: not written
 * error   0; 11 queued, or not written when the result is 0: without memory, or because the socket failed with the code
 *         in node->sock.error; -1111 refused by writeLimit; -1000 mqc_sign refused; 2026 raw.length is below 136 or
 *         above MQ_MAX_MESSAGE, nothing was touched then, or the signed message would be
 * Blocks  when the node's socket does; on a datagram node also while the destination is looked up
 *
 * Arguments used throughout
 *   msg              in/out  the message
 *   to               in/out  destination of a datagram, null for none. A datagram node needs one: a write that passes
 *                            none fails with 89 in node->sock.error. Not read on a stream node
 *   user             in      user id for the header of a plain message: text, at most 12 characters are used. May lie
 *                            anywhere in msg: it is taken before msg changes. A signed message always carries the
 *                            node's user
 *   secure           in      nonzero signs, 0 writes a plain message
 *   securityContext  in      handed unchanged to mqc_sign
 *   highPriority     in      handed to mnWriteToNode */
#ifndef MQNODE_MQNODE_COMPOSE_H
#define MQNODE_MQNODE_COMPOSE_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnWriteMsg - write a plain message.
 * Trace points  "mnWriteMsg", those of mnWriteToNode, "mnWriteMsg"; only the first when there was no memory or the raw
 *               length was refused */
MQ_API int mnWriteMsg(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int highPriority);

/* mnSWriteMsgWithPriority - write a signed message, or a plain one through mnWriteMsg when secure is 0.
 * Trace points  "mnSWriteMsg"; then signed: those of mnWriteToNode, "mnSWriteMsg" (not after a failure before
 *               delivery); plain: those of mnWriteMsg */
MQ_API int mnSWriteMsgWithPriority(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int secure,
                                   void* securityContext, int highPriority);

/* mnSWriteMsg - the same as mnSWriteMsgWithPriority. */
MQ_API int mnSWriteMsg(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int secure,
                       void* securityContext, int highPriority);

/* mnWrite, mnWriteTo - write a plain message with the node's user, without and with a destination. */
MQ_API int mnWrite(PcfMessage* msg, MQNode* node);
MQ_API int mnWriteTo(PcfMessage* msg, MQNode* node, SockAddrRec* to);

/* mnSWrite, mnSWriteTo - write a message that may be signed with the node's user, without and with a destination. */
MQ_API int mnSWrite(PcfMessage* msg, MQNode* node, int secure, void* securityContext);
MQ_API int mnSWriteTo(PcfMessage* msg, MQNode* node, SockAddrRec* to, int secure, void* securityContext);

/* mnSWriteAltUser, mnSWriteAltUserHigh - write with the user id that the raw header holds already; when that starts
 * with a NUL or a blank, the node's user is put there first. The second asks for high priority. */
MQ_API int mnSWriteAltUser(PcfMessage* msg, MQNode* node, int secure, void* securityContext);
MQ_API int mnSWriteAltUserHigh(PcfMessage* msg, MQNode* node, int secure, void* securityContext);

MQ_END_C

#endif
