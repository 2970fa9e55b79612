/* server.h - a server for many clients: one wait, one thread, and an upper bound for every resource that a client uses.
 *
 * Header-only, for C11 with POSIX (-std=gnu11) and C++17; link mqnode::host. An application fills MqServerEvents, adds
 * its listening nodes and calls mq_server_round until it ends:
 *
 *   MqServer server;
 *   const MqServerLimits limits = mq_server_limits();
 *   const MqServerEvents events = {.message = answer};
 *   if (mq_server_open(&server, &limits, &events, NULL) && mq_server_add(&server, listener, 0)) {
 *     while (!stop && mq_server_round(&server, 1000)) continue;
 *     mq_server_end(&server, 2000);
 *   }
 *   mq_server_close(&server);
 *
 * Rules
 *   Reading    in each round, at most messagesPerRound messages of each client are read, or one while answers are
 *              queued for it. A client that announces a message longer than messageBytes is dropped before the message
 *              is read. While the application has set reading to 0, no client is read or accepted
 *   Writing    a queued write continues when its socket is writable. A client that sends another message while more
 *              than waitingBytes are queued behind its oldest answer is dropped; with pauses set to 1, it is not read
 *              until it has received some of them. After a write with result 0 the application must drop the client;
 *              mq_server_wrote returns the reason
 *   Time       a client is midway while a part of a message has arrived, and while answers are queued for it. A midway
 *              client is dropped if, for midwayMsec, it neither begins nor completes a message and transfers fewer than
 *              progressBytes. Another client is dropped after idleMsec, or after firstMsec if it has not sent a message
 *              yet. Time in which the server did not run does not count
 *   Places     when the limit of clients is reached, or no descriptor is left, a new client replaces another one: of
 *              the address with the most clients, the one without progress for longest. One address can therefore
 *              displace clients of others only until it has as many as they have. A client is not replaced within
 *              keptMsec
 *   Accepting  if no client can be replaced, the listening nodes are left out of the waits until a client has gone or
 *              a second has passed
 *   Failures   a client whose read or queued write fails is dropped; other clients are not affected. The failed event
 *              may keep a client after a refused message whose end is known, so that the next one can be read
 *   Memory     memory that was enlarged for a long message is given back within a second after the message
 *   Log        one line for each dropped client, at most logLinesPerSecond, then the number of omitted lines
 *
 * The application must ignore SIGPIPE. A server, its nodes and its clients must be used by one thread at a time. */
#ifndef MQNODE_MQNODE_SERVER_H
#define MQNODE_MQNODE_SERVER_H

#include <arpa/inet.h>
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "companion/host.h"
#include "mqnode/compose.h"
#include "mqnode/deliver.h"
#include "mqnode/errors.h"
#include "mqnode/finish.h"
#include "mqnode/node.h"
#include "mqnode/open.h"
#include "mqnode/read.h"
#include "mqnode/secure_read.h"
#include "mqnode/wait.h"
#include "queue/queue.h"
#include "runtime/buffer.h"
#include "runtime/message.h"
#include "socksin/connect.h"
#include "socksin/options.h"
#include "socksin/record.h"

// NOLINTBEGIN(modernize-use-nullptr): C reads this as well.

enum {
  MQ_SERVER_NODES = 8,       /* maximum number of nodes that are added to a server */
  MQ_SERVER_AREA = 16520,    /* bytes of a node's initial receive area */
  MQ_SERVER_LOOK_MSEC = 100, /* minimum time between two checks of the clients */
  MQ_SERVER_AWAY_MSEC = 500, /* a check that is late by more than this shows that the server did not run */
  MQ_SERVER_PAUSE_MSEC = 10  /* time between two attempts to write to a client that is not read */
};

/* Reasons for which a server itself drops or refuses a client, other than the name of an error code. */
#define MQ_SERVER_TOO_SLOW "too slow"
#define MQ_SERVER_IDLE "idle"
#define MQ_SERVER_TAKES_NO_ANSWERS "takes no answers"
#define MQ_SERVER_TOO_LONG "its message is too long"
#define MQ_SERVER_LEFT_MIDWAY "left in the middle of a message, or before its answer"
#define MQ_SERVER_PLACE_NEEDED "its place is needed"
#define MQ_SERVER_NO_PLACE "its address has all its places"

/* MqServerLimits - the limits of a server. Defaults are in parentheses. All values are positive unless documented
 * otherwise. */
typedef struct MqServerLimits {
  int clients;            /* connected clients (1000) */
  int clientsPerAddress;  /* connected clients from one address (1000); further ones are refused */
  int backlog;            /* connections that wait to be accepted (1024); the system may allow fewer */
  int acceptsPerRound;    /* connections that are accepted before connected clients are served (32) */
  int messagesPerRound;   /* messages that are read from one client in a round (1) */
  int logLinesPerSecond;  /* lines in the log per second (20) */
  int midwayMsec;         /* milliseconds without progress while midway (10000) */
  int firstMsec;          /* milliseconds from the connection to the first message (10000) */
  int idleMsec;           /* milliseconds without progress while not midway (600000) */
  int keptMsec;           /* milliseconds for which a client is not replaced (1000); 0: none */
  uint32_t messageBytes;  /* bytes of a message without its header, or of a signed one without its envelope (65536) */
  uint32_t waitingBytes;  /* bytes of answers queued behind the oldest one (262144); 0: none may be queued */
  uint32_t progressBytes; /* bytes transferred within a message that count as progress (65536) */
  uint32_t socketBytes;   /* bytes of each system buffer of a client (65536); 0: the system's choice */
  int pauses;             /* 1: a client that does not receive its answers is not read; 0: it is dropped (0) */
} MqServerLimits;

typedef struct MqServer MqServer;

/* MqServerClient - a connected client. It is valid until its dropped event has returned. */
typedef struct MqServerClient {
  MQNode* node;         /* owned by the server: write to it, but do not read from it or delete it */
  const MQNode* origin; /* the listening node that accepted it */
  void* data;           /* for the application; null at first */
  int secure;           /* as passed to mq_server_add */
  int leaving;          /* 1 after it was dropped */
  const char* why;      /* reason for which it was dropped; null without a fault */
  int lost;             /* number of queued answers that were lost when it was dropped */
  uint64_t whole;       /* bytes received up to the end of the last complete message */
  in_addr_t address;    /* this field and the following ones are internal to the server */
  int midway;           /* at the last check, a part of a message had arrived or answers were queued */
  int shut;             /* the sending side is shut down */
  uint32_t done;        /* messages read and written at the last check */
  uint64_t moved;       /* bytes sent and received at the last progress */
  int64_t accepted;     /* milliseconds: when it was accepted */
  int64_t since;        /* milliseconds: when it made progress last */
  int64_t turn;         /* clients of one address are replaced in this order; in the future: not yet */
} MqServerClient;

/* MqServerEvents - functions that a server calls during mq_server_round, mq_server_end and mq_server_close. All may be
 * null, message only if there are no listening nodes. An event may write to any client and drop any client. It must not
 * call these three functions. A text that it returns or passes to mq_server_drop must live until the dropped event. */
typedef struct MqServerEvents {
  /* A message was read. Returns null, or the reason to drop the client. msg belongs to the server. */
  const char* (*message)(MqServer* server, MqServerClient* client, PcfMessage* msg);
  /* A client was accepted. Returns null, or the reason to drop it. */
  const char* (*accepted)(MqServer* server, MqServerClient* client);
  /* A client has gone. Its node is closed, and both are released when this returns. why is null if the client
   * disconnected between two messages, or if the server ended. Called once for each accepted client. */
  void (*dropped)(MqServer* server, MqServerClient* client, const char* why);
  /* A datagram node that was added is readable. */
  void (*ready)(MqServer* server, MQNode* node);
  /* A message of a client was refused, or the rest of it will not arrive. client->node->error is the code. The node's
   * recvBuffer.data begins with the received part, client->node->sock.bytesReceived - client->whole bytes in all.
   * Returns the reason to drop the client, such as why. Null keeps the client after MQ_BAD_BODY and MQ_NOT_AUTHENTIC;
   * after any other code the client is dropped without a line in the log. */
  const char* (*failed)(MqServer* server, MqServerClient* client, const char* why);
} MqServerEvents;

/* MqServer - a server. */
struct MqServer {
  MqServerLimits limits;                           /* as passed; all but clients may be changed */
  MqServerEvents events;                           /* as passed */
  void* data;                                      /* for the application */
  void (*log)(MqServer* server, const char* line); /* prints the line on stderr at first; null: no log */
  int reading;                    /* 1 at first. 0: nothing more is read or accepted, even in the current round */
  int status;                     /* status of the last wait */
  int count;                      /* number of clients */
  MqServerClient** clients;       /* in order of the addresses of their nodes; unused records follow */
  MqServerClient** others;        /* this field and the following ones are internal to the server */
  MqServerClient* records;        /* records of all clients, used and unused */
  MQNode** nodes;                 /* nodes to wait on, terminated by a null pointer */
  MQNode** listening;             /* result of the wait */
  MQNode** readable;              /* result of the wait */
  MQNode** writable;              /* result of the wait */
  MQNode* added[MQ_SERVER_NODES]; /* nodes of the application */
  int secure[MQ_SERVER_NODES];    /* whether their messages are signed */
  int nodeCount;                  /* number of entries of both */
  int accepting;                  /* 1: listening nodes are included in waits */
  int ending;                     /* 1: in mq_server_end */
  int lines;                      /* lines of the log in this second */
  int64_t now;                    /* milliseconds: end of the last wait */
  int64_t looked;                 /* milliseconds: last check of the clients */
  PcfMessage* in;                 /* the message that was read last */
  SockPostData work;              /* work record of the waits */
};

/* mq_server_limits - get the default limits, which MqServerLimits documents. */
static inline MqServerLimits mq_server_limits(void) {
  const MqServerLimits limits = {1000,   1000, 1024,  32,     1,     20,    10000, 10000,
                                 600000, 1000, 65536, 262144, 65536, 65536, 0};
  return limits;
}

/* ---- Log ---- */

/* Internal: the initial log function of a server. */
static inline void mq_server_print(MqServer* server, const char* line) {
  (void)server;
  fprintf(stderr, "%s\n", line);
}

/* mq_server_say - write the line "what IP:PORT: why" to the log, cut to 1000 characters. Nothing is written if the
 * limit of lines for this second is reached. */
static inline void mq_server_say(MqServer* server, const char* what, const SockAddrRec* peer, const char* why) {
  char line[1001];
  if (server->lines++ >= server->limits.logLinesPerSecond || server->log == NULL) return;
  snprintf(line, sizeof line, "%s %s:%u: %s", what, peer->ip, (unsigned)peer->port, why);
  server->log(server, line);
}

/* Internal: end a second, and log the number of lines that were omitted in it. */
static inline void mq_server_end_second(MqServer* server) {
  char line[40];
  const int untold = server->lines - server->limits.logLinesPerSecond;
  server->lines = 0;
  if (untold <= 0 || server->log == NULL) return;
  snprintf(line, sizeof line, "... and %d more", untold);
  server->log(server, line);
}

/* ---- Clients ---- */

/* mq_server_drop - close the node of a client. The client is released later, after its dropped event.
 *   why   in   reason for the log and the event; null: nothing is logged
 * A second call for the same client has no effect. */
static inline void mq_server_drop(MqServer* server, MqServerClient* client, const char* why) {
  if (client->leaving) return;
  client->leaving = 1;
  client->why = why;
  if (why != NULL) mq_server_say(server, "dropped", &client->node->sock.name, why);
  if (client->node->pending != NULL) client->lost += Qdepth(client->node->pending);
  /* A client that has shut down its sending side and received everything is closed without a reset, so that its
   * mq_finish succeeds. Others are reset: the system would otherwise keep the data that they do not read. */
  if (why == NULL && client->node->error == SOCK_PEER_CLOSED && mq_finish_confirmed(client->node)) {
    SockOption no_linger = {SOCK_OPT_LINGER, 0, 0};
    SetSocketOptions(&client->node->sock, &no_linger);
  }
  mnClose(client->node);
}

/* mq_server_wrote - convert the result of a write to the result of a message event.
 *   result   in   result of mnWrite, or another write to client->node, which has just returned
 * Result   null for 1; for 0 the name of the cause: the write was refused or lost, and the client must be dropped */
static inline const char* mq_server_wrote(const MqServerClient* client, int result) {
  return result ? NULL : mq_error_name(mq_node_cause(client->node, NULL));
}

/* Internal: the index at which the client with this node is in the table, or would be inserted. */
static inline int mq_server_place(const MqServer* server, const MQNode* node) {
  int low = 0, high = server->count;
  while (low < high) {
    const int middle = (low + high) / 2;
    if ((uintptr_t)server->clients[middle]->node < (uintptr_t)node) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

/* Internal: release clients that were dropped, or whose node the application has closed. Not to be called while the
 * lists of a wait are processed, because a node may be in two of them. */
static inline void mq_server_sweep(MqServer* server) {
  int kept = 0, gone = 0;
  for (int i = 0; i < server->count; ++i) {
    MqServerClient* const client = server->clients[i];
    if (client->leaving || !client->node->openState) {
      server->others[gone++] = client;
    } else {
      server->clients[kept++] = client;
    }
  }
  if (gone == 0) return;
  server->count = kept;
  server->accepting = 1;
  memcpy(server->clients + kept, server->others, sizeof *server->others * (size_t)gone);
  for (int i = 0; i < gone; ++i) {
    MqServerClient* const client = server->others[i];
    client->leaving = 1;
    if (server->events.dropped != NULL) server->events.dropped(server, client, client->why);
    DeleteMQNode(client->node);
  }
}

/* Internal: prepare the receive area of a client that is between two messages for the next header. An area that was
 * enlarged for a long message is replaced. If there is no memory, the next read fails, and the client is dropped. */
static inline void mq_server_arm(const MqServerClient* client) {
  IoBuffer* const area = &client->node->recvBuffer;
  if (area->received > 0) return;
  if (area->capacity > MQ_SERVER_AREA) {
    DeleteBuffer(area);
    CreateBuffer(area, MQ_SERVER_AREA);
  }
  ResetBuffer(area, client->secure ? sizeof(SecureHeader) : sizeof(MsgHeader));
}

/* ---- Time ---- */

/* Internal: milliseconds since a client last made progress. A few bytes are not progress. */
static inline int64_t mq_server_quiet(const MqServer* server, MqServerClient* client) {
  const MQNode* const node = client->node;
  const uint32_t done = node->msgsRead + node->writesCompleted;
  const uint64_t moved = node->sock.bytesReceived + node->sock.bytesSent;
  const int midway = node->sock.bytesReceived != client->whole || node->pending != NULL;
  if (done != client->done || midway != client->midway || moved - client->moved >= server->limits.progressBytes) {
    client->since = server->now;
    client->moved = moved;
  }
  client->done = done;
  client->midway = midway;
  return server->now - client->since;
}

/* Internal: the reason to drop a client that exceeds a time limit, or null. */
static inline const char* mq_server_overdue(const MqServer* server, MqServerClient* client) {
  const MqServerLimits* const limits = &server->limits;
  const int64_t quiet = mq_server_quiet(server, client);
  const int most = client->midway               ? limits->midwayMsec
                   : client->node->msgsRead > 0 ? limits->idleMsec
                                                : limits->firstMsec;
  if (quiet < most) return NULL;
  if (client->node->pending != NULL) return MQ_SERVER_TAKES_NO_ANSWERS;
  return client->midway ? MQ_SERVER_TOO_SLOW : MQ_SERVER_IDLE;
}

/* Internal: give back memory that was enlarged for a long message. */
static inline void mq_server_shrink(MqServer* server) {
  PcfMessage* const fresh = server->in->raw.capacity > MQ_SERVER_AREA ? mqc_message_new(0) : NULL;
  if (fresh == NULL) return;
  mqc_message_free(server->in);
  server->in = fresh;
}

/* Internal: check all clients, at most ten times a second. Once a second, give memory back and accept again.
 * waited: maximum duration of the wait. */
static inline void mq_server_look(MqServer* server, int waited) {
  const int64_t passed = server->now - server->looked;
  if (passed < MQ_SERVER_LOOK_MSEC) return;
  const int away = passed > (int64_t)waited + MQ_SERVER_AWAY_MSEC;
  const int newSecond = server->now / 1000 != server->looked / 1000;
  server->looked = server->now;
  for (int i = 0; i < server->count; ++i) {
    MqServerClient* const client = server->clients[i];
    if (client->leaving || !client->node->openState) continue;
    if (away) client->since = server->now;
    const char* const why = mq_server_overdue(server, client);
    if (why != NULL) mq_server_drop(server, client, why);
    if (why == NULL && newSecond) mq_server_arm(client);
  }
  if (!newSecond) return;
  mq_server_shrink(server);
  mq_server_end_second(server);
  server->accepting = 1;
}

/* ---- Places ---- */

/* Internal: order clients by address, and clients of one address by turn. */
static inline int mq_server_compare(const void* a, const void* b) {
  const MqServerClient* const x = *(MqServerClient* const*)a;
  const MqServerClient* const y = *(MqServerClient* const*)b;
  if (x->address != y->address) return x->address < y->address ? -1 : 1;
  return (x->turn > y->turn) - (x->turn < y->turn);
}

/* Internal: the client that a new client replaces; null if none has been connected for keptMsec. */
static inline MqServerClient* mq_server_choose(MqServer* server) {
  MqServerClient** const sorted = server->others;
  int chosen = 0, most = 0, first = 0;
  for (int i = 0; i < server->count; ++i) {
    MqServerClient* const client = sorted[i] = server->clients[i];
    mq_server_quiet(server, client);
    client->turn = server->now - client->accepted < server->limits.keptMsec ? server->now + 1 : client->since;
  }
  qsort(sorted, (size_t)server->count, sizeof *sorted, mq_server_compare);
  for (int i = 0; i < server->count; ++i) {
    if (sorted[i]->address != sorted[first]->address) first = i;
    const int clients = i - first + 1; /* of this address, so far */
    if (clients < most || (clients == most && sorted[first]->turn >= sorted[chosen]->turn)) continue;
    most = clients;
    chosen = first;
  }
  return server->count > 0 && sorted[chosen]->turn <= server->now ? sorted[chosen] : NULL;
}

/* Internal: drop the client that was chosen. Returns 1, or 0 if none was chosen. */
static inline int mq_server_make_room(MqServer* server, MqServerClient* chosen) {
  if (chosen == NULL) return 0;
  mq_server_drop(server, chosen, MQ_SERVER_PLACE_NEEDED);
  mq_server_sweep(server);
  return 1;
}

/* Internal: whether an address has reached its limit of clients. */
static inline int mq_server_is_crowded(const MqServer* server, in_addr_t address) {
  int same = 0;
  for (int i = 0; i < server->count; ++i) same += server->clients[i]->address == address;
  return same >= server->limits.clientsPerAddress;
}

/* ---- Accepting ---- */

/* Internal: make an accepted connection a client. Returns null, or the reason why this is not possible.
 * chosen: the client that it replaces, or null. */
static inline const char* mq_server_admit(MqServer* server, int index, MQNode* node, MqServerClient* chosen) {
  const in_addr_t address = inet_addr(node->sock.name.ip);
  if (mq_server_is_crowded(server, address)) return MQ_SERVER_NO_PLACE;
  if (!NoblockSocket(&node->sock)) return mq_error_name(node->sock.error);
  mq_server_make_room(server, chosen);
  SetTcpNoDelay(&node->sock, 1);
  MqServerClient* const client = server->clients[server->count];
  memset(client, 0, sizeof *client);
  client->node = node;
  client->origin = server->added[index];
  client->secure = server->secure[index];
  client->address = address;
  client->accepted = client->since = server->now;
  mq_server_arm(client);
  const int at = mq_server_place(server, node);
  memmove(server->clients + at + 1, server->clients + at, sizeof *server->clients * (size_t)(server->count - at));
  server->clients[at] = client;
  ++server->count;
  const char* const why = server->events.accepted != NULL ? server->events.accepted(server, client) : NULL;
  if (why != NULL) mq_server_drop(server, client, why);
  return NULL;
}

/* Internal: accept the waiting connections of a listening node, but only one if the table is full. If connections
 * remain in the accept queue, the next wait returns immediately. */
static inline void mq_server_accept(MqServer* server, int index) {
  MQNode* const listener = server->added[index];
  MqServerClient* const chosen = server->count == server->limits.clients ? mq_server_choose(server) : NULL;
  if (chosen == NULL && server->count == server->limits.clients) {
    server->accepting = 0;
    return;
  }
  for (int i = 0; i < server->limits.acceptsPerRound && (i == 0 || server->count < server->limits.clients); ++i) {
    if (!mnOpen(listener)) {
      if (listener->error == MQ_AGAIN || listener->error == ECONNABORTED) return;
      mq_server_say(server, "cannot accept on", &listener->sock.name, mq_error_name(listener->error));
      server->accepting = listener->error == EMFILE && mq_server_make_room(server, mq_server_choose(server));
      return;
    }
    MQNode* const child = listener->child;
    if (child == NULL) return; /* no memory: the connection was closed */
    listener->child = NULL;
    const char* const why = mq_server_admit(server, index, child, i == 0 ? chosen : NULL);
    if (why == NULL) continue;
    mq_server_say(server, "refused", &child->sock.name, why);
    DeleteMQNode(child);
  }
}

/* ---- Reading ---- */

/* Internal: bytes of answers queued behind the oldest one, which may have any size. */
static inline uint64_t mq_server_waiting(const MQNode* node) {
  uint64_t bytes = 0;
  if (node->pending == NULL || node->pending->head == NULL) return 0;
  for (const struct MQQueueEntry* entry = node->pending->head->next; entry != NULL; entry = entry->next) {
    bytes += ((const IoBuffer*)entry->item)->length;
  }
  return bytes;
}

/* Internal: the length that the header in a client's receive area announces. The header has the byte order of its
 * sender, which its first word shows: that is the length of the header. */
static inline uint32_t mq_server_announced(const MqServerClient* client) {
  const IoBuffer* const area = &client->node->recvBuffer;
  const uint32_t size = client->secure ? sizeof(SecureHeader) : sizeof(MsgHeader);
  const size_t at = client->secure ? offsetof(SecureHeader, msgLength) : offsetof(MsgHeader, bodyLength);
  uint32_t first, length;
  if (area->received < size) return 0;
  memcpy(&first, area->data, sizeof first);
  memcpy(&length, area->data + at, sizeof length);
  return first == size ? length : __builtin_bswap32(length);
}

/* Internal: handle a read that returned no message. Returns 1 if the next one can be read. */
static inline int mq_server_read_failed(MqServer* server, MqServerClient* client) {
  const MQNode* const node = client->node;
  const int gone = node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET;
  const int whole = node->error == MQ_BAD_BODY || node->error == MQ_NOT_AUTHENTIC;
  const int midway = node->sock.bytesReceived != client->whole || node->pending != NULL;
  const char* why = !gone ? mq_error_name(node->error) : midway ? MQ_SERVER_LEFT_MIDWAY : NULL;
  if (node->error == MQ_AGAIN) return 0; /* the node keeps the bytes received so far; the next read continues */
  if (why != NULL && server->events.failed != NULL) why = server->events.failed(server, client, why);
  if (whole) client->whole = node->sock.bytesReceived;
  if (!whole || why != NULL) mq_server_drop(server, client, why);
  return !client->leaving;
}

/* Internal: read a message of a client, the header first, and pass it to the event if it is complete. Returns 1 if
 * there may be another one. */
static inline int mq_server_read(MqServer* server, MqServerClient* client) {
  MQNode* const node = client->node;
  if (!(client->secure ? mnSReadMsg(node) : mnReadMsg(node))) return mq_server_read_failed(server, client);
  if (mq_server_announced(client) > server->limits.messageBytes) {
    mq_server_drop(server, client, MQ_SERVER_TOO_LONG);
    return 0;
  }
  if (!mnSRead(server->in, node, client->secure, NULL)) return mq_server_read_failed(server, client);
  client->whole = node->sock.bytesReceived;
  const char* const why = server->events.message(server, client, server->in);
  if (why != NULL) mq_server_drop(server, client, why);
  return !client->leaving && node->openState;
}

/* Internal: read the messages that the limits allow a client in this round. */
static inline void mq_server_read_some(MqServer* server, MqServerClient* client) {
  if (mq_server_waiting(client->node) > server->limits.waitingBytes) {
    if (!server->limits.pauses) mq_server_drop(server, client, MQ_SERVER_TAKES_NO_ANSWERS);
    return;
  }
  for (int i = 0; i < server->limits.messagesPerRound && (i == 0 || client->node->pending == NULL); ++i) {
    if (!server->reading || !mq_server_read(server, client)) return;
  }
}

/* Internal: while a server ends, discard what a client sends until it has closed the connection. */
static inline void mq_server_drain(MqServer* server, MqServerClient* client) {
  char unread[16384];
  const ssize_t got = recv(client->node->sock.fd, unread, sizeof unread, MSG_DONTWAIT);
  if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) return;
  mq_server_drop(server, client, client->shut ? NULL : "left before its answer");
}

/* ---- The server ---- */

/* mq_server_open - initialise a server without nodes.
 *   limits   in   copied
 *   events   in   copied
 *   data     in   stored in server->data
 * Result   1; 0 if there is no memory. In both cases, release the server with mq_server_close */
static inline int mq_server_open(MqServer* server, const MqServerLimits* limits, const MqServerEvents* events,
                                 void* data) {
  memset(server, 0, sizeof *server);
  server->limits = *limits;
  server->events = *events;
  server->data = data;
  server->log = mq_server_print;
  server->reading = 1;
  server->accepting = 1;
  server->now = server->looked = mq_clock();
  const int entries = limits->clients + MQ_SERVER_NODES + 1; /* of each list, including the null pointer */
  server->clients = (MqServerClient**)calloc((size_t)entries, sizeof *server->clients);
  server->others = (MqServerClient**)calloc((size_t)entries, sizeof *server->others);
  server->records = (MqServerClient*)calloc((size_t)entries, sizeof *server->records);
  server->nodes = (MQNode**)calloc((size_t)entries * 4, sizeof *server->nodes);
  server->in = mqc_message_new(0);
  if (!InitSocketPostData(&server->work, entries)) return 0;
  if (server->clients == NULL || server->others == NULL || server->records == NULL || server->nodes == NULL ||
      server->in == NULL) {
    return 0;
  }
  for (int i = 0; i < limits->clients; ++i) server->clients[i] = server->records + i;
  server->listening = server->nodes + entries;
  server->readable = server->listening + entries;
  server->writable = server->readable + entries;
  return 1;
}

/* mq_server_add - serve a listening node, or wait on a datagram node.
 *   node     in   from a creator, whose failure is reported here; may be null. It is made non-blocking. The caller
 *                 still owns it, and deletes it after mq_server_close
 *   secure   in   1: the clients of this node send signed messages; 0: plain ones
 * Result   1; 0 after a failure, with the reason in node->error: ENOMEM for the ninth node */
static inline int mq_server_add(MqServer* server, MQNode* node, int secure) {
  if (node == NULL || IsNodeFailed(node)) return 0;
  if (server->nodeCount == MQ_SERVER_NODES) {
    node->error = ENOMEM;
    return 0;
  }
  const uint32_t size = server->limits.socketBytes; /* accepted sockets inherit it */
  if (!NoblockSocket(&node->sock) ||
      (node->role == MQ_ROLE_LISTEN &&
       ((size > 0 && !mnSetBufferSize(node, size)) || !ListenSocket(&node->sock, server->limits.backlog)))) {
    SetMQNodeError(node);
    return 0;
  }
  server->added[server->nodeCount] = node;
  server->secure[server->nodeCount++] = secure;
  return 1;
}

/* Internal: whether a client must be left out of the wait, which would list it as readable. */
static inline int mq_server_is_paused(const MqServer* server, const MqServerClient* client) {
  if (server->ending) return 0;
  return !server->reading || (server->limits.pauses && mq_server_waiting(client->node) > server->limits.waitingBytes);
}

/* Internal: wait once. Returns 0 if waiting is not possible; otherwise the lists are filled, or empty. */
static inline int mq_server_wait(MqServer* server, int msec) {
  MQNode** end = server->nodes;
  int paused = !server->reading;
  for (int i = 0; i < server->nodeCount && server->reading && !server->ending; ++i) {
    if (server->accepting || server->added[i]->role != MQ_ROLE_LISTEN) *end++ = server->added[i];
  }
  for (int i = 0; i < server->count; ++i) {
    const int left = mq_server_is_paused(server, server->clients[i]);
    if (!left) *end++ = server->clients[i]->node;
    paused |= left;
  }
  *end = NULL;
  server->status = 0;
  const int most = paused && msec > MQ_SERVER_PAUSE_MSEC ? MQ_SERVER_PAUSE_MSEC : msec;
  const int ready = mnNPostExMSec(server->nodes, server->listening, server->readable, server->writable, most,
                                  &server->status, &server->work);
  if (!ready) *server->listening = *server->readable = *server->writable = NULL;
  server->now = mq_clock();
  return ready || server->status == SOCK_WAIT_TIMEOUT || server->status == EINTR;
}

/* Internal: the client with this node, unless it was dropped; null for a node that was added. */
static inline MqServerClient* mq_server_client_of(const MqServer* server, const MQNode* node) {
  const int at = mq_server_place(server, node);
  MqServerClient* const client = at < server->count ? server->clients[at] : NULL;
  return client != NULL && client->node == node && !client->leaving && node->openState ? client : NULL;
}

/* Internal: continue the queued writes of a node. client: null for a node that was added. */
static inline void mq_server_finish_writes(MqServer* server, MQNode* node, MqServerClient* client) {
  if (mnFinishWrite(node)) return;
  const char* const why = mq_error_name(mq_node_cause(node, NULL));
  if (client == NULL) {
    mq_server_say(server, "a datagram is lost on", &node->sock.name, why);
    return;
  }
  ++client->lost;
  mq_server_drop(server, client, why);
}

/* Internal: continue the writes of paused clients, and of the nodes that are writable; read the nodes that are
 * readable. */
static inline void mq_server_transfer(MqServer* server) {
  for (int i = 0; i < server->count; ++i) {
    MqServerClient* const client = server->clients[i];
    if (!client->leaving && client->node->pending != NULL && mq_server_is_paused(server, client)) {
      mq_server_finish_writes(server, client->node, client);
    }
  }
  for (MQNode** node = server->writable; *node != NULL; ++node) {
    MqServerClient* const client = mq_server_client_of(server, *node);
    if (client != NULL || (*node)->sock.type != SOCK_TYPE_STREAM) mq_server_finish_writes(server, *node, client);
  }
  for (MQNode** node = server->readable; *node != NULL; ++node) {
    MqServerClient* const client = mq_server_client_of(server, *node);
    if (client != NULL) {
      (server->ending ? mq_server_drain : mq_server_read_some)(server, client);
    } else if ((*node)->sock.type != SOCK_TYPE_STREAM && server->events.ready != NULL && server->reading) {
      server->events.ready(server, *node);
    }
  }
}

/* mq_server_round - wait once; then continue writes, read messages, drop clients and accept connections.
 *   msec   in   upper bound of the wait in milliseconds; a signal ends it early. Above 1000, time limits act late
 * Result   1; 0 if waiting is not possible, with the reason in server->status */
static inline int mq_server_round(MqServer* server, int msec) {
  mq_server_sweep(server);
  if (!mq_server_wait(server, msec)) return 0;
  mq_server_transfer(server);
  mq_server_look(server, msec);
  mq_server_sweep(server);
  for (MQNode** node = server->listening; *node != NULL && server->reading; ++node) {
    for (int i = 0; i < server->nodeCount; ++i) {
      if (server->added[i] == *node) mq_server_accept(server, i);
    }
  }
  return 1;
}

/* mq_server_end - end gracefully: accept and read nothing more, send the queued answers, shut down the sending side,
 * and wait until the clients have closed their connections. Only mq_server_close may follow.
 *   msec   in   upper bound for all of this, in milliseconds. Clients that are left after it are dropped
 * Result   1 if all answers were sent and each client then closed its connection; else 0 */
static inline int mq_server_end(MqServer* server, int msec) {
  const int64_t until = mq_clock() + msec;
  int taken = 1;
  server->ending = 1;
  mq_server_sweep(server);
  while (server->count > 0) {
    for (int i = 0; i < server->count; ++i) {
      MqServerClient* const client = server->clients[i];
      if (client->shut || mnIsPendingIO(client->node)) continue;
      shutdown(client->node->sock.fd, SHUT_WR);
      client->shut = 1;
    }
    const int64_t left = until - mq_clock();
    if (left <= 0 || !mq_server_wait(server, (int)left)) break;
    mq_server_transfer(server);
    for (int i = 0; i < server->count; ++i) taken = taken && server->clients[i]->why == NULL;
    mq_server_sweep(server);
  }
  for (int i = 0; i < server->count; ++i) mq_server_drop(server, server->clients[i], "did not close in time");
  taken = taken && server->count == 0;
  mq_server_sweep(server);
  return taken;
}

/* mq_server_close - drop the remaining clients, and release everything except the nodes that were added. A second call
 * has no effect. */
static inline void mq_server_close(MqServer* server) {
  for (int i = 0; i < server->count; ++i) mq_server_drop(server, server->clients[i], NULL);
  mq_server_sweep(server);
  mq_server_end_second(server);
  mqc_message_free(server->in);
  FreeSocketPostData(&server->work);
  free(server->nodes);
  free(server->records);
  free(server->others);
  free(server->clients);
  memset(server, 0, sizeof *server);
}

// NOLINTEND(modernize-use-nullptr)

#endif
