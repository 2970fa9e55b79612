/* sockutil.h - convert between names, services, dotted quads and IPv4 addresses.
 *
 *   Buffers  belong to the caller. Their sizes: dotted quad 16 bytes, service name 33, host name 256; longer names are
 *            cut. Addresses and ports in a sockaddr_in are in network byte order
 *   Errors   a failure is reported by the result alone; no trace point runs
 *   Threads  only one thread of the process at a time may call functions that look up a name, including AddrToIP,
 *            because the C library's lookups use static storage. They may block in the resolver */
#ifndef MQNODE_SOCKUTIL_SOCKUTIL_H
#define MQNODE_SOCKUTIL_SOCKUTIL_H

#include <netinet/in.h>
#include <stdint.h>

#include "runtime/api.h"

MQ_BEGIN_C

/* ResolveHostName - get the dotted quad of a host's first address.
 *   out     out  16 bytes; unchanged if the name does not resolve
 * Result   1 if resolved, else 0. May block. */
MQ_API int ResolveHostName(const char* hostName, char* out);

/* MapServPortToName - get the name of the service at a port.
 *   out       out  33 bytes; "unknown service" if there is none
 *   in        in   its port
 *   protocol  in   such as "tcp"
 * Result   1 if found, else 0. May block. */
MQ_API int MapServPortToName(char* out, const struct sockaddr_in* in, const char* protocol);

/* MapHostIPToAddr - convert a dotted quad to an address. The short forms of inet_addr are accepted; "0.0.0.0" gives
 * 255.255.255.255.
 *   out     out  only the address is set
 * Result   1 if valid; 0 if not, and for the text "255.255.255.255" */
MQ_API int MapHostIPToAddr(const char* text, struct sockaddr_in* out);

/* MapHostAddrToIP - convert an address to a dotted quad.
 *   out     out  16 bytes; "unknown ip" if the conversion failed
 * Result   1; 0 if the conversion failed */
MQ_API int MapHostAddrToIP(char* out, const struct sockaddr_in* in);

/* MapHostAddrToName - get the name of the host at an address.
 *   out     out  256 bytes; "unknown host" if it has none
 * Result   1 if found, else 0. May block. */
MQ_API int MapHostAddrToName(char* out, const struct sockaddr_in* in);

/* MapStrIpToAddr - convert a dotted quad to a number in host byte order; 4294967295 if the text is not an address.
 * Result   1 */
MQ_API int MapStrIpToAddr(const char* text, uint64_t* out);

MQ_END_C

#endif
