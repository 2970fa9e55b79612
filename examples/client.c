/* client.c - send one text and print the answer.
 *   client HOST SERVICE TEXT */
#include <signal.h>

#include "example.h"

static int ask(MQNode* node, PcfMessage* msg, const char* text) {
  if (!mnOpen(node)) return failed("connect", node);
  if (!mqc_begin(msg, COMMAND_ASK) || !mqc_add_text(msg, PARAM_TEXT, text) || !mnWrite(msg, node)) {
    return failed("write", node);
  }
  if (!mnRead(msg, node)) return failed("read", node);
  return print_answer(msg) && (mq_finish(node, FINISH_MSEC) || failed("finish", node));
}

int main(int argc, char** argv) {
  SockAddrRec addr;
  if (argc != 4 || !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: client HOST SERVICE TEXT\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);

  PcfMessage* msg = mqc_message_new(0);
  MQNode* node = CreateMQNode(&addr, MQ_ROLE_CONNECT);
  set_name(node, "client");
  const int ok = msg != NULL && !IsNodeFailed(node) ? ask(node, msg, argv[3]) : failed("create", node);
  DeleteMQNode(node);
  mqc_message_free(msg);
  return ok ? 0 : 1;
}
