/* datagram_server.c - answers datagrams until SIGINT or SIGTERM.
 *   datagram_server HOST SERVICE      service 0 lets the kernel pick. The port is printed.
 * answers.h says what it does not answer, and how often it answers an address. */
#include <signal.h>
#include <time.h>

#include "answers.h"
#include "example.h"
#include "limits.h"

enum { MOST_PENDING = 64 }; /* answers that wait for the socket; those beyond are lost, as datagrams may be */

typedef struct Server {
  MQNode* node;
  PcfMessage* in;
  PcfMessage* out;
  Answers answers;
  Teller teller;
  long second; /* of the lines and answers that are counted */
} Server;

static volatile sig_atomic_t stop;

static void on_signal(int number) {
  (void)number;
  stop = 1;
}

/* Says what failed and why, unless this second has lines enough. */
static void tell_failed(Server* server, const char* what) {
  if (may_tell(&server->teller)) failed(what, server->node);
}

/* Reads one datagram and answers a question. A bad datagram and an answer that cannot be sent are reported; the next
 * datagram is not affected. */
static void serve(Server* server) {
  MQNode* const node = server->node;
  PcfMessage *const in = server->in, *const out = server->out;
  MqcParam text;
  SockAddrRec sender;
  if (!mnRead(in, node)) {
    if (node->error != MQ_AGAIN) tell_failed(server, "read");
    return;
  }
  GetFromAddr(&node->sock, &sender);
  if (mqc_command(in) != COMMAND_ASK || is_answer(in)) return;
  if (!mqc_find(in, PARAM_TEXT, &text) || text.type != MQC_TEXT) return;
  if (!may_answer(&server->answers, &sender, server->second, MOST_ANSWERS)) return;
  if (!mqc_begin(out, COMMAND_ANSWER) || !mqc_add_text(out, PARAM_TEXT, text.text) || !mark_answer(out) ||
      !mnWriteTo(out, node, &sender)) {
    tell_failed(server, "write");
  }
}

static int run(Server* server) {
  MQNode* nodes[] = {server->node, NULL};
  MQNode *listening[2], *readable[2], *writable[2];
  int status;
  while (!stop) {
    if (server->second != (long)time(NULL)) tell_untold(&server->teller);
    server->second = (long)time(NULL);
    if (mnNPost(nodes, listening, readable, writable, 1, &status)) {
      if (writable[0] != NULL && !mnFinishWrite(server->node)) tell_failed(server, "write");
      if (readable[0] != NULL) serve(server);
    } else if (status != SOCK_WAIT_TIMEOUT && status != EINTR) {
      return 0;
    }
  }
  return 1;
}

int main(int argc, char** argv) {
  static Server server;
  SockAddrRec addr;
  if (argc != 3 || !make_address(&addr, argv[1], argv[2], "udp")) {
    fprintf(stderr, "usage: datagram_server HOST SERVICE\n");
    return 2;
  }
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  server.in = mqc_message_new(0);
  server.out = mqc_message_new(0);
  server.node = CreateUDPMQNode(&addr);
  int ok = 0;
  if (server.in == NULL || server.out == NULL || IsNodeFailed(server.node)) {
    failed("bind", server.node);
  } else {
    server.node->writeLimit = MOST_PENDING;
    ok = NoblockSocket(&server.node->sock) && print_port(server.node) && run(&server);
  }
  DeleteMQNode(server.node);
  mqc_message_free(server.out);
  mqc_message_free(server.in);
  return ok ? 0 : 1;
}
