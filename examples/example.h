/* example.h - what the examples share: filling an address, telling of a failure, printing a port and an answer. */
#ifndef MQNODE_EXAMPLES_EXAMPLE_H
#define MQNODE_EXAMPLES_EXAMPLE_H

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "companion/host.h"
#include "mqnode/errors.h"
#include "mqnode/mqnode.h"

/* What the two sides agree on: the command of a question, of an answer, and the parameter that holds the text. */
enum { COMMAND_ASK = 1, COMMAND_ANSWER = 2, PARAM_TEXT = 1 };

/* Fills an address. 1; 0 when a text does not fit its field. */
static inline int make_address(SockAddrRec* addr, const char* host, const char* service, const char* protocol) {
  memset(addr, 0, sizeof *addr);
  if (strlen(host) < sizeof addr->host && strlen(service) < sizeof addr->service) {
    strcpy(addr->host, host);
    strcpy(addr->service, service);
    strcpy(addr->protocol, protocol);
    return 1;
  }
  fprintf(stderr, "host or service is too long\n");
  return 0;
}

/* Says which operation failed and why. Always 0, so that a caller can fail and tell in one line. When the node has no
 * part in it, there was no memory for a message record, a parameter or an accepted node. */
static inline int failed(const char* what, const MQNode* node) {
  const int cause = mq_node_cause(node, NULL);
  const int code = cause != MQ_OK ? cause : ENOMEM;
  fprintf(stderr, "%s: %s: %s; %s\n", what, mq_error_name(code), mq_error_meaning(code), mq_error_remedy(code));
  return 0;
}

/* Prints the text of an answer. 1; 0 when the message is none, or cannot be printed. */
static inline int print_answer(const PcfMessage* msg) {
  MqcParam answer;
  if (mqc_command(msg) != COMMAND_ANSWER || !mqc_find(msg, PARAM_TEXT, &answer) || answer.type != MQC_TEXT) {
    fprintf(stderr, "not an answer\n");
    return 0;
  }
  return printf("%s\n", answer.text) > 0 && fflush(stdout) == 0;
}

/* Prints the port that a node is bound to; the kernel picks one for service 0. 1; 0 when it cannot be told. */
static inline int print_port(const MQNode* node) {
  struct sockaddr_in bound;
  socklen_t size = sizeof bound;
  if (getsockname(node->sock.fd, (struct sockaddr*)&bound, &size) != 0) return 0;
  return printf("%d\n", ntohs(bound.sin_port)) > 0 && fflush(stdout) == 0;
}

/* Whether a read failed because the peer has ended the conversation: it shut down (9004) or closed (ECONNRESET). */
static inline int peer_has_gone(const MQNode* node) {
  return node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET;
}

#endif
