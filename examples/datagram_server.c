/* datagram_server.c - answers datagrams until SIGINT or SIGTERM.
 *   datagram_server HOST SERVICE      service 0 lets the kernel pick. The port is printed. */
#include <signal.h>

#include "example.h"

static volatile sig_atomic_t stop;

static void on_signal(int number) {
  (void)number;
  stop = 1;
}

/* Answers one datagram. A bad one, or an answer that cannot be sent, concerns nobody but its sender. */
static void serve(MQNode* node, PcfMessage* in, PcfMessage* out) {
  if (!mnRead(in, node)) {
    failed("read", node);
    return;
  }
  MqcParam text;
  SockAddrRec sender;
  GetFromAddr(&node->sock, &sender);
  if (!mqc_find(in, PARAM_TEXT, &text) || text.type != MQC_TEXT) return;
  if (!mqc_begin(out, COMMAND_ANSWER) || !mqc_add_text(out, PARAM_TEXT, text.text) || !mnWriteTo(out, node, &sender)) {
    failed("write", node);
  }
}

static int run(MQNode* node, PcfMessage* in, PcfMessage* out) {
  MQNode* nodes[] = {node, NULL};
  MQNode *listening[2], *readable[2];
  int status;
  while (!stop) {
    if (mnPost(nodes, listening, readable, 1, &status)) {
      if (readable[0] != NULL) serve(node, in, out);
    } else if (status != SOCK_WAIT_TIMEOUT && status != EINTR) {
      return 0;
    }
  }
  return 1;
}

int main(int argc, char** argv) {
  SockAddrRec addr;
  if (argc != 3 || !make_address(&addr, argv[1], argv[2], "udp")) {
    fprintf(stderr, "usage: datagram_server HOST SERVICE\n");
    return 2;
  }
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);

  PcfMessage* in = mqc_message_new(0);
  PcfMessage* out = mqc_message_new(0);
  MQNode* node = CreateUDPMQNode(&addr);
  int ok = 0;
  if (in == NULL || out == NULL || IsNodeFailed(node)) {
    failed("bind", node);
  } else {
    ok = NoblockSocket(&node->sock) && print_port(node) && run(node, in, out);
  }
  DeleteMQNode(node);
  mqc_message_free(out);
  mqc_message_free(in);
  return ok ? 0 : 1;
}
