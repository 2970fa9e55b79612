// seeds.cc - writes the messages with which fuzzing starts: DIRECTORY/TARGET/NAME. tests/support/sender.hh makes them
// in every form; signatures are zeros.
#include <filesystem>
#include <fstream>

#include "tests/fuzz/fuzz.hh"
#include "tests/support/sender.hh"

namespace {

using namespace sender;

std::filesystem::path top;

void Put(const char* target, const std::string& name, std::initializer_list<int> options, const Bytes& bytes) {
  std::filesystem::create_directories(top / target);
  std::ofstream file(top / target / name, std::ios::binary);
  Check((file << Bytes(options.begin(), options.end()) << bytes).flush().good(), "write a seed");
}

// Signed this many seconds after the present, with a nonce of zeros.
Bytes ToSign(Form form, const Bytes& message, int seconds = 0) {
  const Encoder trailer = Encoder({true, false}).Raw("MQSIGN01").Number(fuzz::kPresent + seconds * 1000, 8);
  return Enveloped(form, message, "alice", trailer.bytes + Bytes(16 + 64, '\0'));
}

// Sealed for alice with a tag of zeros, and not encrypted.
Bytes ToOpen(Form form, const Bytes& message) {
  const Bytes seal = Encoder({}).Text("alice", 16).Raw(Bytes(32, 'k')).Raw(Bytes(16, '\0')).bytes;
  const Encoder trailer = Encoder({true, false}).Raw("MQSIGN02").Number(fuzz::kPresent, 8);
  return Enveloped(form, message + seal, "alice", trailer.bytes + Bytes(16 + 64, '\0'), 2);
}

// The options of reader.cc are the mode, the calls, and the cuts.
void PutMessages(Form form) {
  const std::string name = std::string(form.big ? "big" : "little") + (form.ebcdic ? "-ebcdic" : "-ascii");
  const Bytes message = Plain(form, Body(form, "how is the weather?"), "alice"), to_sign = ToSign(form, message);
  Put("reader", name, {form.big ? 4 : 0, form.ebcdic ? 4 : 0, 5, 50, 0, 86, 10, 255}, message + message);
  Put("reader", name + "-signed", {form.big ? 6 : 2, 0, 5, 50, 0, 86, 10, 255}, to_sign + to_sign);
  const Bytes to_open = ToOpen(form, message);
  Put("reader", name + "-sealed", {form.big ? 2 : 10, 0, 5, 50, 0, 86, 10, 255}, to_open + to_open + to_sign);
  Put("reader", name + "-sealed-datagram", {form.big ? 3 : 19, 0, 0}, to_open);
  Put("reader", name + "-datagrams", {1, 4, 1, static_cast<int>(message.size())}, message + message);
  Put("reader", name + "-signed-datagram", {3, 12, 0}, to_sign);
  Put("message", name, {0}, message);
  Put("message", name + "-stream", {0}, message + "?" + to_sign);
  Put("message", name + "-sealed", {6}, to_open + message + to_open);
}

// Values on both sides of every bound.
void PutBounds() {
  for (const uint32_t size : {0u, (64u << 20) - 136, (64u << 20) - 135, UINT32_MAX}) {
    Put("reader", "announces-" + std::to_string(size), {0, 4, 2, 136, 1}, Encoder({}).Header(size, "alice").bytes);
  }
  for (const int seconds : {-301, -300, 300, 301}) {
    const Bytes message = ToSign({}, Plain({}, Body({}, "late"), "alice"), seconds);
    Put("reader", std::to_string(seconds) + "-seconds-off", {2, 0, 0}, message);
  }
}

}  // namespace

int main(int, char** argv) {
  top = argv[1];
  for (const Form form : {Form{false, false}, {true, false}, {false, true}, {true, true}}) PutMessages(form);
  PutBounds();
}
