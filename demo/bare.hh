// bare.hh - bare sockets and the bytes of messages, for peers that break the rules: a node would not let them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "companion/host.h"

namespace demo {

using Bytes = std::vector<uint8_t>;

// The users of a run. The ring has both of them; stranger is a key that it does not have.
constexpr const char* kHonest = "alice";
constexpr const char* kHostile = "mallory";
struct Keys {
  uint8_t honest[MQC_KEY_BYTES], hostile[MQC_KEY_BYTES], stranger[MQC_KEY_BYTES];  // secret
  uint8_t honestPublic[MQC_KEY_BYTES], hostilePublic[MQC_KEY_BYTES];
};

// Makes the keys and puts the public ones into the ring, which child processes inherit. Throws when it cannot.
Keys MakeKeys();

// What the examples agree on: commands and the parameter that holds the text.
enum Command : uint32_t { kQuestion = 1, kAnswer = 2 };
constexpr uint32_t kText = 1;

// The bytes of a question with a text of this length, of the hostile user.
Bytes Question(size_t length);

// A question in the name of user, signed with a secret key so many seconds from now.
Bytes SignedQuestion(const char* user, const uint8_t* secret, int seconds = 0);

// One connection, or datagram socket, that never blocks.
class Bare {
 public:
  // Begins to connect, from 127.0.0.2: no honest client has this address. receiveBuffer: bytes, 0 for what the
  // system gives.
  Bare(int port, bool datagrams, int receiveBuffer = 0);
  ~Bare() { Close(); }
  Bare(Bare&& other) noexcept;
  Bare& operator=(Bare&& other) noexcept;

  static constexpr size_t kTurn = 1 << 20;  // bytes: what one peer moves at most before the next has its turn

  bool is_open() const { return fd_ >= 0; }
  size_t sent() const { return sent_; }
  size_t received() const { return received_; }
  int port() const { return port_; }  // its own, once it was connected

  // Goes on sending these bytes, over and over, for at most so many bytes and as far as the socket takes them now.
  void Send(const Bytes& bytes, size_t most);
  // The same, until so many bytes were sent in all. True when they were.
  bool SendUntil(const Bytes& bytes, size_t total);
  void SendOutOfBand();
  // Sends back what has arrived. True when there was something.
  bool Mirror();
  // Takes what has arrived, at most so many bytes. A connection that has ended is closed.
  void Receive(size_t most = kTurn);
  // Whether the server has ended the connection, looked at without taking what has arrived.
  bool IsEnded();

  void EndSending();
  void Close();
  void Reset();  // closes without the usual end: the other side gets an error

 private:
  bool Took(ssize_t count);

  int fd_;
  int port_ = 0;
  size_t sent_ = 0;
  size_t received_ = 0;
};

}  // namespace demo
