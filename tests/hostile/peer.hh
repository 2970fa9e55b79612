// peer.hh - one connection of an attacker: a bare socket that never blocks, because a node would not let it misbehave.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace hostile {

using Bytes = std::vector<uint8_t>;

// The bytes of a question with a text of this length, as the library puts them on the wire.
Bytes Question(size_t length);

class Peer {
 public:
  // Begins to connect. receiveBuffer: bytes, 0 for what the system gives.
  explicit Peer(int port, int receiveBuffer = 0);
  ~Peer();
  Peer(Peer&& other) noexcept;
  Peer& operator=(Peer&& other) noexcept;

  static constexpr size_t kTurn = 1 << 20;  // bytes: what one peer moves at most before the next has its turn

  bool is_open() const { return fd_ >= 0; }
  size_t sent() const { return sent_; }
  size_t received() const { return received_; }

  // Goes on sending these bytes, over and over, for at most so many bytes and as far as the socket takes them now.
  void Send(const Bytes& bytes, size_t most);
  // The same, until so many bytes were sent in all. True when they were.
  bool SendUntil(const Bytes& bytes, size_t total);
  void SendOutOfBand();
  // Takes what has arrived, at most so many bytes. A connection that has ended is closed.
  void Receive(size_t most = kTurn);

  void EndSending();
  void Close();
  void Reset();  // closes without the usual end: the other side gets an error

 private:
  bool Took(ssize_t count);

  int fd_;
  size_t sent_ = 0;
  size_t received_ = 0;
};

}  // namespace hostile
