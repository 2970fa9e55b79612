// asio_client.cc - keeps a connection to a server in an Asio event loop. It asks the same question repeatedly, which
// serves as a heartbeat: if the server does not answer in time, the client disconnects. It reconnects after each loss,
// with growing, randomised pauses, so that clients do not all return at once.
//   asio_client HOST SERVICE TEXT [COUNT [MSEC]]
// COUNT: number of answers after which it ends (3). MSEC: time limit for an answer, and the pause between an answer and
// the next question, in milliseconds (1000).
#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "example.h"
#include "mqnode/asio.hpp"

using namespace mqnode;
using namespace std::chrono_literals;
using std::chrono::milliseconds;

static constexpr milliseconds kFirstPause = 100ms;
static constexpr milliseconds kLastPause = 30s;

struct Client {
  Address address;
  const char* text;
  int count;           // answers still to receive
  milliseconds every;  // time limit for an answer, and pause after it
  milliseconds pause = kFirstPause;
};

static asio::awaitable<void> sleep_for(milliseconds time) {
  asio::steady_timer timer(co_await asio::this_coro::executor, time);
  co_await timer.async_wait(asio::use_awaitable);
}

// Asks one question and reads the answer.
static asio::awaitable<Result> ask(Client& client, const AsyncNode& node, MessageRef msg) {
  if (!msg.begin(COMMAND_ASK) || !msg.add(PARAM_TEXT, client.text)) co_return Result(0, ENOMEM, MQ_IN_SOCKET);
  Result result = co_await within(client.every, node.write(msg));
  if (result) result = co_await within(client.every, node.read(msg));
  if (!result || !print_answer(msg.get())) co_return result;
  --client.count;
  client.pause = kFirstPause;  // reset only here: a server may accept and close again
  co_return result;
}

// Talks over one connection until it ends.
static asio::awaitable<Result> talk(Client& client, MessageRef msg) {
  const AsyncNode node(co_await asio::this_coro::executor, Node::connector(client.address));
  Result result = node.status();
  if (result) result = co_await within(client.every, node.open());
  while (result && client.count > 0) {
    result = co_await ask(client, node, msg);
    if (result && client.count > 0) co_await sleep_for(client.every);
  }
  if (result) result = co_await within(2s, node.finish());
  co_return result;
}

static asio::awaitable<void> run(Client& client) {
  std::minstd_rand random(std::random_device{}());
  const Message msg = Message::create();
  while (msg && client.count > 0) {
    const Result lost = co_await talk(client, msg);
    if (client.count == 0) break;
    std::fprintf(stderr, "lost: %s\n", lost.name());
    co_await sleep_for(client.pause / 2 + milliseconds(random() % (client.pause / 2ms)));
    client.pause = std::min(client.pause * 2, kLastPause);
  }
}

int main(int argc, char** argv) {
  if (argc < 4 || argc > 6 || (argc > 4 && std::atoi(argv[4]) < 1) || (argc > 5 && std::atoi(argv[5]) < 1)) {
    std::fprintf(stderr, "usage: asio_client HOST SERVICE TEXT [COUNT [MSEC]]\n");
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  Client client = {{argv[1], argv[2]},
                   argv[3],
                   argc > 4 ? std::atoi(argv[4]) : 3,
                   milliseconds(argc > 5 ? std::atoi(argv[5]) : 1000)};
  asio::io_context loop(1);
  asio::co_spawn(loop, run(client), asio::detached);
  loop.run();
}
