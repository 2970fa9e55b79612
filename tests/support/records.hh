// records.hh - helpers for tests of the companion: messages of any sender, records of exact size, files in a temporary
// folder, failing transfers. Include it in one source file of a test program.
#pragma once

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <utility>

#include "mqnode/mqnode.hpp"
#include "tests/support/fixture.hh"
#include "tests/support/sender.hh"

using sender::Form;
using sender::With;
using Bytes = std::string;

constexpr Form kForms[] = {{false, false}, {false, true}, {true, false}, {true, true}};

// The errno of the next read or write of the process; 0: it moves nothing.
inline std::optional<int> next_transfer;

inline ssize_t Transfer(long number, int fd, void* data, size_t size) {
  const auto code = std::exchange(next_transfer, std::nullopt);
  if (!code) return syscall(number, fd, data, size);
  errno = *code;
  return *code != 0 ? -1 : 0;
}
extern "C" ssize_t read(int fd, void* data, size_t size) { return Transfer(SYS_read, fd, data, size); }
extern "C" ssize_t write(int fd, const void* data, size_t size) {
  return Transfer(SYS_write, fd, const_cast<void*>(data), size);
}

inline void ExpectSays(std::string_view text, std::string_view part) {
  EXPECT_NE(text.find(part), text.npos) << '"' << text << "\" does not say \"" << part << '"';
}

inline MqcMemory Account(const char* tag) {
  MqcMemory memory;
  mqc_memory(tag, &memory);
  return memory;
}

// A folder that is removed with its content.
class Folder {
 public:
  Folder() { EXPECT_NE(mkdtemp(place_), nullptr); }
  ~Folder() { std::filesystem::remove_all(place_); }
  std::string Name(const std::string& name) const { return format("{}/{}", place_, name); }
  std::string File(const std::string& name, const std::string& text, mode_t mode = 0600) const {
    const std::string path = Name(name);
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
    return path;
  }

 private:
  char place_[32] = "/tmp/companion_XXXXXX";
};

inline std::string Content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A record whose raw area has exactly the size of its content, so that a sanitizer detects access beyond it.
class Exact : public mqnode::MessageRef {
 public:
  explicit Exact(const Bytes& bytes) : MessageRef(&record_), area_(new uint8_t[bytes.size()]) {
    mqc_message_init(&record_);
    std::copy(bytes.begin(), bytes.end(), area_.get());
    record_.raw.data = area_.get();
    record_.raw.capacity = record_.raw.length = static_cast<uint32_t>(bytes.size());
  }
  PcfMessage* operator->() { return &record_; }
  // Processes an arrived message like a plain read.
  bool Read() { return AlienToNative(&record_.raw) && AlienPcfToNative(&record_) && RawToPcf(&record_); }

 private:
  PcfMessage record_;
  std::unique_ptr<uint8_t[]> area_;
};

inline Bytes RawOf(mqnode::MessageRef msg) {
  return {reinterpret_cast<const char*>(msg.raw().data()), msg.raw().size()};
}

// All that an application can read of a message: "command: id=value ...; user, application, sender".
inline std::string Show(mqnode::MessageRef msg) {
  std::string text = format("{}:", msg.command());
  for (const mqnode::Param param : msg.params()) {
    const MqcParam& record = param.record();
    text += format(" {}=", param.id());
    if (param.is_number()) text += std::to_string(param.number());
    if (param.is_text()) text += format("'{}'", record.text);
    for (const uint8_t byte : param.bytes()) text += format("{:02x}", byte);
  }
  char user[13], application[49], sender[13];
  mqc_user(msg.get(), user);
  mqc_application(msg.get(), application);
  mqc_sender(msg.get(), sender);
  return format("{}; {}, {}, {}", text, user, application, sender);
}

// The sample, the same from any sender: its text as printed by Show, and the length of its body.
constexpr char kSample[] = "77: 1='four' 2=-5 3=-9223372036854775807 4=00feff 1=''; ";
constexpr uint32_t kSampleBody = 8 + 20 + 16 + 20 + 16 + 16;

inline Bytes SampleFrom(Form form, const std::string& user = "alice") {
  return sender::Plain(form, sender::Body(form, "four"), user);
}
