// bare_end.cc - bare sockets that make the same system calls and copies as a node, and nothing else.
// A write: malloc, one copy into the block, one send, free. A read: recvfrom with a peer address for the header, the
// same for the rest, one copy into the caller's area. Areas start at multiples of 64, like those of the companion.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bench/bare.hh"
#include "bench/end.hh"
#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "companion/host.h"

namespace bench {

void SetUpSocket(int fd) {
  const auto set = [fd](int level, int option, const void* value, socklen_t size) {
    Check(setsockopt(fd, level, option, value, size) == 0, "setsockopt");
  };
  const linger none = {1, 0};
  const int on = 1;
  set(SOL_SOCKET, SO_LINGER, &none, sizeof none);
  set(SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
  set(SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
  set(IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

uint16_t PortOf(int fd) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  Check(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
  return ntohs(address.sin_port);
}

int ConnectBare(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  Check(fd != -1, "socket");
  SetUpSocket(fd);
  const sockaddr_in address = Loopback(port);
  Check(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
  return fd;
}

std::vector<uint8_t> PlainMessage(size_t body) {
  PcfMessage* const msg = NewMessage(body);
  const std::vector<uint8_t> bytes(msg->raw.data, msg->raw.data + msg->raw.length);
  mqc_message_free(msg);
  return bytes;
}

namespace {

constexpr size_t kAlignment = 64;
constexpr uint32_t kHeader = sizeof(MsgHeader);

uint8_t* AlignUp(void* block) {
  return reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(block) + kAlignment - 1) & ~(kAlignment - 1));
}

// An area from malloc, which only grows.
class Area {
 public:
  ~Area() { free(block_); }
  void Reserve(size_t size) {
    if (size <= capacity_) return;
    void* const block = malloc(size + kAlignment);
    Check(block != nullptr, "malloc");
    uint8_t* const data = AlignUp(block);
    if (capacity_ != 0) memcpy(data, data_, capacity_);
    free(block_);
    block_ = block;
    data_ = data;
    capacity_ = size;
  }
  uint8_t* data() const { return data_; }

 private:
  void* block_ = nullptr;
  uint8_t* data_ = nullptr;
  size_t capacity_ = 0;
};

class BareEnd : public End {
 public:
  ~BareEnd() override {
    if (fd_ != -1) close(fd_);
    if (listener_ != -1) close(listener_);
  }

  uint16_t Listen() override {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    Check(listener_ != -1, "socket");
    SetUpSocket(listener_);
    const sockaddr_in address = Loopback(0);
    Check(bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind");
    Check(listen(listener_, 5) == 0, "listen");
    return PortOf(listener_);
  }

  void Accept() override {
    fd_ = accept(listener_, nullptr, nullptr);
    Check(fd_ != -1, "accept");
    SetUpSocket(fd_);
  }

  void Connect(uint16_t port) override { fd_ = ConnectBare(port); }

  void Prepare(size_t body) override {
    received_.Reserve(16520);
    const std::vector<uint8_t> message = PlainMessage(body);
    message_.Reserve(message.size());
    memcpy(message_.data(), message.data(), message.size());
    length_ = message.size();
  }

  void Write() override {
    void* const block = malloc(length_ + kAlignment);
    Check(block != nullptr, "malloc");
    uint8_t* const data = AlignUp(block);
    memcpy(data, message_.data(), length_);
    const ssize_t sent = send(fd_, data, length_, 0);
    if (sent != static_cast<ssize_t>(length_)) Die("send");
    free(block);
  }

  void Read() override {
    size_t received = Receive(0, kHeader);
    uint32_t body;
    memcpy(&body, received_.data() + offsetof(MsgHeader, bodyLength), sizeof body);
    const size_t total = size_t{kHeader} + body;
    if (total > MQ_MAX_MESSAGE) Die("invalid length");
    received_.Reserve(total);
    received = Receive(received, total);
    message_.Reserve(total);
    memcpy(message_.data(), received_.data(), received);
    length_ = received;
  }

  std::span<const uint8_t> Body() const override { return {message_.data() + kHeader, length_ - kHeader}; }

 private:
  // Receives until wanted bytes are present, received of which were there before. Returns the number present.
  size_t Receive(size_t received, size_t wanted) {
    while (received < wanted) {
      sockaddr_in peer;
      socklen_t size = sizeof peer;
      const ssize_t got =
          recvfrom(fd_, received_.data() + received, wanted - received, 0, reinterpret_cast<sockaddr*>(&peer), &size);
      if (got <= 0) Die("recvfrom");
      received += static_cast<size_t>(got);
    }
    return received;
  }

  int listener_ = -1;
  int fd_ = -1;
  Area received_;
  Area message_;
  size_t length_ = 0;
};

}  // namespace

Contestant BareSockets() {
  return {"bare", [](Pattern) -> std::unique_ptr<End> { return std::make_unique<BareEnd>(); }};
}

}  // namespace bench
