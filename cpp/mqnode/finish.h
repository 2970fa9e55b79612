/* finish.h - end a connection without losing messages. Header-only, for C11 with POSIX (-std=gnu11) and C++17. */
#ifndef MQNODE_MQNODE_FINISH_H
#define MQNODE_MQNODE_FINISH_H

#include <errno.h>
#include <linux/sockios.h>
#include <poll.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>

#include "mqnode/deliver.h"
#include "mqnode/node.h"
#include "socksin/options.h"

#ifndef CLOCK_MONOTONIC
#error "mqnode/finish.h needs clock_gettime: compile with -std=gnu11, or with -D_POSIX_C_SOURCE=200809L"
#endif

// NOLINTBEGIN(modernize-use-nullptr): C reads this as well.

/* Milliseconds of a clock that never goes back. */
static inline int64_t mq_clock(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Progress of the end of a connection; all zero at first. */
typedef struct MqFinish {
  int shut;     /* the sending side is shut down */
  int closed;   /* the peer has closed the connection */
  short events; /* poll events to wait for before the next step; 0: none, take the next step a few milliseconds later */
} MqFinish;

/* Internal: set the error and return 0. */
static inline int mq_finish_fail(MQNode* node, int code) {
  node->sock.error = code;
  node->error = code;
  return 0;
}

/* Internal: whether the peer's system has confirmed every byte of a connection whose sending side is shut down. The end
 * of the stream, which counts as one byte, may be unconfirmed, because a peer that resets does not confirm it. */
static inline int mq_finish_confirmed(const MQNode* node) {
  int bytes = 0;
  return ioctl(node->sock.fd, SIOCOUTQ, &bytes) == 0 && bytes <= 1;
}

/* Internal: discard what the peer sends. Returns 1, or 0 if the connection has failed. */
static inline int mq_finish_discard(MQNode* node, MqFinish* state) {
  char unread[16384];
  const ssize_t got = recv(node->sock.fd, unread, sizeof unread, MSG_DONTWAIT);
  if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) return 1;
  const int code = got < 0 ? errno : 0;
  state->closed = code == 0 || (code == ECONNRESET && state->shut && mq_finish_confirmed(node));
  return state->closed || mq_finish_fail(node, code);
}

/* mq_finish_step - perform one step of mq_finish without blocking, for an event loop.
 *   node    in/out  connected, non-blocking, with lingering switched off
 *   state   in/out  its events are set while more steps are needed
 * Result  1 the connection has ended, as for mq_finish; 0 it has failed, as for mq_finish; -1 wait for state->events,
 *         then call again
 * Blocks  never */
static inline int mq_finish_step(MQNode* node, MqFinish* state) {
  if (mnIsPendingIO(node) && !mnFinishWrite(node)) return 0;
  if (!state->shut && !mnIsPendingIO(node)) {
    if (shutdown(node->sock.fd, SHUT_WR) != 0) return mq_finish_fail(node, errno);
    state->shut = 1;
  }
  if (!state->closed && !mq_finish_discard(node, state)) return 0;
  /* A peer that shut down its sending side early may still be receiving. */
  if (state->shut && state->closed && mq_finish_confirmed(node)) {
    mq_finish_fail(node, 0);
    return 1;
  }
  state->events = (short)((state->closed ? 0 : POLLIN) | (state->shut ? 0 : POLLOUT));
  return -1;
}

/* mq_finish - send the queued writes of a stream node, shut down its sending side, and wait until the peer's system has
 * received everything and the peer has closed the connection. Data that the peer sends meanwhile is discarded.
 *
 * Deleting a node resets its connection, because nodes linger for zero seconds: what the system has not sent yet is
 * discarded. Call mq_finish before DeleteMQNode if the last messages must arrive, and at the peer when its read fails
 * with 9004. Only an answer can tell whether the application at the peer has processed the messages.
 *   node          connected. It is made non-blocking, and lingering is switched off, so that the system continues to
 *                 send after a time-out
 *   milliseconds  upper bound for all of this
 * Result  1 if the peer's system has received all bytes and the peer has closed the connection; 0 if this is not known
 * error   0; ETIMEDOUT the time is over; ECONNRESET the peer reset the connection; 11 a queued message was dropped,
 *         with the reason in node->sock.error; another errno
 * Blocks  for at most the given time */
static inline int mq_finish(MQNode* node, int milliseconds) {
  const int64_t end = mq_clock() + milliseconds;
  SockOption noLinger = {SOCK_OPT_LINGER, 0, 0};
  MqFinish state = {0, 0, 0};
  SetSocketOptions(&node->sock, &noLinger);
  NoblockSocket(&node->sock);
  for (;;) {
    const int result = mq_finish_step(node, &state);
    if (result >= 0) return result;
    const int64_t left = end - mq_clock();
    if (left <= 0) return mq_finish_fail(node, ETIMEDOUT);
    struct pollfd wanted = {node->sock.fd, state.events, 0};
    poll(&wanted, state.events != 0, (int)(state.events != 0 || left < 10 ? left : 10));
  }
}

// NOLINTEND(modernize-use-nullptr)

#endif
