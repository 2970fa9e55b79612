// cpp_server.cc - answer many clients in one loop until SIGINT or SIGTERM: multi_server.c in C++.
//   cpp_server HOST SERVICE [CLIENTS [SECONDS]]
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "example.h"
#include "mqnode/server.hpp"

using namespace mqnode;
using namespace std::chrono_literals;

static volatile sig_atomic_t stop;

class Echo : public Server {
 public:
  using Server::Server;

 private:
  const char* message(ServerClient client, MessageRef in) noexcept override {
    const Param text = in.find(PARAM_TEXT);
    if (!text.is_text()) return "the message has no text";
    if (!out_ || !out_.begin(COMMAND_ANSWER) || !out_.add(PARAM_TEXT, text.text().data())) return "no memory";
    return sent(client.node().write(out_));
  }

  Message out_ = Message::create();
};

int main(int argc, char** argv) {
  MqServerLimits limits = mq_server_limits();
  if (argc > 3) limits.clients = std::atoi(argv[3]);
  if (argc > 4) limits.midwayMsec = std::atoi(argv[4]) * 1000;
  if (argc < 3 || argc > 5 || limits.clients < 1 || limits.clients > 1000 || limits.midwayMsec < 2000) {
    std::cerr << "usage: cpp_server HOST SERVICE [CLIENTS [SECONDS]]\n";
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { stop = 1; });

  const Node listener = Node::listener({argv[1], argv[2]}, {SOCK_OPT_REUSEADDR, 0, 1});
  if (listener) listener.set_application("cpp_server");
  Echo server(limits);
  Result result = server.add(listener);
  if (result) std::cout << listener.local_port() << std::endl;
  while (result && !stop) result = server.round(1s);
  if (!result) std::cerr << result.name() << ": " << result.meaning() << "; " << result.remedy() << '\n';
  server.end(2s);
  return result ? 0 : 1;
}
