// seeds.cc - writes the inputs that fuzzing begins with: DIRECTORY/TARGET/NAME for each target. Messages come from
// tests/support/sender.hh in every form, signed ones without their signature, which the targets put in.
#include <filesystem>
#include <fstream>

#include "tests/support/sender.hh"

namespace {

using namespace sender;

constexpr Form kForms[] = {{false, false}, {true, false}, {false, true}, {true, true}};
constexpr char kAlice[] = "alice";

std::string NameOf(Form form) {
  return std::string(form.big ? "big" : "little") + (form.ebcdic ? "-ebcdic" : "-ascii");
}

class Folder {
 public:
  Folder(const char* top, const char* target) : path_(std::filesystem::path(top) / target) {
    std::filesystem::create_directories(path_);
  }
  void Put(const std::string& name, const Bytes& bytes) const {
    std::ofstream file(path_ / name, std::ios::binary);
    Check(file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush().good(), "write a seed");
  }

 private:
  std::filesystem::path path_;
};

Bytes Text(const char* text, size_t size) { return Bytes(text, size); }

Bytes Message(Form form) { return Plain(form, Body(form, "how is the weather?"), kAlice); }

// Signed so many seconds off the present, with a nonce of zeros.
Bytes SignedMessage(Form form, int seconds = 0) {
  const Bytes time = Encoder({true, false}).Number(static_cast<uint64_t>(seconds), 8).bytes;
  return Enveloped(form, Message(form), kAlice, Text("MQSIGN01", 8) + time + Bytes(16 + 64, '\0'));
}

// Announces a body of this size, and has none.
Bytes Announcing(uint64_t size) { return Encoder(kForms[0]).Header(size, kAlice).bytes; }

// Options, failing allocation, number of cuts, cuts; see reader.hh.
Bytes Arriving(int options, int failing, const Bytes& cuts, const Bytes& bytes) {
  Bytes input = {static_cast<char>(options), static_cast<char>(failing), static_cast<char>(cuts.size())};
  return input + cuts + bytes;
}

// A capture of raw IPv4 packets with one datagram and two segments of a connection, the second before the first.
Bytes Pcap(const Bytes& message) {
  const Form host = {false, false}, net = {true, false};
  const auto packet = [&](int protocol, const Bytes& payload) {
    Encoder head(net);
    const uint64_t total = 20 + payload.size();
    head.Number(0x4500, 2).Number(total, 2).Word(0).Number(64 << 8 | protocol, 2).Number(0, 2);
    head.Word(0x7f000001).Word(0x7f000001);
    const auto size = static_cast<uint32_t>(total);
    return Encoder(host).Word(1).Word(2).Word(size).Word(size).bytes + head.bytes + payload;
  };
  const auto segment = [&](uint32_t sequence, const Bytes& payload) {
    return packet(6, Encoder(net).Number(5, 2).Number(6, 2).Word(sequence).Word(1).Number(5 << 12 | 0x18, 2).bytes +
                         Encoder(net).Number(65535, 2).Word(0).bytes + payload);
  };
  const Bytes ports = Encoder(net).Number(5, 2).Number(6, 2).bytes;
  return Encoder(host).Word(0xa1b2c3d4).Word(2 | 4 << 16).Word(0).Word(0).Word(65535).Word(101).bytes +
         packet(17, ports + Encoder(net).Number(8 + message.size(), 2).Number(0, 2).bytes + message) +
         segment(1, message.substr(0, 40)) + segment(101, message.substr(100)) + segment(41, message.substr(40, 60));
}

void PutMessages(const char* top) {
  const Folder plain(top, "plain_read"), secure(top, "secure_read"), datagrams(top, "datagram_read");
  const Folder browse(top, "browse"), convert(top, "convert"), authenticate(top, "authenticate"), decode(top, "decode");
  for (const Form form : kForms) {
    const std::string name = NameOf(form);
    const Bytes message = Message(form), signature = SignedMessage(form);
    const Bytes cuts = {50, 0, 86, 10, '\xff'};
    plain.Put(name, Arriving(form.big, 0, cuts, message + message));
    secure.Put(name, Arriving(8 | form.big, 0, cuts, signature + signature));
    datagrams.Put(name, Arriving(0, 0, Bytes(1, static_cast<char>(message.size())), message + message));
    datagrams.Put(name + "-signed", Arriving(0x88, 0, "", signature));
    browse.Put(name, Text("\xf4", 1) + Arriving(form.big, 0, cuts, message + message));
    convert.Put(name, Bytes(1, form.ebcdic ? 16 * 4 : 0) + Bytes(1, '\0') + message);  // spare: 16
    authenticate.Put(name, Text("\1", 1) + signature);
    authenticate.Put(name + "-to-sign", Text("\x8", 1) + Enveloped(form, message, kAlice, ""));
    decode.Put(name, Text("\0", 1) + message + "?" + signature);
  }
}

// On both sides of every bound.
void PutBounds(const char* top) {
  const Folder plain(top, "plain_read"), browse(top, "browse"), authenticate(top, "authenticate");
  constexpr uint64_t kMost = (64u << 20) - 136;
  for (const uint64_t size : {uint64_t{0}, kMost, kMost + 1, uint64_t{UINT32_MAX}}) {
    const std::string name = "announces-" + std::to_string(size);
    plain.Put(name, Arriving(4, 0, "", Announcing(size)));
    browse.Put(name, Text("\0", 1) + Arriving(4, 0, "", Announcing(size)));
  }
  for (const int seconds : {-301, -300, 300, 301}) {
    const Bytes message = SignedMessage(kForms[0], seconds);
    authenticate.Put(std::to_string(seconds) + "-seconds-off", Text("\1", 1) + message);
  }
}

void PutTexts(const char* top) {
  const Folder keys(top, "keys"), capture(top, "capture"), address(top, "address"), planted(top, "planted");
  const Bytes key = "d04ab232742bb4ab3a1368bd4615e4e6d0224ab71a016baf8520a332c9778737";  // a point of the curve
  keys.Put("one", Text("\0", 1) + "# a comment\nalice " + key + "\n");
  keys.Put("second-cut", Text("\0", 1) + "alice " + key + "\nb 1");
  keys.Put("two", Text("\0", 1) + "\talice " + key + " # hers\r\n\nbob " + key);
  capture.Put("pcap", Text("\3", 1) + Pcap(Message(kForms[1])));
  capture.Put("hex", Text("\2", 1) +
                         "00000000  88 00 00 00 01 00 00 00  00 00 00 00 01 00 00 00  |........|\n*\n"
                         "00000100: 8800 0000 0100  ......\n88000000\n");
  const auto field = [](const Bytes& text) { return Bytes(1, static_cast<char>(text.size())) + text; };
  address.Put("quad", field("127.0.0.1") + field("127.0.0.1") + field("4711") + "tcp");
  address.Put("names", field("localhost") + field("") + field("mq") + "tcp");
  planted.Put("nothing", "nothing happens");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fputs("usage: fuzz_seeds DIRECTORY\n", stderr), 2;
  PutMessages(argv[1]);
  PutBounds(argv[1]);
  PutTexts(argv[1]);
  return 0;
}
