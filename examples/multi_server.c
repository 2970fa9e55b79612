/* multi_server.c - answers many clients in one loop, until SIGINT or SIGTERM.
 *   multi_server HOST SERVICE [CLIENTS [SECONDS]]
 * Service 0 lets the kernel pick a port; the port is printed. CLIENTS: most at once. SECONDS: patience with a client
 * that owes something. What is bounded stands in limits.h; who is dropped is told on standard error. */
#include <signal.h>
#include <stdlib.h>

#include "example.h"
#include "limits.h"

enum { WAIT_MSEC = 1000 };

typedef struct Server {
  MQNode* nodes[MOST_CLIENTS + 2]; /* the listening node, the clients, a null pointer */
  Watch watches[MOST_CLIENTS + 1]; /* of the nodes */
  int count;                       /* nodes, the listening one included */
  int most;                        /* count at which no more are accepted */
  int accepting;                   /* 0: an accept had no descriptor or no memory; tried again when a client has gone */
  int patience;                    /* seconds */
  long second;                     /* of the last look at the clients */
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

/* Reads what there is of a message and answers a whole one. 0: this client is to be dropped. */
static int serve(Server* server, MQNode* node) {
  const int midway = is_midway(node);
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

/* Takes in connections that wait, while there is room; those left waiting make the next wait come back at once. */
static void accept_clients(Server* server, MQNode* listener) {
  for (int i = 0; i < MOST_ACCEPTED && server->count < server->most; ++i) {
    if (!mnOpen(listener)) {
      /* Without a descriptor the connection stays in the queue, and the wait would come back at once, for nothing. */
      server->accepting = listener->error == MQ_AGAIN || listener->error == ECONNABORTED;
      if (!server->accepting && may_tell(&server->teller)) failed("accept", listener);
      return;
    }
    MQNode* child = listener->child;
    if (child == NULL) return; /* no memory: the connection was closed */
    child->writeLimit = MOST_QUEUED;
    server->watches[server->count] = (Watch){0, 0};
    server->nodes[server->count++] = child;
    server->nodes[server->count] = NULL;
    if (!NoblockSocket(&child->sock)) mnClose(child); /* nobody may keep the others waiting */
  }
}

/* Once a second: closes the clients that were waited for long enough, and tries to accept again. */
static void look(Server* server) {
  const int in_need = !server->accepting || server->count == server->most;
  server->second = now_seconds();
  for (int i = 1; i < server->count; ++i) {
    if (!server->nodes[i]->openState) continue; /* closed in this round */
    const char* const why = overdue(&server->watches[i], server->nodes[i], server->patience, in_need);
    if (why == NULL) continue;
    tell_drop(&server->teller, server->nodes[i], why);
    mnClose(server->nodes[i]);
  }
  tell_untold(&server->teller);
  server->accepting = 1;
}

/* Deletes the clients that were closed in this round. Not earlier: a node may be in two arrays of one wait. */
static void sweep(Server* server) {
  for (int i = 1; i < server->count; ++i) {
    if (server->nodes[i]->openState) continue;
    DeleteMQNode(server->nodes[i]);
    server->watches[i] = server->watches[server->count - 1];
    server->nodes[i--] = server->nodes[--server->count];
    server->nodes[server->count] = NULL;
    server->accepting = 1;
  }
}

/* One wait and what follows from it. 0 when waiting is not possible. */
static int run_round(Server* server) {
  static MQNode *listening[MOST_CLIENTS + 2], *readable[MOST_CLIENTS + 2], *writable[MOST_CLIENTS + 2];
  int status;
  const int room = server->accepting && server->count < server->most;
  MQNode** const watched = room ? server->nodes : server->nodes + 1; /* no room: do not accept */
  if (!mnNPostExMSec(watched, listening, readable, writable, WAIT_MSEC, &status, &server->work)) {
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
  for (MQNode** node = listening; *node; ++node) accept_clients(server, *node);
  if (server->second != now_seconds()) look(server);
  sweep(server);
  return 1;
}

static int run(Server* server) {
  MQNode* const listener = server->nodes[0];
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

  server.most = (int)clients + 1;
  server.accepting = 1;
  server.patience = (int)patience;
  server.in = mqc_message_new(0);
  server.out = mqc_message_new(0);
  server.nodes[0] = CreateMQNode(&addr, MQ_ROLE_LISTEN);
  server.count = 1;
  const int ok = run(&server);
  for (int i = 0; i < server.count; ++i) DeleteMQNode(server.nodes[i]);
  FreeSocketPostData(&server.work);
  mqc_message_free(server.out);
  mqc_message_free(server.in);
  return ok ? 0 : 1;
}
