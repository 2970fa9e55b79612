// echo_asio.cc - nodes in an Asio event loop, a coroutine for each.
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <climits>

#include "bench/bare.hh"
#include "bench/echo.hh"
#include "bench/end.hh"
#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "mqnode/asio.hpp"

namespace bench {
namespace {

using mqnode::AsyncNode;

asio::awaitable<void> Answer(AsyncNode node, mqnode::MessageRef msg) {
  for (;;) {
    mqnode::Result result = co_await node.read(msg);
    if (result) result = co_await node.write(msg);
    if (!result) co_return;
  }
}

// All nodes share one message: no other coroutine runs between a read and the write that follows it.
asio::awaitable<void> Accept(AsyncNode listener, mqnode::MessageRef msg) {
  for (AsyncNode child; co_await listener.accept(child);) {
    Check(bool(child.node().set_buffer_size(kSocketBuffer)), "set_buffer_size");
    asio::co_spawn(listener.get_executor(), Answer(std::move(child), msg), asio::detached);
  }
}

void Serve(const std::function<void(uint16_t)>& listening) {
  asio::io_context loop(1);
  const mqnode::Message msg = mqnode::Message::create();
  MqLoopLimits limits = mq_loop_limits();
  limits.nodes = INT_MAX;
  limits.backlog = kEchoBacklog;
  AsyncNode listener(loop.get_executor(), mqnode::Node(ListenNode()), AsyncNode::Framing::kPlain, limits);
  Check(bool(listener.status()), "listen");
  listening(static_cast<uint16_t>(listener.node().local_port()));
  asio::co_spawn(loop, Accept(std::move(listener), msg), asio::detached);
  loop.run();
}

}  // namespace

EchoServer EchoNodesAsio() { return {"nodes on Asio", Serve, PlainWire()}; }

}  // namespace bench
