/* datagram_client.c - send a text in a datagram and print the answer. As datagrams may be lost, it asks up to three
 * times.
 *   datagram_client HOST SERVICE TEXT */
#include "example.h"

enum { TRIES = 3, WAIT_SECONDS = 1 };

/* Waits for one datagram and reads it. Returns 0 if none arrived or it is not a message. */
static int receive(MQNode* node, PcfMessage* msg) {
  MQNode* nodes[] = {node, NULL};
  MQNode *listening[2], *readable[2];
  int status;
  return mnPost(nodes, listening, readable, WAIT_SECONDS, &status) && readable[0] != NULL && mnRead(msg, node);
}

static int ask(MQNode* node, SockAddrRec* server, PcfMessage* msg, const char* text) {
  for (int i = 0; i < TRIES; ++i) {
    if (!mqc_begin(msg, COMMAND_ASK) || !mqc_add_text(msg, PARAM_TEXT, text) || !mnWriteTo(msg, node, server)) {
      return failed("write", node);
    }
    if (receive(node, msg)) return print_answer(msg);
  }
  fprintf(stderr, "no answer\n");
  return 0;
}

int main(int argc, char** argv) {
  SockAddrRec server, here;
  if (argc != 4 || !make_address(&server, argv[1], argv[2], "udp") || !make_address(&here, "*", "0", "udp")) {
    fprintf(stderr, "usage: datagram_client HOST SERVICE TEXT\n");
    return 2;
  }
  PcfMessage* msg = mqc_message_new(0);
  MQNode* node = CreateUDPMQNode(&here);
  set_name(node, "datagram_client");
  const int ok = msg != NULL && !IsNodeFailed(node) ? ask(node, &server, msg, argv[3]) : failed("bind", node);
  DeleteMQNode(node);
  mqc_message_free(msg);
  return ok ? 0 : 1;
}
