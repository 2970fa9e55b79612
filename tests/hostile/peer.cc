#include "tests/hostile/peer.hh"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>

#include "examples/example.h"
#include "mqnode/mqnode.hpp"

namespace hostile {

Bytes Question(size_t length) {
  int pair[2];
  const std::string text(length, 'x');
  mqnode::Message msg = mqnode::Message::create();
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) throw std::runtime_error("no sockets");
  mqnode::Node node = mqnode::Node::adopt(pair[0], MQ_ROLE_CONNECT);
  Bytes bytes(length + 2 * sizeof(MsgHeader));
  size_t size = 0;
  if (node && msg.begin(COMMAND_ASK) && msg.add(PARAM_TEXT, text) && node.set_blocking(false)) {
    size_t done = node.write(msg) ? 1 : 0;
    while (done != 0 && size < msg.raw().size()) {
      const ssize_t got = recv(pair[1], bytes.data() + size, bytes.size() - size, 0);
      if (got <= 0) break;
      size += static_cast<size_t>(got);
      (void)static_cast<bool>(node.finish_write());
    }
  }
  close(pair[1]);
  if (size == 0 || size != msg.raw().size()) throw std::runtime_error("cannot build a question");
  bytes.resize(size);
  return bytes;
}

Peer::Peer(int port, int receiveBuffer) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(static_cast<uint16_t>(port));
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (receiveBuffer != 0) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  if (connect(fd_, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0 && errno != EINPROGRESS) Close();
}

Peer::~Peer() { Close(); }

Peer::Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)), sent_(other.sent_), received_(other.received_) {}

Peer& Peer::operator=(Peer&& other) noexcept {
  std::swap(fd_, other.fd_);
  sent_ = other.sent_;
  received_ = other.received_;
  return *this;
}

// Whether a call moved bytes. A connection that has ended is closed.
bool Peer::Took(ssize_t count) {
  if (count > 0) return true;
  if (count == 0 || (errno != EAGAIN && errno != EINPROGRESS && errno != ENOTCONN)) Close();
  return false;
}

void Peer::Send(const Bytes& bytes, size_t most) {
  while (most > 0 && is_open()) {
    const size_t at = sent_ % bytes.size();
    const ssize_t took = send(fd_, bytes.data() + at, std::min(most, bytes.size() - at), MSG_NOSIGNAL);
    if (!Took(took)) return;
    sent_ += static_cast<size_t>(took);
    most -= static_cast<size_t>(took);
  }
}

bool Peer::SendUntil(const Bytes& bytes, size_t total) {
  if (sent_ < total) Send(bytes, total - sent_);
  return sent_ >= total;
}

void Peer::SendOutOfBand() {
  if (is_open()) Took(send(fd_, "!", 1, MSG_NOSIGNAL | MSG_OOB));
}

void Peer::Receive(size_t most) {
  uint8_t part[65536];
  while (most > 0 && is_open()) {
    const ssize_t got = recv(fd_, part, std::min(most, sizeof part), 0);
    if (!Took(got)) return;
    received_ += static_cast<size_t>(got);
    most -= static_cast<size_t>(got);
  }
}

void Peer::EndSending() {
  if (is_open()) shutdown(fd_, SHUT_WR);
}

void Peer::Close() {
  if (is_open()) close(std::exchange(fd_, -1));
}

void Peer::Reset() {
  const linger none = {1, 0};
  if (is_open()) setsockopt(fd_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  Close();
}

}  // namespace hostile
