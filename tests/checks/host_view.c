/* host_view.c - an application that is not position-independent has its own copies of the exported variables and its
 * own addresses of the exported functions: the library must use those, in both directions. */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "companion/host.h"
#include "mqnode/mqnode.h"

static int failures;
#define CHECK(condition) ((condition) ? (void)0 : (void)(fprintf(stderr, "not so: %s\n", #condition), ++failures))

static const char* node_point = "";
static const char* socket_point = "";
static void NodeTrace(const char* point, MQNode* node) { node_point = node != NULL ? point : ""; }
static void SocketTrace(const char* point, SockRec* rec) { socket_point = rec != NULL ? point : ""; }
static void OwnHandler(int number) { (void)number; }

int main(void) {
  SockAddrRec address = {.host = "127.0.0.1", .service = "9"};
  G_node_trace = NodeTrace;
  G_socket_trace = SocketTrace;
  MQNode* const node = CreateMQNode(&address, MQ_ROLE_CONNECT);
  if (node == NULL) return 2;
  CHECK(node->onTrace == NodeTrace && strcmp(node_point, "CreateMQNode") == 0);
  CHECK(node->sock.onTrace == SocketTrace && strncmp(socket_point, "CreateAny", 9) == 0);
  CHECK(node->opOpen == mnOpen && node->opRead == mnRead && node->opPost == mnPost);
  DeleteMQNode(node);

  mnGSetTraceCallBack(NULL);
  OnGSocketTrace(NULL);
  CHECK(G_node_trace == NULL && G_socket_trace == NULL);
  signal(SIGALRM, OwnHandler);
  enable_alarm(100);
  CHECK(pSavedAlarm == OwnHandler);
  pSavedAlarm = SIG_IGN;
  disable_alarm();
  CHECK(signal(SIGALRM, SIG_DFL) == SIG_IGN);
  SetApplName("host view");
  CHECK(strcmp(G_szApplName, "host view") == 0);
  return failures != 0;
}
