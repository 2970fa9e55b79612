/* multi_server.c - answer many clients in one loop until SIGINT or SIGTERM.
 *   multi_server HOST SERVICE [CLIENTS [SECONDS]]
 * Service 0 lets the kernel choose a port, which is printed. CLIENTS limits how many are connected at a time, SECONDS
 * the time without progress within a message. mqnode/server.h documents the other limits. Dropped clients are logged on
 * standard error. */
#include "mqnode/server.h"

#include <signal.h>
#include <stdlib.h>

#include "example.h"

static volatile sig_atomic_t stop;

static void on_signal(int number) {
  (void)number;
  stop = 1;
}

/* Answers one message. Returns null, or the reason to drop the client. */
static const char* answer(MqServer* server, MqServerClient* client, PcfMessage* in) {
  PcfMessage* const out = server->data;
  MqcParam text;
  if (!mqc_find(in, PARAM_TEXT, &text) || text.type != MQC_TEXT) return "the message has no text";
  if (!mqc_begin(out, COMMAND_ANSWER) || !mqc_add_text(out, PARAM_TEXT, text.text)) return "no memory";
  return mq_server_wrote(client, mnWrite(out, client->node));
}

static int run(MqServer* server, MQNode* listener) {
  if (!mq_server_add(server, listener, 0) || !print_port(listener)) return failed("listen", listener);
  int ok = 1;
  while (ok && !stop) ok = mq_server_round(server, 1000);
  if (!ok) fprintf(stderr, "wait: %s\n", mq_error_name(server->status));
  mq_server_end(server, 2000);
  return ok;
}

int main(int argc, char** argv) {
  MqServer server;
  MqServerLimits limits = mq_server_limits();
  const MqServerEvents events = {.message = answer};
  SockOption reuse = {SOCK_OPT_REUSEADDR, 0, 1};
  SockAddrRec addr;
  if (argc > 3) limits.clients = (int)strtol(argv[3], NULL, 10);
  if (argc > 4) limits.midwayMsec = (int)strtol(argv[4], NULL, 10) * 1000;
  if (argc < 3 || argc > 5 || limits.clients < 1 || limits.clients > 1000 || limits.midwayMsec < 2000 ||
      !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: multi_server HOST SERVICE [CLIENTS [SECONDS]]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  PcfMessage* out = mqc_message_new(0);
  MQNode* listener = CreateMQNodeWithOpt(&addr, MQ_ROLE_LISTEN, &reuse);
  set_name(listener, "multi_server");
  const int opened = mq_server_open(&server, &limits, &events, out) && out != NULL;
  const int ok = opened ? run(&server, listener) : failed("open", NULL);
  mq_server_close(&server);
  DeleteMQNode(listener);
  mqc_message_free(out);
  return ok ? 0 : 1;
}
