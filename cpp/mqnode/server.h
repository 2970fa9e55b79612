/* server.h - a server of many clients: one wait, one thread, and an upper bound on everything that a client may cost.
 *
 * Header-only, for C11 with POSIX (-std=gnu11) and C++17; link mqnode::host. An application fills MqServerEvents, adds
 * its listening nodes and calls mq_server_round until it wants to end:
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
 *   Reading    messagesPerRound messages of each client in a round, one while answers wait for it. A message that is
 *              longer than messageBytes is not taken in. While the application has set reading to 0, no client is read
 *              from or accepted
 *   Writing    a queued write is finished when its socket takes more. A client for which more than waitingBytes wait
 *              behind the oldest answer is dropped when it sends another message; with pauses it is not read from until
 *              it has taken some. After a write with result 0 the application drops the client: mq_server_wrote gives
 *              the reason
 *   Time       a client owes something while it is in the middle of a message, and while answers wait for it. It is
 *              dropped after midwayMsec in which it neither began nor finished a message and moved fewer than
 *              progressBytes; when it owes nothing, after idleMsec, before its first message after firstMsec. Time in
 *              which the server itself did not run does not count
 *   Places     when all places are taken, or no descriptor is left, a newcomer takes the place of another client: of
 *              the address with the most clients, the one that has been quiet longest. One address can therefore push
 *              out clients of others only until it has as many as they have. A client keeps its place for keptMsec
 *   Accepting  while no place and no descriptor can be had, the listening nodes are not waited for, until a client has
 *              gone or a second is over
 *   Failures   a client whose read or queued write fails is dropped, and no other. The failed event may keep a client
 *              after a message that was not accepted but has an end, so that the next one can be read
 *   Memory     what a long message has made large is given back within a second after the message
 *   Log        a line for each dropped client, logLinesPerSecond at most, then the number of those left out
 *
 * An application ignores SIGPIPE. A server, its nodes and its clients are used by one thread at a time. */
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
  MQ_SERVER_NODES = 8,       /* most nodes that are added to a server */
  MQ_SERVER_AREA = 16520,    /* bytes of a node's first receive area */
  MQ_SERVER_LOOK_MSEC = 100, /* clients are looked at so often at most */
  MQ_SERVER_AWAY_MSEC = 500, /* a look that comes so late shows that the server did not run */
  MQ_SERVER_PAUSE_MSEC = 10  /* between two attempts to write to a client that is not read from */
};

/* Reasons for which a server itself drops or refuses a client, other than a code's name. */
#define MQ_SERVER_TOO_SLOW "too slow"
#define MQ_SERVER_IDLE "idle"
#define MQ_SERVER_TAKES_NO_ANSWERS "takes no answers"
#define MQ_SERVER_TOO_LONG "its message is too long"
#define MQ_SERVER_LEFT_MIDWAY "left in the middle of a message, or before its answer"
#define MQ_SERVER_PLACE_NEEDED "its place is needed"
#define MQ_SERVER_NO_PLACE "its address has all its places"

/* MqServerLimits - what a client may cost. All values are positive unless their line says otherwise. */
typedef struct MqServerLimits {
  int clients;            /* connected at once: 1000 */
  int clientsPerAddress;  /* connected at once from one address: 1000. Newcomers beyond that are refused */
  int backlog;            /* connections that wait to be accepted: 128. The system may allow fewer */
  int acceptsPerRound;    /* 32: connected clients are served in between */
  int messagesPerRound;   /* of one client: 1 */
  int logLinesPerSecond;  /* 20 */
  int midwayMsec;         /* milliseconds without progress of a client that owes something: 10000 */
  int firstMsec;          /* milliseconds from the connection to the first message: 10000 */
  int idleMsec;           /* milliseconds without progress of a client that owes nothing: 600000 */
  int keptMsec;           /* milliseconds that a client keeps its place: 1000; 0: it may lose it at once */
  uint32_t messageBytes;  /* of a message without its header, of a signed one without its envelope: 65536 */
  uint32_t waitingBytes;  /* of answers that wait behind the oldest one: 262144; 0: none may */
  uint32_t progressBytes; /* sent or received within a message that count as progress: 65536 */
  uint32_t socketBytes;   /* of the system's buffers of a client, each direction: 65536; 0: as the system likes */
  int pauses;             /* 0; 1: a client that does not take its answers is not read from, instead of dropped */
} MqServerLimits;

typedef struct MqServer MqServer;

/* MqServerClient - a connected client. It is valid until its dropped event has returned. */
typedef struct MqServerClient {
  MQNode* node;         /* the server's: write to it, do not read from it or delete it */
  const MQNode* origin; /* the listening node that accepted it */
  void* data;           /* the application's; null at first */
  int secure;           /* as given to mq_server_add */
  int leaving;          /* 1 after it was dropped */
  const char* why;      /* it was dropped; null without a fault */
  int lost;             /* queued answers that were lost, once it was dropped */
  uint64_t whole;       /* bytes received until the end of the last whole message */
  in_addr_t address;    /* this and what follows belong to the server */
  int midway;           /* in the middle of a message, or answers wait, when last seen */
  int shut;             /* the sending side is shut down */
  uint32_t done;        /* messages read and written when last seen */
  uint64_t moved;       /* bytes sent and received when progress was last seen */
  int64_t accepted;     /* milliseconds */
  int64_t since;        /* milliseconds: when progress was last seen */
  int64_t turn;         /* the clients of one address make room in this order; in the future: not yet */
} MqServerClient;

/* MqServerEvents - what a server calls during mq_server_round, mq_server_end and mq_server_close. All may be null;
 * message only without listening nodes. An event may write to any client and drop any client; it must not call these
 * three functions. A text that it returns or gives to mq_server_drop must live until the dropped event. */
typedef struct MqServerEvents {
  /* A whole message was read. Null, or why the client is dropped. The record belongs to the server. */
  const char* (*message)(MqServer* server, MqServerClient* client, PcfMessage* msg);
  /* A client was accepted. Null, or why it is dropped. */
  const char* (*accepted)(MqServer* server, MqServerClient* client);
  /* A client has gone; its node is closed, and both are released when this returns. why: null when the client left
   * between two messages, or the server ended. Called once for each accepted client. */
  void (*dropped)(MqServer* server, MqServerClient* client, const char* why);
  /* A datagram node that was added can be read. */
  void (*ready)(MqServer* server, MQNode* node);
  /* A message of a client was not accepted, or its rest will not come: client->node->error is the code, and the node's
   * recvBuffer.data begins with what arrived of it, client->node->sock.bytesReceived - client->whole bytes in all.
   * Returns why the client is dropped, such as the given reason. Null keeps it after MQ_BAD_BODY and MQ_NOT_AUTHENTIC;
   * after any other code it is dropped without a line in the log. */
  const char* (*failed)(MqServer* server, MqServerClient* client, const char* why);
} MqServerEvents;

/* MqServer - a server. */
struct MqServer {
  MqServerLimits limits;                           /* as given; may be changed, but for clients */
  MqServerEvents events;                           /* as given */
  void* data;                                      /* the application's */
  void (*log)(MqServer* server, const char* line); /* prints the line on stderr at first; null: no log */
  int reading;                    /* 1 at first. 0: nothing more is read or accepted, also in the round in progress */
  int status;                     /* of the last wait */
  int count;                      /* clients */
  MqServerClient** clients;       /* in the order of their nodes' places in memory; behind them, unused records */
  MqServerClient** others;        /* this and what follows belong to the server */
  MqServerClient* records;        /* of all clients, used and unused */
  MQNode** nodes;                 /* waited for, ended by a null pointer */
  MQNode** listening;             /* outcome of the wait */
  MQNode** readable;              /* outcome of the wait */
  MQNode** writable;              /* outcome of the wait */
  MQNode* added[MQ_SERVER_NODES]; /* the application's nodes */
  int secure[MQ_SERVER_NODES];    /* of each */
  int nodeCount;                  /* of both */
  int accepting;                  /* listening nodes are waited for */
  int ending;                     /* in mq_server_end */
  int lines;                      /* of the log in this second */
  int64_t now;                    /* milliseconds, after the last wait */
  int64_t looked;                 /* milliseconds, of the last look at the clients */
  PcfMessage* in;                 /* the message that was read last */
  SockPostData work;              /* of the waits */
};

/* mq_server_limits - the default limits, which MqServerLimits names. */
static inline MqServerLimits mq_server_limits(void) {
  const MqServerLimits limits = {1000,   1000, 128,   32,     1,     20,    10000, 10000,
                                 600000, 1000, 65536, 262144, 65536, 65536, 0};
  return limits;
}

/* ---- Log ---- */

/* Internal: the log that a server has at first. */
static inline void mq_server_print(MqServer* server, const char* line) {
  (void)server;
  fprintf(stderr, "%s\n", line);
}

/* mq_server_say - write the line "what IP:PORT: why" to the log, unless this second has had its lines. At most 1000
 * characters are written. */
static inline void mq_server_say(MqServer* server, const char* what, const SockAddrRec* peer, const char* why) {
  char line[1001];
  if (server->lines++ >= server->limits.logLinesPerSecond || server->log == NULL) return;
  snprintf(line, sizeof line, "%s %s:%u: %s", what, peer->ip, (unsigned)peer->port, why);
  server->log(server, line);
}

/* Internal: end a second. Say how many lines were left out in it. */
static inline void mq_server_end_second(MqServer* server) {
  char line[40];
  const int untold = server->lines - server->limits.logLinesPerSecond;
  server->lines = 0;
  if (untold <= 0 || server->log == NULL) return;
  snprintf(line, sizeof line, "... and %d more", untold);
  server->log(server, line);
}

/* ---- Clients ---- */

/* mq_server_drop - close a client's node. The client is released later, after its dropped event.
 *   why   in   for the log and the event; null: nothing is logged
 * A second call for the same client does nothing. */
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

/* mq_server_wrote - the answer of a message event that ends with a write.
 *   result   in   of mnWrite or another write to client->node, which has just returned
 * Result   null after 1; after 0 the name of the cause: the write was refused or lost, and the client must go */
static inline const char* mq_server_wrote(const MqServerClient* client, int result) {
  return result ? NULL : mq_error_name(mq_node_cause(client->node, NULL));
}

/* Internal: where the client with this node is in the table, or would be. */
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

/* Internal: release clients that were dropped, or whose node the application has closed. Not done while the outcome of
 * a wait is walked: a node may be in two of its lists. */
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

/* Internal: arm the receive area of a client that is between two messages for the next header. An area that a long
 * message has made large is replaced; without memory the next read fails, and the client is dropped. */
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

/* Internal: milliseconds since a client was last seen to make progress. A byte now and then is none. */
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

/* Internal: why a client is to be dropped now, or null. */
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

/* Internal: give back what a long message has made large. */
static inline void mq_server_shrink(MqServer* server) {
  PcfMessage* const fresh = server->in->raw.capacity > MQ_SERVER_AREA ? mqc_message_new(0) : NULL;
  if (fresh == NULL) return;
  mqc_message_free(server->in);
  server->in = fresh;
}

/* Internal: look at all clients, ten times a second at most; once a second give memory back and accept again.
 * waited: the time that the wait could take. */
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

/* Internal: order clients by address, those of one address by turn. */
static inline int mq_server_compare(const void* a, const void* b) {
  const MqServerClient* const x = *(MqServerClient* const*)a;
  const MqServerClient* const y = *(MqServerClient* const*)b;
  if (x->address != y->address) return x->address < y->address ? -1 : 1;
  return (x->turn > y->turn) - (x->turn < y->turn);
}

/* Internal: the client whose place a newcomer takes; null when none has had its place long enough. */
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

/* Internal: drop the client that was chosen. 1; 0 when none was. */
static inline int mq_server_make_room(MqServer* server, MqServerClient* chosen) {
  if (chosen == NULL) return 0;
  mq_server_drop(server, chosen, MQ_SERVER_PLACE_NEEDED);
  mq_server_sweep(server);
  return 1;
}

/* Internal: whether an address has as many clients as it may have. */
static inline int mq_server_is_crowded(const MqServer* server, in_addr_t address) {
  int same = 0;
  for (int i = 0; i < server->count; ++i) same += server->clients[i]->address == address;
  return same >= server->limits.clientsPerAddress;
}

/* ---- Accepting ---- */

/* Internal: why an accepted connection cannot become a client; null when it did. chosen: who makes room for it, or
 * null. */
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

/* Internal: accept what waits on a listening node; one connection when the table is full. Connections that stay in the
 * queue make the next wait return at once. */
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

/* Internal: bytes of answers that wait behind the oldest one, which may be of any size. */
static inline uint64_t mq_server_waiting(const MQNode* node) {
  uint64_t bytes = 0;
  if (node->pending == NULL || node->pending->head == NULL) return 0;
  for (const struct MQQueueEntry* entry = node->pending->head->next; entry != NULL; entry = entry->next) {
    bytes += ((const IoBuffer*)entry->item)->length;
  }
  return bytes;
}

/* Internal: the length that the header in a client's receive area announces. The header is as its sender wrote it: its
 * first word, which is its own length, tells in which byte order. */
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

/* Internal: a read gave no message. 1 when the next one can be read. */
static inline int mq_server_read_failed(MqServer* server, MqServerClient* client) {
  const MQNode* const node = client->node;
  const int gone = node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET;
  const int whole = node->error == MQ_BAD_BODY || node->error == MQ_NOT_AUTHENTIC;
  const int midway = node->sock.bytesReceived != client->whole || node->pending != NULL;
  const char* why = !gone ? mq_error_name(node->error) : midway ? MQ_SERVER_LEFT_MIDWAY : NULL;
  if (node->error == MQ_AGAIN) return 0; /* the node keeps what it has, the next read goes on */
  if (why != NULL && server->events.failed != NULL) why = server->events.failed(server, client, why);
  if (whole) client->whole = node->sock.bytesReceived;
  if (!whole || why != NULL) mq_server_drop(server, client, why);
  return !client->leaving;
}

/* Internal: read what has arrived of a client's message, the header first, and hand over a whole one. 1 when there may
 * be another one. */
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

/* Internal: read the messages that a client may have in this round. */
static inline void mq_server_read_some(MqServer* server, MqServerClient* client) {
  if (mq_server_waiting(client->node) > server->limits.waitingBytes) {
    if (!server->limits.pauses) mq_server_drop(server, client, MQ_SERVER_TAKES_NO_ANSWERS);
    return;
  }
  for (int i = 0; i < server->limits.messagesPerRound && (i == 0 || client->node->pending == NULL); ++i) {
    if (!server->reading || !mq_server_read(server, client)) return;
  }
}

/* Internal: at the end of a server, read what a client still sends and forget it, until the client has closed. */
static inline void mq_server_drain(MqServer* server, MqServerClient* client) {
  char unread[16384];
  const ssize_t got = recv(client->node->sock.fd, unread, sizeof unread, MSG_DONTWAIT);
  if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) return;
  mq_server_drop(server, client, client->shut ? NULL : "left before its answer");
}

/* ---- The server ---- */

/* mq_server_open - make a server without nodes.
 *   limits   in   copied
 *   events   in   copied
 *   data     in   what server->data is set to
 * Result   1; 0 without memory. mq_server_close is called in both cases */
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
  const int entries = limits->clients + MQ_SERVER_NODES + 1; /* of each list, its end included */
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

/* mq_server_add - serve a listening node, or wait for a datagram node.
 *   node     in   from a creator, whose failure is reported here; may be null. It is made non-blocking and stays the
 *                 caller's, who deletes it after mq_server_close
 *   secure   in   1: the clients of this node send signed messages; 0: plain ones
 * Result   1; 0 after a failure, with the reason in node->error: ENOMEM for the ninth node */
static inline int mq_server_add(MqServer* server, MQNode* node, int secure) {
  if (node == NULL || IsNodeFailed(node)) return 0;
  if (server->nodeCount == MQ_SERVER_NODES) {
    node->error = ENOMEM;
    return 0;
  }
  const uint32_t size = server->limits.socketBytes; /* accepted sockets take it over */
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

/* Internal: whether a client is left out of the wait, which would list it as readable. */
static inline int mq_server_is_paused(const MqServer* server, const MqServerClient* client) {
  if (server->ending) return 0;
  return !server->reading || (server->limits.pauses && mq_server_waiting(client->node) > server->limits.waitingBytes);
}

/* Internal: one wait. 0 when waiting is not possible; else the lists are filled, or empty. */
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

/* Internal: finish the writes of a node. client: null for a node that was added. */
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

/* Internal: finish the writes, and read, of the nodes that the wait has listed; finish those of paused clients. */
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

/* mq_server_round - wait once and do what is due: finish writes, read messages, drop clients, accept.
 *   msec   in   of the wait at most; a signal ends it early. More than 1000 delays the rules on time
 * Result   1; 0 when waiting is not possible: server->status says why */
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

/* mq_server_end - end in order: accept and read nothing more, send the answers that wait, shut the sending side down,
 * and wait until the clients have closed. Only mq_server_close may follow.
 *   msec   in   for all of this. The clients that are left then are dropped
 * Result   1 all answers were sent, and each client closed after that; 0 not */
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

/* mq_server_close - drop the clients that are left and release everything but the nodes that were added. A second call
 * does nothing. */
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
