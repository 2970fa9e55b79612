/* transfer.h - move bytes between a socket and a buffer, one system call at a time.
 *
 * Conventions: record.h. The counters of the buffer are the state of a transfer: to continue an incomplete one, call
 * again with the same buffer. Neither function allocates, copies or checks capacity: length must not exceed it.
 * rec->buffer points to the buffer between the two trace points, and only there. */
#ifndef MQNODE_SOCKSIN_TRANSFER_H
#define MQNODE_SOCKSIN_TRANSFER_H

#include "runtime/api.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* ReadSocket - receive at most length - received bytes to data + received, with one recvfrom.
 * On success the number of bytes is added to received and bytesReceived; on a datagram socket, from receives the
 * sender's ip, service and port.
 * Result        1 if at least one byte was received, else 0
 * error         0; errno, reported unchanged, then stored as 11 if it is EINPROGRESS; 9004, reported, if the peer
 *               closed the connection or length - received is 0
 * Trace points  "ReadSocket:Before", "ReadSocket:After"
 * Blocks        if the socket is blocking */
MQ_API int ReadSocket(SockRec* rec, IoBuffer* buf);

/* WriteSocket - send length - sent bytes from data + sent, with one send; on a datagram socket, with one sendto.
 *   destination  in/out  on a datagram socket: resolved on each call, and its port is set; null fails like a name that
 *                        does not resolve. Not read on a stream socket
 * Result        1 if the system call succeeded, with any number of bytes; else 0
 * error         0; errno as for ReadSocket; 89, reported, if the destination is null or does not resolve
 * Trace points  "WriteSocket:Before", those of AddrToIP on a datagram socket, "WriteSocket:After"
 * Blocks        if the socket is blocking, and while a destination is looked up */
MQ_API int WriteSocket(SockRec* rec, IoBuffer* buf, SockAddrRec* destination);

MQ_END_C

#endif
