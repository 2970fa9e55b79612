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

// NOLINTBEGIN(modernize-use-nullptr): C reads this as well.

/* Everything named mq_finish_ is internal. */

static inline int64_t mq_finish_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static inline int mq_finish_fail(MQNode* node, int code) {
  node->sock.error = code;
  node->error = code;
  return 0;
}

/* Waits for an event of poll; with events 0, for a moment. 0 when the time is over. */
static inline int mq_finish_wait(MQNode* node, short events, int64_t end) {
  struct pollfd state = {node->sock.fd, events, 0};
  const int64_t left = end - mq_finish_now();
  if (left <= 0) return mq_finish_fail(node, ETIMEDOUT);
  if (events == 0) return poll(NULL, 0, left < 10 ? (int)left : 10), 1;
  return poll(&state, 1, (int)left), 1; /* whatever it says: the next step finds out */
}

/* Whether the peer's system has confirmed every byte, and that no more will come; also true after a reset. */
static inline int mq_finish_confirmed(const MQNode* node) {
  int bytes = 0;
  return ioctl(node->sock.fd, SIOCOUTQ, &bytes) == 0 && bytes == 0;
}

/* Discards what arrives until the peer closes, or resets the connection after it has confirmed everything. */
static inline int mq_finish_drain(MQNode* node, int64_t end) {
  char place[4096];
  for (;;) {
    const ssize_t got = recv(node->sock.fd, place, sizeof place, MSG_DONTWAIT);
    if (got == 0) return 1;
    if (got < 0 && errno == ECONNRESET && mq_finish_confirmed(node)) return 1;
    if (got < 0 && errno != EAGAIN && errno != EINTR) return mq_finish_fail(node, errno);
    if (!mq_finish_wait(node, got > 0 ? 0 : POLLIN, end)) return 0;
  }
}

/* mq_finish - send the queued writes of a stream node, shut down its sending side, and wait until the peer's system has
 * received everything and the peer has closed the connection. Data that the peer sends meanwhile is discarded.
 *
 * Deleting a node resets its connection, because nodes linger for zero seconds: what the system has not sent yet is
 * discarded. Call mq_finish before DeleteMQNode if the last messages must arrive, and at the peer when its read fails
 * with 9004. Only an answer can tell whether the application at the peer has processed the messages.
 *   node          connected; lingering is switched off, so that the system goes on sending even after a time-out
 *   milliseconds  upper bound for all of this
 * Result  1 the peer's system has received all bytes, and the peer has closed the connection
 *         0 this is not known: ETIMEDOUT (110), the time is over; ECONNRESET (104), the peer reset the connection; 11,
 *           a queued message was dropped, with the reason in node->sock.error; another errno
 * error   0, or as above
 * Blocks  for at most the given time; longer only if the node blocks and has queued writes */
static inline int mq_finish(MQNode* node, int milliseconds) {
  const int64_t end = mq_finish_now() + milliseconds;
  SockOption no_linger = {SOCK_OPT_LINGER, 0, 0};
  SetSocketOptions(&node->sock, &no_linger);
  while (mnIsPendingIO(node)) {
    if (!mq_finish_wait(node, POLLOUT, end) || !mnFinishWrite(node)) return 0;
  }
  if (shutdown(node->sock.fd, SHUT_WR) != 0) return mq_finish_fail(node, errno);
  if (!mq_finish_drain(node, end)) return 0;
  /* A peer that shut down its sending side early may still be receiving. */
  while (!mq_finish_confirmed(node)) {
    if (!mq_finish_wait(node, 0, end)) return 0;
  }
  return mq_finish_fail(node, 0), 1;
}

// NOLINTEND(modernize-use-nullptr)

#endif
