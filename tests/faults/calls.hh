// calls.hh - the calls that the library makes outside itself: which can fail and how, which cannot and why.
#pragma once

#include <dlfcn.h>

#include <cerrno>
#include <cstdio>

#include "tests/support/nodes.hh"

namespace faults {

// Codes beside errno values. kZero: the call returns 0 (the peer ended, the wait timed out). kNone: a failure without
// an errno. Below kZero: a transfer moves at most so many bytes.
constexpr int kZero = Platform::kZero;
constexpr int kNone = 0;
constexpr int kCut1 = kZero - 1, kCut7 = kZero - 7;
constexpr bool IsCut(int code) { return code < kZero; }
constexpr size_t BytesOf(int cut) { return static_cast<size_t>(kZero - cut); }

inline std::string CodeName(int code) {
  if (IsCut(code)) return format("CUT{}", BytesOf(code));
  return code == kZero ? "ZERO" : code == kNone ? "NONE" : strerrorname_np(code);
}

struct FailingCall {
  std::string name;
  std::vector<int> codes;  // each way in which it can fail
};

// The last two are no calls: the mallocs of the companion, and the allocations that it refuses.
const FailingCall kFailing[] = {
    {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, EAFNOSUPPORT}},
    {"connect", {EINTR, EAGAIN, EINPROGRESS, EALREADY, EISCONN, ECONNREFUSED, ENETUNREACH, EADDRNOTAVAIL, EBADF}},
    {"bind", {EADDRINUSE, EADDRNOTAVAIL, EACCES, EINVAL, ENOMEM, ENOBUFS, EBADF}},
    {"listen", {EADDRINUSE, EOPNOTSUPP, EINVAL, ENOBUFS, EBADF}},
    {"accept", {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTO, EPERM, ENETDOWN, EBADF}},
    {"send", {EINTR, EAGAIN, ECONNRESET, EPIPE, ENOBUFS, ENOMEM, ENETDOWN, ETIMEDOUT, EBADF, kCut1, kCut7}},
    {"sendto", {EINTR, EAGAIN, ENOBUFS, ENOMEM, EMSGSIZE, ECONNREFUSED, ENETDOWN, ENETUNREACH, EPERM, EBADF}},
    {"recvfrom", {EINTR, EAGAIN, ECONNRESET, ECONNREFUSED, ETIMEDOUT, ENOMEM, ENOBUFS, EBADF, kZero, kCut1, kCut7}},
    {"select", {EINTR, ENOMEM, EBADF, EINVAL, kZero}},
    {"setsockopt", {ENOPROTOOPT, EINVAL, EDOM, ENOMEM, ENOBUFS, EBADF}},
    {"getsockopt", {ENOPROTOOPT, EINVAL, EBADF}},
    {"close", {EINTR, EIO, EBADF}},
    {"fcntl", {EINTR, EPERM, EBADF}},
    {"poll", {EINTR, ENOMEM, kZero}},
    {"nanosleep", {EINTR}},
    {"gethostbyname", {kNone, ENOENT, EMFILE, ECONNREFUSED}},
    {"gethostbyaddr", {kNone, ENOENT, EMFILE}},
    {"getservbyname", {kNone, ENOENT, EMFILE}},
    {"getservbyport", {kNone, ENOENT, EMFILE}},
    {"uname", {EFAULT}},
    {"gethostname", {ENAMETOOLONG, EPERM}},
    {"sysconf", {kNone, EINVAL}},
    {"system", {EAGAIN, ENOMEM}},
    {"fopen", {ENOENT, EMFILE, ENOMEM}},
    {"fgets", {kNone, EIO}},
    {"fclose", {EIO}},
    {"remove", {ENOENT, EPERM}},
    {"malloc", {ENOMEM}},
    {"calloc", {ENOMEM}},
    {"companion malloc", {ENOMEM}},
    {"allocation", {ENOMEM}},
};

constexpr std::string_view kSafe[] = {
    // They work on memory alone.
    "atoi atol bcmp ctype_b_loc errno_location fileno htonl htons inet_addr inet_ntoa memcmp memcpy memmove memset",
    "ntohl ntohs snprintf stpcpy strcat strcmp strcpy strlen strncpy strnlen strtol",
    // They have no failure, with the arguments that the library gives.
    "alarm free getenv geteuid getpid getuid ioctl signal time",
    // They say what went wrong, or pause: their failure changes nothing.
    "printf putchar puts sleep",
    // node_test and socket_test let them fail.
    "ctime fstat lstat",
    // They are the C runtime's own.
    "cxa_finalize getauxval stack_chk_fail tls_get_addr",
};

// Whether a text of words and blanks has this word.
inline bool Lists(std::string_view words, std::string_view word) {
  for (size_t at = words.find(word); at != words.npos; at = words.find(word, at + 1)) {
    const size_t end = at + word.size();
    if ((at == 0 || words[at - 1] == ' ') && (end == words.size() || words[end] == ' ')) return true;
  }
  return false;
}

// The names that the library imports from libc, as nm sees them: strtol for "__isoc23_strtol@GLIBC_2.38".
inline Lines Imports() {
  Dl_info info = {};
  dladdr(dlsym(RTLD_DEFAULT, "mnFinishWrite"), &info);
  constexpr char kPlain[] = "s/.* U \\(__isoc23_\\|__\\)\\?\\(.*\\)@GLIBC.*/\\2/p";
  const std::string list = format("nm -D '{}' | sed -n '{}' | sed 's/_chk$//'", info.dli_fname, kPlain);
  FILE* const nm = popen(list.c_str(), "r");
  Lines names;
  for (char name[128]; nm != nullptr && fscanf(nm, "%127s", name) == 1;) names.emplace_back(name);
  if (nm == nullptr || pclose(nm) != 0 || names.empty()) names = {"something that nm does not tell"};
  return names;
}

// Every import is in one of the tables, and what can fail is called by some scenario.
inline Lines CheckCalls(const std::map<std::string, size_t, std::less<>>& made) {
  Lines wrong;
  const auto is = [](const std::string& name) { return [&](const FailingCall& call) { return call.name == name; }; };
  const auto lists = [](const std::string& name) { return [&](std::string_view safe) { return Lists(safe, name); }; };
  for (const std::string& name : Imports()) {
    if (MQNODE_COVERAGE) break;  // what counts the branches makes calls too
    if (std::ranges::any_of(kFailing, is(name)) || std::ranges::any_of(kSafe, lists(name))) continue;
    wrong.push_back(format("the library calls {}, and no table says how it fails or why it cannot", name));
  }
  for (const FailingCall& call : kFailing) {
    if (made.at(call.name) == 0) wrong.push_back(format("no scenario makes the library call {}", call.name));
  }
  return wrong;
}

}  // namespace faults
