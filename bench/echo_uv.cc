// echo_uv.cc - nodes in a libuv loop.
#include <climits>

#include "bench/bare.hh"
#include "bench/echo.hh"
#include "bench/end.hh"
#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "mqnode/uv.h"

namespace bench {
namespace {

void SetUp(MqUvNode*, MqUvNode* node) { Check(mnSetBufferSize(mq_uv_node(node), kSocketBuffer), "mnSetBufferSize"); }

void Answer(MqUvNode* node, PcfMessage* msg) { mq_uv_write(node, msg, nullptr, nullptr); }

void Serve(const std::function<void(uint16_t)>& listening) {
  MqLoopLimits limits = mq_loop_limits();
  limits.nodes = INT_MAX;
  limits.backlog = kEchoBacklog;
  MqUvEvents events = {};
  events.on_accept = SetUp;
  events.on_message = Answer;
  uv_loop_t loop;
  Check(uv_loop_init(&loop) == 0, "uv_loop_init");
  MQNode* const listener = ListenNode();
  MqUv* const uv = mq_uv_new(&loop, &limits);
  Check(uv != nullptr && mq_uv_start(uv, listener, 0, &events, nullptr) != nullptr, "mq_uv_start");
  listening(PortOf(listener->sock.fd));
  uv_run(&loop, UV_RUN_DEFAULT);
}

}  // namespace

EchoServer EchoNodesUv() { return {"nodes on libuv", Serve, PlainWire()}; }

}  // namespace bench
