// calls.cc - the tables, and what nm says of the library.
#include "tests/faults/calls.hh"

#include <dlfcn.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "mqnode/mqnode.h"

namespace faults {

namespace {

const FailingCall kFailing[] = {
    {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, EAFNOSUPPORT}},
    {"connect",
     {EINTR, EAGAIN, EINPROGRESS, EALREADY, EISCONN, ECONNREFUSED, ECONNRESET, ECONNABORTED, ENETUNREACH, EHOSTUNREACH,
      ETIMEDOUT, EADDRNOTAVAIL, ENOBUFS, EACCES, EBADF}},
    {"bind", {EADDRINUSE, EADDRNOTAVAIL, EACCES, EINVAL, ENOMEM, ENOBUFS, EBADF}},
    {"listen", {EADDRINUSE, EOPNOTSUPP, EINVAL, ENOBUFS, EBADF}},
    {"accept",
     {EINTR, EAGAIN, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTO, EPERM, ENETDOWN, ETIMEDOUT, EBADF}},
    {"send",
     {EINTR, EAGAIN, ECONNRESET, EPIPE, ENOBUFS, ENOMEM, ENETDOWN, ENETUNREACH, EHOSTUNREACH, ETIMEDOUT, ENOTCONN,
      EBADF}},
    {"sendto",
     {EINTR, EAGAIN, ENOBUFS, ENOMEM, EMSGSIZE, ECONNREFUSED, ENETDOWN, ENETUNREACH, EHOSTUNREACH, EPERM, EBADF}},
    {"recvfrom",
     {EINTR, EAGAIN, ECONNRESET, ECONNREFUSED, ECONNABORTED, ETIMEDOUT, ENOTCONN, ENOMEM, ENOBUFS, EBADF, kZero}},
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
    {kAllocation, {ENOMEM}},
};

constexpr std::string_view kPure = "works on memory alone";
constexpr std::string_view kRuntime = "the C runtime's own";

const SafeCall kSafe[] = {
    {"alarm", "has no failure"},
    {"atoi", kPure},
    {"atol", kPure},
    {"bcmp", kPure},
    {"ctime", "null only for a year that no date has, which socket_test answers with Platform::SetTime(kNoDate)"},
    {"ctype_b_loc", kPure},
    {"cxa_finalize", kRuntime},
    {"errno_location", kRuntime},
    {"fileno", kPure},
    {"free", "has no failure"},
    {"fstat", "counts as a file of another user, which node_test plants"},
    {"getauxval", kPure},
    {"getenv", "null is an answer: the variable is not set"},
    {"geteuid", "has no failure"},
    {"getpid", "has no failure"},
    {"getuid", "has no failure"},
    {"htonl", kPure},
    {"htons", kPure},
    {"inet_addr", kPure},
    {"inet_ntoa", kPure},
    {"ioctl", "FIOCLEX fails only for a descriptor that is not open"},
    {"lstat", "a failure says that nothing is there"},
    {"memcmp", kPure},
    {"memcpy", kPure},
    {"memmove", kPure},
    {"memset", kPure},
    {"ntohl", kPure},
    {"ntohs", kPure},
    {"printf", "says what went wrong to whoever looks; whether it got there changes nothing"},
    {"putchar", "as printf"},
    {"puts", "as printf"},
    {"signal", "fails only for numbers that are no signals; the library names SIGALRM"},
    {"sleep", "when a signal cuts it short the next check comes earlier"},
    {"snprintf", "formats whole numbers and bounded texts into areas of fixed size"},
    {"stack_chk_fail", kRuntime},
    {"stpcpy", kPure},
    {"strcat", kPure},
    {"strcmp", kPure},
    {"strcpy", kPure},
    {"strlen", kPure},
    {"strncpy", kPure},
    {"strnlen", kPure},
    {"strtol", kPure},
    {"time", "fails only for a place that cannot be written; the library gives none"},
    {"tls_get_addr", kRuntime},
};

// "__isoc23_strtol" and "__snprintf_chk" are other names of strtol and snprintf.
std::string PlainName(std::string name) {
  for (const std::string_view prefix : {"__isoc23_", "__"}) {
    if (name.starts_with(prefix)) name.erase(0, prefix.size());
  }
  if (name.ends_with("_chk")) name.erase(name.size() - 4);
  return name;
}

}  // namespace

std::span<const FailingCall> FailingCalls() { return kFailing; }
std::span<const SafeCall> SafeCalls() { return kSafe; }

std::string CodeName(int code) {
  if (code == kZero) return "ZERO";
  if (code == kNone) return "NONE";
  const char* const name = strerrorname_np(code);
  return name != nullptr ? name : std::to_string(code);
}

int CodeFromName(std::string_view name) {
  for (int code = kZero; code < 200; ++code) {
    if (CodeName(code) == name) return code;
  }
  return -2;
}

std::vector<std::string> Imports() {
  Dl_info info = {};
  if (dladdr(reinterpret_cast<void*>(dlsym(RTLD_DEFAULT, "mnFinishWrite")), &info) == 0) return {};
  FILE* const nm = popen(("nm -D --undefined-only '" + std::string(info.dli_fname) + "'").c_str(), "r");
  if (nm == nullptr) return {};
  std::vector<std::string> names;
  std::array<char, 512> line;
  while (fgets(line.data(), line.size(), nm) != nullptr) {
    const std::string_view text = line.data();
    const size_t version = text.find("@GLIBC");
    if (version == std::string_view::npos) continue;  // the companion's, or the sanitizers'
    const size_t begin = text.rfind(' ', version) + 1;
    names.push_back(PlainName(std::string(text.substr(begin, version - begin))));
  }
  pclose(nm);
  return names;
}

}  // namespace faults
