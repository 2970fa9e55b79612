/* example.h - what the examples share: addresses, names, error messages, and printing a port or an answer. */
#ifndef MQNODE_EXAMPLES_EXAMPLE_H
#define MQNODE_EXAMPLES_EXAMPLE_H

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "companion/host.h"
#include "mqnode/errors.h"
#include "mqnode/finish.h"
#include "mqnode/mqnode.h"

/* The protocol of the examples: the commands of a question and an answer, and the id of the text in both. */
enum { COMMAND_ASK = 1, COMMAND_ANSWER = 2, PARAM_TEXT = 1 };

enum { FINISH_MSEC = 5000 }; /* time-out of mq_finish */

/* Fills an address. Returns 1, or 0 if host or service is too long for its field. */
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

/* Names the program in the messages that a node sends. strncpy pads the field with zero bytes, as required. */
static inline void set_name(MQNode* node, const char* name) {
  if (node != NULL) strncpy(node->applName, name, sizeof node->applName);
}

/* Prints which operation failed and why, and returns 0. If the node reports no error, there was no memory for a message
 * record, a parameter or an accepted node. */
static inline int failed(const char* what, const MQNode* node) {
  const int cause = mq_node_cause(node, NULL);
  const int code = cause != MQ_OK ? cause : ENOMEM;
  fprintf(stderr, "%s: %s: %s; %s\n", what, mq_error_name(code), mq_error_meaning(code), mq_error_remedy(code));
  return 0;
}

/* Prints the text of an answer. Returns 1, or 0 if the message is not an answer or cannot be printed. */
static inline int print_answer(const PcfMessage* msg) {
  MqcParam answer;
  if (mqc_command(msg) != COMMAND_ANSWER || !mqc_find(msg, PARAM_TEXT, &answer) || answer.type != MQC_TEXT) {
    fprintf(stderr, "not an answer\n");
    return 0;
  }
  return printf("%s\n", answer.text) > 0 && fflush(stdout) == 0;
}

/* Prints the port that a node is bound to: with service 0 the kernel chooses one. Returns 1, or 0 on failure. */
static inline int print_port(const MQNode* node) {
  struct sockaddr_in bound;
  socklen_t size = sizeof bound;
  if (getsockname(node->sock.fd, (struct sockaddr*)&bound, &size) != 0) return 0;
  return printf("%d\n", ntohs(bound.sin_port)) > 0 && fflush(stdout) == 0;
}

/* Whether a read failed because the peer ended the connection, gracefully (9004) or not (ECONNRESET). */
static inline int peer_has_gone(const MQNode* node) {
  return node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET;
}

#endif
