// cpp_client.cc - send one text and print the answer: client.c in C++.
//   cpp_client HOST SERVICE TEXT
#include <csignal>
#include <iostream>

#include "example.h"
#include "mqnode/mqnode.hpp"

using namespace mqnode;
using namespace std::chrono_literals;

static Result ask(Node& node, Message& msg, const char* text) {
  if (node.failed()) return node.status();
  node.set_application("cpp_client");
  if (const Result opened = node.open(); !opened) return opened;
  if (!msg || !msg.begin(COMMAND_ASK) || !msg.add(PARAM_TEXT, text)) return {0, ENOMEM, MQ_IN_SOCKET};
  if (const Result written = node.write(msg); !written) return written;
  if (const Result read = node.read(msg); !read) return read;
  return node.finish(5s);
}

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: cpp_client HOST SERVICE TEXT\n";
    return 2;
  }
  std::signal(SIGPIPE, SIG_IGN);

  Node node = Node::connector({argv[1], argv[2]});
  Message msg = Message::create();
  const Result asked = ask(node, msg, argv[3]);
  if (!asked) {
    std::cerr << asked.name() << ": " << asked.meaning() << "; " << asked.remedy() << '\n';
    return 1;
  }
  std::cout << msg.text_or(PARAM_TEXT, "not an answer") << '\n';
}
