// crowd.cc - connects a second process in groups that fit in the accept queue of a listening node.
#include "bench/crowd.hh"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "bench/bare.hh"
#include "bench/measure.hh"
#include "bench/node_end.hh"

namespace bench {
namespace {

constexpr size_t kGroup = 4;
constexpr size_t kBody = 64;
constexpr size_t kMaxNodes = 4096;

struct Command {
  size_t first;
  size_t count;
  char order;  // 'c' connect, 's' send
};

}  // namespace

Crowd::Crowd() : listener_(ListenNode()) {
  int pair[2];
  Check(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
  nodes_.reserve(kMaxNodes);
  fflush(stdout);
  peer_ = fork();
  Check(peer_ != -1, "fork");
  control_ = pair[peer_ == 0];
  close(pair[peer_ != 0]);
  if (peer_ == 0) Obey();
}

Crowd::~Crowd() {
  for (MQNode* node : nodes_) DeleteMQNode(node);
  DeleteMQNode(listener_);
  close(control_);
  waitpid(peer_, nullptr, 0);
}

void Crowd::Grow(size_t nodes) {
  while (nodes_.size() < nodes) {
    const size_t group = std::min(kGroup, nodes - nodes_.size());
    Tell('c', nodes_.size(), group);
    for (size_t i = 0; i < group; ++i) nodes_.push_back(AcceptNode(listener_));
  }
}

void Crowd::Send(size_t first, size_t count) { Tell('s', first, count); }

void Crowd::Tell(char order, size_t first, size_t count) {
  const Command command = {first, count, order};
  Check(send(control_, &command, sizeof command, MSG_NOSIGNAL) == sizeof command, "the crowd is gone");
  char done;
  Check(recv(control_, &done, 1, 0) == 1, "the crowd is gone");
}

void Crowd::Obey() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const uint16_t port = PortOf(listener_->sock.fd);
  const std::vector<uint8_t> message = PlainMessage(kBody);
  std::vector<int> sockets;
  Command command;
  while (recv(control_, &command, sizeof command, MSG_WAITALL) == sizeof command) {
    for (size_t i = command.first; i < command.first + command.count; ++i) {
      if (command.order == 'c')
        sockets.push_back(ConnectBare(port));
      else
        Check(send(sockets.at(i), message.data(), message.size(), 0) == ssize_t(message.size()), "send");
    }
    Check(send(control_, "", 1, MSG_NOSIGNAL) == 1, "the process of the nodes is gone");
  }
  _exit(0);
}

}  // namespace bench
