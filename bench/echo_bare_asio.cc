// echo_bare_asio.cc - bare sockets in an Asio event loop, a coroutine for each.
#include <asio/awaitable.hpp>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/use_awaitable.hpp>

#include "bench/echo.hh"
#include "bench/echo_bare.hh"

namespace bench {
namespace {

using Descriptor = asio::posix::stream_descriptor;

asio::awaitable<void> Answer(int fd) {
  BareEcho echo(fd);
  Descriptor ready(co_await asio::this_coro::executor, fd);
  do {
    co_await ready.async_wait(Descriptor::wait_read, asio::use_awaitable);
  } while (echo.Turn());
  ready.release();
}

asio::awaitable<void> Accept(int listener) {
  const auto executor = co_await asio::this_coro::executor;
  Descriptor ready(executor, listener);
  for (;;) {
    co_await ready.async_wait(Descriptor::wait_read, asio::use_awaitable);
    for (int fd; (fd = AcceptBare(listener)) != -1;) asio::co_spawn(executor, Answer(fd), asio::detached);
  }
}

void Serve(const std::function<void(uint16_t)>& listening) {
  asio::io_context loop(1);
  asio::co_spawn(loop, Accept(ListenBare(listening)), asio::detached);
  loop.run();
}

}  // namespace

EchoServer EchoBareAsio() { return {"bare on Asio", Serve, PlainWire()}; }

}  // namespace bench
