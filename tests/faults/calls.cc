// calls.cc - the calls that the library makes outside itself: which can fail and how, which cannot and why.
#include <dlfcn.h>

#include <cerrno>
#include <cstdio>

#include "tests/faults/faults.hh"

namespace faults {

namespace {

constexpr int kCuts[] = {1, 7};  // bytes

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
      EBADF, Cut(kCuts[0]), Cut(kCuts[1])}},
    {"sendto",
     {EINTR, EAGAIN, ENOBUFS, ENOMEM, EMSGSIZE, ECONNREFUSED, ENETDOWN, ENETUNREACH, EHOSTUNREACH, EPERM, EBADF}},
    {"recvfrom",
     {EINTR, EAGAIN, ECONNRESET, ECONNREFUSED, ECONNABORTED, ETIMEDOUT, ENOTCONN, ENOMEM, ENOBUFS, EBADF, kZero,
      Cut(kCuts[0]), Cut(kCuts[1])}},
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

const SafeCalls kSafe[] = {
    {"work on memory alone",
     "atoi atol bcmp ctype_b_loc errno_location fileno htonl htons inet_addr inet_ntoa memcmp memcpy memmove memset "
     "ntohl ntohs snprintf stpcpy strcat strcmp strcpy strlen strncpy strnlen strtol"},
    {"have no failure", "alarm free getenv geteuid getpid getuid"},
    {"have no failure with the arguments that the library gives", "ioctl signal time"},
    {"say what went wrong, or pause: their failure changes nothing", "printf putchar puts sleep"},
    {"fail in node_test and socket_test", "ctime fstat lstat"},
    {"are the C runtime's own", "cxa_finalize getauxval stack_chk_fail tls_get_addr"},
};

// "__isoc23_strtol" and "__snprintf_chk" are other names of strtol and snprintf.
std::string PlainName(std::string_view name) {
  for (const std::string_view prefix : {"__isoc23_", "__"}) {
    if (name.starts_with(prefix)) name.remove_prefix(prefix.size());
  }
  return std::string(name.substr(0, name.size() - (name.ends_with("_chk") ? 4 : 0)));
}

bool IsKnown(std::string_view name) {
  for (const FailingCall& call : kFailing) {
    if (call.name == name) return true;
  }
  for (const SafeCalls& calls : kSafe) {
    if (Lists(calls.names, name)) return true;
  }
  return false;
}

}  // namespace

std::span<const FailingCall> Failing() { return kFailing; }
std::span<const SafeCalls> Safe() { return kSafe; }

bool Lists(std::string_view words, std::string_view word) {
  for (size_t at = words.find(word); at != words.npos; at = words.find(word, at + 1)) {
    const size_t end = at + word.size();
    if ((at == 0 || words[at - 1] == ' ') && (end == words.size() || words[end] == ' ')) return true;
  }
  return false;
}

std::string CodeName(int code) {
  if (code == kZero) return "ZERO";
  if (code == kNone) return "NONE";
  if (IsCut(code)) return fmt::format("CUT{}", BytesOf(code));
  return strerrorname_np(code);
}

std::vector<std::string> UnknownImports() {
  Dl_info info = {};
  dladdr(dlsym(RTLD_DEFAULT, "mnFinishWrite"), &info);
  FILE* const nm = popen(fmt::format("nm -D --undefined-only '{}'", info.dli_fname).c_str(), "r");
  std::vector<std::string> names;
  bool any = false;
  for (char line[512]; nm != nullptr && fgets(line, sizeof line, nm) != nullptr;) {
    const std::string_view text = line;
    const size_t version = text.find("@GLIBC");
    if (version == std::string_view::npos) continue;  // the companion's, or the sanitizers'
    const size_t begin = text.rfind(' ', version) + 1;
    const std::string name = PlainName(text.substr(begin, version - begin));
    any = true;
    if (!IsKnown(name)) names.push_back(name);
  }
  if (nm == nullptr || pclose(nm) != 0 || !any) names.emplace_back("something that nm does not tell");
  return names;
}

}  // namespace faults
