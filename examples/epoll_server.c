/* epoll_server.c - answers many clients in an epoll loop of its own, until it is killed.
 *   epoll_server HOST SERVICE
 * Service 0 lets the kernel choose a port, which is printed. This example only shows the calls: mqnode/server.h,
 * mqnode/uv.h and mqnode/asio.hpp also limit the time, the memory and the number of clients. */
#include <signal.h>
#include <sys/epoll.h>

#include "example.h"

enum { EVENTS = 64, ACCEPTS = 32 };

static int epoll;
static PcfMessage *in, *out;

/* Waits for space in the socket while answers are queued, else for a question: a client that does not read its
 * answers cannot ask more. */
static int watch(MQNode* node, int operation) {
  struct epoll_event event = {.events = mnIsPendingIO(node) ? EPOLLOUT : EPOLLIN, .data = {.ptr = node}};
  return epoll_ctl(epoll, operation, node->sock.fd, &event) == 0;
}

/* Accepts a bounded number of connections; epoll reports the remaining ones again. */
static void accept_some(MQNode* listener) {
  SockOption noLinger = {SOCK_OPT_LINGER, 0, 0};
  for (int i = 0; i < ACCEPTS && mnOpen(listener); ++i) {
    MQNode* const node = listener->child;
    if (node == NULL) return;                 /* out of memory */
    SetSocketOptions(&node->sock, &noLinger); /* the system sends what it has after DeleteMQNode, too */
    if (!NoblockSocket(&node->sock) || !watch(node, EPOLL_CTL_ADD)) DeleteMQNode(node);
  }
}

/* Reads one message. A node never reads beyond it, so epoll reports the next one. Returns 0 if the node must be
 * deleted. */
static int answer(MQNode* node) {
  MqcParam text;
  if (!mnRead(in, node)) return node->error == MQ_AGAIN;
  if (!mqc_find(in, PARAM_TEXT, &text) || text.type != MQC_TEXT) return 0;
  return mqc_begin(out, COMMAND_ANSWER) && mqc_add_text(out, PARAM_TEXT, text.text) && mnWrite(out, node);
}

static void serve(MQNode* node) {
  const int goes_on = mnIsPendingIO(node) ? mnFinishWrite(node) : answer(node);
  if (!goes_on || !watch(node, EPOLL_CTL_MOD)) DeleteMQNode(node); /* epoll forgets a descriptor that is closed */
}

static int run(MQNode* listener) {
  struct epoll_event events[EVENTS];
  if (IsNodeFailed(listener) || !NoblockSocket(&listener->sock) || !ListenSocket(&listener->sock, 1024) ||
      !watch(listener, EPOLL_CTL_ADD) || !print_port(listener)) {
    return failed("listen", listener);
  }
  for (;;) {
    const int count = epoll_wait(epoll, events, EVENTS, -1);
    for (int i = 0; i < count; ++i) {
      MQNode* const node = events[i].data.ptr;
      (node == listener ? accept_some : serve)(node);
    }
  }
}

int main(int argc, char** argv) {
  SockOption reuse = {SOCK_OPT_REUSEADDR, 0, 1};
  SockAddrRec addr;
  if (argc != 3 || !make_address(&addr, argv[1], argv[2], "tcp")) {
    fprintf(stderr, "usage: epoll_server HOST SERVICE\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  epoll = epoll_create1(EPOLL_CLOEXEC);
  in = mqc_message_new(0);
  out = mqc_message_new(0);
  MQNode* const listener = CreateMQNodeWithOpt(&addr, MQ_ROLE_LISTEN, &reuse);
  if (in != NULL && out != NULL) run(listener);
  DeleteMQNode(listener);
  mqc_message_free(out);
  mqc_message_free(in);
  return 1;
}
