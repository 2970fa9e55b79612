/* resolve.h - convert socket names to IPv4 addresses and back.
 *
 * Conventions: record.h. Results are not cached. A service that begins with a digit, the host "*", a valid dotted quad
 * in ip and a host that begins with a digit are converted without a lookup; other names are looked up on each call. */
#ifndef MQNODE_SOCKSIN_RESOLVE_H
#define MQNODE_SOCKSIN_RESOLVE_H

#include <netinet/in.h>

#include "runtime/api.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* AddrToIP - resolve a socket name. A port above 65535 is stored in port and taken modulo 65536 in out.
 *   rec      in/out  domain is read, error is set; onError is not called
 *   addrRec  in/out  host, ip, service and protocol are read; port is set when the service has been resolved
 *   out      out     zeroed; then family, port and address are set
 * Order: the service is converted if it begins with a digit, else looked up. Host "*" is the any-address, whatever ip
 * contains. Otherwise a valid dotted quad in ip takes precedence over host; "@" is localhost; a host that begins with a
 * digit is converted, other hosts are looked up. If that fails, ip is converted if it begins with a digit (short forms
 * are accepted).
 * Result        1 if resolved, else 0
 * error         errno if it is not 0 at that time, else 9002 for the service or 9003 for the host; a success does not
 *               clear it
 * Trace points  "AddrToIP:Before", "AddrToIP:After", each once
 * Blocks        while a name is looked up */
MQ_API int AddrToIP(SockRec* rec, SockAddrRec* addrRec, struct sockaddr_in* out);

/* IsValidIp - check whether text consists of four groups of one to three digits, each at most 255, separated by single
 * dots.
 * Result  1 if valid, else 0 */
MQ_API int IsValidIp(const char* text);

/* IpAddrToSocketAddr - set ip, service and port of addrRec from an address; host and protocol do not change.
 *   protocol  not read
 * Returns 1. */
MQ_API int IpAddrToSocketAddr(SockAddrRec* addrRec, const struct sockaddr_in* in, const char* protocol);

MQ_END_C

#endif
