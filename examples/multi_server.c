/* multi_server.c - answers many clients in one loop, until SIGINT or SIGTERM.
 *   multi_server HOST SERVICE [CLIENTS [SECONDS]]
 * Service 0 lets the kernel pick a port; the port is printed. CLIENTS: most at once. SECONDS: patience with a client
 * that owes something. limits.h says what is bounded; dropped clients are told of on standard error. */
#include <signal.h>
#include <stdlib.h>

#include "example.h"
#include "limits.h"

enum { WAIT_MSEC = 1000 };

typedef struct Server {
  MQNode* listener;
  Watch clients[MOST_CLIENTS];
  int count;     /* clients */
  int most;      /* count at which the table is full */
  int accepting; /* 0: an accept was not possible; tried again when a client has gone, or a second */
  int patience;  /* seconds */
  long second;   /* of the last look at the clients */
  Teller teller;
  PcfMessage* in;
  PcfMessage* out;
  SockPostData work;
} Server;

static volatile sig_atomic_t stop;

static void on_signal(int number) {
  (void)number;
  stop = 1;
}

/* A read that gave no message: 1 when it only has to go on later, else this client is to be dropped. */
static int read_failed(Server* server, MQNode* node, int midway) {
  if (node->error == MQ_AGAIN) return 1; /* part of a message: the node keeps it, the next read goes on */
  if (!peer_has_gone(node)) return tell_drop(&server->teller, node, mq_error_name(node->error));
  if (midway) tell_drop(&server->teller, node, "left in the middle of a question, or before its answer");
  return 0;
}

/* Reads the part of a message that has arrived and answers a whole one. 0: this client is to be dropped. */
static int serve(Server* server, MQNode* node) {
  const int midway = is_midway(node);
  if (takes_no_answers(node)) return tell_drop(&server->teller, node, "takes no answers");
  if (!mnReadMsg(node)) return read_failed(server, node, midway); /* the header first, or the rest */
  if (is_too_long(node)) return tell_drop(&server->teller, node, "its question is too long");
  if (!mnRead(server->in, node)) return read_failed(server, node, midway);

  MqcParam text;
  if (!mqc_find(server->in, PARAM_TEXT, &text) || text.type != MQC_TEXT) {
    return tell_drop(&server->teller, node, "its question has no text");
  }
  return (mqc_begin(server->out, COMMAND_ANSWER) && mqc_add_text(server->out, PARAM_TEXT, text.text) &&
          mnWrite(server->out, node)) ||
         tell_drop(&server->teller, node, mq_error_name(mq_node_cause(node, NULL)));
}

/* Deletes the clients that were closed. Not earlier: a node may be in two arrays of one wait. */
static void sweep(Server* server) {
  for (int i = 0; i < server->count; ++i) {
    if (server->clients[i].node->openState) continue;
    DeleteMQNode(server->clients[i].node);
    server->clients[i--] = server->clients[--server->count];
    server->accepting = 1;
  }
}

/* Drops a client for a newcomer; limits.h says which. 0 when none makes room yet. */
static int make_room(Server* server) {
  MQNode* const node = makes_room(server->clients, server->count, now_msec());
  if (node == NULL) return 0;
  tell_drop(&server->teller, node, "its place is needed");
  mnClose(node);
  sweep(server);
  return 1;
}

/* Accepts connections that wait, one when the table is full; the others make the next wait come back at once. When
 * none can be accepted, the wait would come back at once for nothing: the listener is left out of it for a while. */
static void accept_clients(Server* server) {
  MQNode* const listener = server->listener;
  if (server->count == server->most) server->accepting = make_room(server);
  for (int i = 0; i < MOST_ACCEPTED && server->count < server->most; ++i) {
    if (!mnOpen(listener)) {
      if (listener->error == MQ_AGAIN || listener->error == ECONNABORTED) return;
      if (may_tell(&server->teller)) failed("accept", listener);
      server->accepting = listener->error == EMFILE && make_room(server);
      return;
    }
    MQNode* child = listener->child;
    if (child == NULL) return; /* no memory: the connection was closed */
    server->clients[server->count++] = watch_client(child);
    if (!NoblockSocket(&child->sock)) mnClose(child); /* no client may delay another */
  }
}

/* Once a second: closes the clients that were waited for long enough, and tries to accept again. */
static void look(Server* server, long now) {
  server->second = now / 1000;
  for (int i = 0; i < server->count; ++i) {
    MQNode* const node = server->clients[i].node;
    if (!node->openState) continue; /* closed in this round */
    const char* const why = overdue(&server->clients[i], server->patience, now);
    if (why != NULL) {
      tell_drop(&server->teller, node, why);
      mnClose(node);
    } else {
      give_back(node);
    }
  }
  tell_untold(&server->teller);
  server->accepting = 1;
}

/* The nodes to wait for, which end with a null pointer. */
static void list_nodes(const Server* server, MQNode** nodes) {
  if (server->accepting) *nodes++ = server->listener;
  for (int i = 0; i < server->count; ++i) *nodes++ = server->clients[i].node;
  *nodes = NULL;
}

/* One wait and what follows from it. 0 when waiting is not possible. */
static int run_round(Server* server) {
  static MQNode *nodes[MOST_CLIENTS + 2], *listening[MOST_CLIENTS + 2];
  static MQNode *readable[MOST_CLIENTS + 2], *writable[MOST_CLIENTS + 2];
  int status;
  list_nodes(server, nodes);
  if (!mnNPostExMSec(nodes, listening, readable, writable, WAIT_MSEC, &status, &server->work)) {
    *listening = *readable = *writable = NULL;
    if (status != SOCK_WAIT_TIMEOUT && status != EINTR) return 0;
  }
  for (MQNode** node = writable; *node; ++node) {
    if (!mnFinishWrite(*node)) {
      tell_drop(&server->teller, *node, mq_error_name(mq_node_cause(*node, NULL)));
      mnClose(*node);
    }
  }
  for (MQNode** node = readable; *node; ++node) {
    if ((*node)->openState && !serve(server, *node)) mnClose(*node);
  }
  const long now = now_msec();
  if (server->second != now / 1000) look(server, now);
  sweep(server);
  if (*listening != NULL) accept_clients(server);
  return 1;
}

static int run(Server* server) {
  MQNode* const listener = server->listener;
  if (server->in == NULL || server->out == NULL || IsNodeFailed(listener)) return failed("listen", listener);
  if (!InitSocketPostData(&server->work, MOST_CLIENTS + 2)) return failed("wait", NULL);
  /* Accepted sockets have the listening one's buffers. */
  if (!mnSetBufferSize(listener, SOCKET_BUFFER) || !ListenSocket(&listener->sock, BACKLOG) ||
      !NoblockSocket(&listener->sock) || !print_port(listener)) {
    SetMQNodeError(listener);
    return failed("listen", listener);
  }
  while (!stop) {
    if (!run_round(server)) return 0;
  }
  return 1;
}

int main(int argc, char** argv) {
  static Server server;
  SockAddrRec addr;
  const long clients = argc > 3 ? strtol(argv[3], NULL, 10) : MOST_CLIENTS;
  const long patience = argc > 4 ? strtol(argv[4], NULL, 10) : PATIENCE;
  if (argc < 3 || argc > 5 || clients < 1 || clients > MOST_CLIENTS || patience < 2 || patience > IDLE ||
      !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: multi_server HOST SERVICE [CLIENTS [SECONDS]]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  server.most = (int)clients;
  server.accepting = 1;
  server.patience = (int)patience;
  server.in = mqc_message_new(0);
  server.out = mqc_message_new(0);
  server.listener = CreateMQNode(&addr, MQ_ROLE_LISTEN);
  const int ok = run(&server);
  for (int i = 0; i < server.count; ++i) DeleteMQNode(server.clients[i].node);
  DeleteMQNode(server.listener);
  FreeSocketPostData(&server.work);
  mqc_message_free(server.out);
  mqc_message_free(server.in);
  return ok ? 0 : 1;
}
