/* host_view.c - what a host that is no position-independent program sees. Such a program has its own copies of the
 * exported globals and its own addresses of the exported functions; the library must use those. */
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "companion/host.h"
#include "mqnode/mqnode.h"

static int failures;

static void Check(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "host_view: %s\n", what);
  ++failures;
}

static const char* node_point = "";
static const char* socket_point = "";
static void NodeTrace(const char* point, MQNode* node) {
  (void)node;
  node_point = point;
}
static void SocketTrace(const char* point, SockRec* rec) {
  (void)rec;
  socket_point = point;
}
static void OwnHandler(int number) { (void)number; }

int main(void) {
  SockAddrRec address;
  memset(&address, 0, sizeof address);
  strcpy(address.host, "127.0.0.1");
  strcpy(address.service, "9");

  G_node_trace = NodeTrace;
  G_socket_trace = SocketTrace;
  MQNode* const node = CreateMQNode(&address, MQ_ROLE_CONNECT);
  if (node == NULL) return 2;
  Check(node->onTrace == NodeTrace && strcmp(node_point, "CreateMQNode") == 0,
        "the library does not read G_node_trace");
  Check(node->sock.onTrace == SocketTrace && strncmp(socket_point, "CreateAny", 9) == 0,
        "the library does not read G_socket_trace");
  Check(node->opOpen == mnOpen, "opOpen is not mnOpen");
  Check(node->opClose == mnClose, "opClose is not mnClose");
  Check(node->opRead == mnRead, "opRead is not mnRead");
  Check(node->opBrowse == mnBrowse, "opBrowse is not mnBrowse");
  Check(node->opWrite == mnWrite, "opWrite is not mnWrite");
  Check(node->opPost == mnPost, "opPost is not mnPost");

  /* The library writes through the same place as the host reads. */
  mnGSetTraceCallBack(NULL);
  OnGSocketTrace(NULL);
  Check(G_node_trace == NULL && G_socket_trace == NULL, "the library sets its own copies of the trace globals");
  signal(SIGALRM, OwnHandler);
  enable_alarm(100);
  Check(pSavedAlarm == OwnHandler, "the library sets its own copy of pSavedAlarm");
  pSavedAlarm = SIG_IGN;
  disable_alarm();
  Check(signal(SIGALRM, SIG_DFL) == SIG_IGN, "the library does not read pSavedAlarm");
  SetApplName("host view");
  Check(strcmp(G_szApplName, "host view") == 0, "the library sets its own copy of G_szApplName");

  DeleteMQNode(node);
  MqcMemory memory;
  mqc_memory(NULL, &memory);
  Check(memory.live_blocks == 0, "memory of the companion is still in use");
  return failures != 0;
}
