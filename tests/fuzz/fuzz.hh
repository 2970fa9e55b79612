// fuzz.hh - what every target stands on: the input as options and bytes, promises, and the account of memory.
//
// A target is one source with LLVMFuzzerTestOneInput. The first bytes of an input choose options, the rest is what the
// code under test meets. The same input always does the same: no clock, no randomness, no network.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

using Bytes = std::span<const uint8_t>;

// Says which promise was broken and ends the process, which the fuzzer and the tests count as a finding.
[[noreturn]] void Broken(const char* promise, const char* file, int line);
#define HOLDS(promise) (static_cast<bool>(promise) ? void() : ::fuzz::Broken(#promise, __FILE__, __LINE__))

// Hands the input out from the front; behind its end there are zeros.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : rest_(data, size) {}
  uint8_t Byte();
  Bytes Take(size_t size);  // at most that many
  Bytes Rest() { return Take(rest_.size()); }

 private:
  Bytes rest_;
};

// A copy in a block of exactly this size, so that the first byte beyond it is noticed.
inline std::vector<uint8_t> Copy(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

inline bool Same(Bytes a, Bytes b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

inline std::string_view TextOf(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// Every block of the companion that was allocated in its scope has to be released in it, but for the ring and the
// memory of seen messages, which belong to the process. No allocation fails before and behind it.
class Account {
 public:
  Account();
  ~Account();
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;

 private:
  uint64_t live_;
};

}  // namespace fuzz
