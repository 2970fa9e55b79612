/* resolve.h - from socket names as text to IPv4 addresses and back.
 *
 * The conventions of record.h hold. Nothing is cached between calls. Decimal service text, the host "*", a valid dotted
 * quad in ip and a host that begins with a digit cost no lookup; every other text is looked up on every call. */
#ifndef MQNODE_SOCKSIN_RESOLVE_H
#define MQNODE_SOCKSIN_RESOLVE_H

#include <netinet/in.h>

#include "runtime/api.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* AddrToIP - resolve a socket name. A port above 65535 is taken modulo 65536 in out, and as it is in port.
 *   rec      in/out  domain is read, error is written; onError is not called, the caller reports
 *   addrRec  in/out  host, ip, service and protocol are read; port is written once the service resolved
 *   out      out     zeroed, then family, port and address
 * Order: decimal service text or a service lookup; host "*" is the any-address whatever ip holds; a valid dotted quad
 * in ip wins over host; "@" is localhost; a name that begins with a digit is converted, never looked up; any other is
 * looked up; when that finds nothing, ip text that begins with a digit is converted (short forms too).
 * Result        1 resolved, 0 not
 * error         errno when it is not 0 at that moment, else 9002 (service) or 9003 (host); not cleared on success
 * Trace points  "AddrToIP:Before", "AddrToIP:After", each exactly once
 * Blocks        while a name is looked up */
MQ_API int AddrToIP(SockRec* rec, SockAddrRec* addrRec, struct sockaddr_in* out);

/* IsValidIp - whether text is exactly four groups of one to three digits, each at most 255, separated by single dots.
 * Result  1 valid, 0 not */
MQ_API int IsValidIp(const char* text);

/* IpAddrToSocketAddr - write the dotted quad, the port text and the port of an address into addrRec; host and protocol
 * stay.
 *   protocol  not read
 * Always 1. */
MQ_API int IpAddrToSocketAddr(SockAddrRec* addrRec, const struct sockaddr_in* in, const char* protocol);

MQ_END_C

#endif
