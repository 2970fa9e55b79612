// asio_server.cc - answers many clients in an Asio event loop, a coroutine for each, until SIGINT or SIGTERM.
// Clients that are connected then have two more seconds.
//   asio_server HOST SERVICE [CLIENTS [SECONDS]]
// Service 0 lets the kernel pick a port; the port is printed. CLIENTS: most at once. SECONDS: for the first question,
// for the rest of one that has begun, and for taking an answer (10). mqnode/limits.h documents the other limits;
// dropped clients are logged on standard error.
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "example.h"
#include "mqnode/asio.hpp"

using namespace mqnode;
using namespace std::chrono_literals;

static std::chrono::seconds patience = 10s;
constexpr auto kSilence = 10min;  // between two questions

// Ten lines for each second at most: clients must not fill the disk.
static void log_line(const char* what, const AsyncNode& node, const char* why) {
  static std::time_t second;
  static int lines;
  const std::time_t now = std::time(nullptr);
  const SockAddrRec& peer = node.node().record().sock.name;
  lines = now == second ? lines + 1 : 1;
  second = now;
  if (lines <= 10) std::fprintf(stderr, "%s %s:%u: %s\n", what, peer.ip, unsigned{peer.port}, why);
}

static asio::awaitable<Result> answer(const AsyncNode& client, std::chrono::seconds silence) {
  const Result readable = co_await within(silence, client.readable());
  if (!readable) co_return readable;
  const Message msg = Message::create();
  if (!msg) co_return Result(0, ENOMEM, MQ_IN_SOCKET);
  const Result read = co_await within(patience, client.read(msg));
  if (!read) co_return read;
  const std::string text(msg.text_or(PARAM_TEXT, "no text"));
  if (!msg.begin(COMMAND_ANSWER) || !msg.add(PARAM_TEXT, text)) co_return Result(0, ENOMEM, MQ_IN_SOCKET);
  co_return co_await within(patience, client.write(msg));
}

static asio::awaitable<void> serve(AsyncNode client) {
  Result result = co_await answer(client, patience);
  while (result) result = co_await answer(client, kSilence);
  const char* const why = client.why(result);
  if (why != nullptr) log_line("dropped", client, why);
  if (why == nullptr) co_await within(2s, client.finish());
}

static asio::awaitable<void> listen(const AsyncNode& listener) {
  AsyncNode client;
  while (const Result accepted = co_await listener.accept(client)) {
    if (accepted.code() != MQ_OK) log_line("cannot accept on", listener, accepted.name());
    asio::co_spawn(listener.get_executor(), serve(std::move(client)), asio::detached);
  }
}

int main(int argc, char** argv) {
  MqLoopLimits limits = mq_loop_limits();
  if (argc > 3) limits.nodes = std::atoi(argv[3]);
  if (argc > 4) patience = std::chrono::seconds(std::atoi(argv[4]));
  if (argc < 3 || argc > 5 || limits.nodes < 1 || patience < 1s) {
    return std::fprintf(stderr, "usage: asio_server HOST SERVICE [CLIENTS [SECONDS]]\n"), 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  asio::io_context loop(1);
  AsyncNode listener(loop.get_executor(), Node::listener({argv[1], argv[2]}, {SOCK_OPT_REUSEADDR, 0, 1}),
                     AsyncNode::Framing::kPlain, limits);
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
