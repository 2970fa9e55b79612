// calls.hh - the external calls of the library that can fail, and how each of them fails.
#pragma once

#include <cerrno>

#include "tests/support/nodes.hh"

namespace faults {

// Codes other than errno values. kZero: the call returns 0 (the peer ended, the wait timed out). kNone: a failure
// without an errno. kCut: a transfer moves one byte.
constexpr int kZero = Platform::kZero, kNone = 0, kCut = kZero - 1;

inline std::string CodeName(int code) {
  return code == kCut ? "CUT" : code == kZero ? "ZERO" : code == kNone ? "NONE" : strerrorname_np(code);
}

struct FailingCalls {
  std::vector<std::string> names;
  std::vector<int> codes;  // each way in which they can fail
};

// The last two names are not calls of the library: the companion's mallocs, and the allocations that it refuses.
const FailingCalls kFailing[] = {
    {{"socket"}, {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, EAFNOSUPPORT}},
    {{"connect"}, {EINTR, EAGAIN, EINPROGRESS, EALREADY, EISCONN, ECONNREFUSED, ENETUNREACH, EADDRNOTAVAIL, EBADF}},
    {{"bind", "listen"}, {EADDRINUSE, EADDRNOTAVAIL, EACCES, EINVAL, EOPNOTSUPP, ENOMEM, ENOBUFS, EBADF}},
    {{"accept"}, {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTO, EPERM, ENETDOWN, EBADF}},
    {{"send"}, {EINTR, EAGAIN, ECONNRESET, EPIPE, ENOBUFS, ENOMEM, ENETDOWN, ETIMEDOUT, EBADF, kCut}},
    {{"sendto"}, {EINTR, EAGAIN, ENOBUFS, ENOMEM, EMSGSIZE, ECONNREFUSED, ENETDOWN, ENETUNREACH, EPERM, EBADF}},
    {{"recvfrom"}, {EINTR, EAGAIN, ECONNRESET, ECONNREFUSED, ETIMEDOUT, ENOMEM, ENOBUFS, EBADF, kZero, kCut}},
    {{"select"}, {EINTR, ENOMEM, EBADF, EINVAL, kZero}},
    {{"setsockopt"}, {ENOPROTOOPT, EINVAL, EDOM, ENOMEM, ENOBUFS, EBADF}},
    {{"close"}, {EINTR, EIO, EBADF}},
    {{"fcntl"}, {EINTR, EPERM, EBADF}},
    {{"poll"}, {EINTR, ENOMEM, kZero}},
    {{"gethostbyname", "getservbyname"}, {kNone, ENOENT, EMFILE, ECONNREFUSED}},
    {{"uname", "nanosleep"}, {EFAULT, EINTR, EIO}},
    {{"malloc", "calloc", "companion malloc", "allocation"}, {ENOMEM}},
};

// Whether a list of words separated by blanks contains this word.
inline bool Lists(std::string_view words, std::string_view word) {
  for (size_t at = words.find(word); at != words.npos; at = words.find(word, at + 1)) {
    const size_t end = at + word.size();
    if ((at == 0 || words[at - 1] == ' ') && (end == words.size() || words[end] == ' ')) return true;
  }
  return false;
}

}  // namespace faults
