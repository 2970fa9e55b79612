// bare.hh - plain sockets and raw messages, for peers that break rules that a node would enforce.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "companion/host.h"

namespace demo {

using Bytes = std::vector<uint8_t>;

// The users of a run. Both are in the ring; the key of stranger is not.
constexpr const char* kHonest = "alice";
constexpr const char* kHostile = "mallory";
struct Keys {
  uint8_t honest[MQC_KEY_BYTES], hostile[MQC_KEY_BYTES], stranger[MQC_KEY_BYTES];  // secret
  uint8_t honestPublic[MQC_KEY_BYTES], hostilePublic[MQC_KEY_BYTES];
};

// Generates the keys and adds the public ones to the ring, which child processes inherit. Throws if that fails.
Keys MakeKeys();

// The protocol of the examples: the commands, and the parameter with the text.
enum Command : uint32_t { kQuestion = 1, kAnswer = 2 };
constexpr uint32_t kText = 1;

// A question of the hostile user, with a text of this length.
Bytes Question(size_t length);

// A question that names user, signed with a secret key and dated this many seconds from now.
Bytes SignedQuestion(const char* user, const uint8_t* secret, int seconds = 0);

// A connection or a datagram socket, non-blocking.
class Bare {
 public:
  // Begins to connect from 127.0.0.2, which no honest client uses. receiveBuffer: bytes; 0 for the system's default.
  Bare(int port, bool datagrams, int receiveBuffer = 0);
  ~Bare() { Close(); }
  Bare(Bare&& other) noexcept;
  Bare& operator=(Bare&& other) noexcept;

  static constexpr size_t kTurn = 1 << 20;  // most bytes that a peer moves in its turn

  bool is_open() const { return fd_ >= 0; }
  size_t sent() const { return sent_; }
  size_t received() const { return received_; }
  int port() const { return port_; }  // local, after connecting

  // Sends these bytes in a loop, from where the last call stopped: at most this many, and what the socket accepts now.
  void Send(const Bytes& bytes, size_t most);
  // Likewise, until this many bytes were sent in total. True once they were.
  bool SendUntil(const Bytes& bytes, size_t total);
  void SendOutOfBand();
  // Sends received bytes back. True if there were any.
  bool Mirror();
  // Reads and discards at most this many bytes. Closes a connection that has ended.
  void Receive(size_t most = kTurn);
  // Whether the server has closed the connection; received bytes stay unread.
  bool IsEnded();

  void EndSending();
  void Close();
  void Reset();  // closes with a TCP reset

 private:
  bool Took(ssize_t count);

  int fd_;
  int port_ = 0;
  size_t sent_ = 0;
  size_t received_ = 0;
};

}  // namespace demo
