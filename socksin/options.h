/* options.h - socket options by a small portable id.
 *
 * Conventions: record.h, but without trace points. No call blocks. A failure reports the errno of the system call
 * unchanged. */
#ifndef MQNODE_SOCKSIN_OPTIONS_H
#define MQNODE_SOCKSIN_OPTIONS_H

#include <stddef.h>
#include <stdint.h>

#include "runtime/api.h"
#include "socksin/record.h"

MQ_BEGIN_C

/* Option ids. All options are socket-level options. An id of 11 or more is passed to the system as the option number; a
 * negative id as -1, which the system rejects. */
enum {
  SOCK_OPT_DEBUG = 0,
  SOCK_OPT_REUSEADDR = 1,
  SOCK_OPT_KEEPALIVE = 2,
  SOCK_OPT_DONTROUTE = 3,
  SOCK_OPT_LINGER = 4, /* value2 is on or off, value1 the time in seconds */
  SOCK_OPT_BROADCAST = 5,
  SOCK_OPT_OOBINLINE = 6,
  SOCK_OPT_SNDBUF = 7, /* value1, bytes */
  SOCK_OPT_RCVBUF = 8, /* value1, bytes */
  SOCK_OPT_TYPE = 9,   /* read-only */
  SOCK_OPT_ERROR = 10  /* read-only */
};

/* SockOption - a socket option and its value. */
typedef struct SockOption {
  int32_t id;
  int32_t value1; /* the value of ids 7 and 8; seconds of id 4; the result of GetSocketOptions */
  int32_t value2; /* the value of every other id, 0 off and nonzero on for the switches */
} SockOption;

MQ_STATIC_ASSERT(sizeof(SockOption) == 12, "SockOption is 12 bytes");
MQ_STATIC_ASSERT(offsetof(SockOption, value1) == 4, "SockOption.value1");
MQ_STATIC_ASSERT(offsetof(SockOption, value2) == 8, "SockOption.value2");

/* MapSockOption - convert an option id to the system's option number.
 * Result  the option number */
MQ_API int MapSockOption(int id);

/* SetSocketOptions - set one option to value1 or value2, as documented above.
 * error  0; errno of the system call, reported */
MQ_API int SetSocketOptions(SockRec* rec, SockOption* option);

/* GetSocketOptions - read the option id into value1, at most 4 bytes (for id 4: on or off). value2 does not change.
 * error  0; errno of the system call, reported */
MQ_API int GetSocketOptions(SockRec* rec, SockOption* option);

/* SetTcpNoDelay - switch Nagle's algorithm off if on is nonzero, else on.
 * error  0; errno of the system call, reported */
MQ_API int SetTcpNoDelay(SockRec* rec, int on);

/* SetTcpBuffer - set the size in bytes of the send buffer and then, if that succeeded, of the receive buffer.
 * error  0; errno of the system call, reported */
MQ_API int SetTcpBuffer(SockRec* rec, int size);

/* ReuseSocket - switch address reuse on if on is exactly 1, else off.
 * error  0; errno of the system call, reported */
MQ_API int ReuseSocket(SockRec* rec, int on);

MQ_END_C

#endif
