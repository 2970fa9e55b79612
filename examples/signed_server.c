/* signed_server.c - accept one client and answer the messages that a user of the ring has signed.
 *   signed_server HOST SERVICE RINGFILE
 * Service 0 lets the kernel choose a port, which is printed. */
#include <signal.h>

#include "example.h"

static int serve(MQNode* node, PcfMessage* in, PcfMessage* out) {
  while (mnSRead(in, node, 1, NULL)) {
    MqcParam text;
    char sender[13];
    mqc_sender(in, sender); /* the user whose key signed the message */
    if (!mqc_find(in, PARAM_TEXT, &text) || text.type != MQC_TEXT) return 0;
    printf("%s: %s\n", sender, text.text);
    if (!mqc_begin(out, COMMAND_ANSWER) || !mqc_add_text(out, PARAM_TEXT, text.text) || !mnWrite(out, node)) {
      return failed("write", node);
    }
  }
  if (node->error == MQ_NOT_AUTHENTIC) fprintf(stderr, "refused: %s\n", mqc_authenticate_error());
  if (!peer_has_gone(node)) return failed("read", node);
  mq_finish(node, FINISH_MSEC);
  return 1;
}

int main(int argc, char** argv) {
  SockAddrRec addr;
  char error[256];
  if (argc != 4 || !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: signed_server HOST SERVICE RINGFILE\n");
    return 2;
  }
  if (!mqc_ring_load(argv[3], error, sizeof error)) {
    fprintf(stderr, "%s\n", error);
    return 1;
  }
  signal(SIGPIPE, SIG_IGN);

  PcfMessage* in = mqc_message_new(0);
  PcfMessage* out = mqc_message_new(0);
  MQNode* listener = CreateMQNode(&addr, MQ_ROLE_LISTEN);
  MQNode* client = NULL;
  set_name(listener, "signed_server");
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
  mqc_ring_clear();
  return ok ? 0 : 1;
}
