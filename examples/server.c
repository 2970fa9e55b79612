/* server.c - accept one client, answer its messages, and exit when it closes the connection.
 *   server HOST SERVICE
 * Host "*" listens on every address. Service 0 lets the kernel choose a port, which is printed. */
#include <signal.h>

#include "example.h"

static int answer(MQNode* node, const PcfMessage* question, PcfMessage* msg) {
  MqcParam text;
  if (!mqc_find(question, PARAM_TEXT, &text) || text.type != MQC_TEXT) {
    fprintf(stderr, "the message has no text\n");
    return 0;
  }
  printf("%s\n", text.text);
  return (mqc_begin(msg, COMMAND_ANSWER) && mqc_add_text(msg, PARAM_TEXT, text.text) && mnWrite(msg, node)) ||
         failed("write", node);
}

static int serve(MQNode* node, PcfMessage* in, PcfMessage* out) {
  while (mnRead(in, node)) {
    if (!answer(node, in, out)) return 0;
  }
  if (!peer_has_gone(node)) return failed("read", node);
  mq_finish(node, FINISH_MSEC); /* the client may still be receiving the last answer */
  return 1;
}

int main(int argc, char** argv) {
  SockAddrRec addr;
  if (argc != 3 || !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: server HOST SERVICE\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);

  PcfMessage* in = mqc_message_new(0);
  PcfMessage* out = mqc_message_new(0);
  MQNode* listener = CreateMQNode(&addr, MQ_ROLE_LISTEN);
  MQNode* client = NULL;
  set_name(listener, "server");
  int ok = 0;
  if (in == NULL || out == NULL || IsNodeFailed(listener)) {
    failed("listen", listener);
  } else if (print_port(listener) && mnOpen(listener) && listener->child != NULL) {
    client = listener->child;
    ok = serve(client, in, out);
  } else {
    failed("accept", listener);
  }
  DeleteMQNode(client);
  DeleteMQNode(listener);
  mqc_message_free(out);
  mqc_message_free(in);
  return ok ? 0 : 1;
}
