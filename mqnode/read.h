/* read.h - read plain messages from nodes, and browse the next one. Conventions: node.h.
 *
 * A read may return before its message is complete. It then keeps the bytes received so far in the node's receive
 * buffer and reports 11; call again to continue. Any other failure discards these bytes. A stream cannot be
 * resynchronised: close the node after 2026. When the data is available, a read receives at most twice. It never
 * receives bytes of the next message, and enlarges the receive buffer only for a message longer than all before. A
 * signal that interrupts a blocking read (EINTR) discards the bytes received so far: install handlers with SA_RESTART.
 *
 * Messages of 137 bytes to MQ_MAX_MESSAGE are delivered. A stream message without a body is a bad message, after which
 * the stream is still in step. The length of a datagram must equal that of its message; of a datagram longer than the
 * receive buffer, only the part that fits is checked. Do not call a plain read or a browse on a node that has received
 * part of a signed message, or a browse on a node that has received part of a plain message.
 *
 * If there was no memory for the receive area of a node when it was created, mnRead and mnSRead allocate it. While
 * there is no memory they fail with 2102 and receive nothing. A read on a closed node does the same and then fails with
 * the code of the socket, 9 (EBADF); DeleteMQNode releases that area. mnReadMsg and mnSReadMsg do not allocate: they
 * fail with 2102. */
#ifndef MQNODE_MQNODE_READ_H
#define MQNODE_MQNODE_READ_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnReadMsg - the first step of a read: receive until the node's receive buffer contains recvBuffer.length bytes; on a
 * datagram node, receive one datagram. If the receive buffer already contains a datagram, nothing is received.
 * Result       1 if the buffer contains them, else 0
 * error        0; 11 call again, the bytes received so far are kept; 2026 the first word is not 136 in either byte
 *              order; 2102 recvBuffer.length exceeds the capacity; the code of the socket. All but 11 reset the buffer
 * Trace point  "mnReadMsg", on failure only */
MQ_API int mnReadMsg(MQNode* node);

/* mnRead - read a plain message.
 *   msg     in/out  receives the message, parsed; enlarged if necessary. secHeader.userId receives the sender's user id
 * Result       nonzero if a message was delivered (the result of RawToPcf), else 0
 * error        0; 11 incomplete, call again; 2026 bad message; 2102 msg could not be enlarged and the message was
 *              dropped, or the receive buffer could not be enlarged and the body is still in the stream: close the
 *              node; 4005 the body could not be converted or parsed, msg holds the raw message and msgsRead counts it;
 *              the code of the socket: 9004 when the peer closed the connection, or when an empty datagram arrived
 * Trace point  "mnRead": twice for a call that completes the header of a stream message and continues with the rest */
MQ_API int mnRead(PcfMessage* msg, MQNode* node);

/* mnBrowse - peek at the header of the next plain message without consuming it.
 *   msg     in/out  raw.data, at least 136 bytes, receives the header in native form; raw.length does not change
 * If the header has arrived only in part, the browse peeks again immediately. After that, a non-blocking node reports
 * 11; a blocking one peeks again at short intervals for at most a second and then reports 11. A datagram shorter than a
 * header is reported as a bad message; a read discards it.
 * The announced length is not validated here, but by mnRead: it is compared with the capacity of msg as a signed
 * number, and msg is enlarged to hold that many bytes if it is greater.
 * Result       1 if the header has arrived and the body fits in msg, else 0
 * error        0; 11; 2026 not a header, or it could not be converted (DumpPcfMessage is called then); 2102 msg could
 *              not be enlarged: no memory, or longer than the companion allows; the code of the socket: 9004 when the
 *              peer closed the connection
 * Trace point  "mnBrowse" */
MQ_API int mnBrowse(PcfMessage* msg, MQNode* node);

MQ_END_C

#endif
