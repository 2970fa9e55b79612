/* sockutil.h - small mappings between names, services, dotted-quad texts and IPv4 addresses.
 *
 * Out buffers belong to the caller. Their sizes: dotted quad 16 bytes, service name 33, host name 256; longer names are
 * cut. Addresses and ports inside a sockaddr_in are in network byte order.
 * Results: 1 and 0 as each line says; nothing else is reported. No trace point runs.
 * Threads: the resolver calls of the system library that stand behind these keep static storage, so one thread at a
 * time may be in this module, AddrToIP included. The calls that look up a name may block in the resolver. */
#ifndef MQNODE_SOCKUTIL_SOCKUTIL_H
#define MQNODE_SOCKUTIL_SOCKUTIL_H

#include <netinet/in.h>
#include <stdint.h>

#include "runtime/api.h"

MQ_BEGIN_C

/* ResolveHostName - the dotted quad of a host's first address.
 *   out     out  16 bytes; untouched when the name does not resolve
 * Result   1 resolved, 0 not. May block. */
MQ_API int ResolveHostName(const char* hostName, char* out);

/* MapServPortToName - the service that a port is registered for.
 *   out       out  33 bytes; "unknown service" when there is none
 *   in        in   its port
 *   protocol  in   such as "tcp"
 * Result   1 found, 0 not. May block. */
MQ_API int MapServPortToName(char* out, const struct sockaddr_in* in, const char* protocol);

/* MapHostIPToAddr - an address from dotted-quad text; the short forms of inet_addr are accepted, "0.0.0.0" gives
 * 255.255.255.255.
 *   out     out  only the address is written
 * Result   1 valid, 0 invalid (the text 255.255.255.255 too) */
MQ_API int MapHostIPToAddr(const char* text, struct sockaddr_in* out);

/* MapHostAddrToIP - the dotted quad of an address.
 *   out     out  16 bytes; "unknown ip" when no text could be made
 * Result   1, or 0 with that text */
MQ_API int MapHostAddrToIP(char* out, const struct sockaddr_in* in);

/* MapHostAddrToName - the name of the host at an address.
 *   out     out  256 bytes; "unknown host" when it has none
 * Result   1 found, 0 not. May block. */
MQ_API int MapHostAddrToName(char* out, const struct sockaddr_in* in);

/* MapStrIpToAddr - dotted-quad text as a number in host byte order; 4294967295 for a text that is no address.
 * Result   always 1 */
MQ_API int MapStrIpToAddr(const char* text, uint64_t* out);

MQ_END_C

#endif
