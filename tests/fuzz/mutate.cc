// mutate.cc - invents inputs. Half of the changes are libFuzzer's own, or a random byte where it is not linked. The
// others know the layout of a message: they cut it where one of its parts begins, or next to that, or set a word there
// to the number of bytes behind it, or one off. Then most of them let header and envelope announce what is there, so
// that the parser sees the fault.
#include <cstring>
#include <random>

#include "tests/fuzz/oracle.hh"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed);

namespace {

using fuzz::kEnvelope;
using fuzz::kHeader;

class Mutation {
 public:
  Mutation(uint8_t* data, size_t size, unsigned seed) : data_(data), size_(size), random_(seed) {}

  size_t Mutate(size_t most) {
    const bool found = FindMessage();
    if (!found || Below(2) == 0) {
      end_ -= size_;
      size_ = LLVMFuzzerMutate(data_, size_, most);
      end_ += size_;
    } else if (Below(2) == 0) {
      Cut(std::clamp(Place() + Below(3), begin_ + 5, end_ + 1) - 1);
    } else if (const size_t word = Place(); word + 4 <= end_) {
      Store(word, big_, (Below(2) == 0 ? end_ - word - 4 : Load(word, big_)) + Below(3) - 1);
    }
    if (found && Below(4) != 0) Fit();
    return size_;
  }

 private:
  size_t Below(size_t bound) { return random_() % bound; }
  size_t Place() { return places_[Below(places_.size())]; }
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
  bool IsLength(size_t at, uint32_t length) const { return Load(at, false) == length || Load(at, true) == length; }

  // Picks a message: its header and body, without envelope and trailer.
  bool FindMessage() {
    std::vector<size_t> headers;
    for (size_t at = 0; at + kHeader <= size_; ++at) {
      if (IsLength(at, kHeader)) headers.push_back(at);
    }
    if (headers.empty()) return false;
    begin_ = headers[Below(headers.size())];
    big_ = Load(begin_, true) == kHeader;
    const size_t body = begin_ + kHeader;
    end_ = std::min<size_t>(size_, body + Load(begin_ + offsetof(MsgHeader, bodyLength), big_));
    places_ = {begin_, body, body + 4, end_};
    for (size_t at = body + 8; at + 12 <= end_;) {
      places_.insert(places_.end(), {at, at + 8, at + 12});
      const size_t stored = Load(at + 8, big_) + (Load(at + 4, big_) == MQC_TEXT ? size_t{4} : 3);
      at += 12 + stored / 4 * 4;
    }
    return true;
  }

  // Takes out what is between this place and the end of the message, or one byte.
  void Cut(size_t from) {
    const size_t cut = Below(4) == 0 ? std::min<size_t>(1, end_ - from) : end_ - from;
    memmove(data_ + from, data_ + from + cut, size_ - from - cut);
    size_ -= cut;
    end_ -= cut;
  }

  // Lets header and envelope announce a body that ends there.
  void Fit() {
    if (end_ < begin_ + kHeader || end_ > size_) return;
    Store(begin_ + offsetof(MsgHeader, bodyLength), big_, end_ - begin_ - kHeader);
    if (begin_ < kEnvelope || !IsLength(begin_ - kEnvelope, kEnvelope)) return;
    const bool big = Load(begin_ - kEnvelope, true) == kEnvelope;
    const size_t length = end_ - begin_ + std::min(fuzz::kTrailer, size_ - end_);
    Store(begin_ - kEnvelope + offsetof(SecureHeader, msgLength), big, length);
  }

  uint8_t* data_;
  size_t size_;
  std::minstd_rand random_;
  size_t begin_ = 0, end_ = 0;
  bool big_ = false;
  std::vector<size_t> places_;  // where parts begin; lengths of parameters are words at such places
};

}  // namespace

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed) {
  return Mutation(data, size, seed).Mutate(most);
}
