// captures.cc - writes messages as dumps, one a line, for text2pcap and mqcat decode, and what decoders should show.
//   captures DIRECTORY SEED
//
// A datagram node reads every message; its error is the expected verdict.
//   moritz.key                  secret key of the user who signs messages, and for whom they are sealed
//   sample-N.hex  samples.txt: the columns that wireshark_test.sh asks for; stream-N.hex: all in segments of N bytes
//   broken.hex, mutants.hex     broken.txt, mutants.txt: error, first rule broken in a stream, part of the expert info
#include <arpa/inet.h>
#include <sys/socket.h>
#include <time.h>

#include <random>
#include <vector>

#include "fmt/os.h"
#include "fmt/ranges.h"
#include "mqnode/mqnode.hpp"
#include "tests/support/sender.hh"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed);

namespace {

using namespace sender;

constexpr int kMutants = 400;
constexpr Form kNative = {false, false};
std::minstd_rand generator;

size_t Below(size_t bound) { return generator() % bound; }

void Dump(const std::string& path, const std::vector<Bytes>& packets) {
  fmt::ostream out = fmt::output_file(path + ".hex");
  for (const Bytes& packet : packets) {
    out.print("000000 {:02x}\n", fmt::join(std::vector<uint8_t>(packet.begin(), packet.end()), " "));
  }
}

// Signs messages as "moritz", who is in the ring, and seals them for him.
class Signer {
 public:
  explicit Signer(const std::string& path) {
    const bool known = mqc_generate_key(seed_, open_) && mqc_ring_add("moritz", open_, nullptr, 0);
    const mqnode::Signer signer = mqnode::Signer::create("moritz", seed_);
    Check(known && mqc_set_opener(signer.get()), "a key");
    Check(mqc_secret_file_write((path + "moritz.key").c_str(), "moritz", seed_, nullptr, 0), "moritz.key");
  }
  Bytes Sign(Form form, const Bytes& plain, uint64_t milliseconds) {
    return Signed(form, plain, "moritz", seed_, milliseconds, Nonce());
  }
  Bytes Seal(Form form, const Bytes& plain, uint64_t milliseconds) {
    const Bytes nonce = Nonce(), sealed = Sealed(plain, "moritz", "moritz", open_, milliseconds, nonce);
    return Signed(form, sealed, "moritz", seed_, milliseconds, nonce, 2);
  }

 private:
  Bytes Nonce() { return Encoder({}).Number(++count_, 8).bytes; }

  uint8_t seed_[MQC_KEY_BYTES], open_[MQC_KEY_BYTES];
  uint64_t count_ = 0;
};

class Reader {
 public:
  Reader() {
    sockaddr_in bound;
    socklen_t size = sizeof bound;
    Check(getsockname(node_.get()->sock.fd, reinterpret_cast<sockaddr*>(&bound), &size) == 0, "CreateUDPMQNode");
    Check(connect(bare_, reinterpret_cast<sockaddr*>(&bound), size) == 0, "connect");
  }
  int Error(const Bytes& wire) {
    Check(send(bare_, wire.data(), wire.size(), 0) == static_cast<ssize_t>(wire.size()), "send");
    mnSRead(msg_.get(), node_.get(), wire.size() >= 4 && (wire[0] == 32 || wire[3] == 32), nullptr);
    return node_.get()->error;
  }

 private:
  mqnode::Message msg_ = mqnode::Message::create();
  SockAddrRec address_ = {"127.0.0.1", "", "0", "udp", 0};
  mqnode::Node node_ = mqnode::Node(CreateUDPMQNode(&address_));
  int bare_ = socket(AF_INET, SOCK_DGRAM, 0);
};

// ---- Good messages ----

// Each message as a packet of its own, and all in segments. The last message is longer than most segments.
std::vector<Bytes> WriteSamples(const std::string& path, Signer& signer, uint64_t now) {
  fmt::ostream seen = fmt::output_file(path + "samples.txt");
  std::vector<Bytes> samples = {Plain(kNative, Encoder(kNative).Word(0).Word(0).bytes)};
  seen.print("0\tmoritz\tforeign sender{:\t>9}\n", "");
  std::string printable;  // all visible characters of ISO-8859-1 except the backslash, which tshark doubles
  for (int c = 32; c < 256; ++c) {
    if ((c < 127 || c > 160) && c != '\\') printable += static_cast<char>(c);
  }
  for (const auto& [form, text] : {std::pair<Form, std::string>{kNative, "d\xc3\xa4mmrig \xe2\x9c\x93"},
                                   {{false, true}, printable},
                                   {{true, false}, std::string(6000, 'x')},
                                   {{true, true}, printable}}) {
    samples.push_back(Plain(form, Body(form, text)));
    samples.push_back(signer.Sign(form, samples.back(), now));
    const std::string row =
        fmt::format("77\tmoritz\tforeign sender\t1|2|3|4|1\t{}|4|8|3|0\t-5\t-9223372036854775807\t{}|\t00feff\t",
                    text.size(), form.ebcdic ? Convert(text, "ISO-8859-1", "UTF-8") : text);
    seen.print("{0}\t\t\n{0}moritz\t{1}\t\n", row, now);
  }
  samples.push_back(signer.Seal({true, true}, samples[7], now));
  seen.print("{:\t>9}moritz\t{}\tmoritz\n", "", now);
  for (size_t i = 0; i < samples.size(); ++i) Dump(path + fmt::format("sample-{}", i), {samples[i]});
  const Bytes stream = fmt::format("{}", fmt::join(samples, ""));
  for (size_t size : {7, 100, 1460, 60000}) {
    std::vector<Bytes> segments;
    for (size_t at = 0; at < stream.size(); at += size) segments.push_back(stream.substr(at, size));
    Dump(path + fmt::format("stream-{}", size), segments);
  }
  return samples;
}

// ---- Broken messages ----

struct Broken {
  Bytes wire;
  const char* rule;
  const char* says;
};

Bytes WithBody(std::initializer_list<uint32_t> words) {
  Encoder body(kNative);
  for (uint32_t word : words) body.Word(word);
  return Plain(kNative, body.bytes);
}

std::vector<Broken> BrokenMessages(Signer& signer, uint64_t now) {
  const Bytes plain = Plain(kNative, Body(kNative, "text")), good = signer.Sign(kNative, plain, now);
  const Bytes sealed = signer.Seal(kNative, plain, now);
  const size_t seal = sealed.size() - 96 - 64;
  const Bytes big = Plain({true, false}, Body({true, false}, "text"));
  const Bytes long_body = Encoder(kNative).Word(99).Word(1).Word(1).Word(4).Word(17000).Raw(Bytes(17000, 'x')).bytes;
  const Bytes unsafe = "\x1b[2J\a\r\n\x7f\xc2\x9b\xd8\x9c\xe2\x80\xae\xe2\x81\xa6";
  return {
      {With(big, 0, 135), "first-word", "the first word is 135"},
      {With(plain, 8, 1), "byte-order-flag", "the byte order flag contradicts the first word"},
      {With(plain, 12, 7), "charset-flag", "the character set flag is 7"},
      {With(plain, 64, 0), "body-length", "nothing follows the header"},
      {With(plain, 64, MQ_MAX_MESSAGE - 135), "body-length", "67108729 bytes follow the header"},
      {plain.substr(0, 100), "truncated", "a datagram of 100 bytes is shorter than a header"},
      {good.substr(0, good.size() - 4), "truncated", "the headers say"},
      {plain + "more", "first-word", "the headers say"},
      {Plain(kNative, long_body), "none", "a datagram of 17156 bytes, a node has room for 16520"},
      {With(plain, 4, 2), "encoding-version", "the body's encoding is version 2, not 1"},
      {With(plain, 68, 4), "origin-word", "the origin word is 4"},
      {With(plain, 68, 1), "origin-word", "the origin word is 1; senders write 0"},
      {WithBody({7}), "body-head", "a body of 4 bytes is too short for its head"},
      {WithBody({7, 3741}), "parameter-count", "3741 parameters, at most 3740"},
      {WithBody({7, 2, 1, 1, 4, 9}), "parameter-head", "parameter 1 of 2: the body ends in its head"},
      {WithBody({7, 1, 1, 3, 0xffffffff, 0}), "parameter-length",
       "0 (id 1, type 3): longer than the body, bytes left: 4"},
      {WithBody({7, 1, 1, 4, 5, 0}), "parameter-length", "longer than the body, bytes left: 4"},
      {WithBody({7, 1, 1, 1, 8, 0, 0}), "parameter-length", "unknown type or a length that does not fit it: 8"},
      {WithBody({7, 1, 1, 2, 12, 0, 0, 0}), "parameter-length", "unknown type or a length that does not fit it: 12"},
      {WithBody({7, 1, 1, 9, 0}), "parameter-type", "unknown type or a length that does not fit it: 0"},
      {WithBody({7, 1, 1, 3, 4, 0x64636261}), "parameter-padding", "padding beyond the body, bytes left: 4"},
      {WithBody({7, 1, 1, 4, 2, 0x64636261}), "parameter-padding", "padding is not zero after 2"},
      {WithBody({7, 1, 1, 3, 3, 0x00630061}), "text-zero-byte", "text with a zero byte among its 3"},
      {WithBody({7, 1, 1, 1, 4, 9, 0}), "body-rest", "4 bytes follow the last parameter"},
      {Plain(kNative, Body(kNative, unsafe), "\x1b\n\x7f\xe2\x80\xaeq"), "none", ""},
      {Plain(kNative, Body(kNative, "not UTF-8: \x9b\xff"), "\x9b\xff"), "none", ""},
      {Plain(kNative, Body(kNative, "text"), Bytes("u\0x", 3)), "zero-fill", ""},
      {With(good, 4, 3), "envelope-version", "an envelope of version 3"},
      {With(good, 16, 0), "message-length", "nothing follows the header"},
      {With(good.substr(0, 32 + 232), 16, 232), "message-length", "232 bytes are too short for a signature"},
      {With(good, 32, 1), "header-in-envelope", "behind the envelope: the first word is 1, not the length 136"},
      {With(good, 32 + 64, 5), "message-length", "the header says 5 bytes of body"},
      {With(good, 20, 0x61616161), "user-mismatch", "header and envelope name different users"},
      {With(With(good, 20, 0x20202020), 104, 0x20202020), "user-name", "the user in the envelope is not valid"},
      {With(good, good.size() - 96, 0), "trailer-mark", "no signature follows the message"},
      {With(sealed, sealed.size() - 96, 0), "trailer-mark", "no signature follows the message"},
      {With(sealed, seal + 12, 1), "seal-reserved", "the reserved bytes of the seal are not zero"},
      {With(sealed, seal + 4, 0x20202020), "user-name", "the user that it is sealed for is not valid"},
      {With(sealed.substr(0, 32 + 296), 16, 296), "message-length", "296 bytes are too short for a signature"},
  };
}

Bytes Mutant(Bytes wire) {
  for (size_t times = 1 + Below(3); times > 0; --times) {
    auto* const data = reinterpret_cast<uint8_t*>(wire.data());
    wire.resize(LLVMFuzzerCustomMutator(data, wire.size(), wire.size(), static_cast<unsigned>(generator())));
  }
  return wire.empty() ? Bytes(1, 0) : wire;
}

void Write(const std::string& path, Reader& reader, const std::vector<Broken>& messages) {
  fmt::ostream seen = fmt::output_file(path + ".txt");
  std::vector<Bytes> packets;
  for (const Broken& broken : messages) {
    packets.push_back(broken.wire);
    seen.print("{}\t{}\t{}\n", reader.Error(broken.wire), broken.rule, broken.says);
  }
  Dump(path, packets);
}

}  // namespace

// A mutation for builds without a fuzzer: a word is set to a plausible length, type or flag.
size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t) {
  static const uint8_t kBytes[] = {0, 1, 2, 3, 4, 5, 8, 12, 32, 136, 0x7f, 0xff};
  for (size_t at = Below(size / 4 + 1) * 4, end = std::min(size, at + 1 + Below(2) * 3); at < end; ++at) {
    data[at] = kBytes[Below(std::size(kBytes))];
  }
  return size;
}

int main(int argc, char** argv) {
  if (argc != 3) return fputs("usage: captures DIRECTORY SEED\n", stderr), 2;
  const std::string path = std::string(argv[1]) + "/";
  generator.seed(static_cast<unsigned>(strtoul(argv[2], nullptr, 10)));
  const uint64_t now = static_cast<uint64_t>(time(nullptr)) * 1000;
  Reader reader;
  Signer signer(path);
  const std::vector<Bytes> samples = WriteSamples(path, signer, now);
  for (const Bytes& sample : samples) Check(reader.Error(sample) == 0, "read a sample");
  Write(path + "broken", reader, BrokenMessages(signer, now));
  std::vector<Broken> mutants;
  for (int i = 0; i < kMutants; ++i) mutants.push_back({Mutant(samples[Below(samples.size())]), "any", "any"});
  Write(path + "mutants", reader, mutants);
  return 0;
}
