// echo_nng.cc - an nng REP socket, and the bytes that a REQ socket sends.
#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <sys/socket.h>

#include <string>

#include "bench/bare.hh"
#include "bench/echo.hh"
#include "bench/end.hh"
#include "bench/measure.hh"

namespace bench {
namespace {

using namespace std::string_literals;

void Serve(const std::function<void(uint16_t)>& listening) {
  nng_socket socket;
  nng_listener listener;
  int port = 0;
  Check(nng_rep0_open(&socket) == 0, "nng_rep0_open");
  Check(nng_listen(socket, "tcp://127.0.0.1:0", &listener, 0) == 0, "nng_listen");
  Check(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port) == 0, "NNG_OPT_TCP_BOUND_PORT");
  listening(static_cast<uint16_t>(port));
  nng_msg* msg = nullptr;
  while (nng_recvmsg(socket, &msg, 0) == 0) {
    if (nng_sendmsg(socket, msg, 0) != 0) nng_msg_free(msg);
  }
}

// Length in 8 bytes, request number in 4 bytes with the top bit set, body.
std::vector<uint8_t> Request(size_t body) {
  Check(body + 4 <= 255, "a short message");
  std::vector<uint8_t> request = {0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(body + 4), 0x80, 0, 0, 1};
  const std::vector<uint8_t> bytes = SomeBytes(body);
  request.insert(request.end(), bytes.begin(), bytes.end());
  return request;
}

void Greet(int fd) {
  const std::string greeting = "\0SP\0\0\x30\0\0"s;
  uint8_t answer[8];
  Check(send(fd, greeting.data(), greeting.size(), MSG_NOSIGNAL) == sizeof answer, "send");
  Check(recv(fd, answer, sizeof answer, MSG_WAITALL) == sizeof answer, "greeting of nng");
}

}  // namespace

EchoServer EchoNng() { return {"nng", Serve, {0, Request, Greet}}; }

}  // namespace bench
