// peer.hh - one connection of an attacker: a bare socket that never blocks, because a node would not let it misbehave.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace hostile {

using Bytes = std::vector<uint8_t>;

// The bytes of a question with a text of this length, as they are on the wire.
Bytes Question(size_t length);

// Users of the ring that a server of signed messages gets: an honest and a hostile one. The key of a user is made of its
// name alone.
constexpr const char* kHonest = "alice";
constexpr const char* kHostile = "mallory";
std::array<uint8_t, 32> SeedOf(std::string_view user);
std::array<uint8_t, 32> PublicKeyOf(std::string_view user);

// A question that this user signs so many seconds from now with the key of signer.
Bytes SignedQuestion(std::string_view user, std::string_view signer, int seconds = 0);

class Peer {
 public:
  // Begins to connect, from an address that no honest client has. receiveBuffer: bytes, 0 for what the system gives.
  Peer(int port, bool datagrams, int receiveBuffer = 0);
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
  // Sends back what has arrived. True when there was something.
  bool Mirror();
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
