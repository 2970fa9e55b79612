// mutate.cc - invents inputs for the fuzzers. Half of the changes are libFuzzer's own. The others know what a message
// is: they cut it where one of its parts begins or ends, or next to that, or set one of its lengths to what is left, or
// next to it; then most of them let header and envelope announce what is there, so that the parser sees the fault.
#include <cstring>
#include <optional>
#include <random>

#include "runtime/message.h"
#include "tests/fuzz/fuzz.hh"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed);

namespace {

using Random = std::minstd_rand;

constexpr size_t kHeader = sizeof(MsgHeader);
constexpr size_t kEnvelope = sizeof(SecureHeader);
constexpr size_t kTrailer = 96;
constexpr size_t kParamHead = 12;  // id, type, length

struct Message {
  size_t begin;  // of the header
  size_t end;    // of the body
  bool big;
  bool enveloped;
  std::vector<size_t> places;   // where a part begins or ends
  std::vector<size_t> lengths;  // words: the number of parameters, the lengths of parameters
};

class Input {
 public:
  Input(uint8_t* data, size_t size, size_t most, unsigned seed)
      : data_(data), size_(size), most_(most), random_(seed) {}

  size_t Mutate() {
    if (Below(2) == 0) {
      size_ = LLVMFuzzerMutate(data_, size_, most_);
      if (const auto message = Choose(); message && Below(2) == 0) {
        const size_t back = message->enveloped ? kTrailer : 0;
        if (size_ >= message->begin + kHeader + back) Fit(*message, size_ - back);
      }
    } else if (const auto message = Choose()) {
      const size_t end = Below(2) == 0 ? Cut(*message) : SetLength(*message);
      if (Below(4) != 0) Fit(*message, end);
    } else {
      size_ = LLVMFuzzerMutate(data_, size_, most_);
    }
    return size_;
  }

 private:
  size_t Below(size_t bound) { return random_() % bound; }

  uint32_t Load(size_t at, bool big) const {
    uint32_t word;
    memcpy(&word, data_ + at, sizeof word);
    return big ? __builtin_bswap32(word) : word;
  }
  void Store(size_t at, bool big, size_t value) {
    const auto word = static_cast<uint32_t>(value);
    const uint32_t stored = big ? __builtin_bswap32(word) : word;
    memcpy(data_ + at, &stored, sizeof stored);
  }
  bool IsHeader(size_t at, uint32_t length) const { return Load(at, false) == length || Load(at, true) == length; }

  // One of the messages whose header is in the input.
  std::optional<Message> Choose() {
    std::vector<size_t> headers;
    for (size_t at = 0; at + kHeader <= size_; ++at) {
      if (IsHeader(at, kHeader)) headers.push_back(at);
    }
    if (headers.empty()) return std::nullopt;
    return Walk(headers[Below(headers.size())]);
  }

  Message Walk(size_t begin) const {
    const bool big = Load(begin, true) == kHeader;
    const size_t body = begin + kHeader;
    const size_t end = std::min<size_t>(size_, body + Load(begin + offsetof(MsgHeader, bodyLength), big));
    const bool enveloped = begin >= kEnvelope && IsHeader(begin - kEnvelope, kEnvelope);
    Message message = {begin, end, big, enveloped, {begin, body, end}, {}};
    if (body + 8 > end) return message;
    message.lengths.push_back(body + 4);
    for (size_t at = body + 8; at + kParamHead <= end;) {
      const size_t value = at + kParamHead;
      const size_t next = value + ((size_t{Load(at + 8, big)} + (Load(at + 4, big) == 3 ? 4 : 3)) & ~size_t{3});
      message.lengths.push_back(at + 8);
      message.places.insert(message.places.end(), {at, value, std::min(next, end)});
      at = next;
    }
    return message;
  }

  // Takes out what is between a place and the end of the message, or one byte there. The new end.
  size_t Cut(const Message& message) {
    const size_t place = message.places[Below(message.places.size())] + Below(3);
    const size_t from = std::clamp(place == 0 ? 0 : place - 1, message.begin + 4, message.end);
    const size_t cut = Below(4) == 0 ? std::min<size_t>(1, message.end - from) : message.end - from;
    memmove(data_ + from, data_ + from + cut, size_ - from - cut);
    size_ -= cut;
    return message.end - cut;
  }

  // Sets a length to what is left behind it, to what it was, or to nothing: exactly, or one more or less.
  size_t SetLength(const Message& message) {
    if (message.lengths.empty()) return message.end;
    const size_t at = message.lengths[Below(message.lengths.size())];
    const size_t values[] = {message.end - at - 4, Load(at, message.big), 0};
    Store(at, message.big, values[Below(3)] + Below(3) - 1);
    return message.end;
  }

  // Lets header and envelope announce a body that ends there.
  void Fit(const Message& message, size_t end) {
    if (end < message.begin + kHeader) return;
    Store(message.begin + offsetof(MsgHeader, bodyLength), message.big, end - message.begin - kHeader);
    if (!message.enveloped) return;
    const size_t envelope = message.begin - kEnvelope;
    const size_t back = std::min(kTrailer, size_ - end);
    Store(envelope + offsetof(SecureHeader, msgLength), Load(envelope, true) == kEnvelope, end + back - message.begin);
  }

  uint8_t* data_;
  size_t size_;
  const size_t most_;
  Random random_;
};

}  // namespace

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed) {
  return Input(data, size, most, seed).Mutate();
}
