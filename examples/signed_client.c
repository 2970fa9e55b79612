/* signed_client.c - send one signed text and print the answer, which is plain.
 *   signed_client HOST SERVICE KEYFILE TEXT */
#include <signal.h>

#include "example.h"

static int ask(MQNode* node, PcfMessage* msg, MqcSigner* signer, const char* text) {
  if (!mnOpen(node)) return failed("connect", node);
  if (!mqc_begin(msg, COMMAND_ASK) || !mqc_add_text(msg, PARAM_TEXT, text) || !mnSWrite(msg, node, 1, signer)) {
    if (node->error == MQ_NOT_SIGNED) fprintf(stderr, "not signed: %s\n", mqc_sign_error());
    return failed("write", node);
  }
  if (!mnRead(msg, node)) return failed("read", node);
  return print_answer(msg) && (mq_finish(node, FINISH_MSEC) || failed("finish", node));
}

int main(int argc, char** argv) {
  SockAddrRec addr;
  char error[256];
  if (argc != 5 || !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: signed_client HOST SERVICE KEYFILE TEXT\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);

  PcfMessage* msg = mqc_message_new(0);
  MQNode* node = CreateMQNode(&addr, MQ_ROLE_CONNECT);
  MqcSigner* signer = mqc_signer_load(argv[3], NULL, error, sizeof error);
  int ok = 0;
  set_name(node, "signed_client");
  if (signer == NULL) {
    fprintf(stderr, "%s\n", error);
  } else if (msg == NULL || IsNodeFailed(node)) {
    failed("create", node);
  } else {
    ok = ask(node, msg, signer, argv[4]);
  }
  mqc_signer_free(signer);
  DeleteMQNode(node);
  mqc_message_free(msg);
  return ok ? 0 : 1;
}
