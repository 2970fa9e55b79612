#include "demo/bare.hh"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <utility>

#include "mqnode/mqnode.hpp"

namespace demo {
namespace {

constexpr in_addr_t kAddress = INADDR_LOOPBACK + 1;

int64_t secondsAhead;

int64_t ShiftedClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return (now.tv_sec + secondsAhead) * 1000 + now.tv_nsec / 1000000;
}

sockaddr_in AddressOf(in_addr_t host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(host);
  return address;
}

// A question with the header that a node would write.
mqnode::Message Build(size_t length, const char* user) {
  mqnode::Message msg = mqnode::Message::create();
  if (!msg || !msg.begin(kQuestion) || !msg.add(kText, std::string(length, 'x'))) throw std::bad_alloc();
  PcfRawData& raw = msg.record().raw;
  MsgHeader header;
  memcpy(&header, raw.data, sizeof header);
  header.hdrLength = sizeof header;
  header.bigEndian = 0;
  header.asciiText = 1;
  header.bodyLength = raw.length - header.hdrLength;
  memcpy(header.userId, user, strlen(user));
  memcpy(raw.data, &header, sizeof header);
  return msg;
}

}  // namespace

Keys MakeKeys() {
  Keys keys{};
  uint8_t unused[MQC_KEY_BYTES];
  mqnode::ErrorText why;
  if (!mqc_generate_key(keys.honest, keys.honestPublic) || !mqc_generate_key(keys.hostile, keys.hostilePublic) ||
      !mqc_generate_key(keys.stranger, unused)) {
    throw std::runtime_error("cannot generate keys: no random numbers");
  }
  if (!mqc_ring_add(kHonest, keys.honestPublic, why.text, sizeof why.text) ||
      !mqc_ring_add(kHostile, keys.hostilePublic, why.text, sizeof why.text)) {
    throw std::runtime_error(why.text);
  }
  return keys;
}

Bytes Question(size_t length) {
  const mqnode::Message msg = Build(length, kHostile);
  return {msg.raw().begin(), msg.raw().end()};
}

Bytes SignedQuestion(const char* user, const uint8_t* secret, int seconds) {
  mqnode::Message msg = Build(1, user);
  PcfMessage& record = msg.record();
  record.secHeader = SecureHeader{sizeof(SecureHeader), 1, 0, 1, record.raw.length, {}};
  memcpy(record.secHeader.userId, user, strlen(user));
  const mqnode::Signer signer(mqc_signer_new(user, secret, nullptr, 0));
  secondsAhead = seconds;
  mqc_set_clock(ShiftedClock);
  IoBuffer out{};
  if (!signer || !mqc_sign(signer.get(), msg.get(), &out)) throw std::bad_alloc();
  mqc_set_clock(nullptr);
  const Bytes bytes(out.data, out.data + out.length);
  DeleteBuffer(&out);
  return bytes;
}

Bare::Bare(int port, bool datagrams, int receiveBuffer)
    : fd_(socket(AF_INET, (datagrams ? SOCK_DGRAM : SOCK_STREAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  sockaddr_in here = AddressOf(kAddress, 0);
  const sockaddr_in server = AddressOf(INADDR_LOOPBACK, port);
  auto* const generic = reinterpret_cast<sockaddr*>(&here);
  socklen_t size = sizeof here;
  const int late = 1;  // chooses the port at connect, which makes more ports available
  setsockopt(fd_, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &late, sizeof late);
  if (receiveBuffer != 0) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  if (bind(fd_, generic, sizeof here) != 0 ||
      (connect(fd_, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0 && errno != EINPROGRESS)) {
    Close();
  }
  if (is_open() && getsockname(fd_, generic, &size) == 0) port_ = ntohs(here.sin_port);
}

Bare::Bare(Bare&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), port_(other.port_), sent_(other.sent_), received_(other.received_) {}

Bare& Bare::operator=(Bare&& other) noexcept {
  std::swap(fd_, other.fd_);
  port_ = other.port_;
  sent_ = other.sent_;
  received_ = other.received_;
  return *this;
}

// True if a call moved bytes. Closes a connection that has ended.
bool Bare::Took(ssize_t count) {
  if (count > 0) return true;
  if (count == 0 || (errno != EAGAIN && errno != EINPROGRESS && errno != ENOTCONN)) Close();
  return false;
}

void Bare::Send(const Bytes& bytes, size_t most) {
  while (most > 0 && is_open()) {
    const size_t at = sent_ % bytes.size();
    const ssize_t took = send(fd_, bytes.data() + at, std::min(most, bytes.size() - at), MSG_NOSIGNAL);
    if (!Took(took)) return;
    sent_ += static_cast<size_t>(took);
    most -= static_cast<size_t>(took);
  }
}

bool Bare::SendUntil(const Bytes& bytes, size_t total) {
  if (sent_ < total) Send(bytes, total - sent_);
  return sent_ >= total;
}

void Bare::SendOutOfBand() {
  if (is_open()) Took(send(fd_, "!", 1, MSG_NOSIGNAL | MSG_OOB));
}

bool Bare::Mirror() {
  uint8_t part[65536];
  const ssize_t got = is_open() ? recv(fd_, part, sizeof part, 0) : 0;
  return got > 0 && Took(send(fd_, part, static_cast<size_t>(got), MSG_NOSIGNAL));
}

void Bare::Receive(size_t most) {
  uint8_t part[65536];
  while (most > 0 && is_open()) {
    const ssize_t got = recv(fd_, part, std::min(most, sizeof part), 0);
    if (!Took(got)) return;
    received_ += static_cast<size_t>(got);
    most -= static_cast<size_t>(got);
  }
}

bool Bare::IsEnded() {
  pollfd state = {fd_, POLLRDHUP, 0};
  return !is_open() || poll(&state, 1, 0) == 1;
}

void Bare::EndSending() {
  if (is_open()) shutdown(fd_, SHUT_WR);
}

void Bare::Close() {
  if (is_open()) close(std::exchange(fd_, -1));
}

void Bare::Reset() {
  const linger none = {1, 0};
  if (is_open()) setsockopt(fd_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  Close();
}

}  // namespace demo
