// echo_zmq.cc - a libzmq ROUTER socket, and the bytes that a DEALER socket sends: ZMTP 3.0 without security.
#include <sys/socket.h>
#include <zmq.h>

#include <string>

#include "bench/bare.hh"
#include "bench/echo.hh"
#include "bench/end.hh"
#include "bench/measure.hh"

namespace bench {
namespace {

using namespace std::string_literals;

void Serve(const std::function<void(uint16_t)>& listening) {
  void* const context = zmq_ctx_new();
  void* const socket = zmq_socket(context, ZMQ_ROUTER);
  Check(zmq_setsockopt(socket, ZMQ_BACKLOG, &kEchoBacklog, sizeof kEchoBacklog) == 0, "ZMQ_BACKLOG");
  Check(zmq_bind(socket, "tcp://127.0.0.1:*") == 0, "zmq_bind");
  char endpoint[64];
  size_t size = sizeof endpoint;
  Check(zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size) == 0, "ZMQ_LAST_ENDPOINT");
  const std::string text = endpoint;
  listening(static_cast<uint16_t>(std::stoi(text.substr(text.rfind(':') + 1))));
  zmq_msg_t part;
  zmq_msg_init(&part);
  while (zmq_msg_recv(&part, socket, 0) != -1) {
    Check(zmq_msg_send(&part, socket, zmq_msg_more(&part) ? ZMQ_SNDMORE : 0) != -1, "zmq_msg_send");
  }
}

std::vector<uint8_t> Request(size_t body) {
  Check(body <= 255, "a short frame");
  std::vector<uint8_t> request = {0, static_cast<uint8_t>(body)};  // the last frame of a message
  const std::vector<uint8_t> bytes = SomeBytes(body);
  request.insert(request.end(), bytes.begin(), bytes.end());
  return request;
}

void Receive(int fd, void* place, size_t size) {
  Check(recv(fd, place, size, MSG_WAITALL) == static_cast<ssize_t>(size), "greeting of libzmq");
}

void Greet(int fd) {
  const std::string greeting = "\xff\0\0\0\0\0\0\0\0\x7f\3\0NULL"s + std::string(48, '\0');
  const std::string ready = "\4\x1c\5READY\xbSocket-Type\0\0\0\6DEALER"s;
  const std::string all = greeting + ready;
  Check(send(fd, all.data(), all.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(all.size()), "send");
  uint8_t answer[256];
  Receive(fd, answer, greeting.size() + 2);
  Receive(fd, answer, answer[greeting.size() + 1]);
}

}  // namespace

EchoServer EchoZmq() { return {"libzmq", Serve, {0, Request, Greet}}; }

}  // namespace bench
