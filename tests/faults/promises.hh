// promises.hh - the documented outcome of each operation when one of its calls fails: one table for all scenarios. The
// last relevant call of an operation decides.
#pragma once

#include <algorithm>
#include <climits>
#include <optional>

#include "tests/faults/calls.hh"

namespace faults {

// Outcome of an operation: 1 or 0, its error (of a wait: the status word; else node->error or rec->error), and the
// error in the node's socket record.
struct Outcome {
  int result, error, socket_error;
};
constexpr int kUntouched = 7777;  // the status word before a wait

// Endings of a call, other than the codes of calls.hh: any, failure, success, fewer bytes.
constexpr int kEnds = INT_MIN, kFails = INT_MIN + 1, kWhole = INT_MIN + 2, kPart = INT_MIN + 3;
// Values of error, other than codes: not specified, the errno of the call (0 after a success), any code except 0.
constexpr int kAny = INT_MIN, kItself = INT_MIN + 1, kSome = INT_MIN + 2;
// As a result: the call does not decide.
constexpr int kIgnored = -1;
// As calls: any; no deciding call was made; memory was refused, which makes this outcome valid as well.
constexpr std::string_view kAnyCall, kNoCall = "no-call", kMemory = "memory";

struct Promise {
  std::string_view operations, calls;
  int ending, result, error, socket_error = kAny;
};

// The first matching row applies.
constexpr Promise kPromises[] = {
    {"create connect accept close browse", "uname close fcntl poll nanosleep", kEnds, kIgnored, kAny},
    // A creator returns the node even if its socket fails, with the error of the last socket call.
    {"create", "getservbyname gethostbyname", kFails, 1, kSome},
    {"create", kAnyCall, kFails, 1, kItself},
    {"create", kMemory, kEnds, 0, kAny},
    {"connect", "connect", EISCONN, 1, 0},
    {"connect", "connect", EINPROGRESS, 0, SOCK_WOULD_BLOCK},
    {"accept", "accept", kWhole, 1, kAny},  // also 1 without memory for the child

    {"write finish", "send sendto", EAGAIN, 1, MQ_AGAIN},
    {"write finish", "send sendto", kFails, 0, MQ_AGAIN, kItself},
    {"write", "send", kPart, 1, MQ_AGAIN},
    {"write", kNoCall, kEnds, 0, MQ_WRITE_LIMIT},
    {"write finish", kMemory, kEnds, 0, MQ_AGAIN},
    {"write", kMemory, kEnds, 0, MQ_NOT_SIGNED},
    {"read browse", "recvfrom", kZero, 0, SOCK_PEER_CLOSED},
    {"browse", "recvfrom", kPart, 0, MQ_AGAIN},
    {"read browse", kMemory, kEnds, 0, MQ_NO_ROOM},
    {"read", kMemory, kEnds, 0, MQ_NOT_AUTHENTIC},

    {"wait", "select", kZero, 0, SOCK_WAIT_TIMEOUT},
    {"wait", kMemory, kEnds, 0, kUntouched},
    {"wait", kMemory, kEnds, 0, ENOMEM},

    {"close", kNoCall, kEnds, 1, kAny},
    {"create write finish wait", kNoCall, kEnds, 1, 0},
    {"", kAnyCall, kFails, 0, kItself},
    {"", kAnyCall, kEnds, 1, 0},
};

// The code with which a call failed, if it failed.
inline std::optional<int> FailureOf(const Call& call) {
  if (call.result == -1) return call.error;
  if (call.result != 0) return std::nullopt;
  if (Lists("recvfrom select poll", call.name)) return kZero;
  return Lists("gethostbyname getservbyname", call.name) ? std::optional(call.error) : std::nullopt;
}

inline bool IsFor(const Promise& row, std::string_view operation) {
  return row.operations.empty() || Lists(row.operations, operation);
}

// Whether the table promises an outcome to an operation that made these calls, in this order.
inline bool IsPromised(std::string_view operation, const std::vector<Call>& calls, bool refused, const Outcome& is) {
  const Promise* decided = nullptr;
  int itself = 0;
  for (const Call& call : calls) {
    const std::optional<int> failure = FailureOf(call);
    const bool part = Lists("send sendto recvfrom", call.name) && static_cast<size_t>(call.result) < call.size;
    const int ending = failure ? *failure : part ? kPart : kWhole;
    const Promise& row = *std::ranges::find_if(kPromises, [&](const Promise& at) {
      return IsFor(at, operation) && (at.calls == kAnyCall || Lists(at.calls, call.name)) &&
             (at.ending == kEnds || at.ending == ending || (at.ending == kFails && failure));
    });
    if (call.kind != 'c' || row.result == kIgnored) continue;
    decided = &row;
    itself = failure.value_or(0);
  }
  const auto matches = [&](int promised, int error) {
    return promised == kAny || (promised == kSome ? error != 0 : error == (promised == kItself ? itself : promised));
  };
  return std::ranges::any_of(kPromises, [&](const Promise& row) {
    const bool applies = (row.calls == kMemory && refused) || (row.calls == kNoCall && decided == nullptr);
    return (&row == decided || (applies && IsFor(row, operation))) && row.result == is.result &&
           matches(row.error, is.error) && matches(row.socket_error, is.socket_error);
  });
}

}  // namespace faults
