/* datagram_server.c - answer datagrams until SIGINT or SIGTERM.
 *   datagram_server HOST SERVICE
 * Service 0 lets the kernel choose a port, which is printed. answers.h decides which datagrams are answered. */
#include <signal.h>

#include "answers.h"
#include "example.h"
#include "mqnode/server.h"

enum { MOST_PENDING = 64 }; /* answers waiting for the socket; further ones are lost, as datagrams may be */

typedef struct Records {
  PcfMessage* in;
  PcfMessage* out;
  Answers answers;
} Records;

static volatile sig_atomic_t stop;

static void on_signal(int number) {
  (void)number;
  stop = 1;
}

/* Reads one datagram and answers it if it is a question. A bad datagram, or an answer that cannot be sent, is logged
 * and does not affect the next one. */
static void serve(MqServer* server, MQNode* node) {
  Records* const own = server->data;
  PcfMessage *const in = own->in, *const out = own->out;
  MqcParam text;
  SockAddrRec sender;
  const int got = mnRead(in, node);
  GetFromAddr(&node->sock, &sender);
  if (!got) {
    if (node->error != MQ_AGAIN) mq_server_say(server, "read from", &sender, mq_error_name(node->error));
    return;
  }
  if (mqc_command(in) != COMMAND_ASK || is_answer(in)) return;
  if (!mqc_find(in, PARAM_TEXT, &text) || text.type != MQC_TEXT) return;
  if (!may_answer(&own->answers, &sender, (long)(server->now / 1000), MOST_ANSWERS)) return;
  if (!mqc_begin(out, COMMAND_ANSWER) || !mqc_add_text(out, PARAM_TEXT, text.text) || !mark_answer(out)) return;
  if (!mnWriteTo(out, node, &sender)) mq_server_say(server, "write to", &sender, mq_error_name(node->error));
}

static int run(MqServer* server, MQNode* node) {
  if (!mq_server_add(server, node, 0)) return failed("bind", node);
  node->writeLimit = MOST_PENDING;
  if (!print_port(node)) return 0;
  while (!stop) {
    if (!mq_server_round(server, 1000)) return 0;
  }
  return 1;
}

int main(int argc, char** argv) {
  static Records own;
  MqServer server;
  const MqServerLimits limits = mq_server_limits();
  const MqServerEvents events = {.ready = serve};
  SockAddrRec addr;
  if (argc != 3 || !make_address(&addr, argv[1], argv[2], "udp")) {
    fprintf(stderr, "usage: datagram_server HOST SERVICE\n");
    return 2;
  }
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  own.in = mqc_message_new(0);
  own.out = mqc_message_new(0);
  MQNode* node = CreateUDPMQNode(&addr);
  set_name(node, "datagram_server");
  const int opened = mq_server_open(&server, &limits, &events, &own) && own.in != NULL && own.out != NULL;
  const int ok = opened ? run(&server, node) : failed("open", NULL);
  mq_server_close(&server);
  DeleteMQNode(node);
  mqc_message_free(own.out);
  mqc_message_free(own.in);
  return ok ? 0 : 1;
}
