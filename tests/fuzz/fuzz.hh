// fuzz.hh - code shared by the targets: the input as options and bytes, requirements.
//
// A target is one source file with LLVMFuzzerTestOneInput. The first bytes of an input choose options, the others go to
// the code under test. Targets are deterministic: no clock, no randomness, no network.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "companion/host.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t most);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t most, unsigned seed);

// Ends the process, which the fuzzer and the tests count as a finding.
#define REQUIRE(condition) ((condition) ? void() : fuzz::Fail(#condition, __FILE__, __LINE__))

namespace fuzz {

using Bytes = std::span<const uint8_t>;

constexpr int64_t kPresent = 1'700'000'000'000;  // time of the stopped clock

[[noreturn]] inline void Fail(const char* condition, const char* file, int line) {
  fprintf(stderr, "%s:%d: requirement failed: %s\n", file, line, condition);
  abort();
}

// Takes parts from the front of an input; returns zeros at its end.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : rest_(data, size) {}
  uint8_t Byte() { return rest_.empty() ? 0 : Take(1)[0]; }
  Bytes Take(size_t most) {
    const Bytes taken = rest_.first(std::min(most, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  Bytes Rest() { return Take(rest_.size()); }

 private:
  Bytes rest_;
};

// A copy in a block of exactly this size, so that the sanitizer detects an access to the first byte after it.
inline std::vector<uint8_t> Copy(Bytes bytes) { return {bytes.begin(), bytes.end()}; }
inline std::string TextOf(Bytes bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace fuzz
