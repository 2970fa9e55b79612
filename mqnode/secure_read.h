/* secure_read.h - read signed messages from nodes. Conventions: node.h; read.h applies as well.
 *
 * A signed message is a 32-byte envelope followed by the plain message and its signature. A node may be read in both
 * framings, but not in the middle of a message: a signed read prepares an empty receive buffer for an envelope, a plain
 * read for a header. */
#ifndef MQNODE_MQNODE_SECURE_READ_H
#define MQNODE_MQNODE_SECURE_READ_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnSReadMsg - the first step of a signed read: as mnReadMsg, with an envelope of 32 bytes. It receives
 * recvBuffer.length bytes, which is 136 on a new node. To receive envelopes without mnSRead, call
 * ResetBuffer(&node->recvBuffer, 32) first.
 * Trace point  "mnSReadMsg", on failure only, before the buffer is reset */
MQ_API int mnSReadMsg(MQNode* node);

/* mnSRead - read a signed message: check the signature, then convert and parse the message.
 *   msg              in/out  secHeader receives the envelope in native form, the raw form receives the message
 *   secure           in      0: exactly mnRead
 *   securityContext  in      not used by a read
 * Result       nonzero if a message was delivered (the result of RawToPcf), else 0
 * error        0; 11 incomplete, call again; 2026 bad envelope, or the header of the signed message could not be
 *              converted; 2102 msg or the receive buffer could not be enlarged, the message was dropped; -1001 the
 *              signature is not valid, msg holds the message as it was received; 4005 the body could not be converted
 *              or parsed; the code of the socket. msgsRead counts messages refused with -1001 and 4005, and those whose
 *              header could not be converted; DumpPcfMessage is called for the latter two
 * Trace point  "mnSRead": twice for a call that completes the header of a stream message and continues with the rest */
MQ_API int mnSRead(PcfMessage* msg, MQNode* node, int secure, void* securityContext);

MQ_END_C

#endif
