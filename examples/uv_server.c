/* uv_server.c - answers many clients in a libuv loop, until SIGINT or SIGTERM.
 *   uv_server HOST SERVICE [CLIENTS [SECONDS]]
 * Service 0 lets the kernel choose a port, which is printed. CLIENTS limits how many are connected at a time, SECONDS
 * the time without progress within a message. mqnode/limits.h documents the other limits. Dropped clients are logged on
 * standard error. */
#include "mqnode/uv.h"

#include <signal.h>
#include <stdlib.h>

#include "example.h"

static PcfMessage* out;

/* At most ten lines a second, so that clients cannot fill the disk. */
static void log_line(const char* what, const MqUvNode* node, const char* why) {
  static uint64_t second, lines;
  const uint64_t now = uv_hrtime() / 1000000000;
  const SockAddrRec* const peer = &mq_uv_node(node)->sock.name;
  if (now != second) lines = 0;
  second = now;
  if (++lines <= 10) fprintf(stderr, "%s %s:%u: %s\n", what, peer->ip, (unsigned)peer->port, why);
}

static void answer(MqUvNode* node, PcfMessage* in) {
  MqcParam text;
  if (!mqc_find(in, PARAM_TEXT, &text) || text.type != MQC_TEXT) {
    log_line("dropped", node, "its question has no text");
    mq_uv_stop(node);
  } else if (!mqc_begin(out, COMMAND_ANSWER) || !mqc_add_text(out, PARAM_TEXT, text.text) ||
             !mq_uv_write(node, out, NULL, NULL)) {
    mq_uv_stop(node); /* an answer that is missing would leave its client waiting */
  }
}

static void lost(MqUvNode* node, int code) { log_line("cannot accept on", node, mq_error_name(code)); }

static void ended(MqUvNode* node, int code, const char* why) {
  (void)code;
  if (why != NULL) log_line("dropped", node, why);
}

static const MqUvEvents events = {.on_message = answer, .on_lost = lost, .on_end = ended};

static uv_signal_t signals[2];

/* Ends the loop, which runs only while it has handles. */
static void on_signal(uv_signal_t* handle, int number) {
  (void)number;
  mq_uv_finish(handle->data);
  for (int i = 0; i < 2; ++i) uv_close((uv_handle_t*)&signals[i], NULL);
}

/* Takes ownership of the listening node. */
static int serve(uv_loop_t* loop, MQNode* listener, const MqLoopLimits* limits) {
  MqUv* const uv = mq_uv_new(loop, limits);
  if (uv == NULL || IsNodeFailed(listener) || mq_uv_start(uv, listener, 0, &events, NULL) == NULL) {
    failed("listen", listener);
    DeleteMQNode(listener);
    mq_uv_free(uv);
    return 0;
  }
  const int ok = print_port(listener);
  for (int i = 0; ok && i < 2; ++i) {
    uv_signal_init(loop, &signals[i]);
    signals[i].data = uv;
    uv_signal_start(&signals[i], on_signal, i == 0 ? SIGINT : SIGTERM);
  }
  if (!ok) mq_uv_free(uv);
  return ok;
}

int main(int argc, char** argv) {
  MqLoopLimits limits = mq_loop_limits();
  SockOption reuse = {SOCK_OPT_REUSEADDR, 0, 1};
  SockAddrRec addr;
  limits.endMsec = 2000;
  if (argc > 3) limits.nodes = (int)strtol(argv[3], NULL, 10);
  if (argc > 4) limits.firstMsec = limits.midwayMsec = (int)strtol(argv[4], NULL, 10) * 1000;
  if (argc < 3 || argc > 5 || limits.nodes < 1 || limits.midwayMsec < 1 ||
      !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: uv_server HOST SERVICE [CLIENTS [SECONDS]]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  out = mqc_message_new(0);
  const int ok = out != NULL && serve(uv_default_loop(), CreateMQNodeWithOpt(&addr, MQ_ROLE_LISTEN, &reuse), &limits);
  uv_run(uv_default_loop(), UV_RUN_DEFAULT);
  uv_loop_close(uv_default_loop());
  mqc_message_free(out);
  return ok ? 0 : 1;
}
