/* examples.c - the examples of the manual pages. Lines that begin with // name what the code below them is an example
 * of: functions, or a header, for all its functions without an example of their own. The tests compile this file. */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "companion/host.h"
#include "mqnode/errors.h"
#include "mqnode/finish.h"
#include "mqnode/mqnode.h"
#include "mqnode/server.h"

// mqnode/create.h, CreateSocket, InitSocket
/* A node that is bound to any address and listens on port 4711. Address reuse lets a server restart at once. */
MQNode* listen_on_4711(void) {
  SockAddrRec addr = {.host = "*", .service = "4711", .protocol = "tcp"};
  SockOption reuse = {SOCK_OPT_REUSEADDR, 0, 1};
  MQNode* node = CreateMQNodeWithOpt(&addr, MQ_ROLE_LISTEN, &reuse);
  if (!IsNodeFailed(node)) return node;
  fprintf(stderr, "cannot listen: %s\n", mq_error_meaning(mq_node_cause(node, NULL)));
  DeleteMQNode(node);
  return NULL;
}

// mqnode/open.h, mqnode/node.h
/* Accepts a connection on a listening node. The caller deletes the result. */
MQNode* accept_one(MQNode* listener) {
  if (!mnOpen(listener)) return NULL; /* MQ_AGAIN: no connection is waiting */
  MQNode* child = listener->child;
  listener->child = NULL;
  if (child != NULL) NoblockSocket(&child->sock);
  return child;
}

// mqnode/compose.h, mqnode/mqnode.h, mqc_begin, mqc_add_int32, mqc_add_int64, mqc_add_text, mqc_add_bytes
/* Sends a message with command 7 and two parameters. */
int send_greeting(MQNode* node, PcfMessage* msg) {
  if (!mqc_begin(msg, 7) || !mqc_add_text(msg, 1, "hello") || !mqc_add_int32(msg, 2, -5)) {
    fprintf(stderr, "%s\n", mqc_message_error(msg));
    return 0;
  }
  return mnWrite(msg, node); /* 1 with node->error MQ_AGAIN: queued, mnFinishWrite sends it */
}

// mqnode/read.h, mqc_command, mqc_count, mqc_param, mqc_find, mqc_user, mqc_application, mqc_sender
/* Reads a message and prints its texts. */
int print_texts(MQNode* node, PcfMessage* msg) {
  MqcParam param;
  if (!mnRead(msg, node)) return 0; /* MQ_AGAIN: call again when more data has arrived */
  printf("command %u\n", (unsigned)mqc_command(msg));
  for (uint32_t i = 0; mqc_param(msg, i, &param); ++i) {
    if (param.type == MQC_TEXT) printf("%u: %s\n", (unsigned)param.id, param.text);
  }
  return 1;
}

// mqnode/deliver.h, mqnode/wait.h, socksin/wait.h
/* Serves some nodes until a wait fails: finishes their queued writes and reads their messages. */
void serve(MQNode** nodes, PcfMessage* msg) {
  MQNode *listening[64], *readable[64], *writable[64]; /* more entries than there are nodes */
  int status = 0;
  for (;;) {
    if (!mnNPost(nodes, listening, readable, writable, 10, &status)) {
      if (status == SOCK_WAIT_TIMEOUT || status == EINTR) continue;
      return;
    }
    for (MQNode** node = writable; *node != NULL; ++node) {
      if (!mnFinishWrite(*node)) mnClose(*node);
    }
    for (MQNode** node = readable; *node != NULL; ++node) {
      if (!(*node)->openState) continue;
      if (!mnRead(msg, *node) && (*node)->error != MQ_AGAIN) mnClose(*node); /* else msg is to be answered */
    }
  }
}

// mqnode/secure_read.h, mqc_ring_add, mqc_ring_load, mqc_ring_remove, mqc_ring_clear, mqc_ring_count, mqc_authenticate,
// mqc_authenticate_error, mqc_sealed
/* Reads a message that one of the users in a ring file has signed. */
int read_signed(MQNode* node, PcfMessage* msg) {
  char error[256], user[13];
  if (mqc_ring_count() == 0 && !mqc_ring_load("users.ring", error, sizeof error)) {
    fprintf(stderr, "%s\n", error);
    return 0;
  }
  if (!mnSRead(msg, node, 1, NULL)) {
    if (node->error == MQ_NOT_AUTHENTIC) fprintf(stderr, "refused: %s\n", mqc_authenticate_error());
    return 0;
  }
  mqc_sender(msg, user);
  printf("signed by %s\n", user);
  return 1;
}

// mnSWrite, mnSWriteTo, mnSWriteMsg, mnSWriteMsgWithPriority, mnSWriteAltUser, mnSWriteAltUserHigh, mqc_signer_load,
// mqc_signer_new, mqc_signer_free, mqc_signer_user, mqc_signer_public_key, mqc_signer_until, mqc_sign, mqc_sign_error
/* Sends a signed message. The user of the node must be the user of the key. */
int write_signed(MQNode* node, PcfMessage* msg) {
  char error[256];
  MqcSigner* signer = mqc_signer_load("alice.key", "alice", error, sizeof error);
  if (signer == NULL) {
    fprintf(stderr, "%s\n", error);
    return 0;
  }
  memset(node->user, 0, sizeof node->user);
  strcpy(node->user, mqc_signer_user(signer));
  const int sent = mqc_begin(msg, 7) && mnSWrite(msg, node, 1, signer);
  if (!sent && node->error == MQ_NOT_SIGNED) fprintf(stderr, "not signed: %s\n", mqc_sign_error());
  mqc_signer_free(signer);
  return sent;
}

// mqc_generate_key, mqc_key_text, mqc_key_write, mqc_secret_file_write, mqc_secret_file_write_until, mqc_wipe, MqcKey,
// mqc_key_read, mqc_key_from_text, mqc_is_public_key
/* Creates a secret key file, and prints the line for the ring of the receivers. */
int create_key(void) {
  uint8_t secret[MQC_KEY_BYTES];
  MqcKey ring = {.user = "alice", .kind = MQC_KEY_PUBLIC, .until = MQC_NO_END};
  char error[256], line[MQC_KEY_LINE];
  int ok = mqc_generate_key(secret, ring.key);
  ok = ok && mqc_secret_file_write("alice.key", "alice", secret, error, sizeof error);
  mqc_wipe(secret, sizeof secret);
  mqc_key_write(&ring, line);
  if (ok) puts(line);
  return ok;
}

// mqnode/finish.h, mnClose, mnClearPeningIO, DeleteMQNode
/* Ends a connection. DeleteMQNode alone would discard what the system has not sent yet. */
int end(MQNode* node) {
  const int taken = mq_finish(node, 5000);
  if (!taken) fprintf(stderr, "the last messages may be lost: %s\n", mq_error_meaning(node->error));
  DeleteMQNode(node);
  return taken;
}

// mqnode/errors.h, IsNodeFailed, SetMQNodeError, MqErrorInfo
/* Prints why the last operation on a node failed, and what to do. */
void explain(const char* operation, const MQNode* node) {
  unsigned place;
  const int code = mq_node_cause(node, &place);
  const MqErrorInfo* info = mq_error_find(code, place);
  if (info != NULL) fprintf(stderr, "%s: %s: %s; %s\n", operation, info->name, info->meaning, info->remedy);
}

// mqnode/server.h
/* Answers each message with the same message. */
static const char* answer(MqServer* server, MqServerClient* client, PcfMessage* msg) {
  (void)server;
  return mq_server_wrote(client, mnWrite(msg, client->node));
}

int run_server(MQNode* listener, const volatile sig_atomic_t* stop) {
  MqServer server;
  const MqServerLimits limits = mq_server_limits();
  const MqServerEvents events = {.message = answer};
  signal(SIGPIPE, SIG_IGN);
  int ok = mq_server_open(&server, &limits, &events, NULL) && mq_server_add(&server, listener, 0);
  while (ok && !*stop) ok = mq_server_round(&server, 1000);
  ok = ok && mq_server_end(&server, 2000);
  mq_server_close(&server);
  return ok;
}

// CreateUDPMQNode, CreateUDPMQNodeWithOpt, mnWriteTo
/* Sends a message in a datagram from a port that the system chooses. */
int send_datagram(PcfMessage* msg) {
  SockAddrRec here = {.host = "*", .service = "0", .protocol = "udp"};
  SockAddrRec there = {.host = "127.0.0.1", .service = "4711", .protocol = "udp"};
  MQNode* node = CreateUDPMQNode(&here);
  const int sent = !IsNodeFailed(node) && mqc_begin(msg, 7) && mnWriteTo(msg, node, &there);
  DeleteMQNode(node);
  return sent;
}

// RunTraceMethod, mnSetTraceCallBack, mnGSetTraceCallBack, G_node_trace, MQNodeTraceFn
/* Prints the trace points of all nodes that are created from now on. */
static void trace(const char* point, MQNode* node) { fprintf(stderr, "%s: error %d\n", point, (int)node->error); }

void trace_all(void) { mnGSetTraceCallBack(trace); }

// mqnode/identity.h
/* Sets the application name in the messages of a node, instead of a name found by TEVRA_HOME. */
void name_program(MQNode* node) {
  memset(node->applName, 0, sizeof node->applName);
  memcpy(node->applName, "PAYROLL", 7);
}

// queue/queue.h
/* Prints and removes all items of a queue of texts. */
void print_all(Queue* queue) {
  for (const char* text; (text = (const char*)Qget(queue)) != NULL;) puts(text);
}

// mqc_memory, mqc_memory_tag, mqc_allocations, MqcMemory
/* Prints the memory that the companion has allocated under each tag. */
void print_memory(void) {
  MqcMemory memory;
  const char* tag;
  for (uint32_t i = 0; (tag = mqc_memory_tag(i)) != NULL; ++i) {
    mqc_memory(tag, &memory);
    printf("%-12s %llu blocks, %llu bytes\n", tag, (unsigned long long)memory.live_blocks,
           (unsigned long long)memory.live_bytes);
  }
}

// mqc_message_new, mqc_message_free, mqc_message_init, mqc_message_release, mqc_message_error, PcfMessage
/* Uses a record for two messages, one after the other. */
int send_two(MQNode* node) {
  PcfMessage* msg = mqc_message_new(0);
  int ok = msg != NULL && mqc_begin(msg, 1) && mnWrite(msg, node);
  ok = ok && mqc_begin(msg, 2) && mnWrite(msg, node);
  mqc_message_free(msg);
  return ok;
}

// runtime/buffer.h, socksin/transfer.h
/* Receives what has arrived on a socket, at most 4096 bytes, and sends it back. */
int echo(SockRec* sock) {
  IoBuffer buffer = {0};
  CreateBuffer(&buffer, 4096);
  int ok = buffer.data != NULL && ReadSocket(sock, &buffer);
  buffer.length = buffer.received;
  while (ok && buffer.sent < buffer.length) ok = WriteSocket(sock, &buffer, NULL);
  DeleteBuffer(&buffer);
  return ok;
}

// socksin/record.h, socksin/connect.h
/* Connects a TCP socket. */
int connect_to(SockRec* sock, SockAddrRec* target) {
  if (CreateSocket(sock) && ConnectSocket(sock, target)) return 1;
  fprintf(stderr, "cannot connect: %s\n", mq_error_meaning(sock->error));
  DeleteSocket(sock);
  return 0;
}

// socksin/options.h
/* Switches keep-alive on, and Nagle's algorithm off. */
int set_options(SockRec* sock) {
  SockOption keep_alive = {SOCK_OPT_KEEPALIVE, 0, 1};
  return SetSocketOptions(sock, &keep_alive) && SetTcpNoDelay(sock, 1);
}

// socksin/resolve.h, sockutil/sockutil.h
/* Prints the address of a host. */
void print_address(const char* host) {
  char ip[16];
  puts(ResolveHostName(host, ip) ? ip : "unknown host");
}

// socksin/sysinfo.h
/* Prints a label of the system. */
void print_system(void) {
  struct utsname info;
  char label[256] = "";
  if (!GetSysInfo(&info)) return;
  GetSysLabel(&info, label, sizeof label, 1);
  printf("%s%d processors\n", label, GetProcessorCount());
}

// socksin/alarm.h
/* Logs a warning if a read takes longer than ten seconds. */
int guarded_read(PcfMessage* msg, MQNode* node) {
  enable_alarm(10);
  const int read = mnRead(msg, node);
  disable_alarm();
  return read;
}

// mqc_set_window, mqc_set_replay_limit, mqc_refuse_before, mqc_reset_replay, mqc_set_clock
/* At the start of a receiver whose senders' clocks are ahead by at most two seconds: refuses earlier messages. */
void start_receiver(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  mqc_set_window(60);
  mqc_refuse_before((int64_t)now.tv_sec * 1000 + 2000);
}

// runtime/runtime.h, runtime/message.h, SizePcfMessage
/* Queues a copy of a message, like a write that cannot complete. */
int queue_bytes(MQNode* node, const PcfRawData* raw) {
  void* place;
  if (node->pending == NULL || !fNewMemory(&place, sizeof(IoBuffer), "MQNODE")) return 0;
  IoBuffer* desc = (IoBuffer*)place;
  CreateBuffer(desc, raw->length);
  if (desc->data == NULL) {
    FreeMemory(desc);
    return 0;
  }
  memcpy(desc->data, raw->data, raw->length);
  Qput(node->pending, desc);
  return 1;
}

// GetUserName, strip_spaces, strupper, trim_str
/* Gets the login name in upper case. */
int get_login(char* name, int size) {
  if (!GetUserName(name, &size)) return 0;
  strupper(name);
  return 1;
}

// mqc_log_to, mqc_header_error, LOGMSG
/* Writes a line to a log of the application. */
int log_start(void) {
  if (!mqc_log_to("/var/log/application.log")) return 0;
  LOGMSG("0001I started", 1);
  return 1;
}

// mqc_fail_allocation
/* Repeats a scenario, each time with its 1st, 2nd, 3rd ... allocation failing. Returns their number. */
uint64_t fail_in_turn(int (*scenario)(void)) {
  for (uint64_t nth = 1;; ++nth) {
    const uint64_t before = mqc_allocations();
    mqc_fail_allocation(nth, 0);
    scenario();
    mqc_fail_allocation(0, 0);
    if (mqc_allocations() - before < nth) return nth - 1;
  }
}
