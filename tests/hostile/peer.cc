#include "tests/hostile/peer.hh"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "examples/example.h"
#include "tests/support/sender.hh"

namespace hostile {

namespace {

constexpr in_addr_t kAddress = INADDR_LOOPBACK + 1;  // of the attackers: 127.0.0.2
constexpr sender::Form kForm = {false, false};

sender::Bytes PlainQuestion(size_t length, std::string_view user) {
  sender::Encoder body(kForm);
  body.Word(COMMAND_ASK).Word(1).Word(PARAM_TEXT).Word(MQC_TEXT).Word(static_cast<uint32_t>(length));
  body.Text(std::string(length, 'x'), (length + 4) / 4 * 4);
  return sender::Plain(kForm, body.bytes, std::string(user));
}

sockaddr_in AddressOf(in_addr_t host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(host);
  return address;
}

}  // namespace

Bytes Question(size_t length) {
  const sender::Bytes bytes = PlainQuestion(length, kHostile);
  return {bytes.begin(), bytes.end()};
}

std::array<uint8_t, 32> SeedOf(std::string_view user) {
  std::array<uint8_t, 32> seed{};
  user.copy(reinterpret_cast<char*>(seed.data()), seed.size());
  return seed;
}

std::array<uint8_t, 32> PublicKeyOf(std::string_view user) {
  std::array<uint8_t, 32> open{};
  uint8_t secret[64];
  crypto_sign_seed_keypair(open.data(), secret, SeedOf(user).data());
  return open;
}

Bytes SignedQuestion(std::string_view user, std::string_view signer, int seconds) {
  static std::atomic<uint64_t> number = 0;
  using namespace std::chrono;
  const auto time = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count() + seconds * 1000;
  const sender::Bytes nonce = sender::Encoder(kForm).Number(++number, 8).bytes;
  const sender::Bytes bytes = sender::Signed(kForm, PlainQuestion(1, user), std::string(user), SeedOf(signer).data(),
                                             static_cast<uint64_t>(time), nonce);
  return {bytes.begin(), bytes.end()};
}

Peer::Peer(int port, bool datagrams, int receiveBuffer)
    : fd_(socket(AF_INET, (datagrams ? SOCK_DGRAM : SOCK_STREAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  const sockaddr_in here = AddressOf(kAddress, 0);
  const sockaddr_in server = AddressOf(INADDR_LOOPBACK, port);
  const int late = 1;  // the port is chosen with the server's address in mind: there are more of them
  setsockopt(fd_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &late, sizeof late);
  bind(fd_, reinterpret_cast<const sockaddr*>(&here), sizeof here);
  if (receiveBuffer != 0) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  if (connect(fd_, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0 && errno != EINPROGRESS) Close();
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

bool Peer::Mirror() {
  uint8_t part[65536];
  const ssize_t got = is_open() ? recv(fd_, part, sizeof part, 0) : 0;
  return got > 0 && Took(send(fd_, part, static_cast<size_t>(got), MSG_NOSIGNAL));
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
