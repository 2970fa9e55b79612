/* read.h - read plain messages from nodes, and look at the next one. Conventions: node.h.
 *
 * A read may come back before its message is whole: it keeps what it gathered in the node's receive buffer and reports
 * 11; the next call goes on. Every other failure drops what was gathered, and nothing resynchronises a stream: after
 * 2026 close the node. A read takes at most two receives when the data is there, never reads past its message, and
 * grows the receive buffer only for a message that is larger than any before. A signal that interrupts a blocking read
 * (EINTR) drops what was gathered: install handlers with SA_RESTART.
 *
 * Only messages of 137 bytes to MQ_MAX_MESSAGE are delivered. A stream message without a body is a bad message, after
 * which the stream is still in step; a datagram must be exactly as long as it says (one longer than the receive buffer
 * is judged by the part that fits). A plain read and a browse belong on a node that is not in the middle of a message
 * of the other framing; a browse also not in the middle of a plain one.
 *
 * A node for which there was no memory for a receive area when it was created works once there is some: mnRead and
 * mnSRead ask for the area again, and fail with 2102 without receiving while there is none. A read on a closed node
 * does the same, so that it ends with the socket's own code, 9 (EBADF); DeleteMQNode releases that area. The gather
 * steps alone do not ask for an area: they fail with 2102. */
#ifndef MQNODE_MQNODE_READ_H
#define MQNODE_MQNODE_READ_H

#include "mqnode/node.h"

MQ_BEGIN_C

/* mnReadMsg - the gather step of a read: receive until the node's receive buffer holds as many bytes as it asks for, on
 * a datagram node one datagram. A datagram that an earlier call has gathered stays: nothing is received for it.
 * Result       1 it does; 0 not
 * error        0; 11 call again, what is held stays; 2026 the first word is not 136 in either byte order; 2102 the
 *              receive buffer is smaller than what is asked for; the socket's code. All but 11 reset the buffer
 * Trace point  "mnReadMsg", on failure only */
MQ_API int mnReadMsg(MQNode* node);

/* mnRead - read a plain message.
 *   msg     in/out  receives the raw message, enlarged when it must be, parsed by the message library; its
 *                   secHeader.userId receives the sender's user id
 * Result       nonzero a message was delivered (what RawToPcf returned); 0 none was
 * error        0; 11 unfinished, call again; 2026 bad message; 2102 msg cannot be enlarged and the message was dropped,
 *              or the receive buffer cannot and the body is still in the stream: close the node; 4005 the body could
 *              not be converted or parsed, msg holds the raw message and it was counted; the socket's code, 9004 when
 *              the peer closed the connection, on a datagram node when an empty datagram came
 * Trace point  "mnRead": twice for a stream message that came in one call */
MQ_API int mnRead(PcfMessage* msg, MQNode* node);

/* mnBrowse - look at the header of the next plain message without consuming anything.
 *   msg     in/out  its raw data, at least 136 bytes, receives the header in native form; raw.length stays
 * When the header has not arrived whole, the browse looks once more at once. Then a non-blocking node reports 11; a
 * blocking one looks again with short pauses for at most a second before it reports 11. A datagram shorter than a
 * header is reported as a bad message, which a read then discards.
 * The announced length is not checked: it is compared with the capacity of msg as a signed number, and msg is enlarged
 * to hold that many bytes when it is greater. mnRead checks it.
 * Result       1 the header is there and msg can hold the body; 0 not
 * error        0; 11; 2026 no header, or it could not be converted (dumped then); 2102 msg cannot be enlarged: no
 *              memory, or more than the companion allows for a message; the socket's code, 9004 when the peer closed
 *              the connection
 * Trace point  "mnBrowse" */
MQ_API int mnBrowse(PcfMessage* msg, MQNode* node);

MQ_END_C

#endif
