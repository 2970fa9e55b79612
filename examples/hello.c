/* hello.c - a whole host: sends a question to a node of this machine and prints the answer.
 *   hello [PORT] */
#include <signal.h>
#include <stdio.h>

#include "companion/host.h"
#include "mqnode/errors.h"
#include "mqnode/mqnode.h"

int main(int argc, char** argv) {
  SockAddrRec there = {.host = "127.0.0.1", .service = "4711", .protocol = "tcp"};
  if (argc > 1) snprintf(there.service, sizeof there.service, "%s", argv[1]);
  signal(SIGPIPE, SIG_IGN);

  PcfMessage* msg = mqc_message_new(0);
  MQNode* node = CreateMQNode(&there, MQ_ROLE_CONNECT);
  MqcParam answer;
  int ok = msg != NULL && !IsNodeFailed(node) && mnOpen(node);
  ok = ok && mqc_begin(msg, 1) && mqc_add_text(msg, 1, "how is the weather?") && mnWrite(msg, node);
  ok = ok && mnRead(msg, node) && mqc_find(msg, 1, &answer) && answer.type == MQC_TEXT;
  if (ok) {
    puts(answer.text);
  } else {
    fprintf(stderr, "no answer: %s\n", mq_error_meaning(mq_node_cause(node, NULL)));
  }
  DeleteMQNode(node);
  mqc_message_free(msg);
  return ok ? 0 : 1;
}
