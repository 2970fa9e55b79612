// cpp_client.cc - sends one command with a text and prints the answer: client.c in C++.
//   cpp_client HOST SERVICE TEXT
#include <signal.h>

#include <iostream>

#include "example.h"
#include "mqnode/mqnode.hpp"

namespace {

using namespace mqnode;

Result Ask(Node& node, Message& msg, const char* text) {
  if (node.failed()) return node.status();
  if (const Result opened = node.open(); !opened) return opened;
  if (!msg || !msg.begin(COMMAND_ASK) || !msg.add(PARAM_TEXT, text)) return {0, ENOMEM, MQ_IN_SOCKET};
  if (const Result written = node.write(msg); !written) return written;
  return node.read(msg);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: cpp_client HOST SERVICE TEXT\n";
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);

  Node node = Node::connector({argv[1], argv[2]});
  Message msg = Message::create();
  const Result asked = Ask(node, msg, argv[3]);
  if (!asked) {
    std::cerr << asked.name() << ": " << asked.meaning() << "; " << asked.remedy() << '\n';
    return 1;
  }
  std::cout << msg.text_or(PARAM_TEXT, "not an answer") << '\n';
}
