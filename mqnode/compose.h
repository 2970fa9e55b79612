/* compose.h - write messages to nodes. Conventions: node.h.
 *
 * The raw form of the PcfMessage passed to a write contains a complete message: space for the 136-byte header, followed
 * by the body; raw.length is the length of both. The write fills in hdrLength, bigEndian, asciiText, bodyLength, userId
 * and applName of the header (and secHeader, for a signed message), copies or signs the bytes, and sends or queues
 * them. The record may be changed or reused as soon as the write returns, even if the message was queued.
 *
 * Memory  one record (tag "MQNODE") and one data area for each message; a queued message also takes a queue entry
 * Result  nonzero if the message was sent or queued (error 11, or 0 behind an existing queue); 0 if it was not written
 * error   0; 11 with result 1: queued; with result 0: not written, because there was no memory or because the socket
 *         failed with the code in node->sock.error; -1111 refused by writeLimit; -1000 mqc_sign failed; 2026 raw.length
 *         is below 136 or above MQ_MAX_MESSAGE (nothing was changed), or the signed message is too long
 * Blocks  while the node's socket blocks; on a datagram node also while the destination is looked up
 *
 * Arguments used throughout
 *   msg              in/out  the message
 *   to               in/out  destination of a datagram, null for none; not read on a stream node. A write without a
 *                            destination on a datagram node fails with 89 in node->sock.error
 *   user             in      user id for the header of a plain message: text, of which at most 12 characters are used.
 *                            It may be located anywhere in msg, because it is copied before msg changes. A signed
 *                            message always contains the user of the node
 *   secure           in      nonzero: sign; 0: write a plain message
 *   securityContext  in      passed unchanged to mqc_sign
 *   highPriority     in      passed to mnWriteToNode */
#ifndef MQNODE_MQNODE_COMPOSE_H
#define MQNODE_MQNODE_COMPOSE_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnWriteMsg - write a plain message.
 * Trace points  "mnWriteMsg", those of mnWriteToNode, "mnWriteMsg"; only the first if there was no memory or the raw
 *               length was refused */
MQ_API int mnWriteMsg(PcfMessage* msg, MQNode* node, SockAddrRec* to, const char* user, int highPriority);

/* mnSWriteMsgWithPriority - write a signed message; if secure is 0, a plain message by mnWriteMsg.
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

/* mnSWrite, mnSWriteTo - write a message with the node's user, signed if secure is nonzero, without and with a
 * destination. */
MQ_API int mnSWrite(PcfMessage* msg, MQNode* node, int secure, void* securityContext);
MQ_API int mnSWriteTo(PcfMessage* msg, MQNode* node, SockAddrRec* to, int secure, void* securityContext);

/* mnSWriteAltUser, mnSWriteAltUserHigh - write with the user id that is already in the raw header; if that starts with
 * a null byte or a blank, with the node's user. The second passes highPriority 1. */
MQ_API int mnSWriteAltUser(PcfMessage* msg, MQNode* node, int secure, void* securityContext);
MQ_API int mnSWriteAltUserHigh(PcfMessage* msg, MQNode* node, int secure, void* securityContext);

MQ_END_C

#endif
