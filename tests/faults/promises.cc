// promises.cc - what each operation owes its caller when a call that it makes fails, as the headers state it: one table
// for all scenarios. The last call of an operation that decides is looked up.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>

#include "tests/faults/faults.hh"

namespace faults {

namespace {

// How a call ended, beside the codes of calls.cc.
constexpr int kEnds = INT_MIN;       // in any way
constexpr int kFails = INT_MIN + 1;  // in any way but success
constexpr int kWhole = INT_MIN + 2;  // it did what it was asked
constexpr int kPart = INT_MIN + 3;   // it moved fewer bytes than asked
// What is left in error, beside codes.
constexpr int kAny = INT_MIN;         // not stated
constexpr int kItself = INT_MIN + 1;  // the errno of the call, 0 after a success
constexpr int kSome = INT_MIN + 2;    // a code that is not 0
// In place of a result: the call decides nothing.
constexpr int kIgnored = -1;
// In place of calls.
constexpr std::string_view kAnyCall = "";
constexpr std::string_view kNoCall = "no call";  // that decides was made
constexpr std::string_view kMemory = "memory";   // was refused meanwhile: this outcome is right too

struct Promise {
  std::string_view operations, calls;
  int ending, result, error, socket_error = kAny;
};

// The first row that fits decides.
const Promise kPromises[] = {
    {"create connect accept close browse name", "system fopen fgets fclose remove uname close fcntl poll nanosleep",
     kEnds, kIgnored, kAny},
    // A creator returns the node whatever its socket does; the error is that of the last socket call.
    {"create", "getservbyname gethostbyname", kFails, 1, kSome},
    {"create", kAnyCall, kFails, 1, kItself},
    {"create", kMemory, kEnds, 0, kAny},
    {"connect", "getservbyname gethostbyname", kFails, 0, kSome},
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

    {"ask", "gethostname", kFails, 1, kAny},  // the network is down
    {"ask", "gethostname", kWhole, 0, kAny},
    {"ask", kAnyCall, kFails, 0, kAny},

    {"close", kNoCall, kEnds, 1, kAny},
    {"create write finish wait name", kNoCall, kEnds, 1, 0},
    {kAnyCall, kAnyCall, kFails, 0, kItself},
    {kAnyCall, kAnyCall, kEnds, 1, 0},
};

bool IsFailure(int ending) { return ending != kWhole && ending != kPart; }

int Ending(const Call& call) {
  if (const std::optional<int> code = FailureOf(call)) return *code;
  const bool moves = Lists("send sendto recvfrom", call.name);
  return moves && static_cast<size_t>(call.result) < call.size ? kPart : kWhole;
}

bool IsFor(const Promise& promise, std::string_view operation) {
  return promise.operations.empty() || Lists(promise.operations, operation);
}

const Promise& Find(std::string_view operation, const Call& call, int ending) {
  return *std::find_if(std::begin(kPromises), std::end(kPromises), [&](const Promise& row) {
    return IsFor(row, operation) && (row.calls.empty() || Lists(row.calls, call.name)) &&
           (row.ending == kEnds || row.ending == ending || (row.ending == kFails && IsFailure(ending)));
  });
}

bool Matches(int promised, int itself, int error) {
  if (promised == kAny) return true;
  return promised == kSome ? error != 0 : error == (promised == kItself ? itself : promised);
}

std::string Text(int error, int itself) {
  if (error == kAny) return "any error";
  return error == kSome ? "an error" : fmt::format("error {}", error == kItself ? itself : error);
}

}  // namespace

std::optional<int> FailureOf(const Call& call) {
  const bool zero = Lists("recvfrom select poll", call.name) && call.result == 0;
  const bool null =
      Lists("gethostbyname gethostbyaddr getservbyname getservbyport fopen fgets", call.name) && call.result == 0;
  if (zero) return kZero;
  return call.result == -1 || null ? std::optional(call.error) : std::nullopt;
}

std::string Judge(std::string_view operation, const std::vector<Call>& calls, bool refused, const Outcome& outcome) {
  const Promise* decided = nullptr;
  int itself = 0;
  for (const Call& call : calls) {
    const int ending = Ending(call);
    const Promise& row = Find(operation, call, ending);
    if (row.result == kIgnored) continue;
    decided = &row;
    itself = IsFailure(ending) ? ending : 0;
  }
  std::string promised;
  for (const Promise& row : kPromises) {
    const bool applies = (row.calls == kMemory && refused) || (row.calls == kNoCall && decided == nullptr);
    if (!(&row == decided || (applies && IsFor(row, operation)))) continue;
    if (row.result == outcome.result && Matches(row.error, itself, outcome.error) &&
        Matches(row.socket_error, itself, outcome.socket_error)) {
      return "";
    }
    promised += fmt::format("{}result {}, {}, of the socket {}", promised.empty() ? "" : " or ", row.result,
                            Text(row.error, itself), Text(row.socket_error, itself));
  }
  return promised.empty() ? "that some call decides" : promised;
}

}  // namespace faults
