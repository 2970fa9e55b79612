// echo_bare.cc - accepts, receives, copies and sends as a node does, and nothing else.
#include "bench/echo_bare.hh"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bench/bare.hh"
#include "bench/echo.hh"
#include "bench/measure.hh"
#include "mqnode/mqnode.h"

namespace bench {
namespace {

constexpr size_t kAreaBytes = 16520;
constexpr size_t kHeader = sizeof(MsgHeader);

uint8_t record[kAreaBytes];  // messages are copied here, as a node copies them into a message record

}  // namespace

int ListenBare(const std::function<void(uint16_t)>& listening) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  Check(fd != -1, "socket");
  SetUpSocket(fd);
  const sockaddr_in address = Loopback(0);
  Check(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind");
  Check(listen(fd, kEchoBacklog) == 0, "listen");
  listening(PortOf(fd));
  return fd;
}

int AcceptBare(int listener) {
  const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
  if (fd != -1) SetUpSocket(fd);
  return fd;
}

BareEcho::BareEcho(int fd) : fd_(fd), area_(static_cast<uint8_t*>(malloc(kAreaBytes))) {
  Check(area_ != nullptr, "malloc");
}

BareEcho::~BareEcho() {
  free(area_);
  close(fd_);
}

// True once wanted bytes have arrived. False if they have not, with errno 0 at the end of the stream.
bool BareEcho::Receive(size_t wanted) {
  while (received_ < wanted) {
    sockaddr_in peer;
    socklen_t size = sizeof peer;
    const ssize_t got =
        recvfrom(fd_, area_ + received_, wanted - received_, 0, reinterpret_cast<sockaddr*>(&peer), &size);
    if (got == 0) errno = 0;
    if (got <= 0) return false;
    received_ += static_cast<size_t>(got);
  }
  return true;
}

bool BareEcho::Turn() {
  if (!Receive(kHeader)) return errno == EAGAIN;
  uint32_t body;
  memcpy(&body, area_ + offsetof(MsgHeader, bodyLength), sizeof body);
  const size_t total = kHeader + body;
  if (total > kAreaBytes) return false;
  if (!Receive(total)) return errno == EAGAIN;
  received_ = 0;
  memcpy(record, area_, total);
  void* const block = malloc(total);
  if (block == nullptr) return false;
  memcpy(block, record, total);
  const ssize_t sent = send(fd_, block, total, 0);
  free(block);
  return sent == static_cast<ssize_t>(total);
}

}  // namespace bench
