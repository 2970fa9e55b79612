// uv_engine.cc - a libuv loop; mqnode/uv.h has the rules.
#include <stdexcept>

#include "demo/service.hh"
#include "mqnode/uv.h"

namespace demo {
namespace {

using namespace mqnode;

class UvEngine final : public Engine {
 public:
  UvEngine(Service* service, const Limits& limits) : service_(*service) {
    MqLoopLimits own = LimitsIn(mq_loop_limits(), limits);
    own.nodes = static_cast<int>(limits.guests);
    own.endMsec = 1000;
    if (const int code = uv_loop_init(&loop_); code != 0) throw std::runtime_error(uv_strerror(code));
    uv_timer_init(&loop_, &turn_);
    uv_ = mq_uv_new(&loop_, &own);
  }

  Result Add(Node node, Port port) override {
    static const MqUvEvents events = {OnAccept, nullptr, nullptr, OnDatagram, nullptr, OnLost, nullptr};
    if (node.failed() || uv_ == nullptr || !out_)
      return node.failed() ? node.status() : Result(0, ENOMEM, MQ_IN_SOCKET);
    places_[port] = {this, port};
    MqUvNode* const taken = mq_uv_start(uv_, node.get(), IsSigned(port), &events, &places_[port]);
    if (taken == nullptr) return {0, node.record().error, MQ_IN_NODE};
    node.release();
    mq_uv_set_signer(taken, service_.signer().get());
    return {1, MQ_OK, MQ_IN_NODE};
  }

  Result Round(std::chrono::milliseconds time) override {
    uv_timer_start(
        &turn_, [](uv_timer_t*) {}, static_cast<uint64_t>(time.count()), 0);
    uv_run(&loop_, UV_RUN_ONCE);
    return {1, MQ_OK, MQ_IN_STATUS};
  }

  void End() override {
    if (uv_ != nullptr) mq_uv_finish(uv_);
    uv_close(reinterpret_cast<uv_handle_t*>(&turn_), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
  }

 private:
  // The data of a node: the port that it belongs to.
  struct Place {
    UvEngine* engine;
    Port port;
  };
  static const Place& PlaceOf(const MqUvNode* node) { return *static_cast<const Place*>(mq_uv_data(node)); }
  static Service& ServiceOf(const MqUvNode* node) { return PlaceOf(node).engine->service_; }

  static void OnAccept(MqUvNode* listener, MqUvNode* node) {
    static const MqUvEvents events = {nullptr, nullptr, OnMessage, nullptr, nullptr, nullptr, OnEnd};
    mq_uv_set_events(node, &events);
    ServiceOf(listener).Accepted();
  }

  static void OnMessage(MqUvNode* node, PcfMessage* in) {
    const Message& out = PlaceOf(node).engine->out_;
    if (ServiceOf(node).Answer(in, out, mq_uv_node(node)) && mq_uv_write(node, out.get(), nullptr, nullptr)) {
      ServiceOf(node).Sent(out);
    } else {
      mq_uv_stop(node);  // an answer that is missing would leave its client waiting
    }
  }

  static void OnDatagram(MqUvNode* node, PcfMessage* in, SockAddrRec* from) {
    const Message& out = PlaceOf(node).engine->out_;
    if (ServiceOf(node).AnswerDatagram(in, out, *from) && mq_uv_write_to(node, out.get(), from, nullptr, nullptr)) {
      ServiceOf(node).Sent(out);
    }
  }

  static void OnLost(MqUvNode* node, int code) {
    const Port port = PlaceOf(node).port;
    const SockRec& sock = mq_uv_node(node)->sock;
    if (IsDatagram(port)) {
      ServiceOf(node).Refused(port, sock.from, mq_error_name(code));
    } else {
      ServiceOf(node).Say("cannot accept on", sock.name, mq_error_name(code));
    }
  }

  static void OnEnd(MqUvNode* node, int, const char* why) {
    if (why != nullptr) ServiceOf(node).Say("dropped", mq_uv_node(node)->sock.name, why);
    ServiceOf(node).Dropped(mq_uv_node(node), why);
  }

  Service& service_;
  uv_loop_t loop_;
  uv_timer_t turn_;
  MqUv* uv_;
  Place places_[kPorts];
  Message out_ = Message::create();
};

}  // namespace

std::unique_ptr<Engine> MakeUvEngine(Service* service, const Limits& limits) {
  return std::make_unique<UvEngine>(service, limits);
}

}  // namespace demo
