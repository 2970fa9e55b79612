// cpp_server.cc - answers many clients in one loop, until SIGINT or SIGTERM: multi_server.c in C++.
//   cpp_server HOST SERVICE [CLIENTS [SECONDS]]
// Service 0 lets the kernel pick a port; the port is printed. CLIENTS: most at once. SECONDS: patience with a client
// that owes something. limits.h says what is bounded; dropped clients are told of on standard error.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>
#include <vector>

#include "example.h"
#include "limits.h"
#include "mqnode/mqnode.hpp"

namespace {

using namespace mqnode;
using namespace std::chrono_literals;

volatile sig_atomic_t stop;

extern "C" void OnSignal(int) { stop = 1; }

bool Tell(const char* what, const Result& result) {
  std::fprintf(stderr, "%s: %s: %s; %s\n", what, result.name(), result.meaning(), result.remedy());
  return false;
}

class Server {
 public:
  Server(const Address& address, size_t clients, int patience)
      : listener_(Node::listener(address)), most_(clients), patience_(patience) {}

  bool Run() {
    if (!in_ || !out_ || listener_.failed() || !set_.add(listener_)) return Tell("listen", listener_.status());
    // Accepted sockets have the listening one's buffers.
    if (const Result result = listener_.set_buffer_size(SOCKET_BUFFER); !result) return Tell("listen", result);
    if (const Result result = listener_.set_blocking(false); !result) return Tell("listen", result);
    if (!ListenSocket(&listener_.record().sock, BACKLOG)) return false;
    std::printf("%d\n", listener_.local_port());
    std::fflush(stdout);
    while (!stop) {
      const Result ready = set_.wait(1s);
      if (!ready && !ready.timed_out() && ready.code() != EINTR) return Tell("wait", ready);
      for (const NodeRef node : set_.writable()) {
        if (const Result sent = node.finish_write(); !sent) Drop(node, sent.name());
      }
      for (const NodeRef node : set_.readable()) Serve(node);
      if (!set_.listening().empty()) Accept();
      if (second_ != now_msec() / 1000) Look(now_msec());
    }
    return true;
  }

 private:
  struct Client {
    Node node;
    Watch watch;
  };

  // Accepts connections that wait, one when the table is full; the others make the next wait come back at once. When
  // none can be accepted, the wait would come back at once for nothing: the listener leaves the set until a client has
  // gone or a second is over.
  void Accept() {
    if (clients_.size() == most_ && !MakeRoom()) return StopAccepting();
    for (int i = 0; i < MOST_ACCEPTED && clients_.size() < most_; ++i) {
      Node client;
      if (const Result result = listener_.accept(client); !result) {
        if (result.again() || result.code() == ECONNABORTED) return;
        if (may_tell(&teller_)) Tell("accept", result);
        if (result.code() != EMFILE || !MakeRoom()) StopAccepting();
        return;
      }
      if (!client.set_blocking(false) || !set_.add(client)) continue;
      MQNode* const key = client.get();
      clients_.emplace(key, Client{std::move(client), watch_client(key)});
    }
  }

  // Drops a client for a newcomer; limits.h says which. False when none makes room yet.
  bool MakeRoom() {
    const long now = now_msec();
    std::vector<Watch> watches;
    for (auto& [node, client] : clients_) {
      quiet_msec(&client.watch, now);
      watches.push_back(client.watch);
    }
    MQNode* const node = makes_room(watches.data(), static_cast<int>(watches.size()), now);
    if (node != nullptr) Drop(node, "its place is needed");
    return node != nullptr;
  }

  void StopAccepting() { accepting_ = !set_.remove(listener_); }

  // Reads the part of a message that has arrived and answers a whole one. Drops a client that is not to be served any
  // more.
  void Serve(NodeRef node) {
    const bool midway = is_midway(node.get());
    if (takes_no_answers(node.get())) return Drop(node, "takes no answers");
    if (!mnReadMsg(node.get())) return ReadFailed(node, node.status(), midway);  // the header first, or the rest
    if (is_too_long(node.get())) return Drop(node, "its question is too long");
    if (const Result got = node.read(in_); !got) return ReadFailed(node, got, midway);
    const Param text = in_.find(PARAM_TEXT);
    if (!text.is_text()) return Drop(node, "its question has no text");
    if (!out_.begin(COMMAND_ANSWER) || !out_.add(PARAM_TEXT, text.text().data())) return Drop(node, "no memory");
    if (const Result sent = node.write(out_); !sent) Drop(node, sent.name());
  }

  void ReadFailed(NodeRef node, const Result& got, bool midway) {
    if (got.again()) return;  // part of a message: the node keeps it, the next read goes on
    if (!got.peer_gone()) return Drop(node, got.name());
    Drop(node, midway ? "left in the middle of a question, or before its answer" : nullptr);
  }

  // Once a second: drops the clients that were waited for long enough, and tries to accept again.
  void Look(long now) {
    second_ = now / 1000;
    std::vector<std::pair<NodeRef, const char*>> late;
    for (auto& [node, client] : clients_) {
      if (const char* const why = overdue(&client.watch, patience_, now)) late.emplace_back(node, why);
      give_back(node);
    }
    for (const auto& [node, why] : late) Drop(node, why);
    tell_untold(&teller_);
    AcceptAgain();
  }

  // Says why, unless that is null. The node may be in hand in a loop over a ready list: removed from the set, it may be
  // deleted.
  void Drop(NodeRef node, const char* why) {
    if (why != nullptr) tell_drop(&teller_, node.get(), why);
    set_.remove(node);
    clients_.erase(node.get());
    AcceptAgain();
  }

  void AcceptAgain() {
    if (!accepting_) accepting_ = set_.add(listener_);
  }

  Node listener_;
  const size_t most_;
  const int patience_;  // seconds
  std::unordered_map<MQNode*, Client> clients_;
  WaitSet set_;
  bool accepting_ = true;  // the listener is in the set
  long second_ = 0;        // of the last look at the clients
  Teller teller_ = {};
  Message in_ = Message::create();
  Message out_ = Message::create();
};

}  // namespace

int main(int argc, char** argv) {
  const long clients = argc > 3 ? std::strtol(argv[3], nullptr, 10) : long{MOST_CLIENTS};
  const long patience = argc > 4 ? std::strtol(argv[4], nullptr, 10) : long{PATIENCE};
  if (argc < 3 || argc > 5 || clients < 1 || clients > MOST_CLIENTS || patience < 2 || patience > IDLE) {
    std::fprintf(stderr, "usage: cpp_server HOST SERVICE [CLIENTS [SECONDS]]\n");
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  return Server(Address(argv[1], argv[2]), static_cast<size_t>(clients), static_cast<int>(patience)).Run() ? 0 : 1;
}
