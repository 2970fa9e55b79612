// captures.cc - writes the captures that tests/wireshark_test.sh looks at, and beside each what has to be seen in it.
//   wireshark_captures DIRECTORY SEED
//
// NAME.pcap is a capture of raw IPv4 packets. What has to be seen was found out by the library itself: every message,
// good or bad, was read by a node, over a socket pair or over 127.0.0.1.
//   samples, stream-N   .txt: a line a value, field TAB value, in the order of the messages. stream-N has segments of N
//                       bytes
//   broken              .txt: a line a message, node error TAB a part of the expert info, which may be empty
//   mutants             .txt: the node error, a line a datagram
//   mutated             streams of mutants cut anywhere: nothing to be seen but no failure
#include <arpa/inet.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/support/sender.hh"

namespace {

using namespace sender;

constexpr uint16_t kPort = 47110;    // of every receiver in the captures
constexpr uint16_t kSender = 50000;  // of the first sender
constexpr int kMutants = 4000;
constexpr int kMutatedStreams = 150;

// ---- Captures ----

class Capture {
 public:
  explicit Capture(const std::string& path) : file_(path, std::ios::binary), start_(time(nullptr)) {
    constexpr uint32_t kRawIp = 101;
    Put({0xa1b2c3d4, 2 | 4 << 16, 0, 0, 262144, kRawIp});
  }
  ~Capture() { Check(file_.flush().good(), "write a capture"); }

  void Datagram(const Bytes& payload, uint16_t port) {
    Packet(17, Big(port, 2) + Big(kPort, 2) + Big(8 + payload.size(), 2) + Big(0, 2) + payload);
  }

  // The next bytes of the stream that comes from this port; sequence numbers begin at 1.
  void Segment(const Bytes& payload, uint16_t port, uint32_t* sequence) {
    constexpr uint16_t kPushAck = 5 << 12 | 0x18;
    Packet(6, Big(port, 2) + Big(kPort, 2) + Big(*sequence, 4) + Big(1, 4) + Big(kPushAck, 2) + Big(65535, 2) +
                  Big(0, 4) + payload);
    *sequence += static_cast<uint32_t>(payload.size());
  }

 private:
  static Bytes Big(uint64_t value, int size) {
    Bytes out;
    while (size-- > 0) out += static_cast<char>(value >> 8 * size);
    return out;
  }
  void Put(std::initializer_list<uint32_t> words) {
    for (uint32_t word : words) file_.write(reinterpret_cast<const char*>(&word), sizeof word);
  }
  void Packet(int protocol, const Bytes& payload) {
    const uint64_t total = 20 + payload.size();
    const Bytes header = Big(0x4500, 2) + Big(total, 2) + Big(0, 4) + Big(64 << 8 | protocol, 2) + Big(0, 2) +
                         Big(0x7f000001, 4) + Big(0x7f000001, 4);
    const auto size = static_cast<uint32_t>(total);
    Put({static_cast<uint32_t>(start_ + count_ / 1000), count_ % 1000 * 1000, size, size});
    file_ << header << payload;
    ++count_;
  }

  std::ofstream file_;
  time_t start_;
  uint32_t count_ = 0;
};

// ---- Senders ----

struct Keys {
  uint8_t seed[32], open[32];
};

Keys MakeKeys(const char* user) {
  Keys keys;
  char error[256];
  Check(mqc_generate_key(keys.seed, keys.open), "mqc_generate_key");
  Check(mqc_ring_add(user, keys.open, error, sizeof error), error);
  return keys;
}

Bytes SignedNow(Form form, const Bytes& plain, const std::string& user, const Keys& keys) {
  Bytes nonce(16, 0);
  randombytes_buf(nonce.data(), nonce.size());
  return Signed(form, plain, user, keys.seed, static_cast<uint64_t>(time(nullptr)) * 1000, nonce);
}

// One parameter of size bytes, a multiple of 4.
Bytes Large(uint32_t size) {
  const Form native = {false, false};
  return Plain(native, Encoder(native).Word(99).Word(1).Word(1).Word(4).Word(size).Raw(Bytes(size, 'x')).bytes);
}

bool IsSigned(const Bytes& wire) { return wire.size() >= 4 && (wire[0] == 32 || wire[3] == 32); }

// ---- Nodes ----

// A node over one end of a socket pair; the other end is bare.
struct Pair {
  Pair() {
    int ends[2];
    Check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    bare = ends[0];
    SockRec sock;
    CreateSocketFromExisting(&sock, ends[1]);
    node = CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT);
    Check(!IsNodeFailed(node), "CreateAndBindMQNode");
  }
  ~Pair() {
    DeleteMQNode(node);
    close(bare);
  }
  Bytes Taken() const {
    Bytes out(1 << 18, 0);
    const ssize_t got = recv(bare, out.data(), out.size(), 0);
    Check(got > 0, "recv");
    out.resize(static_cast<size_t>(got));
    return out;
  }
  int bare;
  MQNode* node;
};

// Bytes that the library's own nodes write.
void AddNative(std::vector<Bytes>* samples) {
  Pair pair;
  char error[256];
  PcfMessage* msg = mqc_message_new(0);
  const Keys keys = MakeKeys(pair.node->user);
  MqcSigner* signer = mqc_signer_new(pair.node->user, keys.seed, error, sizeof error);
  Check(signer != nullptr, error);
  Check(mqc_begin(msg, 7) && mqc_add_text(msg, 1, "how is the weather?") && mqc_add_int32(msg, 2, -5) &&
            mqc_add_int64(msg, 3, INT64_MAX) && mqc_add_bytes(msg, 4, "\x01\x02\x03", 3) &&
            mqc_add_text(msg, 1, "d\xc3\xa4mmrig \xe2\x9c\x93"),
        "build a message");
  Check(mnWrite(msg, pair.node), "mnWrite");
  samples->push_back(pair.Taken());
  Check(mnSWrite(msg, pair.node, 1, signer), "mnSWrite");
  samples->push_back(pair.Taken());
  Check(mqc_begin(msg, 0) && mnWrite(msg, pair.node), "mnWrite");
  samples->push_back(pair.Taken());
  mqc_signer_free(signer);
  mqc_message_free(msg);
}

std::vector<Bytes> Samples() {
  std::vector<Bytes> samples;
  AddNative(&samples);
  const Keys keys = MakeKeys("moritz");
  std::string printable;  // all of ISO-8859-1 that can be seen, but the backslash, which tshark writes twice
  for (int c = 32; c < 256; ++c) {
    if ((c < 127 || c > 160) && c != '\\') printable += static_cast<char>(c);
  }
  for (const Form form : {Form{false, true}, Form{true, false}, Form{true, true}}) {
    const Bytes plain = Plain(form, Body(form, form.ebcdic ? printable : "from afar"));
    samples.push_back(plain);
    samples.push_back(SignedNow(form, plain, "moritz", keys));
  }
  return samples;
}

// What has to be seen of a message that msg holds after it was read.
void Expect(const Bytes& wire, const PcfMessage* msg, bool ebcdic, std::ostream& out) {
  char user[13], application[49];
  mqc_user(msg, user);
  mqc_application(msg, application);
  out << "mqnode.command\t" << mqc_command(msg) << "\nmqnode.user\t" << user << "\nmqnode.application\t" << application
      << '\n';
  MqcParam param;
  for (uint32_t i = 0; mqc_param(msg, i, &param); ++i) {
    out << "mqnode.param.id\t" << param.id << "\nmqnode.param.length\t" << param.length << '\n';
    if (param.type == MQC_INT32) out << "mqnode.param.int32\t" << param.number << '\n';
    if (param.type == MQC_INT64) out << "mqnode.param.int64\t" << param.number << '\n';
    if (param.type == MQC_TEXT) {
      out << "mqnode.param.text\t" << (ebcdic ? Convert(param.text, "ISO-8859-1", "UTF-8") : param.text) << '\n';
    }
    if (param.type != MQC_BYTES || param.length > 100) continue;
    char digits[201];
    sodium_bin2hex(digits, sizeof digits, param.bytes, param.length);
    out << "mqnode.param.bytes\t" << digits;
    out << '\n';
  }
  if (!IsSigned(wire)) return;
  mqc_sender(msg, user);
  out << "mqnode.env.user\t" << user << "\nmqnode.trailer.milliseconds\t";
  uint64_t milliseconds = 0;
  for (size_t i = wire.size() - 88; i < wire.size() - 80; ++i) milliseconds = milliseconds << 8 | uint8_t(wire[i]);
  out << milliseconds << '\n';
}

// Reads each message with a node of its own, so that a failure of one does not touch the next.
std::string ReadAll(const std::vector<Bytes>& messages) {
  std::ostringstream out;
  PcfMessage* msg = mqc_message_new(0);
  for (const Bytes& wire : messages) {
    Pair pair;
    Check(send(pair.bare, wire.data(), wire.size(), 0) == static_cast<ssize_t>(wire.size()), "send");
    const bool is_signed = IsSigned(wire);
    if (!mnSRead(msg, pair.node, is_signed, nullptr)) {
      fprintf(stderr, "a sample of %zu bytes was refused: %d\n", wire.size(), pair.node->error);
      exit(1);
    }
    const size_t header = is_signed ? 32 : 0;
    Expect(wire, msg, wire[header + 12] == 0 && wire[header + 15] == 0, out);
  }
  mqc_message_free(msg);
  return out.str();
}

// A datagram node, and what it says of a datagram.
class Judge {
 public:
  Judge() : msg_(mqc_message_new(0)), bare_(socket(AF_INET, SOCK_DGRAM, 0)) {
    SockAddrRec addr = {};
    snprintf(addr.host, sizeof addr.host, "127.0.0.1");
    snprintf(addr.service, sizeof addr.service, "0");
    snprintf(addr.protocol, sizeof addr.protocol, "udp");
    node_ = CreateUDPMQNode(&addr);
    Check(!IsNodeFailed(node_), "CreateUDPMQNode");
    sockaddr_in bound;
    socklen_t size = sizeof bound;
    Check(getsockname(node_->sock.fd, reinterpret_cast<sockaddr*>(&bound), &size) == 0, "getsockname");
    Check(connect(bare_, reinterpret_cast<sockaddr*>(&bound), size) == 0, "connect");
  }
  ~Judge() {
    DeleteMQNode(node_);
    mqc_message_free(msg_);
    close(bare_);
  }
  int Error(const Bytes& wire) {
    Check(send(bare_, wire.data(), wire.size(), 0) == static_cast<ssize_t>(wire.size()), "send");
    mnSRead(msg_, node_, IsSigned(wire), nullptr);
    return node_->error;
  }

 private:
  PcfMessage* msg_;
  int bare_;
  MQNode* node_;
};

// ---- What is wrong with messages ----

struct Broken {
  Bytes wire;
  const char* says;
};

void PutWord(Bytes* wire, size_t at, uint32_t value, bool big = false) {
  for (size_t i = 0; i < 4; ++i) (*wire)[at + i] = static_cast<char>(value >> 8 * (big ? 3 - i : i));
}

Bytes With(Bytes wire, size_t at, uint32_t value) {
  PutWord(&wire, at, value);
  return wire;
}

Bytes WithBody(std::initializer_list<uint32_t> words) {
  Encoder body({false, false});
  for (uint32_t word : words) body.Word(word);
  return Plain({false, false}, body.bytes);
}

std::vector<Broken> BrokenMessages() {
  const Form native = {false, false};
  const Bytes plain = Plain(native, Body(native, "text"));
  const Bytes big = Plain({true, false}, Body({true, false}, "text"));
  const Keys keys = MakeKeys("max");
  const Bytes good = SignedNow(native, Plain(native, Body(native, "text"), "max"), "max", keys);
  return {
      {With(plain, 0, 137), "the first word is 137, neither 136 nor 32"},
      {With(big, 0, 135), "the first word is 135"},
      {With(plain, 8, 1), "the byte order flag contradicts the first word"},
      {With(plain, 8, 2), "the byte order flag is 2"},
      {With(plain, 12, 7), "the character set flag is 7"},
      {With(plain, 64, 0), "nothing follows the header"},
      {With(plain, 64, MQ_MAX_MESSAGE - 135), "67108729 bytes follow the header"},
      {With(plain, 64, 0xffffffff), "4294967295 bytes follow the header"},
      {plain.substr(0, 100), "a datagram of 100 bytes is shorter than a header"},
      {plain.substr(0, plain.size() - 4), "the headers say"},
      {plain + "more", "the headers say"},
      {Large(17000), "a datagram of 17156 bytes, a node has room for 16520"},
      {With(plain, 4, 2), "the body's encoding is version 2, not 1"},
      {With(plain, 68, 4), "the origin word is 4"},
      {With(plain, 68, 1), "the origin word is 1; senders write 0"},
      {WithBody({7}), "a body of 4 bytes has no room for its head"},
      {WithBody({7, 3741}), "3741 parameters, at most 3740"},
      {WithBody({7, 2, 1, 1, 4, 9}), "parameter 1 of 2: the body ends in its head"},
      {WithBody({7, 1, 1, 3, 0xffffffff, 0}), "parameter 0 (id 1, type 3): longer than the body, bytes left: 4"},
      {WithBody({7, 1, 1, 1, 8, 0, 0}), "parameter 0 (id 1, type 1): unknown type or a length that does not fit it: 8"},
      {WithBody({7, 1, 1, 5, 0}), "unknown type"},
      {WithBody({7, 1, 1, 3, 4, 0x64636261}), "padding beyond the body, bytes left: 4"},
      {WithBody({7, 1, 1, 4, 2, 0x64636261}), "padding is not zero after 2"},
      {WithBody({7, 1, 1, 3, 3, 0x00630061}), "text with a zero byte among its 3"},
      {WithBody({7, 1, 1, 1, 4, 9, 0}), "4 bytes follow the last parameter"},
      {WithBody({7, 0}), ""},
      {Plain(native, Body(native, "\x1b[2J\a\r\n\x7f\xc2\x9b\xd8\x9c\xe2\x80\xae\xe2\x81\xa6"),
             "\x1b\n\x7f\xe2\x80\xaeq"),
       ""},
      {Plain(native, Body(native, "not UTF-8: \x9b\xff"), "\x9b\xff"), ""},
      {With(good, 4, 2), "an envelope of version 2"},
      {With(good, 16, 0), "nothing follows the header"},
      {With(good.substr(0, 32 + 232), 16, 232), "232 bytes have no room for a signature"},
      {With(good, 32, 1), "behind the envelope: the first word is 1, not the length 136"},
      {With(good, 32 + 64, 5), "the header says 5 bytes of body"},
      {With(good, 20, 0x61616161), "header and envelope name different users"},
      {With(With(good, 20, 0x20202020), 104, 0x20202020), "the envelope's user cannot be one"},
      {With(good, good.size() - 96, 0), "no signature follows the message"},
      {good, ""},
  };
}

void WriteBroken(const std::string& path) {
  Judge judge;
  Capture capture(path + "broken.pcap");
  std::ofstream seen(path + "broken.txt");
  for (const Broken& broken : BrokenMessages()) {
    capture.Datagram(broken.wire, kSender);
    seen << judge.Error(broken.wire) << '\t' << broken.says << '\n';
  }
}

// ---- Mutants ----

class Mutator {
 public:
  Mutator(std::vector<Bytes> samples, unsigned seed) : samples_(std::move(samples)), random_(seed) {}

  uint32_t Below(size_t bound) { return static_cast<uint32_t>(random_() % bound); }

  Bytes Noise(size_t size) {
    Bytes out(size, 0);
    for (char& c : out) c = static_cast<char>(random_());
    return out;
  }

  Bytes Mutant() {
    Bytes wire = samples_[Below(samples_.size())];
    const bool big = wire[0] == 0, is_signed = IsSigned(wire);
    const size_t header = is_signed ? 32 : 0;
    // Most faults lie behind the header, where the walk through lengths is.
    for (uint32_t times = 1 + Below(3); times > 0; --times)
      Change(&wire, Below(3) ? std::min(header + 136, wire.size()) : 0);
    if (Below(2) && wire.size() > header + 136) {  // repair the lengths, so that faults behind them are reached
      if (is_signed) PutWord(&wire, 16, static_cast<uint32_t>(wire.size() - 32), big);
      PutWord(&wire, header + 64, static_cast<uint32_t>(wire.size() - header - 136 - (is_signed ? 96 : 0)), big);
    }
    return wire;
  }

 private:
  void Change(Bytes* wire, size_t from) {
    static const uint32_t kWords[] = {0,   1,    2,    3,          4,          5,          8,          12,
                                      136, 3740, 3741, 0x04000000, 0x88000000, 0x7fffffff, 0xfffffffc, 0xffffffff};
    if (wire->size() < from + 8) return;
    const size_t words = (wire->size() - from) / 4;
    const size_t word = from + Below(Below(2) ? words : std::min<size_t>(words, 12)) * 4;
    switch (Below(6)) {
      case 0:
        (*wire)[from + Below(wire->size() - from)] ^= static_cast<char>(1 << Below(8));
        break;
      case 1:
        wire->resize(1 + Below(wire->size()));
        break;
      case 2:
        wire->append(Noise(1 + Below(24)));
        break;
      case 3:
        wire->erase(word, 4);
        break;
      default:
        PutWord(wire, word, kWords[Below(std::size(kWords))], Below(2));
    }
  }

  std::vector<Bytes> samples_;
  std::mt19937 random_;
};

void WriteMutants(const std::string& path, Mutator* mutator) {
  Judge judge;
  Capture datagrams(path + "mutants.pcap"), streams(path + "mutated.pcap");
  std::ofstream seen(path + "mutants.txt");
  for (int i = 0; i < kMutants; ++i) {
    const Bytes wire = mutator->Mutant();
    datagrams.Datagram(wire, kSender);
    seen << judge.Error(wire) << '\n';
  }
  for (uint16_t i = 0; i < kMutatedStreams; ++i) {
    Bytes stream;
    for (int k = 0; k < 6; ++k) stream += mutator->Mutant();
    uint32_t sequence = 1;
    for (size_t at = 0, size; at < stream.size(); at += size) {
      size = 1 + mutator->Below(mutator->Below(2) ? 40 : 1400);
      streams.Segment(stream.substr(at, size), static_cast<uint16_t>(kSender + i), &sequence);
    }
  }
}

// ---- Good messages ----

std::string WriteSamples(const std::string& path, const std::vector<Bytes>& samples) {
  Capture capture(path + "samples.pcap");
  uint16_t port = kSender;  // each on its own, to be recognised on its own
  for (const Bytes& wire : samples) capture.Datagram(wire, port++);
  const std::string seen = ReadAll(samples);
  std::ofstream(path + "samples.txt") << seen;
  return seen;
}

void WriteStream(const std::string& path, const std::vector<Bytes>& messages, const std::string& seen, size_t size) {
  const std::string name = path + "stream-" + std::to_string(size);
  Capture capture(name + ".pcap");
  std::ofstream(name + ".txt") << seen;
  Bytes stream;
  for (const Bytes& wire : messages) stream += wire;
  uint32_t sequence = 1;
  for (size_t at = 0; at < stream.size(); at += size) capture.Segment(stream.substr(at, size), kSender, &sequence);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: wireshark_captures DIRECTORY SEED\n");
    return 2;
  }
  const std::string path = std::string(argv[1]) + "/";
  std::vector<Bytes> samples = Samples();
  std::string seen = WriteSamples(path, samples);
  WriteBroken(path);
  Mutator mutator(samples, static_cast<unsigned>(strtoul(argv[2], nullptr, 10)));
  WriteMutants(path, &mutator);

  for (size_t size : {1, 7}) WriteStream(path, samples, seen, size);
  const Bytes large = Large(100000);  // longer than any segment
  seen = ReadAll({large}) + seen;
  samples.insert(samples.begin(), large);
  for (size_t size : {100, 1460, 60000}) WriteStream(path, samples, seen, size);
  return 0;
}
