/* hello.c - ask a node on this machine a question and print the answer.
 *   hello [PORT] */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "companion/host.h"
#include "mqnode/errors.h"
#include "mqnode/finish.h"
#include "mqnode/mqnode.h"

int main(int argc, char** argv) {
  SockAddrRec addr = {.host = "127.0.0.1", .service = "4711", .protocol = "tcp"};
  if (argc > 1) snprintf(addr.service, sizeof addr.service, "%s", argv[1]);
  signal(SIGPIPE, SIG_IGN);

  MQNode* node = CreateMQNode(&addr, MQ_ROLE_CONNECT);
  PcfMessage* msg = mqc_message_new(0);
  MqcParam answer;
  int ok = msg != NULL && !IsNodeFailed(node);
  if (ok) strncpy(node->applName, "hello", sizeof node->applName);
  ok = ok && mnOpen(node);
  ok = ok && mqc_begin(msg, 1) && mqc_add_text(msg, 1, "how is the weather?") && mnWrite(msg, node);
  ok = ok && mnRead(msg, node) && mqc_find(msg, 1, &answer) && answer.type == MQC_TEXT;
  ok = ok && mq_finish(node, 5000);
  if (ok) {
    puts(answer.text);
  } else {
    fprintf(stderr, "no answer: %s\n", mq_error_meaning(mq_node_cause(node, NULL)));
  }
  DeleteMQNode(node);
  mqc_message_free(msg);
  return ok ? 0 : 1;
}
