// rogues.cc - each misbehaviour is one function over a bare socket, because a node would not let it happen.
// Not here: how the server answers it (server.cc), whether that was right (verdict.cc).
#include "demo/rogues.hh"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace demo {

namespace {

constexpr int kPatienceMsec = 8000;       // the server has dropped it by then, or never does
constexpr int kTurnMicroseconds = 30000;  // between the starts of two rogues: the listeners' queues are short
constexpr int kSmallBuffer = 4096;
constexpr uint32_t kLargeBody = 1u << 20;
constexpr uint32_t kMiddleBody = 64u << 10;
constexpr uint32_t kSmallBody = 200;
constexpr int kFloods = 1000;

}  // namespace

using Bytes = std::vector<uint8_t>;

class Mischief {
 public:
  Mischief(Shared* shared, int index, const Author& author, const Keys& keys)
      : server_(shared->server),
        tally_(shared->rogues[index]),
        author_(author),
        keys_(keys),
        port_(Rogues()[static_cast<size_t>(index)].port),
        to_(shared->ports[port_]),
        client_(kFirstRogue + static_cast<uint32_t>(index)) {}
  ~Mischief() {
    if (fd_ >= 0) close(fd_);
  }

  // A socket to the server's port; a small receive buffer for those that do not want to read.
  bool Connect(bool smallBuffer = false);

  // The bytes of a question as a well-behaved client sends them; signed with the given key when there is one.
  Bytes Question(uint32_t size, const uint8_t* secretKey = nullptr);
  const uint8_t* GoodKey() const { return keys_.secretKey; }
  const uint8_t* WrongKey() const { return keys_.stranger; }

  // False when the server has ended the connection.
  bool Send(const Bytes& bytes) { return Send(bytes.data(), bytes.size()); }
  bool Send(const uint8_t* data, size_t size);

  // Reads one whole answer and counts it.
  bool ReceiveAnswer(bool isSigned);

  void ShutDown() { shutdown(fd_, SHUT_WR); }

  // Waits until the server ends the connection, without reading anything.
  void AwaitEnd();

  // Sends a datagram until the server has noticed one: the system may lose any of them. An answer is counted.
  void SendUntilNoticed(const Bytes& bytes, size_t size);

 private:
  bool Receive(uint8_t* data, size_t size);
  void Fail(const char* doing);
  [[noreturn]] void GiveUp();

  const ServerTally& server_;
  RogueTally& tally_;
  const Author& author_;
  const Keys& keys_;
  const Port port_;
  const int to_;
  const uint32_t client_;
  uint32_t sequence_ = 0;
  int fd_ = -1;
};

void Mischief::Fail(const char* doing) {
  snprintf(tally_.failure, sizeof tally_.failure, "%s: %s", doing, strerror(errno));
}

// Without a message there is nothing to misuse.
void Mischief::GiveUp() {
  errno = ENOMEM;
  Fail("build a message");
  _exit(1);
}

bool Mischief::Connect(bool smallBuffer) {
  fd_ = socket(AF_INET, kPortTraits[port_].isDatagram ? SOCK_DGRAM : SOCK_STREAM, 0);
  const timeval patience = {kPatienceMsec / 1000, 0};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  if (smallBuffer) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &kSmallBuffer, sizeof kSmallBuffer);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(static_cast<uint16_t>(to_));
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
    Fail("connect");
    return false;
  }
  tally_.port = static_cast<uint32_t>(PortOf(fd_));
  return true;
}

Bytes Mischief::Question(uint32_t size, const uint8_t* secretKey) {
  MessagePtr msg(mqc_message_new(0));
  if (!msg || !BuildQuestion(msg.get(), author_.Write(client_, sequence_++, size))) GiveUp();
  MsgHeader header;
  memcpy(&header, msg->raw.data, sizeof header);
  header.hdrLength = sizeof header;
  header.bigEndian = 0;
  header.asciiText = 1;
  header.bodyLength = msg->raw.length - header.hdrLength;
  memcpy(header.userId, keys_.user, sizeof header.userId);
  memcpy(msg->raw.data, &header, sizeof header);
  if (secretKey == nullptr) return Bytes(msg->raw.data, msg->raw.data + msg->raw.length);

  msg->secHeader = SecureHeader{sizeof(SecureHeader), 1, 0, 1, msg->raw.length, {}};
  memcpy(msg->secHeader.userId, keys_.user, sizeof msg->secHeader.userId);
  const SignerPtr signer = MakeSigner(keys_, secretKey);
  IoBuffer out{};
  Bytes bytes;
  if (!mqc_sign(signer.get(), msg.get(), &out)) GiveUp();
  bytes.assign(out.data, out.data + out.length);
  DeleteBuffer(&out);
  return bytes;
}

bool Mischief::Send(const uint8_t* data, size_t size) {
  for (size_t sent = 0; sent < size;) {
    const ssize_t took = send(fd_, data + sent, size - sent, MSG_NOSIGNAL);
    if (took <= 0) return false;
    sent += static_cast<size_t>(took);
  }
  return true;
}

bool Mischief::Receive(uint8_t* data, size_t size) {
  for (size_t got = 0; got < size;) {
    const ssize_t came = recv(fd_, data + got, size - got, 0);
    if (came <= 0) return false;
    got += static_cast<size_t>(came);
  }
  return true;
}

bool Mischief::ReceiveAnswer(bool isSigned) {
  Bytes answer(isSigned ? sizeof(SecureHeader) : sizeof(MsgHeader));
  if (!Receive(answer.data(), answer.size())) return false;
  uint32_t rest = 0;
  const size_t at = isSigned ? offsetof(SecureHeader, msgLength) : offsetof(MsgHeader, bodyLength);
  memcpy(&rest, answer.data() + at, sizeof rest);
  answer.resize(rest);
  if (!Receive(answer.data(), rest)) return false;
  ++tally_.answers;
  return true;
}

void Mischief::AwaitEnd() {
  const double began = Now();
  pollfd state = {fd_, POLLRDHUP, 0};
  tally_.cutOff = poll(&state, 1, kPatienceMsec) == 1;
  tally_.seconds = Now() - began;
}

void Mischief::SendUntilNoticed(const Bytes& bytes, size_t size) {
  constexpr int kTries = 50;
  constexpr int kMsec = 100;
  for (int i = 0; i < kTries && server_.FindEvent(port_, tally_.port) == nullptr; ++i) {
    if (!Send(bytes.data(), size)) return Fail("send");
    pollfd state = {fd_, POLLIN, 0};
    if (poll(&state, 1, kMsec) == 1) ++tally_.answers;
  }
}

namespace {

void SignWithUnknownKey(Mischief& mischief) {
  if (mischief.Send(mischief.Question(kSmallBody, mischief.WrongKey()))) mischief.AwaitEnd();
}

void ChangeASignedByte(Mischief& mischief) {
  Bytes bytes = mischief.Question(kSmallBody, mischief.GoodKey());
  bytes[bytes.size() / 2] ^= 1;
  if (mischief.Send(bytes)) mischief.AwaitEnd();
}

void ReplayASignedMessage(Mischief& mischief) {
  const Bytes bytes = mischief.Question(kSmallBody, mischief.GoodKey());
  if (mischief.Send(bytes) && mischief.ReceiveAnswer(true) && mischief.Send(bytes)) mischief.AwaitEnd();
}

void SpeakPlainly(Mischief& mischief) {
  if (mischief.Send(mischief.Question(kSmallBody))) mischief.AwaitEnd();
}

void SendGarbage(Mischief& mischief) {
  Bytes bytes(kSmallBody);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 167 + 13);
  if (mischief.Send(bytes)) mischief.AwaitEnd();
}

void AnnounceFourGigabytes(Mischief& mischief) {
  Bytes bytes = mischief.Question(kSmallBody);
  const uint32_t length = 0xfffffff0;
  memcpy(bytes.data() + offsetof(MsgHeader, bodyLength), &length, sizeof length);
  if (mischief.Send(bytes)) mischief.AwaitEnd();
}

void SendABodyOfNonsense(Mischief& mischief) {
  Bytes bytes = mischief.Question(kSmallBody);
  memset(bytes.data() + sizeof(MsgHeader), 0x5a, bytes.size() - sizeof(MsgHeader));
  if (mischief.Send(bytes)) mischief.AwaitEnd();
}

void StopInTheHeader(Mischief& mischief) {
  if (mischief.Send(mischief.Question(kSmallBody).data(), 60)) mischief.AwaitEnd();
}

void StopInTheBody(Mischief& mischief) {
  const Bytes bytes = mischief.Question(kLargeBody);
  if (mischief.Send(bytes.data(), bytes.size() / 2)) mischief.AwaitEnd();
}

void LeaveInTheBody(Mischief& mischief) {
  const Bytes bytes = mischief.Question(kLargeBody);
  if (!mischief.Send(bytes.data(), bytes.size() / 2)) return;
  mischief.ShutDown();
  mischief.AwaitEnd();
}

void StopReading(Mischief& mischief) {
  if (mischief.Send(mischief.Question(kLargeBody))) mischief.AwaitEnd();
}

void AskWithoutReading(Mischief& mischief) {
  const Bytes bytes = mischief.Question(kMiddleBody);
  for (int i = 0; i < kFloods; ++i) {
    if (!mischief.Send(bytes)) break;
  }
  mischief.AwaitEnd();
}

void Drip(Mischief& mischief) {
  const Bytes bytes = mischief.Question(kSmallBody);
  for (const uint8_t& byte : bytes) {
    if (!mischief.Send(&byte, 1)) return;
    usleep(2000);
  }
  if (!mischief.ReceiveAnswer(false)) return;
  mischief.ShutDown();
  mischief.AwaitEnd();
}

void SendGarbageDatagram(Mischief& mischief) {
  const Bytes bytes(kSmallBody, 0x5a);
  mischief.SendUntilNoticed(bytes, bytes.size());
}

void SendHalfADatagram(Mischief& mischief) {
  const Bytes bytes = mischief.Question(kSmallBody);
  mischief.SendUntilNoticed(bytes, bytes.size() / 2);
}

void SignADatagramWithUnknownKey(Mischief& mischief) {
  const Bytes bytes = mischief.Question(kSmallBody, mischief.WrongKey());
  mischief.SendUntilNoticed(bytes, bytes.size());
}

constexpr Rogue kRogues[] = {
    {"signs with a key that the server does not know", "unknown_key", kSignedPort, MQ_NOT_AUTHENTIC, 0,
     SignWithUnknownKey},
    {"changes one bit of a signed message", "changed_bit", kSignedPort, MQ_NOT_AUTHENTIC, 0, ChangeASignedByte},
    {"sends a signed message a second time", "replay", kSignedPort, MQ_NOT_AUTHENTIC, 1, ReplayASignedMessage},
    {"speaks plainly where signing is the rule", "plain_to_signed", kSignedPort, MQ_BAD_MESSAGE, 0, SpeakPlainly},
    {"sends garbage", "garbage", kPlainPort, MQ_BAD_MESSAGE, 0, SendGarbage},
    {"announces a message of 4 GiB", "huge_length", kPlainPort, MQ_BAD_MESSAGE, 0, AnnounceFourGigabytes},
    {"sends a header with nonsense behind it", "bad_body", kPlainPort, MQ_BAD_BODY, 0, SendABodyOfNonsense},
    {"stops in the middle of a header", "half_header", kPlainPort, MQ_AGAIN, 0, StopInTheHeader},
    {"stops in the middle of a body", "half_body", kPlainPort, MQ_AGAIN, 0, StopInTheBody},
    {"leaves in the middle of a body", "leaves", kPlainPort, SOCK_PEER_CLOSED, 0, LeaveInTheBody},
    {"stops reading", "stops_reading", kPlainPort, MQ_AGAIN, 0, StopReading},
    {"asks and asks and never reads", "never_reads", kPlainPort, MQ_WRITE_LIMIT, 0, AskWithoutReading},
    {"sends a datagram of garbage", "garbage_datagram", kDatagramPort, MQ_BAD_MESSAGE, 0, SendGarbageDatagram},
    {"sends half a message as a datagram", "half_datagram", kDatagramPort, MQ_BAD_MESSAGE, 0, SendHalfADatagram},
    {"signs a datagram with an unknown key", "unknown_key_datagram", kSignedDatagramPort, MQ_NOT_AUTHENTIC, 0,
     SignADatagramWithUnknownKey},
    {"sends one byte at a time, slow but honest", "drip", kPlainPort, MQ_OK, 1, Drip},
};
static_assert(sizeof kRogues / sizeof kRogues[0] <= kMostRogues);

}  // namespace

std::span<const Rogue> Rogues() { return kRogues; }

int RunRogue(Shared* shared, int index, const Author& author, const Keys& keys) {
  usleep(static_cast<useconds_t>(index) * kTurnMicroseconds);
  const Rogue& rogue = kRogues[index];
  Mischief mischief(shared, index, author, keys);
  const bool smallBuffer = rogue.act == StopReading || rogue.act == AskWithoutReading;
  if (!mischief.Connect(smallBuffer)) return 1;
  rogue.act(mischief);
  return 0;
}

}  // namespace demo
