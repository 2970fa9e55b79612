// asio_server.cc - answers many clients in an Asio event loop, a coroutine for each, until SIGINT or SIGTERM.
// Clients that are connected then have two more seconds.
//   asio_server HOST SERVICE
// Service 0 lets the kernel pick a port; the port is printed.
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>

#include "example.h"
#include "mqnode/asio.hpp"

using namespace mqnode;
using namespace std::chrono_literals;

constexpr auto kPatience = 10s;  // for a question, and for taking an answer

static asio::awaitable<Result> answer(const AsyncNode& client, MessageRef msg) {
  const Result read = co_await within(kPatience, client.read(msg));
  if (!read) co_return read;
  const std::string text(msg.text_or(PARAM_TEXT, "no text"));
  if (!msg.begin(COMMAND_ANSWER) || !msg.add(PARAM_TEXT, text)) co_return Result(0, ENOMEM, MQ_IN_SOCKET);
  co_return co_await within(kPatience, client.write(msg));
}

static asio::awaitable<void> serve(AsyncNode client) {
  const Message msg = Message::create();
  Result result(msg ? 1 : 0, ENOMEM, MQ_IN_SOCKET);
  while (result) result = co_await answer(client, msg);
  if (result.peer_gone()) co_await within(2s, client.finish());
}

static asio::awaitable<void> listen(const AsyncNode& listener) {
  for (AsyncNode client; co_await listener.accept(client);) {
    asio::co_spawn(listener.get_executor(), serve(std::move(client)), asio::detached);
  }
}

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: asio_server HOST SERVICE\n"), 2;
  std::signal(SIGPIPE, SIG_IGN);
  asio::io_context loop(1);
  AsyncNode listener(loop.get_executor(), Node::listener({argv[1], argv[2]}, {SOCK_OPT_REUSEADDR, 0, 1}));
  const Result result = listener.status();
  if (!result) return std::fprintf(stderr, "%s: %s\n", result.name(), result.meaning()), 1;
  print_port(listener.node().get());
  asio::co_spawn(loop, listen(listener), asio::detached);

  asio::steady_timer end(loop);
  asio::signal_set signals(loop, SIGINT, SIGTERM);
  signals.async_wait([&](const asio::error_code&, int) {
    listener.close();
    end.expires_after(2s);
    end.async_wait([&](const asio::error_code&) { loop.stop(); });
  });
  loop.run();
}
