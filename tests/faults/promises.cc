// promises.cc - the table, and how it is read: the last call that decides is looked up.
#include "tests/faults/promises.hh"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>
#include <string_view>

#include "mqnode/mqnode.h"
#include "tests/faults/calls.hh"

namespace faults {

namespace {

// How a call ended, beside the codes of calls.hh.
constexpr int kOther = -10;  // any failure that has no row of its own
constexpr int kWhole = -11;  // it did what it was asked
constexpr int kPart = -12;   // it moved fewer bytes than asked
// What is left in error, beside codes.
constexpr int kItself = INT_MIN;    // the errno of the call
constexpr int kSome = INT_MIN + 1;  // a code that is not 0
constexpr int kAny = INT_MIN + 2;   // not stated
// In place of a call.
constexpr std::string_view kNoCall = "";  // no call that decides was made

struct Promise {
  Op op;
  std::string_view call;
  int code;
  int result;
  int error;
  int sock = kAny;
};

const Promise kPromises[] = {
    // A creator returns the node whatever its socket does; the error is that of the last socket call.
    {Op::kCreate, "socket", kOther, 1, kItself},
    {Op::kCreate, "setsockopt", kOther, 1, kItself},
    {Op::kCreate, "setsockopt", kWhole, 1, 0},
    {Op::kCreate, "getservbyname", kOther, 1, kSome},
    {Op::kCreate, "gethostbyname", kOther, 1, kSome},
    {Op::kCreate, "bind", kOther, 1, kItself},
    {Op::kCreate, "bind", kWhole, 1, 0},
    {Op::kCreate, "listen", kOther, 1, kItself},
    {Op::kCreate, "listen", kWhole, 1, 0},
    {Op::kCreate, kNoCall, 0, 1, 0},
    {Op::kCreate, kAllocation, 0, 0, kAny},

    {Op::kMode, "fcntl", kOther, 0, kItself},
    {Op::kMode, "fcntl", kWhole, 1, 0},
    {Op::kOption, "setsockopt", kOther, 0, kItself},
    {Op::kOption, "setsockopt", kWhole, 1, 0},
    {Op::kOption, "getsockopt", kOther, 0, kItself},
    {Op::kOption, "getsockopt", kWhole, 1, 0},

    {Op::kConnect, "getservbyname", kOther, 0, kSome},
    {Op::kConnect, "gethostbyname", kOther, 0, kSome},
    {Op::kConnect, "connect", EISCONN, 1, 0},
    {Op::kConnect, "connect", EINPROGRESS, 0, SOCK_WOULD_BLOCK},
    {Op::kConnect, "connect", kOther, 0, kItself},
    {Op::kConnect, "connect", kWhole, 1, 0},
    // Without memory for the child the result is 1 too.
    {Op::kAccept, "accept", kOther, 0, kItself},
    {Op::kAccept, "accept", kWhole, 1, kAny},

    {Op::kWrite, "send", EAGAIN, 1, MQ_AGAIN},
    {Op::kWrite, "send", kOther, 0, MQ_AGAIN, kItself},
    {Op::kWrite, "send", kWhole, 1, 0},
    {Op::kWrite, "send", kPart, 1, MQ_AGAIN},
    {Op::kWrite, "sendto", EAGAIN, 1, MQ_AGAIN},
    {Op::kWrite, "sendto", kOther, 0, MQ_AGAIN, kItself},
    {Op::kWrite, "sendto", kWhole, 1, 0},
    {Op::kWrite, kNoCall, 0, 1, 0},
    {Op::kWrite, kNoCall, 0, 0, MQ_WRITE_LIMIT},
    {Op::kWrite, kAllocation, 0, 0, MQ_AGAIN},
    {Op::kWrite, kAllocation, 0, 0, MQ_NOT_SIGNED},

    {Op::kFinish, "send", EAGAIN, 1, MQ_AGAIN},
    {Op::kFinish, "send", kOther, 0, MQ_AGAIN, kItself},
    {Op::kFinish, "send", kWhole, 1, 0},
    {Op::kFinish, "send", kPart, 1, 0},
    {Op::kFinish, "sendto", EAGAIN, 1, MQ_AGAIN},
    {Op::kFinish, "sendto", kOther, 0, MQ_AGAIN, kItself},
    {Op::kFinish, "sendto", kWhole, 1, 0},
    {Op::kFinish, kNoCall, 0, 1, 0},
    {Op::kFinish, kAllocation, 0, 0, MQ_AGAIN},

    {Op::kRead, "recvfrom", kZero, 0, SOCK_PEER_CLOSED},
    {Op::kRead, "recvfrom", kOther, 0, kItself},
    {Op::kRead, "recvfrom", kWhole, 1, 0},
    {Op::kRead, "recvfrom", kPart, 1, 0},
    {Op::kRead, kAllocation, 0, 0, MQ_NO_ROOM},
    {Op::kRead, kAllocation, 0, 0, MQ_NOT_AUTHENTIC},

    {Op::kBrowse, "recvfrom", kZero, 0, SOCK_PEER_CLOSED},
    {Op::kBrowse, "recvfrom", kOther, 0, kItself},
    {Op::kBrowse, "recvfrom", kWhole, 1, 0},
    {Op::kBrowse, "recvfrom", kPart, 0, MQ_AGAIN},
    {Op::kBrowse, kAllocation, 0, 0, MQ_NO_ROOM},

    {Op::kWait, "select", kZero, 0, SOCK_WAIT_TIMEOUT},
    {Op::kWait, "select", kOther, 0, kItself},
    {Op::kWait, "select", kWhole, 1, 0},
    {Op::kWait, kNoCall, 0, 1, 0},  // a work record alone
    {Op::kWait, kAllocation, 0, 0, kUntouched},
    {Op::kWait, kAllocation, 0, 0, ENOMEM},

    {Op::kClose, kNoCall, 0, 1, kAny},

    // What the library asks about the host and its names.
    {Op::kAsk, "uname", kOther, 0, kAny},
    {Op::kAsk, "uname", kWhole, 1, kAny},
    {Op::kAsk, "gethostname", kOther, 1, kAny},  // the network is down
    {Op::kAsk, "gethostname", kWhole, 0, kAny},
    {Op::kAsk, "gethostbyname", kOther, 0, kAny},
    {Op::kAsk, "gethostbyname", kWhole, 1, kAny},
    {Op::kAsk, "gethostbyaddr", kOther, 0, kAny},
    {Op::kAsk, "gethostbyaddr", kWhole, 1, kAny},
    {Op::kAsk, "getservbyport", kOther, 0, kAny},
    {Op::kAsk, "getservbyport", kWhole, 1, kAny},
    {Op::kName, kNoCall, 0, 1, 0},
};

// Calls whose failure changes neither result nor error.
struct NoEffect {
  Op op;
  std::string_view call;
};

const NoEffect kNoEffects[] = {
    {Op::kCreate, "system"}, {Op::kCreate, "fopen"}, {Op::kCreate, "fgets"},  {Op::kCreate, "fclose"},
    {Op::kCreate, "remove"}, {Op::kCreate, "uname"}, {Op::kConnect, "uname"}, {Op::kAccept, "close"},
    {Op::kClose, "close"},   {Op::kBrowse, "fcntl"}, {Op::kBrowse, "poll"},   {Op::kBrowse, "nanosleep"},
    {Op::kName, "system"},   {Op::kName, "fopen"},   {Op::kName, "fgets"},    {Op::kName, "fclose"},
    {Op::kName, "remove"},
};

bool IsLookup(std::string_view name) { return name.starts_with("get") && name.find("by") != name.npos; }

int Ending(const Call& call) {
  int code = 0;
  if (Failed(call, &code)) return code;
  const bool moves = call.name == "send" || call.name == "sendto" || call.name == "recvfrom";
  return moves && static_cast<size_t>(call.result) < call.size ? kPart : kWhole;
}

bool IsFailure(int ending) { return ending != kWhole && ending != kPart; }

const Promise* Find(Op op, std::string_view call, int ending) {
  const auto row = [&](int code) {
    return std::find_if(std::begin(kPromises), std::end(kPromises),
                        [&](const Promise& p) { return p.op == op && p.call == call && p.code == code; });
  };
  const Promise* found = row(ending);
  if (found == std::end(kPromises) && IsFailure(ending)) found = row(kOther);
  return found != std::end(kPromises) ? found : nullptr;
}

bool Matches(int promised, int itself, int error) {
  if (promised == kAny) return true;
  if (promised == kSome) return error != 0;
  return error == (promised == kItself ? itself : promised);
}

bool Holds(const Promise& promise, int itself, const Came& came) {
  return promise.result == came.result && Matches(promise.error, itself, came.error) &&
         Matches(promise.sock, itself, came.sock);
}

std::string Text(int error, int itself) {
  if (error == kAny) return "any error";
  if (error == kSome) return "an error";
  return "error " + std::to_string(error == kItself ? itself : error);
}

}  // namespace

std::string Text(Op op) {
  static const char* const names[] = {"creation", "blocking mode", "option", "connect", "accept", "write", "finish",
                                      "read",     "browse",        "wait",   "close",   "query",  "name"};
  return names[static_cast<int>(op)];
}

bool Failed(const Call& call, int* code) {
  const bool file = call.name == "fopen" || call.name == "fgets";
  const bool zero = call.name == "recvfrom" || call.name == "select" || call.name == "poll";
  *code = zero && call.result == 0 ? kZero : call.error;
  return call.result == -1 || ((IsLookup(call.name) || file || zero) && call.result == 0);
}

std::string Judge(Op op, const std::vector<Call>& calls, bool refused, const Came& came) {
  const Promise* decided = nullptr;
  int itself = 0;
  for (const Call& call : calls) {
    const int ending = Ending(call);
    const Promise* const row = Find(op, call.name, ending);
    if (row != nullptr) {
      decided = row;
      itself = IsFailure(ending) ? ending : 0;
    } else if (IsFailure(ending) && std::none_of(std::begin(kNoEffects), std::end(kNoEffects), [&](const NoEffect& n) {
                 return n.op == op && n.call == call.name;
               })) {
      return "no row says what a " + Text(op) + " comes to after " + call.Text();
    }
  }
  std::string promised;
  for (const Promise& promise : kPromises) {
    const bool memory = refused && promise.call == kAllocation;
    const bool none = decided == nullptr && promise.call == kNoCall;
    if (promise.op != op || !(memory || none || &promise == decided)) continue;
    if (Holds(promise, itself, came)) return "";
    promised += (promised.empty() ? "" : " or ") + ("result " + std::to_string(promise.result)) + ", " +
                Text(promise.error, itself) +
                (promise.sock == kAny ? "" : ", of the socket " + Text(promise.sock, itself));
  }
  return promised.empty() ? "no row says what this comes to" : promised;
}

}  // namespace faults
