// node_engine.cc - one wait over all nodes, by mqnode/server.h, which has the rules.
#include "demo/service.hh"
#include "mqnode/server.hpp"

namespace demo {
namespace {

using namespace mqnode;
using namespace std::chrono_literals;

constexpr int kDatagramsInTurn = 256;  // limit, so that datagrams do not delay connections

MqServerLimits LimitsOf(const Limits& limits) {
  MqServerLimits own = LimitsIn(mq_server_limits(), limits);
  own.clients = own.clientsPerAddress = static_cast<int>(limits.guests);
  own.logLinesPerSecond = Service::kLogLines;
  return own;
}

class NodeEngine final : public Engine, private Server {
 public:
  NodeEngine(Service* service, const Limits& limits) : Server(LimitsOf(limits)), service_(*service) {}

  Result Add(Node node, Port port) override {
    if (!in_ || !out_) return {0, ENOMEM, MQ_IN_SOCKET};
    nodes_[port] = std::move(node);
    return add(nodes_[port], IsSigned(port));
  }
  Result Round(std::chrono::milliseconds time) override { return round(time); }
  void End() override {
    end(1s);
    close();
  }

 private:
  const char* accepted(ServerClient) noexcept override {
    service_.Accepted();
    return nullptr;
  }

  void dropped(ServerClient client, const char* why) noexcept override { service_.Dropped(client.node().get(), why); }

  const char* message(ServerClient client, MessageRef in) noexcept override {
    const NodeRef node = client.node();
    if (!service_.Answer(in, out_, node.get())) return "no memory for an answer";
    const Result written = client.record().secure != 0 ? node.write_signed(out_, service_.signer()) : node.write(out_);
    if (written) service_.Sent(out_);
    return sent(written);
  }

  // An answer that cannot be sent now is dropped.
  void ready(NodeRef node) noexcept override {
    const Port port = node == nodes_[kDatagram] ? kDatagram : kSignedDatagram;
    for (int i = 0; i < kDatagramsInTurn; ++i) {
      const Result got = IsSigned(port) ? node.read_signed(in_) : node.read(in_);
      if (!got && got.again()) return;
      Address from = node.sender();
      if (!got) {
        service_.Refused(port, from, got.name());
      } else if (service_.AnswerDatagram(in_, out_, from) &&
                 (IsSigned(port) ? node.write_signed_to(out_, from, service_.signer()) : node.write_to(out_, from))) {
        service_.Sent(out_);
      }
    }
  }

  Service& service_;
  Node nodes_[kPorts];
  Message in_ = Message::create();  // datagrams
  Message out_ = Message::create();
};

}  // namespace

std::unique_ptr<Engine> MakeNodeEngine(Service* service, const Limits& limits) {
  return std::make_unique<NodeEngine>(service, limits);
}

}  // namespace demo
