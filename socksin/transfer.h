/* transfer.h - move bytes between one socket and one buffer, one system call at a time.
 *
 * The conventions of record.h hold. The buffer's counters are the state of a transfer: a caller goes on with one that
 * came back in part by calling again with the same buffer. Neither call allocates or copies; neither looks at capacity,
 * so the caller keeps length within it. rec->buffer names the buffer between the two trace points, and only there. */
#ifndef MQNODE_SOCKSIN_TRANSFER_H
#define MQNODE_SOCKSIN_TRANSFER_H

#include "runtime/api.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* ReadSocket - one recvfrom into data + received, of at most length - received bytes.
 * On success received and bytesReceived grow by what arrived; on a datagram socket from takes the sender's ip, service
 * and port.
 * Result        1 at least one byte arrived, 0 none
 * error         0; errno, reported as it is and then stored as 11 when it is EINPROGRESS; 9004, reported, when the peer
 *               closed the connection or nothing was left to ask for
 * Trace points  "ReadSocket:Before", "ReadSocket:After"
 * Blocks        when the socket does */
MQ_API int ReadSocket(SockRec* rec, IoBuffer* buf);

/* WriteSocket - one send from data + sent, of length - sent bytes; on a datagram socket one sendto.
 *   destination  in/out  datagram sockets: resolved on every call, its port is written; null fails like a name that
 *                        does not resolve. Not read on a stream socket
 * Result        1 the system took the call, any number of bytes, 0 it did not
 * error         0; errno as for ReadSocket; 89, reported, when the destination is missing or does not resolve
 * Trace points  "WriteSocket:Before", those of AddrToIP on a datagram socket, "WriteSocket:After"
 * Blocks        when the socket does, and while a destination is looked up */
MQ_API int WriteSocket(SockRec* rec, IoBuffer* buf, SockAddrRec* destination);

MQ_END_C

#endif
