// promises.hh - what each operation owes its caller when a call that it makes fails, as the headers state it: one table
// for all scenarios. The last call of an operation that decides is looked up.
#pragma once

#include <algorithm>
#include <climits>
#include <optional>

#include "tests/faults/calls.hh"

namespace faults {

// How an operation ended: 1 or 0, the code it left (a wait's: the status word; else node->error or rec->error), and the
// one in the node's socket record.
struct Outcome {
  int result, error, socket_error;
};
constexpr int kUntouched = 7777;  // the status word before a wait

// How a call ended, beside the codes of calls.hh: in any way, not with success, with success, with fewer bytes.
constexpr int kEnds = INT_MIN, kFails = INT_MIN + 1, kWhole = INT_MIN + 2, kPart = INT_MIN + 3;
// What is left in error, beside codes: not stated, the errno of the call (0 after a success), a code that is not 0.
constexpr int kAny = INT_MIN, kItself = INT_MIN + 1, kSome = INT_MIN + 2;
// In place of a result: the call decides nothing.
constexpr int kIgnored = -1;
// In place of calls: any; none that decides was made; memory was refused, when this outcome is right too.
constexpr std::string_view kAnyCall, kNoCall = "no-call", kMemory = "memory";

struct Promise {
  std::string_view operations, calls;
  int ending, result, error, socket_error = kAny;
};

// The first row that fits decides.
constexpr Promise kPromises[] = {
    {"create connect accept close browse", "uname close fcntl poll nanosleep", kEnds, kIgnored, kAny},
    // A creator returns the node whatever its socket does; the error is that of the last socket call.
    {"create", "getservbyname gethostbyname", kFails, 1, kSome},
    {"create", kAnyCall, kFails, 1, kItself},
    {"create", kMemory, kEnds, 0, kAny},
    {"connect", "connect", EISCONN, 1, 0},
    {"connect", "connect", EINPROGRESS, 0, SOCK_WOULD_BLOCK},
    {"accept", "accept", kWhole, 1, kAny},  // without memory for the child the result is 1 too

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

// The code with which a call failed, if it did.
inline std::optional<int> FailureOf(const Call& call) {
  if (call.result == -1) return call.error;
  if (call.result != 0) return std::nullopt;
  if (Lists("recvfrom select poll", call.name)) return kZero;
  return Lists("gethostbyname getservbyname", call.name) ? std::optional(call.error) : std::nullopt;
}

inline bool IsFor(const Promise& row, std::string_view operation) {
  return row.operations.empty() || Lists(row.operations, operation);
}

// Whether an outcome is promised to an operation that made these calls, in order.
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
