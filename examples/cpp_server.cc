// cpp_server.cc - answers many clients in one loop, until SIGINT or SIGTERM: multi_server.c in C++.
//   cpp_server HOST SERVICE      service 0 lets the kernel pick. The port is printed.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <unordered_map>

#include "example.h"
#include "mqnode/mqnode.hpp"

namespace {

using namespace mqnode;
using namespace std::chrono_literals;

constexpr int kMostQueued = 16;  // a client that does not read costs no more than this
constexpr size_t kMostClients = 1000;

volatile sig_atomic_t stop;

extern "C" void OnSignal(int) { stop = 1; }

bool Tell(const char* what, const Result& result) {
  std::fprintf(stderr, "%s: %s: %s; %s\n", what, result.name(), result.meaning(), result.remedy());
  return false;
}

class Server {
 public:
  explicit Server(const Address& address) : listener_(Node::listener(address)) {}

  bool Run() {
    if (listener_.failed()) return Tell("listen", listener_.status());
    if (!in_ || !out_ || !set_.add(listener_)) return Tell("start", Node().status());
    if (const Result result = listener_.set_blocking(false); !result) return Tell("listen", result);
    std::printf("%d\n", listener_.local_port());
    std::fflush(stdout);
    while (!stop) {
      const Result ready = set_.wait(1s);
      if (!ready && !ready.timed_out() && ready.code() != EINTR) return Tell("wait", ready);
      for (const NodeRef node : set_.writable()) {
        if (!node.finish_write()) Drop(node);
      }
      for (const NodeRef node : set_.readable()) {
        if (!Serve(node)) Drop(node);
      }
      if (!set_.listening().empty()) Accept();
    }
    return true;
  }

 private:
  // Takes in every connection that waits, while there is room. Without room the listener leaves the set until a client
  // has gone: or the wait would come back at once, for nothing.
  void Accept() {
    for (Node client; clients_.size() < kMostClients && listener_.accept(client);) {
      client.set_write_limit(kMostQueued);
      if (!client.set_blocking(false) || !set_.add(client)) continue;
      MQNode* const key = client.get();
      clients_.emplace(key, client.release());
    }
    const int error = listener_.record().error;
    const bool full = clients_.size() == kMostClients || error == EMFILE || error == ENFILE;
    if (full && !clients_.empty()) accepting_ = !set_.remove(listener_);
  }

  // Reads what there is of a message and answers a whole one. False: this client is to be dropped.
  bool Serve(NodeRef node) {
    if (const Result got = node.read(in_); !got) return got.again() || (!got.peer_gone() && Tell("read", got));
    const Param text = in_.find(PARAM_TEXT);
    if (!text.is_text() || !out_.begin(COMMAND_ANSWER) || !out_.add(PARAM_TEXT, text.text().data())) return false;
    const Result sent = node.write(out_);
    return sent || Tell("write", sent);
  }

  // The node may be in hand in a loop over a ready list: removed from the set, it may be deleted.
  void Drop(NodeRef node) {
    set_.remove(node);
    clients_.erase(node.get());
    if (!accepting_) accepting_ = set_.add(listener_);
  }

  Node listener_;
  std::unordered_map<MQNode*, Node> clients_;
  WaitSet set_;
  bool accepting_ = true;  // the listener is in the set
  Message in_ = Message::create();
  Message out_ = Message::create();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: cpp_server HOST SERVICE\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  return Server(Address(argv[1], argv[2])).Run() ? 0 : 1;
}
