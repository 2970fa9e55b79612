/* secure_read.h - read signed messages from nodes. Conventions: node.h; what read.h says of reads holds here too.
 *
 * A secure message is a 32-byte envelope and the signed message. One node is read in one framing at a time: the first
 * secure read arms an idle buffer for envelopes, the next plain read arms an idle buffer for headers again. */
#ifndef MQNODE_MQNODE_SECURE_READ_H
#define MQNODE_MQNODE_SECURE_READ_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnSReadMsg - the gather step of a secure read, as mnReadMsg with an envelope of 32 bytes. It gathers as many bytes as
 * the receive buffer asks for: on a new node, armed for a plain header, that is 136. To gather envelopes without
 * mnSRead, arm the buffer with ResetBuffer(&node->recvBuffer, 32) first.
 * Trace point  "mnSReadMsg", on failure only, before the buffer is reset */
MQ_API int mnSReadMsg(MQNode* node);

/* mnSRead - read a secure message, check its signature, and only then convert and parse it.
 *   msg              in/out  receives the envelope in native form as secHeader, and the signed message as its raw form
 *   secure           in      0: exactly mnRead
 *   securityContext  in      not consulted by a read
 * Result       nonzero a message was delivered (what RawToPcf returned); 0 none was
 * error        0; 11 unfinished, call again; 2026 bad envelope, or a signed message whose header could not be converted
 *              (counted and dumped then); 2102 msg or the receive buffer cannot be enlarged, the message was dropped;
 *              -1001 the signature does not hold: msg holds the message as it came, and it was counted; 4005 the body
 *              could not be converted or parsed, counted and dumped; the socket's code
 * Trace point  "mnSRead": twice for a stream message that came in one call */
MQ_API int mnSRead(PcfMessage* msg, MQNode* node, int secure, void* securityContext);

MQ_END_C

#endif
