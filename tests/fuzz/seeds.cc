// seeds.cc - writes the messages that fuzzing begins with: DIRECTORY/TARGET/NAME. tests/support/sender.hh makes them in
// every form, signed ones without their signature, which reader.cc puts in.
#include <filesystem>
#include <fstream>

#include "tests/support/sender.hh"

namespace {

using namespace sender;

std::filesystem::path top;

void Put(const char* target, const std::string& name, std::initializer_list<int> options, const Bytes& bytes) {
  std::filesystem::create_directories(top / target);
  std::ofstream file(top / target / name, std::ios::binary);
  Check((file << Bytes(options.begin(), options.end()) << bytes).flush().good(), "write a seed");
}

// Signed so many seconds off the present, with a nonce of zeros.
Bytes ToSign(Form form, const Bytes& message, int seconds = 0) {
  const Bytes time = Encoder({true, false}).Number(static_cast<uint64_t>(seconds), 8).bytes;
  return Enveloped(form, message, "alice", "MQSIGN01" + time + Bytes(16 + 64, '\0'));
}

// The options of reader.cc are the mode, the calls, what fails, and the cuts.
void PutMessages(Form form) {
  const std::string name = std::string(form.big ? "big" : "little") + (form.ebcdic ? "-ebcdic" : "-ascii");
  const Bytes message = Plain(form, Body(form, "how is the weather?"), "alice"), to_sign = ToSign(form, message);
  Put("reader", name, {form.big ? 4 : 0, form.ebcdic ? 4 : 0, 0, 5, 50, 0, 86, 10, 255}, message + message);
  Put("reader", name + "-signed", {form.big ? 38 : 34, 0, 0, 5, 50, 0, 86, 10, 255}, to_sign + to_sign);
  Put("reader", name + "-datagrams", {1, 4, 0, 1, static_cast<int>(message.size())}, message + message);
  Put("reader", name + "-signed-datagram", {35, 12, 0, 0}, to_sign);
  Put("message", name, {0}, message);
  Put("message", name + "-signed", {0}, to_sign);
  Put("message", name + "-stream", {0}, message + "?" + to_sign);
}

// On both sides of every bound.
void PutBounds() {
  constexpr uint64_t kMost = (64u << 20) - 136;
  for (const uint64_t size : {uint64_t{0}, kMost, kMost + 1, uint64_t{UINT32_MAX}}) {
    Put("reader", "announces-" + std::to_string(size), {16, 4, 0, 0}, Encoder({}).Header(size, "alice").bytes);
  }
  for (const int seconds : {-301, -300, 300, 301}) {
    const Bytes message = ToSign({}, Plain({}, Body({}, "late"), "alice"), seconds);
    Put("reader", std::to_string(seconds) + "-seconds-off", {34, 0, 0, 0}, message);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fputs("usage: fuzz_seeds DIRECTORY\n", stderr), 2;
  top = argv[1];
  for (const Form form : {Form{false, false}, {true, false}, {false, true}, {true, true}}) PutMessages(form);
  PutBounds();
  return 0;
}
