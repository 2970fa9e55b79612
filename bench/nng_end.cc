// nng_end.cc - nng with its own patterns: request and reply, or push and pull.
#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include <string>

#include "bench/end.hh"
#include "bench/measure.hh"

namespace bench {
namespace {

void CheckNng(int code, const char* what) {
  if (code != 0) Die(std::string(what) + ": " + nng_strerror(code));
}

class NngEnd : public End {
 public:
  explicit NngEnd(Pattern pattern) : round_trip_(pattern == Pattern::kRoundTrip) {}
  ~NngEnd() override { nng_close(socket_); }

  uint16_t Listen() override {
    CheckNng(round_trip_ ? nng_rep0_open(&socket_) : nng_pull0_open(&socket_), "open");
    CheckNng(nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0), "NNG_OPT_RECVMAXSZ");  // no bound
    nng_listener listener;
    int port = 0;
    CheckNng(nng_listen(socket_, "tcp://127.0.0.1:0", &listener, 0), "nng_listen");
    CheckNng(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port), "NNG_OPT_TCP_BOUND_PORT");
    return static_cast<uint16_t>(port);
  }

  void Accept() override {}  // done by the threads of nng

  void Connect(uint16_t port) override {
    CheckNng(round_trip_ ? nng_req0_open(&socket_) : nng_push0_open(&socket_), "open");
    CheckNng(nng_socket_set_size(socket_, NNG_OPT_RECVMAXSZ, 0), "NNG_OPT_RECVMAXSZ");
    CheckNng(nng_dial(socket_, ("tcp://127.0.0.1:" + std::to_string(port)).c_str(), nullptr, 0), "nng_dial");
  }

  void Prepare(size_t body) override { body_ = SomeBytes(body); }

  void Write() override { CheckNng(nng_send(socket_, body_.data(), body_.size(), 0), "nng_send"); }
  void Read() override {
    size_t size = body_.size();
    CheckNng(nng_recv(socket_, body_.data(), &size, 0), "nng_recv");
    if (size != body_.size()) Die("nng_recv: a message of another size");
  }

  std::span<const uint8_t> Body() const override { return body_; }

 private:
  const bool round_trip_;
  nng_socket socket_ = NNG_SOCKET_INITIALIZER;
  std::vector<uint8_t> body_;
};

}  // namespace

Contestant Nng() {
  return {"nng", [](Pattern pattern) -> std::unique_ptr<End> { return std::make_unique<NngEnd>(pattern); }};
}

}  // namespace bench
