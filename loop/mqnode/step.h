/* step.h - one node in an event loop: which calls to make when it is ready, and what to wait for next.
 *
 * Internal: mqnode/uv.h and mqnode/asio.hpp share it; applications use those. Header-only, for C11 with POSIX
 * (-std=gnu11) and C++17. No function here waits; mq_step_wants returns the readiness of node->sock.fd to wait for.
 *
 * Rules for an engine
 *   Readiness   level-triggered. A node never receives bytes beyond the message that it reads, so an engine may return
 *               to its loop after any call: the loop reports remaining data again
 *   Fairness    mq_step_turn begins a turn of a node that is readable. mq_step_read and mq_step_accept return
 *               MQ_STEP_WAIT when the share of this turn is used. A node that had only one message in a turn reads one
 *               message per turn for a while, which saves a system call per message
 *   Writing     pass the result of each write function of compose.h to mq_step_wrote. Writes complete in order;
 *               mq_step_completed counts them. Call mq_step_flush when the node is writable
 *   Marks       a node is not read while more than highBytes are queued, until no more than lowBytes are left
 *   Accepting   if there is no descriptor or memory, mq_step_accept returns MQ_STEP_FULL, and the listening node waits
 *               for nothing. Call mq_step_resume a moment later, and when a connection was closed
 *   Ending      call mq_step_begin_end, then mq_step_end, as mqnode/finish.h documents. The engine limits the time
 *   Closing     stop waiting for the descriptor, then call mq_step_close. A callback may do so in the middle of a turn:
 *               check the phase after each callback, and release the node and the step only after the turn */
#ifndef MQNODE_MQNODE_STEP_H
#define MQNODE_MQNODE_STEP_H

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#include "mqnode/errors.h"
#include "mqnode/finish.h"
#include "mqnode/limits.h"
#include "mqnode/mqnode.h"

// NOLINTBEGIN(modernize-use-nullptr): C reads this as well.

enum {
  MQ_STEP_AREA = 16520,      /* bytes of a node's initial receive area */
  MQ_STEP_SINGLE_TURNS = 15, /* turns of one message, after a second read that found nothing */
  MQ_STEP_CONFIRM_MSEC = 10  /* pause before mq_step_end is called again when it waits for nothing */
};

/* Results of the functions below. */
enum {
  MQ_STEP_FAILED = 0, /* the node has failed, with the reason in step->error: close it */
  MQ_STEP_DONE = 1,   /* done */
  MQ_STEP_WAIT = 2,   /* incomplete: wait for mq_step_wants */
  MQ_STEP_LOST = 3,   /* one datagram or connection was lost, with the reason in step->error: call again */
  MQ_STEP_FULL = 4    /* no descriptor or memory for a connection (step->error): call mq_step_resume later */
};

/* Results of mq_step_wants. */
enum { MQ_STEP_READABLE = 1, MQ_STEP_WRITABLE = 2 };

enum {
  MQ_STEP_OPEN,       /* reads and writes, or accepts */
  MQ_STEP_CONNECTING, /* a connect is in progress */
  MQ_STEP_ENDING,     /* mq_step_begin_end was called */
  MQ_STEP_CLOSED      /* the descriptor is closed */
};

/* What each turn uses comes first, in as few cache lines as possible. */
typedef struct MqStep {
  MQNode* node;
  const MqLoopLimits* limits;
  uint64_t whole;     /* bytes received up to the end of the last message */
  uint64_t taken;     /* writes that were sent or queued */
  uint64_t moved;     /* bytes sent and received at the last progress */
  int64_t since;      /* milliseconds: time of the last progress */
  uint32_t done;      /* messages read and written at the last progress */
  int midway;         /* 1: at the last progress, the node was in a message or had queued writes */
  int secure;         /* 1: signed messages; 0: plain ones */
  int phase;          /* MQ_STEP_OPEN ... */
  int paused;         /* 1: the engine or its application wants no messages */
  int held;           /* 1: too much is queued to read, or no descriptor or memory is left to accept */
  uint32_t left;      /* messages or connections that are left in this turn */
  uint32_t got;       /* messages read in this turn */
  uint32_t single;    /* number of following turns with one message only */
  int error;          /* code of the last result other than DONE and WAIT */
  int accepted;       /* 1: a listening node accepted it */
  uint64_t sentAtEnd; /* value that bytesSent of the node will have when its queue is empty */
  int64_t begun;      /* milliseconds: time at which the engine took the node */
  MqFinish finish;    /* progress of an end */
} MqStep;

static inline int mq_step_fail(MqStep* step, int code) {
  step->error = code;
  return MQ_STEP_FAILED;
}

static inline int mq_step_is_stream(const MqStep* step) { return step->node->sock.type == SOCK_TYPE_STREAM; }

/* ---- Begin ---- */

/* Internal: recount the bytes of the queue, initially and after one of its datagrams was dropped. */
static inline void mq_step_recount(MqStep* step) {
  Queue* const queue = step->node->pending;
  const IoBuffer* write;
  step->sentAtEnd = step->node->sock.bytesSent;
  if (queue == NULL) return;
  Qstart(queue);
  while ((write = (const IoBuffer*)Qnext(queue)) != NULL) step->sentAtEnd += write->length - write->sent;
}

/* mq_step_trim - prepare the receive area of a node that is between two messages for the next one. An area that was
 * enlarged for a long message is replaced; if there is no memory, the next read fails. */
static inline void mq_step_trim(MqStep* step) {
  IoBuffer* const area = &step->node->recvBuffer;
  if (area->received > 0) return;
  if (area->capacity > MQ_STEP_AREA) DeleteBuffer(area);
  if (area->capacity == 0) CreateBuffer(area, MQ_STEP_AREA);
  const uint32_t header = step->secure ? (uint32_t)sizeof(SecureHeader) : (uint32_t)sizeof(MsgHeader);
  if (area->capacity > 0) ResetBuffer(area, mq_step_is_stream(step) ? header : area->capacity);
}

/* mq_step_begin - initialise the step of a node, and make the node non-blocking.
 *   limits   in   must outlive the step
 *   now      in   milliseconds of a clock that never goes back
 * Result   MQ_STEP_DONE or MQ_STEP_FAILED */
static inline int mq_step_begin(MqStep* step, MQNode* node, int secure, const MqLoopLimits* limits, int64_t now) {
  memset(step, 0, sizeof *step);
  step->node = node;
  step->secure = secure;
  step->limits = limits;
  step->phase = MQ_STEP_OPEN;
  step->begun = step->since = now;
  step->whole = node->sock.bytesReceived;
  step->moved = node->sock.bytesReceived + node->sock.bytesSent;
  step->done = node->msgsRead + node->writesCompleted;
  if (node->pending != NULL) {
    step->taken = (uint64_t)Qdepth(node->pending);
    mq_step_recount(step);
  }
  if (node->role != MQ_ROLE_LISTEN) mq_step_trim(step);
  return NoblockSocket(&node->sock) ? MQ_STEP_DONE : mq_step_fail(step, node->sock.error);
}

/* mq_step_listen - prepare a listening node to accept, with an accept queue of backlog connections, which the system
 * may shorten, and buffers of socketBytes. */
static inline int mq_step_listen(MqStep* step, int backlog) {
  SockRec* const sock = &step->node->sock;
  const uint32_t size = step->limits->socketBytes;
  if (size > 0 && !mnSetBufferSize(step->node, size)) return mq_step_fail(step, sock->error);
  return ListenSocket(sock, backlog) ? MQ_STEP_DONE : mq_step_fail(step, sock->error);
}

/* mq_step_connect - begin to connect a node, or, when it is writable, check whether its connect has completed.
 * The first call blocks while a name is looked up. */
static inline int mq_step_connect(MqStep* step) {
  MQNode* const node = step->node;
  int code = 0;
  socklen_t size = sizeof code;
  struct sockaddr_storage peer;
  socklen_t length = sizeof peer;
  if (step->phase == MQ_STEP_OPEN) {
    if (mnOpen(node)) return MQ_STEP_DONE;
    if (node->error != MQ_AGAIN) return mq_step_fail(step, node->error);
    step->phase = MQ_STEP_CONNECTING;
    return MQ_STEP_WAIT;
  }
  if (getsockopt(node->sock.fd, SOL_SOCKET, SO_ERROR, &code, &size) != 0) code = errno;
  if (code != 0) return mq_step_fail(step, node->error = node->sock.error = code);
  if (getpeername(node->sock.fd, (struct sockaddr*)&peer, &length) != 0) return MQ_STEP_WAIT;
  node->sock.connected = 1;
  node->openState = 1;
  node->error = node->sock.error = 0;
  step->phase = MQ_STEP_OPEN;
  return MQ_STEP_DONE;
}

/* ---- Wait ---- */

/* mq_step_wants - get the readiness to wait for: MQ_STEP_READABLE, MQ_STEP_WRITABLE, both or 0. */
static inline int mq_step_wants(const MqStep* step) {
  const int write = step->node->pending != NULL ? MQ_STEP_WRITABLE : 0;
  switch (step->phase) {
    case MQ_STEP_CONNECTING:
      return MQ_STEP_WRITABLE;
    case MQ_STEP_OPEN:
      return write | (step->held || step->paused ? 0 : MQ_STEP_READABLE);
    case MQ_STEP_ENDING:
      return ((step->finish.events & POLLIN) != 0 ? MQ_STEP_READABLE : 0) |
             ((step->finish.events & POLLOUT) != 0 ? MQ_STEP_WRITABLE : 0);
    default:
      return 0;
  }
}

/* mq_step_turn - begin a turn of a node that is readable. */
static inline void mq_step_turn(MqStep* step) {
  const uint32_t share =
      step->node->role == MQ_ROLE_LISTEN ? step->limits->acceptsPerTurn : step->limits->messagesPerTurn;
  step->got = 0;
  step->left = step->single > 0 ? 1 : share;
  if (step->single > 0) --step->single;
}

/* mq_step_resume - accept again after MQ_STEP_FULL. */
static inline void mq_step_resume(MqStep* step) { step->held = 0; }

/* ---- Accept ---- */

/* Internal: determine why nothing was accepted. The system allocates a descriptor before it looks for a connection, so
 * if there is no descriptor, there may be no connection either. */
static inline int mq_step_accept_failed(MqStep* step) {
  struct pollfd state = {step->node->sock.fd, POLLIN, 0};
  step->error = step->node->error;
  switch (step->error) {
    case MQ_AGAIN:
      return MQ_STEP_WAIT;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      if (poll(&state, 1, 0) == 0) return MQ_STEP_WAIT;
      step->held = 1;
      return MQ_STEP_FULL;
    case EBADF:
    case EINVAL:
    case ENOTSOCK:
    case EOPNOTSUPP:
    case EFAULT:
      return MQ_STEP_FAILED;
    default: /* this connection failed before it was accepted */
      return MQ_STEP_LOST;
  }
}

/* mq_step_accept - accept one connection of a listening node.
 *   child   out   after MQ_STEP_DONE the new node, owned by the caller, for mq_step_begin; else null. Its writes are
 *                 not delayed
 * Result   any of the five results */
static inline int mq_step_accept(MqStep* step, MQNode** child) {
  MQNode* const node = step->node;
  *child = NULL;
  if (step->held || step->paused || step->left == 0) return MQ_STEP_WAIT;
  --step->left;
  if (!mnOpen(node)) return mq_step_accept_failed(step);
  *child = node->child;
  node->child = NULL;
  if (*child == NULL) {
    step->error = ENOMEM;
    return MQ_STEP_LOST;
  }
  SetTcpNoDelay(&(*child)->sock, 1);
  return MQ_STEP_DONE;
}

/* ---- Read ---- */

/* mq_step_is_cut - whether a part of a message has arrived and the rest has not. */
static inline int mq_step_is_cut(const MqStep* step) {
  return mq_step_is_stream(step) && step->node->sock.bytesReceived != step->whole;
}

/* Internal: the length that the header in the receive area announces, in the byte order that its first word shows. */
static inline uint32_t mq_step_announced(const MqStep* step) {
  const IoBuffer* const area = &step->node->recvBuffer;
  const uint32_t size = step->secure ? (uint32_t)sizeof(SecureHeader) : (uint32_t)sizeof(MsgHeader);
  const size_t at = step->secure ? offsetof(SecureHeader, msgLength) : offsetof(MsgHeader, bodyLength);
  uint32_t first, length;
  if (area->received < size) return 0;
  memcpy(&first, area->data, sizeof first);
  memcpy(&length, area->data + at, sizeof length);
  return first == size ? length : __builtin_bswap32(length);
}

/* Internal: handle a read that returned no message. */
static inline int mq_step_read_failed(MqStep* step) {
  const int code = step->node->error;
  if (code == MQ_AGAIN) {
    if (step->got == 1 && !mq_step_is_cut(step)) step->single = MQ_STEP_SINGLE_TURNS;
    step->left = 0;
    return MQ_STEP_WAIT;
  }
  step->error = code;
  if (!mq_step_is_stream(step) && code != EBADF && code != ENOTSOCK) return MQ_STEP_LOST;
  step->finish.closed = code == SOCK_PEER_CLOSED;
  return MQ_STEP_FAILED;
}

/* mq_step_read - read one message, its header first.
 *   in   in/out   receives the message
 * Result   MQ_STEP_DONE a message; MQ_STEP_WAIT none now; MQ_STEP_LOST a datagram was not a message; MQ_STEP_FAILED:
 *          EMSGSIZE the message is longer than messageBytes; 9004 the peer has closed (mq_step_is_cut: in the middle
 *          of a message); another code of mnRead or mnSRead. After 9004, mq_step_end can still send queued answers */
static inline int mq_step_read(MqStep* step, PcfMessage* in) {
  MQNode* const node = step->node;
  if (step->held || step->paused || step->left == 0) return MQ_STEP_WAIT;
  --step->left;
  if (!(step->secure ? mnSReadMsg(node) : mnReadMsg(node))) return mq_step_read_failed(step);
  if (mq_step_is_stream(step) && mq_step_announced(step) > step->limits->messageBytes) {
    return mq_step_fail(step, EMSGSIZE);
  }
  if (!mnSRead(in, node, step->secure, NULL)) return mq_step_read_failed(step);
  step->whole = node->sock.bytesReceived;
  ++step->got;
  return MQ_STEP_DONE;
}

/* ---- Write ---- */

/* mq_step_queued - get the number of bytes in the node's queue. */
static inline uint64_t mq_step_queued(const MqStep* step) {
  return step->node->pending != NULL ? step->sentAtEnd - step->node->sock.bytesSent : 0;
}

/* mq_step_completed - get the number of writes that are no longer queued. Write n is done when it is at least n. */
static inline uint64_t mq_step_completed(const MqStep* step) {
  return step->taken - (uint64_t)Qdepth(step->node->pending);
}

/* mq_step_may_write - check whether another write may be queued. Returns 1, or 0 with -1111 in step->error and
 * node->error. */
static inline int mq_step_may_write(MqStep* step) {
  if (mq_step_queued(step) <= step->limits->queueBytes) return 1;
  step->error = step->node->error = MQ_WRITE_LIMIT;
  return 0;
}

/* mq_step_wrote - account for a write to the node.
 *   result   in   result of mnWrite or another write function, which has just returned
 * Result   MQ_STEP_DONE the write is number step->taken; MQ_STEP_LOST it was refused, or a datagram could not be sent:
 *          nothing else changes; MQ_STEP_FAILED the connection has failed */
static inline int mq_step_wrote(MqStep* step, int result) {
  const MQNode* const node = step->node;
  if (!result) {
    step->error = mq_node_cause(node, NULL);
    return mq_step_is_stream(step) && node->error == MQ_AGAIN ? MQ_STEP_FAILED : MQ_STEP_LOST;
  }
  ++step->taken;
  if (node->pending != NULL) {
    const IoBuffer* const last = (const IoBuffer*)node->pending->tail->item;
    if (Qdepth(node->pending) == 1) step->sentAtEnd = node->sock.bytesSent;
    step->sentAtEnd += last->length - last->sent;
    if (mq_step_queued(step) > step->limits->highBytes) step->held = 1;
  }
  return MQ_STEP_DONE;
}

/* mq_step_flush - send queued messages, when the node is writable.
 * Result   MQ_STEP_DONE the queue is empty; MQ_STEP_WAIT it is not; MQ_STEP_LOST write number mq_step_completed, a
 *          datagram, was dropped; MQ_STEP_FAILED the connection has failed in the middle of that write */
static inline int mq_step_flush(MqStep* step) {
  MQNode* const node = step->node;
  const int sent = mnFinishWrite(node);
  if (!sent) {
    step->error = mq_node_cause(node, NULL);
    if (mq_step_is_stream(step)) return MQ_STEP_FAILED;
    mq_step_recount(step);
  }
  if (step->held && mq_step_queued(step) <= step->limits->lowBytes) step->held = 0;
  if (!sent) return MQ_STEP_LOST;
  return node->pending == NULL ? MQ_STEP_DONE : MQ_STEP_WAIT;
}

/* ---- Time ---- */

/* mq_step_owes - check whether the peer must act: it is in the middle of a message, does not receive queued messages,
 * or was accepted and has sent no message yet. */
static inline int mq_step_owes(const MqStep* step) {
  return step->node->pending != NULL || mq_step_is_cut(step) ||
         (step->accepted && step->node->msgsRead == 0 && step->limits->firstMsec > 0);
}

/* mq_step_progress - record progress after a turn: a message was read, sent or begun, or progressBytes of one moved. */
static inline void mq_step_progress(MqStep* step, int64_t now) {
  const MQNode* const node = step->node;
  const uint32_t done = node->msgsRead + node->writesCompleted;
  const uint64_t moved = node->sock.bytesReceived + node->sock.bytesSent;
  const int midway = node->pending != NULL || mq_step_is_cut(step);
  if (done == step->done && midway == step->midway && moved - step->moved < step->limits->progressBytes) return;
  step->done = done;
  step->midway = midway;
  step->moved = moved;
  step->since = now;
}

/* mq_step_deadline - get the time at which a node exceeds its limits, in milliseconds of the clock of mq_step_progress;
 * INT64_MAX: never. */
static inline int64_t mq_step_deadline(const MqStep* step) {
  const int midway = step->node->pending != NULL || mq_step_is_cut(step);
  const int first = !midway && mq_step_owes(step);
  const int msec = midway ? step->limits->midwayMsec : first ? step->limits->firstMsec : step->limits->idleMsec;
  return msec > 0 ? step->since + msec : INT64_MAX;
}

/* mq_step_gives_way - whether a, rather than b, gives way to a new connection: the one whose address has more accepted
 * nodes, else the one that was not accepted after the time before, else the one that has been quiet longer. */
static inline int mq_step_gives_way(const MqStep* a, int nodesLikeA, const MqStep* b, int nodesLikeB, int64_t before) {
  if (nodesLikeA != nodesLikeB) return nodesLikeA > nodesLikeB;
  if ((a->begun > before) != (b->begun > before)) return a->begun <= before;
  return a->since < b->since;
}

/* mq_step_why - why a node ends, as text for a log. Call it before the queue is discarded.
 *   code   in   of the read or write that failed; 9000 for a node that is overdue; ECONNABORTED for one that gives way
 * Result   null for a peer that left between two messages */
static inline const char* mq_step_why(const MqStep* step, int code) {
  const int queued = step->node->pending != NULL;
  switch (code) {
    case SOCK_PEER_CLOSED:
    case ECONNRESET:
      if (step->phase != MQ_STEP_CLOSED && !queued && !mq_step_is_cut(step)) return NULL;
      return "left in the middle of a message, or before its answer";
    case EMSGSIZE:
      return "its message is too long";
    case ECONNABORTED:
      return "its place is needed";
    case SOCK_WAIT_TIMEOUT:
      return queued ? "takes no answers" : mq_step_owes(step) ? "too slow" : "idle";
    default:
      return mq_error_name(code);
  }
}

/* ---- End ---- */

/* mq_step_begin_end - begin the end of a connection, after which no read or write may follow. Lingering is switched
 * off, so that the system sends what it has accepted even if the node is closed before the end.
 *   step   in/out   neither connecting nor listening */
static inline void mq_step_begin_end(MqStep* step) {
  SockOption noLinger = {SOCK_OPT_LINGER, 0, 0};
  if (mq_step_is_stream(step)) SetSocketOptions(&step->node->sock, &noLinger);
  step->phase = MQ_STEP_ENDING;
  step->finish.events = POLLOUT; /* the first call is due at once */
}

/* mq_step_end - continue the end, when the node is ready. A datagram node is only flushed.
 * Result   MQ_STEP_DONE the peer's system has received all bytes, and the peer has closed: close the node.
 *          MQ_STEP_WAIT: when mq_step_wants is 0, call again after MQ_STEP_CONFIRM_MSEC.
 *          MQ_STEP_LOST a queued datagram was dropped: call again.
 *          MQ_STEP_FAILED: it is not known what the peer has received */
static inline int mq_step_end(MqStep* step) {
  if (!mq_step_is_stream(step)) return mq_step_flush(step);
  const int result = mq_finish_step(step->node, &step->finish);
  if (result < 0) return MQ_STEP_WAIT;
  return result ? MQ_STEP_DONE : mq_step_fail(step, mq_node_cause(step->node, NULL));
}

/* mq_step_close - close the node. Its record remains until the engine deletes it. A second call has no effect. */
static inline void mq_step_close(MqStep* step) {
  if (step->phase == MQ_STEP_CLOSED) return;
  step->phase = MQ_STEP_CLOSED;
  mnClose(step->node);
}

// NOLINTEND(modernize-use-nullptr)

#endif
