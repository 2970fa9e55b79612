// echo_bare_uv.cc - bare sockets in a libuv loop.
#include <uv.h>

#include "bench/echo.hh"
#include "bench/echo_bare.hh"
#include "bench/measure.hh"

namespace bench {
namespace {

struct Connection {
  explicit Connection(int fd) : echo(fd) {}
  BareEcho echo;
  uv_poll_t poll = {};
};

void OnReadable(uv_poll_t* poll, int, int) {
  auto* const connection = static_cast<Connection*>(poll->data);
  if (connection->echo.Turn()) return;
  uv_poll_stop(poll);
  uv_close(reinterpret_cast<uv_handle_t*>(poll),
           [](uv_handle_t* handle) { delete static_cast<Connection*>(handle->data); });
}

void OnConnections(uv_poll_t* poll, int, int) {
  const int listener = static_cast<int>(reinterpret_cast<intptr_t>(poll->data));
  for (int fd; (fd = AcceptBare(listener)) != -1;) {
    auto* const connection = new Connection(fd);
    uv_poll_init(poll->loop, &connection->poll, fd);
    connection->poll.data = connection;
    uv_poll_start(&connection->poll, UV_READABLE, OnReadable);
  }
}

void Serve(const std::function<void(uint16_t)>& listening) {
  uv_loop_t loop;
  uv_poll_t poll;
  Check(uv_loop_init(&loop) == 0, "uv_loop_init");
  const int listener = ListenBare(listening);
  uv_poll_init(&loop, &poll, listener);
  poll.data = reinterpret_cast<void*>(static_cast<intptr_t>(listener));
  uv_poll_start(&poll, UV_READABLE, OnConnections);
  uv_run(&loop, UV_RUN_DEFAULT);
}

}  // namespace

EchoServer EchoBareUv() { return {"bare on libuv", Serve, PlainWire()}; }

}  // namespace bench
