// captures.cc - writes packets as dumps for text2pcap, and beside each dump what tests/wireshark_test.sh has to see in it.
//   wireshark_captures DIRECTORY SEED
//
// The library itself says what has to be seen: every message, good or bad, is read by a datagram node.
//   sample-N.hex, stream-N.hex  samples.txt: field TAB value, a line each. stream-N has segments of N bytes
//   broken.hex                  broken.txt: node error TAB a part of the expert info, which may be empty
//   mutants.hex                 mutants.txt: the node error
#include <arpa/inet.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/support/sender.hh"

namespace {

using namespace sender;

constexpr int kMutants = 400;
constexpr Form kNative = {false, false};

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

bool IsSigned(const Bytes& wire) { return wire.size() >= 4 && (wire[0] == 32 || wire[3] == 32); }

void Dump(std::ofstream& out, const Bytes& packet) {
  std::string digits(packet.size() * 2 + 1, 0);
  sodium_bin2hex(digits.data(), digits.size(), reinterpret_cast<const uint8_t*>(packet.data()), packet.size());
  out << "000000";
  for (size_t i = 0; i < packet.size(); ++i) out << ' ' << digits.substr(2 * i, 2);
  out << '\n';
}

// A datagram node, and what it says of a datagram.
class Reader {
 public:
  Reader() {
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
  ~Reader() {
    DeleteMQNode(node_);
    mqc_message_free(msg_);
    close(bare_);
  }
  int Error(const Bytes& wire) {
    Check(send(bare_, wire.data(), wire.size(), 0) == static_cast<ssize_t>(wire.size()), "send");
    mnSRead(msg_, node_, IsSigned(wire), nullptr);
    return node_->error;
  }
  const PcfMessage* message() const { return msg_; }

 private:
  PcfMessage* msg_ = mqc_message_new(0);
  int bare_ = socket(AF_INET, SOCK_DGRAM, 0);
  MQNode* node_;
};

// ---- Good messages ----

// One parameter of size bytes, a multiple of 4.
Bytes Large(uint32_t size) {
  return Plain(kNative, Encoder(kNative).Word(99).Word(1).Word(1).Word(4).Word(size).Raw(Bytes(size, 'x')).bytes);
}

std::vector<Bytes> Samples() {
  std::vector<Bytes> samples = {Plain(kNative, Encoder(kNative).Word(0).Word(0).bytes)};
  const Keys keys = MakeKeys("moritz");
  std::string printable;  // all of ISO-8859-1 that can be seen, but the backslash, which tshark writes twice
  for (int c = 32; c < 256; ++c) {
    if ((c < 127 || c > 160) && c != '\\') printable += static_cast<char>(c);
  }
  for (const Form form : {kNative, Form{false, true}, Form{true, false}, Form{true, true}}) {
    const Bytes plain = Plain(form, Body(form, form.ebcdic ? printable : "d\xc3\xa4mmrig \xe2\x9c\x93"));
    samples.push_back(plain);
    samples.push_back(SignedNow(form, plain, "moritz", keys));
  }
  return samples;
}

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

// Each message as a packet of its own, and all of them in segments.
void WriteSamples(const std::string& path, std::vector<Bytes> samples) {
  Reader reader;
  std::ofstream seen(path + "samples.txt");
  samples.push_back(Large(12000));  // longer than most segments
  Bytes stream;
  for (size_t i = 0; i < samples.size(); ++i) {
    const Bytes& wire = samples[i];
    Check(reader.Error(wire) == 0, "read a sample");
    const size_t header = IsSigned(wire) ? 32 : 0;
    Expect(wire, reader.message(), wire[header + 12] == 0 && wire[header + 15] == 0, seen);
    std::ofstream packet(path + "sample-" + std::to_string(i) + ".hex");
    Dump(packet, wire);
    stream += wire;
  }
  for (size_t size : {7, 100, 1460, 60000}) {
    std::ofstream segments(path + "stream-" + std::to_string(size) + ".hex");
    for (size_t at = 0; at < stream.size(); at += size) Dump(segments, stream.substr(at, size));
  }
}

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
  Encoder body(kNative);
  for (uint32_t word : words) body.Word(word);
  return Plain(kNative, body.bytes);
}

std::vector<Broken> BrokenMessages() {
  const Bytes plain = Plain(kNative, Body(kNative, "text"));
  const Bytes big = Plain({true, false}, Body({true, false}, "text"));
  const Keys keys = MakeKeys("max");
  const Bytes good = SignedNow(kNative, Plain(kNative, Body(kNative, "text"), "max"), "max", keys);
  return {
      {With(plain, 0, 137), "the first word is 137, neither 136 nor 32"},
      {With(big, 0, 135), "the first word is 135"},
      {With(plain, 8, 1), "the byte order flag contradicts the first word"},
      {With(plain, 8, 2), "the byte order flag is 2"},
      {With(plain, 12, 7), "the character set flag is 7"},
      {With(plain, 64, 0), "nothing follows the header"},
      {With(plain, 64, MQ_MAX_MESSAGE - 135), "67108729 bytes follow the header"},
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
      {WithBody({7, 1, 1, 3, 4, 0x64636261}), "padding beyond the body, bytes left: 4"},
      {WithBody({7, 1, 1, 4, 2, 0x64636261}), "padding is not zero after 2"},
      {WithBody({7, 1, 1, 3, 3, 0x00630061}), "text with a zero byte among its 3"},
      {WithBody({7, 1, 1, 1, 4, 9, 0}), "4 bytes follow the last parameter"},
      {WithBody({7, 0}), ""},
      {Plain(kNative, Body(kNative, "\x1b[2J\a\r\n\x7f\xc2\x9b\xd8\x9c\xe2\x80\xae\xe2\x81\xa6"),
             "\x1b\n\x7f\xe2\x80\xaeq"),
       ""},
      {Plain(kNative, Body(kNative, "not UTF-8: \x9b\xff"), "\x9b\xff"), ""},
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
  Reader reader;
  std::ofstream packets(path + "broken.hex"), seen(path + "broken.txt");
  for (const Broken& broken : BrokenMessages()) {
    Dump(packets, broken.wire);
    seen << reader.Error(broken.wire) << '\t' << broken.says << '\n';
  }
}

// ---- Mutants ----

class Mutator {
 public:
  Mutator(std::vector<Bytes> samples, unsigned seed) : samples_(std::move(samples)), random_(seed) {}

  size_t Below(size_t bound) { return random_() % bound; }

  Bytes Mutant() {
    Bytes wire = samples_[Below(samples_.size())];
    const bool big = wire[0] == 0, is_signed = IsSigned(wire);
    const size_t header = is_signed ? 32 : 0;
    // Most faults lie behind the header, where the walk through lengths is.
    for (size_t times = 1 + Below(3); times > 0; --times) Change(wire, Below(3) ? header + 136 : 0);
    if (Below(2) && wire.size() > header + 136) {  // repair the lengths, so that faults behind them are reached
      if (is_signed) PutWord(&wire, 16, static_cast<uint32_t>(wire.size() - 32), big);
      PutWord(&wire, header + 64, static_cast<uint32_t>(wire.size() - header - 136 - (is_signed ? 96 : 0)), big);
    }
    return wire;
  }

 private:
  void Change(Bytes& wire, size_t from) {
    static const uint32_t kWords[] = {0,   1,    2,    3,          4,          5,          8,          12,
                                      136, 3740, 3741, 0x04000000, 0x88000000, 0x7fffffff, 0xfffffffc, 0xffffffff};
    if (wire.size() < from + 8) return;
    const size_t words = (wire.size() - from) / 4;
    const size_t word = from + Below(Below(2) ? words : std::min<size_t>(words, 12)) * 4;
    const size_t what = Below(6);
    if (what == 0) wire[from + Below(wire.size() - from)] ^= static_cast<char>(1 << Below(8));
    if (what == 1) wire.resize(1 + Below(wire.size()));
    if (what == 2) wire.insert(word, samples_[0], 0, 1 + Below(24));
    if (what == 3) wire.erase(word, 4);
    if (what > 3) PutWord(&wire, word, kWords[Below(std::size(kWords))], Below(2));
  }

  std::vector<Bytes> samples_;
  std::mt19937 random_;
};

void WriteMutants(const std::string& path, Mutator mutator) {
  Reader reader;
  std::ofstream packets(path + "mutants.hex"), seen(path + "mutants.txt");
  for (int i = 0; i < kMutants; ++i) {
    const Bytes wire = mutator.Mutant();
    Dump(packets, wire);
    seen << reader.Error(wire) << '\n';
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return fputs("usage: wireshark_captures DIRECTORY SEED\n", stderr), 2;
  const std::string path = std::string(argv[1]) + "/";
  const std::vector<Bytes> samples = Samples();
  WriteSamples(path, samples);
  WriteBroken(path);
  WriteMutants(path, Mutator(samples, static_cast<unsigned>(strtoul(argv[2], nullptr, 10))));
  return 0;
}
