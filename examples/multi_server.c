/* multi_server.c - answers many clients in one loop, until SIGINT or SIGTERM.
 *   multi_server HOST SERVICE [CLIENTS]
 * Service 0 lets the kernel pick a port; the port is printed. CLIENTS: most at once. */
#include <signal.h>
#include <stdlib.h>

#include "example.h"

enum { MOST_CLIENTS = 1000, MOST_QUEUED = 16, WAIT_MSEC = 1000 };

typedef struct Server {
  MQNode* nodes[MOST_CLIENTS + 2]; /* the listening node, the clients, a null pointer */
  int count;                       /* nodes, the listening one included */
  int most;                        /* count at which no more are accepted */
  PcfMessage* in;
  PcfMessage* out;
  SockPostData work;
} Server;

static volatile sig_atomic_t stop;

static void on_signal(int number) {
  (void)number;
  stop = 1;
}

/* Reads what there is of a message and answers a whole one. 0: this client is to be dropped. */
static int serve(Server* server, MQNode* node) {
  if (!mnRead(server->in, node)) {
    if (node->error == MQ_AGAIN) return 1; /* part of a message: the node keeps it, the next read goes on */
    return peer_has_gone(node) ? 0 : failed("read", node);
  }
  MqcParam text;
  if (!mqc_find(server->in, PARAM_TEXT, &text) || text.type != MQC_TEXT) return 0;
  return (mqc_begin(server->out, COMMAND_ANSWER) && mqc_add_text(server->out, PARAM_TEXT, text.text) &&
          mnWrite(server->out, node)) ||
         failed("write", node);
}

/* Takes in every connection that waits, while there is room. */
static void accept_clients(Server* server, MQNode* listener) {
  while (server->count < server->most && mnOpen(listener)) {
    MQNode* child = listener->child;
    if (child == NULL) return; /* no memory: the connection was closed */
    NoblockSocket(&child->sock);
    child->writeLimit = MOST_QUEUED; /* a client that does not read costs no more than this */
    server->nodes[server->count++] = child;
    server->nodes[server->count] = NULL;
  }
  /* No descriptor left: take in no more than there are now, or the wait would come back at once, for nothing. */
  if (server->count > 1 && (listener->error == EMFILE || listener->error == ENFILE)) server->most = server->count;
}

/* Deletes the clients that were closed in this round. Not earlier: a node may be in two arrays of one wait. */
static void sweep(Server* server) {
  for (int i = 1; i < server->count; ++i) {
    if (server->nodes[i]->openState) continue;
    DeleteMQNode(server->nodes[i]);
    server->nodes[i--] = server->nodes[--server->count];
    server->nodes[server->count] = NULL;
  }
}

/* One wait and what follows from it. 0 when waiting is not possible. */
static int run_round(Server* server) {
  static MQNode *listening[MOST_CLIENTS + 2], *readable[MOST_CLIENTS + 2], *writable[MOST_CLIENTS + 2];
  int status;
  MQNode** const watched = server->count < server->most ? server->nodes : server->nodes + 1; /* full: do not accept */
  if (!mnNPostExMSec(watched, listening, readable, writable, WAIT_MSEC, &status, &server->work)) {
    return status == SOCK_WAIT_TIMEOUT || status == EINTR;
  }
  for (MQNode** node = writable; *node; ++node) {
    if (!mnFinishWrite(*node)) mnClose(*node);
  }
  for (MQNode** node = readable; *node; ++node) {
    if ((*node)->openState && !serve(server, *node)) mnClose(*node);
  }
  for (MQNode** node = listening; *node; ++node) accept_clients(server, *node);
  sweep(server);
  return 1;
}

static int run(Server* server) {
  MQNode* const listener = server->nodes[0];
  if (server->in == NULL || server->out == NULL || IsNodeFailed(listener)) return failed("listen", listener);
  if (!InitSocketPostData(&server->work, MOST_CLIENTS + 2)) return failed("wait", NULL);
  if (!NoblockSocket(&listener->sock) || !print_port(listener)) return failed("listen", listener);
  while (!stop) {
    if (!run_round(server)) return 0;
  }
  return 1;
}

int main(int argc, char** argv) {
  static Server server;
  SockAddrRec addr;
  const long clients = argc == 4 ? strtol(argv[3], NULL, 10) : MOST_CLIENTS;
  if (argc < 3 || argc > 4 || clients < 1 || clients > MOST_CLIENTS || !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: multi_server HOST SERVICE [CLIENTS]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  server.most = (int)clients + 1;
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
