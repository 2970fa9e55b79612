/* uv_client.c - keeps a connection to a server in a libuv loop. It asks the same question repeatedly, which serves as a
 * heartbeat: if the server does not answer in time, the client disconnects. It reconnects after each loss, with
 * growing, randomised pauses, so that clients do not all return at once.
 *   uv_client HOST SERVICE TEXT [COUNT [MSEC]]
 * HOST is an IP address: a name lookup would block the loop. COUNT: number of answers after which it ends (3). MSEC:
 * time limit for an answer, and the pause between an answer and the next question, in milliseconds (1000). */
#include "mqnode/uv.h"

#include <signal.h>
#include <stdlib.h>

#include "example.h"

enum { FIRST_PAUSE_MSEC = 100, LAST_PAUSE_MSEC = 30000 };

typedef struct Client {
  MqUv* uv;
  MqUvNode* node; /* null when there is no connection */
  uv_timer_t timer;
  SockAddrRec addr;
  const char* text;
  PcfMessage* out;
  long count; /* answers still to receive */
  int msec;
  int asked; /* a question has no answer yet */
  int pause; /* milliseconds until the next connect, at most */
} Client;

/* Called when what the client waits for has not arrived in time. */
static void on_timeout(uv_timer_t* timer);

static void wait_for(Client* client, int msec) { uv_timer_start(&client->timer, on_timeout, (uint64_t)msec, 0); }

/* Connects again after a random time between half of the pause and all of it. */
static void reconnect(Client* client) {
  wait_for(client, client->pause / 2 + rand() % (client->pause / 2));
  client->pause = client->pause * 2 < LAST_PAUSE_MSEC ? client->pause * 2 : LAST_PAUSE_MSEC;
}

static void ask(Client* client) {
  const int built = mqc_begin(client->out, COMMAND_ASK) && mqc_add_text(client->out, PARAM_TEXT, client->text);
  if (!built || !mq_uv_write(client->node, client->out, NULL, NULL)) mq_uv_stop(client->node);
  client->asked = 1;
  wait_for(client, client->msec);
}

static void on_open(MqUvNode* node) { ask(mq_uv_data(node)); }

static void on_message(MqUvNode* node, PcfMessage* msg) {
  Client* const client = mq_uv_data(node);
  if (!client->asked || !print_answer(msg)) {
    mq_uv_stop(node);
    return;
  }
  client->asked = 0;
  client->pause = FIRST_PAUSE_MSEC; /* reset only here: a server may accept and close again */
  if (--client->count > 0) {
    wait_for(client, client->msec);
  } else {
    mq_uv_finish(client->uv);
    uv_close((uv_handle_t*)&client->timer, NULL);
  }
}

static void on_end(MqUvNode* node, int code, const char* why) {
  Client* const client = mq_uv_data(node);
  if (client->count == 0) return;
  fprintf(stderr, "lost: %s\n", why != NULL ? why : mq_error_name(code));
  client->node = NULL;
  reconnect(client);
}

static const MqUvEvents events = {.on_open = on_open, .on_message = on_message, .on_end = on_end};

static void connect_now(Client* client) {
  MQNode* const node = CreateMQNode(&client->addr, MQ_ROLE_CONNECT);
  client->asked = 0;
  client->node = IsNodeFailed(node) ? NULL : mq_uv_connect(client->uv, node, 0, &events, client);
  if (client->node != NULL) return;
  failed("connect", node);
  DeleteMQNode(node);
  reconnect(client);
}

static void on_timeout(uv_timer_t* timer) {
  Client* const client = timer->data;
  if (client->node == NULL) {
    connect_now(client);
  } else if (!client->asked) {
    ask(client);
  } else {
    fprintf(stderr, "no answer within %d ms\n", client->msec);
    mq_uv_stop(client->node); /* on_end follows */
  }
}

int main(int argc, char** argv) {
  Client client = {.count = 3, .msec = 1000, .pause = FIRST_PAUSE_MSEC};
  uv_loop_t* const loop = uv_default_loop();
  if (argc > 4) client.count = strtol(argv[4], NULL, 10);
  if (argc > 5) client.msec = (int)strtol(argv[5], NULL, 10);
  if (argc < 4 || argc > 6 || client.count < 1 || client.msec < 1 ||
      !make_address(&client.addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: uv_client HOST SERVICE TEXT [COUNT [MSEC]]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  srand((unsigned)uv_hrtime());
  client.text = argv[3];
  client.uv = mq_uv_new(loop, NULL);
  client.out = mqc_message_new(0);
  if (client.uv == NULL || client.out == NULL) return !failed("create", NULL);
  uv_timer_init(loop, &client.timer);
  client.timer.data = &client;
  connect_now(&client);
  uv_run(loop, UV_RUN_DEFAULT);
  uv_loop_close(loop);
  mqc_message_free(client.out);
  return 0;
}
