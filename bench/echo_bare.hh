// echo_bare.hh - a connection that sends plain messages back with the system calls and the copies of a node.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace bench {

class BareEcho {
 public:
  explicit BareEcho(int fd);  // takes ownership
  ~BareEcho();
  BareEcho(const BareEcho&) = delete;
  BareEcho& operator=(const BareEcho&) = delete;

  int fd() const { return fd_; }
  // Receives what has arrived of a message, and sends it back when it is complete. False at the end of the connection.
  bool Turn();

 private:
  bool Receive(size_t wanted);

  const int fd_;
  uint8_t* const area_;
  size_t received_ = 0;
};

// A non-blocking listening socket.
int ListenBare(const std::function<void(uint16_t)>& listening);
// Accepts a pending connection for a BareEcho; -1 if there is none.
int AcceptBare(int listener);

}  // namespace bench
