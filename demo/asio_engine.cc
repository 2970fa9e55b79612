// asio_engine.cc - an Asio event loop, with a coroutine for each connection and each port; mqnode/asio.hpp has the
// rules. Time limits are those of the coroutines.
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>

#include "demo/service.hh"
#include "mqnode/asio.hpp"

namespace demo {
namespace {

using namespace mqnode;
using namespace std::chrono_literals;
using asio::awaitable;

constexpr auto kEndTime = 1s;
constexpr Result kNoMemory(0, ENOMEM, MQ_IN_SOCKET);

class AsioEngine final : public Engine {
 public:
  AsioEngine(Service* service, const Limits& limits)
      : service_(*service), limits_(LimitsIn(mq_loop_limits(), limits)), patience_(limits_.midwayMsec) {
    limits_.nodes = static_cast<int>(limits.guests);
  }

  Result Add(Node node, Port port) override {
    using Framing = AsyncNode::Framing;
    nodes_[port] =
        AsyncNode(loop_.get_executor(), std::move(node), IsSigned(port) ? Framing::kSigned : Framing::kPlain, limits_);
    const Result status = nodes_[port].status();
    if (status) asio::co_spawn(loop_, IsDatagram(port) ? Reply(port) : Listen(port), asio::detached);
    return status;
  }

  Result Round(std::chrono::milliseconds time) override {
    loop_.run_one_for(time);
    return {1, MQ_OK, MQ_IN_STATUS};
  }

  void End() override {
    for (AsyncNode& node : nodes_) node.close();
    const auto end = std::chrono::steady_clock::now() + kEndTime;
    while (service_.clients() > 0 && loop_.run_one_until(end) > 0) continue;
  }

 private:
  awaitable<void> Listen(Port port) {
    Result accepted(1, MQ_OK, MQ_IN_NODE);
    for (AsyncNode client; (accepted = co_await nodes_[port].accept(client));) {
      asio::co_spawn(loop_, Serve(std::move(client), IsSigned(port)), asio::detached);
    }
    if (accepted.code() != ECANCELED) service_.Fail(accepted.name());
  }

  awaitable<void> Serve(AsyncNode client, bool isSigned) {
    const MQNode* const node = client.node().get();
    const Message in = Message::create(), out = Message::create();
    service_.Accepted();
    Result result(in && out ? 1 : 0, ENOMEM, MQ_IN_SOCKET);
    while (result) {
      result = co_await Read(client, in);
      if (!result) break;
      result = kNoMemory;
      if (service_.Answer(in, out, node)) result = co_await Write(client, out, isSigned);
      if (result) service_.Sent(out);
    }
    const char* const why = client.why(result);
    if (why != nullptr) service_.Say("dropped", node->sock.name, why);
    if (why == nullptr) co_await within(patience_, client.finish());
    service_.Dropped(node, why);
  }

  // A message in which too few bytes move for too long is given up.
  awaitable<Result> Read(const AsyncNode& client, MessageRef in) const {
    const MQNode& node = client.node().record();
    const std::chrono::milliseconds silence(node.msgsRead == 0 ? limits_.firstMsec : limits_.idleMsec);
    Result result = co_await within(silence, client.readable());
    for (bool goesOn = bool{result}; goesOn;) {
      const uint64_t had = node.sock.bytesReceived;
      result = co_await within(patience_, client.read(in));
      goesOn = result.timed_out() && node.sock.bytesReceived - had >= limits_.progressBytes;
    }
    co_return result;
  }

  awaitable<Result> Write(const AsyncNode& client, MessageRef out, bool isSigned) const {
    const MQNode& node = client.node().record();
    uint64_t had = node.sock.bytesSent;
    Result result = co_await within(patience_, Begin(client, out, isSigned));
    while (result.timed_out() && node.sock.bytesSent - had >= limits_.progressBytes) {
      had = node.sock.bytesSent;
      result = co_await within(patience_, client.flush());
    }
    co_return result;
  }

  // Not within the coroutines: gcc 12 destroys an operand of ?: twice if it is in an expression with co_await.
  awaitable<Result> Begin(const AsyncNode& client, MessageRef out, bool isSigned) const {
    return isSigned ? client.write_signed(out, service_.signer()) : client.write(out);
  }

  awaitable<Result> WriteTo(const AsyncNode& node, MessageRef out, Address& to, bool isSigned) const {
    return isSigned ? node.write_signed_to(out, to, service_.signer()) : node.write_to(out, to);
  }

  awaitable<void> Reply(Port port) {
    const AsyncNode& node = nodes_[port];
    const Message in = Message::create(), out = Message::create();
    while (in && out) {
      const Result read = co_await node.read(in);
      if (!node.node().is_open()) co_return;
      Address from = node.node().sender();
      if (!read) {
        service_.Refused(port, from, read.name());
      } else if (service_.AnswerDatagram(in, out, from)) {
        const Result sent = co_await WriteTo(node, out, from, IsSigned(port));
        if (sent) service_.Sent(out);
      }
    }
    service_.Fail(kNoMemory.name());
  }

  Service& service_;
  MqLoopLimits limits_;
  const std::chrono::milliseconds patience_;
  asio::io_context loop_{1};
  AsyncNode nodes_[kPorts];
};

}  // namespace

std::unique_ptr<Engine> MakeAsioEngine(Service* service, const Limits& limits) {
  return std::make_unique<AsioEngine>(service, limits);
}

}  // namespace demo
