// echo_wait.cc - nodes in one select.
#include <climits>

#include "bench/bare.hh"
#include "bench/echo.hh"
#include "bench/end.hh"
#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "mqnode/server.h"

namespace bench {
namespace {

const char* Answer(MqServer*, MqServerClient* client, PcfMessage* msg) {
  return mq_server_wrote(client, mnWrite(msg, client->node));
}

void Serve(const std::function<void(uint16_t)>& listening) {
  MqServerLimits limits = mq_server_limits();
  limits.clients = limits.clientsPerAddress = static_cast<int>(RaiseConnectionLimit(INT_MAX));
  limits.backlog = kEchoBacklog;
  limits.socketBytes = kSocketBuffer;
  limits.midwayMsec = limits.idleMsec = INT_MAX;
  MqServerEvents events = {};
  events.message = Answer;
  MqServer server;
  MQNode* const listener = ListenNode();
  Check(mq_server_open(&server, &limits, &events, nullptr) && mq_server_add(&server, listener, 0), "mq_server_add");
  listening(PortOf(listener->sock.fd));
  while (mq_server_round(&server, 1000)) continue;
}

}  // namespace

EchoServer EchoNodesWait() { return {"nodes, select", Serve, PlainWire()}; }

}  // namespace bench
