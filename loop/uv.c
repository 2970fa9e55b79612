/* uv.c - runs nodes in a libuv loop: one poll handle per node, one timer and one idle handle per loop.
 * Not here: what a node does when it is ready (mqnode/step.h), the timer wheel (wheel.h).
 * Invariants: the poll handle waits for exactly what the node's step wants; settle ensures that at the end of each turn
 * and each call. close_node stops the poll handle before it closes the descriptor. The record lives until the poll
 * handle's close callback, which libuv runs later in the same turn of the loop, so callers up the stack may use it. */
#include "mqnode/uv.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include "companion/host.h"
#include "loop/wheel.h"
#include "mqnode/step.h"

_Static_assert((int)UV_READABLE == MQ_STEP_READABLE && (int)UV_WRITABLE == MQ_STEP_WRITABLE, "events are equal");

enum {
  AWAY_MSEC = 500,     /* a timer this late shows that the loop did not run */
  CATCH_UP_MSEC = 100, /* to read what has arrived meanwhile */
  ORIGIN_LISTS = 256,
  RETRY_MSEC = 1000 /* until the next attempt to accept */
};

/* A write whose completion is to be reported. */
typedef struct Completion {
  struct Completion* next;
  uint64_t number; /* of the write */
  MqUvWrittenFn fn;
  void* argument;
} Completion;

/* A peer address, with the number of its accepted nodes. */
typedef struct Origin {
  Link member; /* of uv->origins */
  in_addr_t address;
  int nodes;
} Origin;

/* What each turn uses is at the end of poll and the beginning of step, and between them. */
struct MqUvNode {
  uv_poll_t poll;
  MqUv* uv;
  const MqUvEvents* events;
  void* signer;
  uint64_t written; /* writes that were sent */
  Link timed;       /* of uv->wheel */
  int64_t tick;     /* of timed */
  int turning;      /* 1: in on_poll, which ends with settle */
  int watching;     /* what the poll handle waits for */
  MqStep step;
  void* data;
  Completion *first, *last;
  Link member;    /* of uv->nodes or uv->listeners */
  Link soon;      /* of uv->soon */
  Origin* origin; /* null unless it was accepted, and is open */
  int64_t until;  /* milliseconds: when a connect or an end takes too long, or accepting is tried again */
  int owed;       /* answers that the application still has to write */
  int half;       /* 1: the peer has closed its side and waits for them */
  int code;       /* for on_end */
  const char* why;
};

struct MqUv {
  uv_loop_t* loop;
  MqLoopLimits limits;
  uv_timer_t timer;
  uv_idle_t idle;
  Wheel wheel;
  int64_t armed; /* tick that the timer is set for */
  int64_t away;  /* milliseconds in which the loop did not run */
  int spared;    /* the timer was late the last time, so no node was timed out */
  Link nodes, listeners;
  Link origins[ORIGIN_LISTS];
  Link soon; /* nodes with completions to report in the next turn */
  PcfMessage* in;
  int count;    /* nodes whose on_end is pending */
  int accepted; /* open accepted nodes */
  int handles;  /* not closed yet */
  int leaving;  /* 1 after mq_uv_finish, 2 once everything is being released */
};

#define OWNER(type, field, pointer) ((type*)(void*)((char*)(pointer)-offsetof(type, field)))

static int64_t clock_of(const MqUv* uv) { return (int64_t)uv_now(uv->loop) - uv->away; }

static int is_listening(const MqUvNode* node) { return node->step.node->role == MQ_ROLE_LISTEN; }

static int is_ending(const MqUvNode* node) { return node->step.phase == MQ_STEP_ENDING; }

static void lost(MqUvNode* node, int code) {
  if (node->events->on_lost != NULL) node->events->on_lost(node, code);
}

/* ---- Waiting ---- */

static void on_poll(uv_poll_t* handle, int status, int events);
static void on_timer(uv_timer_t* timer);

static void watch(MqUvNode* node) {
  const int wants = mq_step_wants(&node->step);
  if (wants == node->watching) return;
  node->watching = wants;
  if (wants != 0) {
    uv_poll_start(&node->poll, wants, on_poll);
  } else {
    uv_poll_stop(&node->poll);
  }
}

static void arm(MqUv* uv, int64_t tick) {
  const int64_t delay = tick * WHEEL_TICK_MSEC - clock_of(uv);
  uv->armed = tick;
  uv_timer_start(&uv->timer, on_timer, delay > 0 ? (uint64_t)delay : 0, 0);
}

/* Time of the next look at a node. */
static int64_t look_time(const MqUvNode* node) {
  const MqStep* const step = &node->step;
  int64_t at = WHEEL_NEVER;
  if (is_listening(node)) return step->held ? node->until : at;
  if (step->phase == MQ_STEP_CONNECTING) return node->until;
  if (is_ending(node)) {
    const int64_t again = clock_of(node->uv) + MQ_STEP_CONFIRM_MSEC;
    return mq_step_wants(step) == 0 && again < node->until ? again : node->until;
  }
  if (!step->paused || step->node->pending != NULL) at = mq_step_deadline(step);
  /* The area is released by a look. */
  return at == WHEEL_NEVER && step->node->recvBuffer.capacity > MQ_STEP_AREA ? at - 1 : at;
}

/* Ends a turn or a call: updates what is waited for and the next look. A look that is too early costs little. */
static void settle(MqUvNode* node) {
  MqUv* const uv = node->uv;
  if (node->step.phase == MQ_STEP_CLOSED || node->turning) return;
  mq_step_progress(&node->step, clock_of(uv));
  watch(node);
  const int64_t at = look_time(node);
  if (at == WHEEL_NEVER || (node->timed.next != NULL && node->tick * WHEEL_TICK_MSEC <= at)) return;
  const int64_t now = clock_of(uv) / WHEEL_TICK_MSEC;
  if (uv->armed == WHEEL_NEVER && uv->wheel.first < now) uv->wheel.first = now;
  const int64_t tick = wheel_tick(&uv->wheel, at);
  if (node->timed.next != NULL && node->tick <= tick) return;
  list_remove(&node->timed);
  node->tick = tick;
  wheel_put(&uv->wheel, &node->timed, tick);
  if (tick < uv->armed) arm(uv, tick);
}

/* Accepts again after a node was closed. */
static void resume_listeners(MqUv* uv) {
  for (Link* link = uv->listeners.next; link != &uv->listeners; link = link->next) {
    MqUvNode* const listener = OWNER(MqUvNode, member, link);
    if (!listener->step.held) continue;
    mq_step_resume(&listener->step);
    settle(listener);
  }
}

/* ---- Closing ---- */

static void tell_first(MqUvNode* node, int code) {
  Completion* const completion = node->first;
  node->first = completion->next;
  completion->fn(node, code, completion->argument);
  free(completion);
}

/* Reports the writes that were sent. */
static void tell_sent(MqUvNode* node) {
  while (node->first != NULL && node->first->number <= node->written) tell_first(node, 0);
}

static void forget_handle(MqUv* uv) {
  if (--uv->handles > 0) return;
  mqc_message_free(uv->in);
  free(uv);
}

static void on_node_closed(uv_handle_t* handle) {
  MqUvNode* const node = OWNER(MqUvNode, poll, handle);
  MqUv* const uv = node->uv;
  tell_sent(node);
  while (node->first != NULL) tell_first(node, node->code != 0 ? node->code : ECONNABORTED);
  if (node->events->on_end != NULL) node->events->on_end(node, node->code, node->why);
  DeleteMQNode(node->step.node);
  free(node);
  if (--uv->count == 0 && uv->leaving == 1) mq_uv_free(uv);
  forget_handle(uv);
}

static Link* origins_like(MqUv* uv, in_addr_t address) { return &uv->origins[ntohl(address) % ORIGIN_LISTS]; }

/* Counts an accepted node under its address. 0 if out of memory. */
static int join_origin(MqUvNode* node) {
  MqUv* const uv = node->uv;
  const in_addr_t address = inet_addr(node->step.node->sock.name.ip);
  Link* const list = origins_like(uv, address);
  for (Link* link = list->next; link != list && node->origin == NULL; link = link->next) {
    Origin* const origin = OWNER(Origin, member, link);
    if (origin->address == address) node->origin = origin;
  }
  if (node->origin == NULL) {
    node->origin = (Origin*)calloc(1, sizeof *node->origin);
    if (node->origin == NULL) return 0;
    node->origin->address = address;
    list_append(list, &node->origin->member);
  }
  ++node->origin->nodes;
  ++uv->accepted;
  node->step.accepted = 1;
  return 1;
}

static void leave_origin(MqUvNode* node) {
  Origin* const origin = node->origin;
  if (origin == NULL) return;
  node->origin = NULL;
  --node->uv->accepted;
  if (--origin->nodes > 0) return;
  list_remove(&origin->member);
  free(origin);
}

static void close_node(MqUvNode* node, int code, const char* why) {
  MqUv* const uv = node->uv;
  if (node->step.phase == MQ_STEP_CLOSED) return;
  node->code = code;
  node->why = why;
  list_remove(&node->member);
  list_remove(&node->soon);
  list_remove(&node->timed);
  uv_poll_stop(&node->poll);
  mq_step_close(&node->step);
  uv_close((uv_handle_t*)&node->poll, on_node_closed);
  leave_origin(node);
  resume_listeners(uv);
}

/* ---- Writing ---- */

/* Accounts for the outcome of a flush, also of one in an end. A flush that fails drops the write it was at. */
static void flushed(MqUvNode* node, int outcome) {
  const int dropped = outcome == MQ_STEP_LOST || outcome == MQ_STEP_FAILED;
  const uint64_t gone = mq_step_completed(&node->step);
  if (gone > node->written + (uint64_t)dropped) node->written = gone - (uint64_t)dropped;
  const int code = node->step.error;
  tell_sent(node);
  if (outcome != MQ_STEP_LOST || node->step.phase == MQ_STEP_CLOSED) return;
  node->written = gone;
  if (node->first != NULL && node->first->number == gone) tell_first(node, code);
  lost(node, code);
}

static void flush_turn(MqUvNode* node) {
  const int held = node->step.held;
  const int outcome = mq_step_flush(&node->step);
  const int code = node->step.error;
  flushed(node, outcome);
  if (outcome == MQ_STEP_FAILED) close_node(node, code, mq_error_name(code));
  if (!held || node->step.held || node->step.phase != MQ_STEP_OPEN) return;
  if (node->events->on_drain != NULL) node->events->on_drain(node);
}

/* ---- Ending ---- */

static void end_turn(MqUvNode* node) {
  int outcome = MQ_STEP_LOST;
  while (outcome == MQ_STEP_LOST && node->step.phase != MQ_STEP_CLOSED) {
    outcome = mq_step_end(&node->step);
    flushed(node, outcome);
  }
  if (outcome == MQ_STEP_DONE) close_node(node, node->code, node->why);
  if (outcome == MQ_STEP_FAILED) close_node(node, node->step.error, mq_error_name(node->step.error));
}

static int64_t time_after(const MqUv* uv, int msec) { return msec > 0 ? clock_of(uv) + msec : WHEEL_NEVER; }

static void begin_end(MqUvNode* node, int code) {
  node->code = code;
  node->until = time_after(node->uv, node->uv->limits.endMsec);
  mq_step_begin_end(&node->step);
}

/* ---- Reading ---- */

static void read_failed(MqUvNode* node) {
  const int code = node->step.error;
  const int left = code == SOCK_PEER_CLOSED && !mq_step_is_cut(&node->step);
  if (left && node->owed > 0) {
    node->half = node->step.paused = 1;
  } else if (left) {
    begin_end(node, code);
    end_turn(node);
  } else {
    close_node(node, code, mq_step_why(&node->step, code));
  }
}

static void deliver(MqUvNode* node) {
  PcfMessage* const msg = node->uv->in;
  if (mq_step_is_stream(&node->step)) {
    if (node->events->on_message != NULL) node->events->on_message(node, msg);
  } else if (node->events->on_datagram != NULL) {
    SockAddrRec from = node->step.node->sock.from;
    node->events->on_datagram(node, msg, &from);
  }
}

static void read_turn(MqUvNode* node) {
  mq_step_turn(&node->step);
  while (node->step.phase == MQ_STEP_OPEN) {
    const int outcome = mq_step_read(&node->step, node->uv->in);
    if (outcome == MQ_STEP_WAIT) return;
    if (outcome == MQ_STEP_DONE) deliver(node);
    if (outcome == MQ_STEP_LOST) lost(node, node->step.error);
    if (outcome == MQ_STEP_FAILED) read_failed(node);
  }
}

/* ---- Accepting ---- */

/* Adds a node with its poll handle. Null if out of memory; the MQNode is then still the caller's. */
static MqUvNode* add(MqUv* uv, MQNode* mqnode, int secure) {
  MqUvNode* const node = (MqUvNode*)calloc(1, sizeof *node);
  if (node == NULL) {
    mqnode->error = ENOMEM;
    return NULL;
  }
  node->uv = uv;
  int begun = mq_step_begin(&node->step, mqnode, secure, &uv->limits, clock_of(uv));
  if (begun && is_listening(node)) begun = mq_step_listen(&node->step, uv->limits.backlog);
  int error = begun ? 0 : node->step.error;
  if (error == 0) error = -uv_poll_init(uv->loop, &node->poll, mqnode->sock.fd);
  if (error != 0) {
    mqnode->error = error;
    free(node);
    return NULL;
  }
  list_append(is_listening(node) ? &uv->listeners : &uv->nodes, &node->member);
  ++uv->count;
  ++uv->handles;
  return node;
}

/* The accepted node that gives way to a newcomer, or null. One address can push out nodes of others only until it has
 * as many as they have. */
static MqUvNode* choose(const MqUv* uv) {
  MqUvNode* chosen = NULL;
  const int64_t before = clock_of(uv) - uv->limits.keptMsec;
  for (const Link* link = uv->nodes.next; link != &uv->nodes; link = link->next) {
    MqUvNode* const node = OWNER(MqUvNode, member, link);
    if (node->origin == NULL) continue;
    if (chosen == NULL ||
        mq_step_gives_way(&node->step, node->origin->nodes, &chosen->step, chosen->origin->nodes, before)) {
      chosen = node;
    }
  }
  return uv->limits.keptMsec >= 0 && chosen != NULL && chosen->step.begun <= before ? chosen : NULL;
}

static void give_way(MqUvNode* node) {
  if (node != NULL) close_node(node, ECONNABORTED, mq_step_why(&node->step, ECONNABORTED));
}

static void stop_accepting(MqUvNode* listener) {
  listener->step.held = 1;
  listener->until = clock_of(listener->uv) + RETRY_MSEC;
}

static void admit(MqUvNode* listener, MQNode* child) {
  MqUvNode* const node = add(listener->uv, child, listener->step.secure);
  if (node == NULL) {
    const int code = child->error;
    DeleteMQNode(child);
    lost(listener, code);
    return;
  }
  node->events = listener->events;
  node->data = listener->data;
  node->signer = listener->signer;
  if (!join_origin(node)) {
    close_node(node, ENOMEM, mq_error_name(ENOMEM));
    return;
  }
  if (node->events->on_accept != NULL) node->events->on_accept(listener, node);
  settle(node);
}

/* Accepts pending connections, or just one if all places are taken. Connections left in the accept queue make the node
 * ready again. */
static void accept_turn(MqUvNode* listener) {
  MqUv* const uv = listener->uv;
  int full = 0;
  mq_step_turn(&listener->step);
  while (listener->step.phase == MQ_STEP_OPEN && !full) {
    MQNode* child;
    full = uv->accepted >= uv->limits.nodes;
    MqUvNode* const chosen = full ? choose(uv) : NULL;
    if (full && chosen == NULL) {
      stop_accepting(listener);
      return;
    }
    const int outcome = mq_step_accept(&listener->step, &child);
    const int code = listener->step.error;
    if (outcome == MQ_STEP_WAIT) return;
    if (outcome == MQ_STEP_FAILED) close_node(listener, code, mq_error_name(code));
    if (outcome == MQ_STEP_DONE) {
      give_way(chosen);
      admit(listener, child);
    } else if (outcome == MQ_STEP_FULL) {
      stop_accepting(listener);
      if (code == EMFILE) give_way(choose(uv)); /* the freed descriptor lets it accept again */
      full = 1;
      lost(listener, code);
    } else if (outcome == MQ_STEP_LOST) {
      lost(listener, code);
    }
  }
}

/* ---- The loop's callbacks ---- */

static void connect_turn(MqUvNode* node) {
  const int outcome = mq_step_connect(&node->step);
  if (outcome == MQ_STEP_FAILED) close_node(node, node->step.error, mq_error_name(node->step.error));
  if (outcome != MQ_STEP_DONE) return;
  node->step.since = clock_of(node->uv);
  if (node->events->on_open != NULL) node->events->on_open(node);
}

static void on_poll(uv_poll_t* handle, int status, int events) {
  MqUvNode* const node = OWNER(MqUvNode, poll, handle);
  if (status < 0) { /* a socket error, after which libuv has stopped watching: the calls below report it */
    events = node->watching;
    node->watching = 0;
  }
  node->turning = 1;
  if (node->step.phase == MQ_STEP_CONNECTING) {
    connect_turn(node);
  } else if (is_ending(node)) {
    end_turn(node);
  } else if (is_listening(node)) {
    accept_turn(node);
  } else {
    if ((events & UV_WRITABLE) != 0) flush_turn(node);
    if ((events & UV_READABLE) != 0) read_turn(node);
  }
  node->turning = 0;
  settle(node);
}

/* Looks at a node whose time may have come. */
static void look(MqUvNode* node) {
  MqStep* const step = &node->step;
  const int64_t now = clock_of(node->uv);
  if (is_listening(node)) {
    if (step->held && now >= node->until) mq_step_resume(step);
  } else if (step->phase == MQ_STEP_CONNECTING || is_ending(node)) {
    if (now >= node->until) {
      close_node(node, ETIMEDOUT, is_ending(node) ? "did not close in time" : "does not answer");
    } else if (is_ending(node)) {
      end_turn(node);
    }
  } else {
    if (step->node->recvBuffer.capacity > MQ_STEP_AREA) mq_step_trim(step);
    if (now >= look_time(node)) close_node(node, ETIMEDOUT, mq_step_why(step, SOCK_WAIT_TIMEOUT));
  }
  settle(node);
}

static void on_timer(uv_timer_t* timer) {
  MqUv* const uv = (MqUv*)timer->data;
  const int64_t late = clock_of(uv) - uv->armed * WHEEL_TICK_MSEC;
  uv->spared = late > AWAY_MSEC && !uv->spared; /* not twice in a row: a loop that is always late still has time-outs */
  if (uv->spared) {
    uv->away += late + CATCH_UP_MSEC;
    arm(uv, uv->armed);
    return;
  }
  Link due;
  wheel_turn(&uv->wheel, clock_of(uv), &due);
  uv->armed = WHEEL_NEVER; /* put nodes back below: each earlier one arms the timer */
  const int64_t next = wheel_next(&uv->wheel);
  if (next != WHEEL_NEVER) arm(uv, next);
  while (!list_is_empty(&due)) {
    Link* const link = due.next;
    list_remove(link);
    look(OWNER(MqUvNode, timed, link));
  }
}

static void on_idle(uv_idle_t* idle) {
  MqUv* const uv = (MqUv*)idle->data;
  Link soon;
  list_move(&uv->soon, &soon);
  while (!list_is_empty(&soon)) {
    MqUvNode* const node = OWNER(MqUvNode, soon, soon.next);
    list_remove(&node->soon);
    tell_sent(node);
  }
  if (list_is_empty(&uv->soon)) uv_idle_stop(idle);
}

static void on_own_closed(uv_handle_t* handle) { forget_handle((MqUv*)handle->data); }

/* ---- The interface ---- */

MqUv* mq_uv_new(uv_loop_t* loop, const MqLoopLimits* limits) {
  MqUv* const uv = (MqUv*)calloc(1, sizeof *uv);
  PcfMessage* const in = mqc_message_new(0);
  if (uv == NULL || in == NULL) {
    free(uv);
    mqc_message_free(in);
    return NULL;
  }
  uv->loop = loop;
  uv->limits = limits != NULL ? *limits : mq_loop_limits();
  uv->in = in;
  uv->armed = WHEEL_NEVER;
  wheel_init(&uv->wheel);
  list_init(&uv->nodes);
  list_init(&uv->listeners);
  list_init(&uv->soon);
  for (int i = 0; i < ORIGIN_LISTS; ++i) list_init(&uv->origins[i]);
  uv_timer_init(loop, &uv->timer);
  uv_idle_init(loop, &uv->idle);
  uv->timer.data = uv->idle.data = uv;
  uv->handles = 2;
  return uv;
}

void mq_uv_free(MqUv* uv) {
  if (uv == NULL || uv->leaving == 2) return;
  uv->leaving = 2;
  while (!list_is_empty(&uv->listeners)) mq_uv_stop(OWNER(MqUvNode, member, uv->listeners.next));
  while (!list_is_empty(&uv->nodes)) mq_uv_stop(OWNER(MqUvNode, member, uv->nodes.next));
  uv_close((uv_handle_t*)&uv->timer, on_own_closed);
  uv_close((uv_handle_t*)&uv->idle, on_own_closed);
}

void mq_uv_finish(MqUv* uv) {
  if (uv->leaving) return;
  uv->leaving = 1;
  while (!list_is_empty(&uv->listeners)) mq_uv_stop(OWNER(MqUvNode, member, uv->listeners.next));
  for (Link *link = uv->nodes.next, *next; link != &uv->nodes; link = next) {
    next = link->next;
    mq_uv_end(OWNER(MqUvNode, member, link));
  }
  if (uv->count == 0) mq_uv_free(uv);
}

int mq_uv_count(const MqUv* uv) { return uv->count; }

/* Adds a node, up to the point from which it cannot be undone. */
static MqUvNode* take(MqUv* uv, MQNode* mqnode, int secure, const MqUvEvents* events, void* data) {
  if (uv->leaving) {
    mqnode->error = EINVAL;
    return NULL;
  }
  uv_update_time(uv->loop);
  MqUvNode* const node = add(uv, mqnode, secure);
  if (node == NULL) return NULL;
  node->events = events;
  node->data = data;
  return node;
}

MqUvNode* mq_uv_start(MqUv* uv, MQNode* mqnode, int secure, const MqUvEvents* events, void* data) {
  MqUvNode* const node = take(uv, mqnode, secure, events, data);
  if (node != NULL) settle(node);
  return node;
}

MqUvNode* mq_uv_connect(MqUv* uv, MQNode* mqnode, int secure, const MqUvEvents* events, void* data) {
  if (!NoblockSocket(&mqnode->sock) || (!mnOpen(mqnode) && mqnode->error != MQ_AGAIN)) {
    if (mqnode->error == MQ_OK) SetMQNodeError(mqnode);
    return NULL;
  }
  MqUvNode* const node = take(uv, mqnode, secure, events, data);
  if (node == NULL) return NULL;
  node->step.phase = MQ_STEP_CONNECTING; /* even if already connected: on_open is only called from the loop */
  node->until = time_after(uv, uv->limits.connectMsec);
  settle(node);
  return node;
}

static Completion* new_completion(MqUvWrittenFn fn, void* argument) {
  Completion* const completion = (Completion*)malloc(sizeof *completion);
  if (completion == NULL) return NULL;
  completion->next = NULL;
  completion->fn = fn;
  completion->argument = argument;
  return completion;
}

/* Appends the completion of the last write. */
static void await_completion(MqUvNode* node, Completion* completion) {
  completion->number = node->step.taken;
  if (node->first == NULL) {
    node->first = completion;
  } else {
    node->last->next = completion;
  }
  node->last = completion;
  if (completion->number > node->written || node->soon.next != NULL) return;
  list_append(&node->uv->soon, &node->soon);
  uv_idle_start(&node->uv->idle, on_idle);
}

int mq_uv_write_to(MqUvNode* node, PcfMessage* msg, SockAddrRec* to, MqUvWrittenFn fn, void* argument) {
  MqStep* const step = &node->step;
  MQNode* const mqnode = step->node;
  if (step->phase != MQ_STEP_OPEN || is_listening(node)) {
    mqnode->error = ENOTCONN;
    return 0;
  }
  if (!mq_step_may_write(step)) return 0;
  Completion* const completion = fn != NULL ? new_completion(fn, argument) : NULL;
  if (fn != NULL && completion == NULL) {
    mqnode->error = ENOMEM;
    return 0;
  }
  const int outcome = mq_step_wrote(step, mnSWriteTo(msg, mqnode, to, step->secure, node->signer));
  if (outcome != MQ_STEP_DONE) {
    free(completion);
    if (outcome == MQ_STEP_FAILED) close_node(node, step->error, mq_error_name(step->error));
    return 0;
  }
  if (mqnode->pending == NULL) node->written = step->taken;
  if (completion != NULL) await_completion(node, completion);
  settle(node);
  return 1;
}

int mq_uv_write(MqUvNode* node, PcfMessage* msg, MqUvWrittenFn fn, void* argument) {
  return mq_uv_write_to(node, msg, NULL, fn, argument);
}

uint64_t mq_uv_queued(const MqUvNode* node) { return mq_step_queued(&node->step); }

void mq_uv_pause(MqUvNode* node) {
  node->step.paused = 1;
  settle(node);
}

void mq_uv_resume(MqUvNode* node) {
  node->step.paused = node->half;
  node->step.since = clock_of(node->uv);
  settle(node);
}

void mq_uv_set_owed(MqUvNode* node, int answers) {
  node->owed = answers;
  if (answers > 0 || !node->half || node->step.phase != MQ_STEP_OPEN) return;
  begin_end(node, SOCK_PEER_CLOSED);
  settle(node);
}

void mq_uv_end(MqUvNode* node) {
  if (node->step.phase != MQ_STEP_OPEN || is_listening(node)) {
    if (!is_ending(node)) mq_uv_stop(node);
    return;
  }
  begin_end(node, 0);
  settle(node);
}

void mq_uv_stop(MqUvNode* node) { close_node(node, node->code, node->why); }

MQNode* mq_uv_node(const MqUvNode* node) { return node->step.node; }

MqUv* mq_uv_of(const MqUvNode* node) { return node->uv; }

void* mq_uv_data(const MqUvNode* node) { return node->data; }

void mq_uv_set_data(MqUvNode* node, void* data) { node->data = data; }

void mq_uv_set_events(MqUvNode* node, const MqUvEvents* events) { node->events = events; }

void mq_uv_set_signer(MqUvNode* node, void* securityContext) { node->signer = securityContext; }
