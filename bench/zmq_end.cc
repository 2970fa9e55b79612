// zmq_end.cc - libzmq with its own patterns: request and reply, or push and pull.
#include <zmq.h>

#include <string>

#include "bench/end.hh"
#include "bench/measure.hh"

namespace bench {
namespace {

class ZmqEnd : public End {
 public:
  explicit ZmqEnd(Pattern pattern) : pattern_(pattern), context_(zmq_ctx_new()) {
    Check(context_ != nullptr, "zmq_ctx_new");
  }
  ~ZmqEnd() override {
    if (socket_ != nullptr) zmq_close(socket_);
    zmq_ctx_term(context_);
  }

  uint16_t Listen() override {
    Open(pattern_ == Pattern::kRoundTrip ? ZMQ_REP : ZMQ_PULL);
    Check(zmq_bind(socket_, "tcp://127.0.0.1:*") == 0, "zmq_bind");
    char endpoint[64];
    size_t size = sizeof endpoint;
    Check(zmq_getsockopt(socket_, ZMQ_LAST_ENDPOINT, endpoint, &size) == 0, "ZMQ_LAST_ENDPOINT");
    const std::string text = endpoint;
    return static_cast<uint16_t>(std::stoi(text.substr(text.rfind(':') + 1)));
  }

  void Accept() override {}  // done by the I/O thread of libzmq

  void Connect(uint16_t port) override {
    Open(pattern_ == Pattern::kRoundTrip ? ZMQ_REQ : ZMQ_PUSH);
    Check(zmq_connect(socket_, ("tcp://127.0.0.1:" + std::to_string(port)).c_str()) == 0, "zmq_connect");
  }

  void Prepare(size_t body) override { body_ = SomeBytes(body); }

  void Write() override { Check(zmq_send(socket_, body_.data(), body_.size(), 0) == Size(), "zmq_send"); }
  void Read() override { Check(zmq_recv(socket_, body_.data(), body_.size(), 0) == Size(), "zmq_recv"); }

  std::span<const uint8_t> Body() const override { return body_; }

 private:
  int Size() const { return static_cast<int>(body_.size()); }
  void Open(int type) {
    socket_ = zmq_socket(context_, type);
    Check(socket_ != nullptr, "zmq_socket");
    const int none = 0;
    for (const int option : {ZMQ_SNDBUF, ZMQ_RCVBUF}) {
      Check(zmq_setsockopt(socket_, option, &kSocketBuffer, sizeof kSocketBuffer) == 0, "zmq_setsockopt");
    }
    Check(zmq_setsockopt(socket_, ZMQ_LINGER, &none, sizeof none) == 0, "ZMQ_LINGER");
  }

  const Pattern pattern_;
  void* const context_;
  void* socket_ = nullptr;
  std::vector<uint8_t> body_;
};

}  // namespace

Contestant Zmq() {
  return {"libzmq", [](Pattern pattern) -> std::unique_ptr<End> { return std::make_unique<ZmqEnd>(pattern); }};
}

}  // namespace bench
