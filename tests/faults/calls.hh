// calls.hh - the calls that the library makes outside itself: which can fail and how, which cannot and why.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/platform.hh"

namespace faults {

// Codes beside errno values. kZero: the call returns 0 (the peer ended, the wait timed out). kNone: a failure without
// an errno.
constexpr int kZero = Platform::kZero;
constexpr int kNone = 0;

// Allocations that the companion refuses; a pseudo call, as "companion malloc" is.
constexpr std::string_view kAllocation = "allocation";

struct FailingCall {
  std::string_view name;
  std::vector<int> codes;  // each way in which it can fail
};

struct SafeCall {
  std::string_view name;
  std::string_view reason;
};

std::span<const FailingCall> FailingCalls();
std::span<const SafeCall> SafeCalls();

// "EAGAIN", "ZERO", "NONE" and back; -2 for a name that is none.
std::string CodeName(int code);
int CodeFromName(std::string_view name);

// The names that the loaded library imports from libc, as nm sees them; empty when nm cannot tell.
std::vector<std::string> Imports();

}  // namespace faults
