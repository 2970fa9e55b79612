// platform.cc - the interposed system library of the test programs.
// Invariant: only calls from libmqnode.so are recorded or changed; all others are passed on.
#include "tests/support/platform.hh"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <link.h>
#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "runtime/runtime.h"

namespace {

using Service = Platform::Service;

struct Place {
  const char* name;
  uintptr_t begin, end;
};
Place library = {"libmqnode.so", 0, 0};
Place companion = {"libmqcompanion.so", 0, 0};
// Blocks that the library has from malloc and calloc; null entries are free.
void* library_blocks[64];

// The companion's allocations are only recorded once counting began, because many threads may use it.
constexpr char kCompanionMalloc[] = "companion malloc";
bool counting;

Platform::State& Now() { return Platform::Now(); }

int FindPlaces(dl_phdr_info* info, size_t, void*) {
  for (Place* place : {&library, &companion}) {
    if (strstr(info->dlpi_name, place->name) == nullptr) continue;
    place->begin = info->dlpi_addr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
      const auto& header = info->dlpi_phdr[i];
      if (header.p_type != PT_LOAD) continue;
      place->end = std::max<uintptr_t>(place->end, info->dlpi_addr + header.p_vaddr + header.p_memsz);
    }
  }
  return 0;
}
__attribute__((constructor)) void FindAtStart() { dl_iterate_phdr(FindPlaces, nullptr); }

bool IsIn(const Place& place, const void* caller) {
  const auto address = reinterpret_cast<uintptr_t>(caller);
  return address >= place.begin && address < place.end;
}

template <typename Function>
Function* Next(Function*& slot, const char* name) {
  if (slot == nullptr) slot = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  return slot;
}

// The errno that a rule injects into this call, if any. Does not change errno.
std::optional<int> Injected(const char* name) {
  const int before = errno;
  std::optional<int> code;
  ++Now().counts[name];
  for (auto& rule : Now().rules) {
    if (rule.name != name) continue;
    if (rule.skip > 0) {
      --rule.skip;
    } else if (rule.count != 0 && !code) {
      if (rule.count > 0) --rule.count;
      code = rule.code;
    }
  }
  if (code) Now().injections += 1;
  errno = before;
  return code;
}

size_t Limited(const char* name, size_t size) {
  auto& [coming, limit] = Now().limits[name];
  size = std::min(size, limit);
  if (coming.empty()) return size;
  size = std::min(size, coming.front());
  coming.pop_front();
  return size;
}

void Record(Call call) {
  const int before = errno;
  Now().records.push_back(std::move(call));
  errno = before;
}

// Runs one call, real or failing by injection, and records it. Leaves the call's errno.
template <typename Run>
auto Do(Call call, Run run) -> decltype(run()) {
  const int before = errno;
  const auto code = Injected(call.name.c_str());
  const bool zero = code == Platform::kZero;
  const auto result = code ? static_cast<decltype(run())>(zero ? 0 : -1) : run();
  call.injected = code.has_value();
  call.result = static_cast<long>(result);
  if (code) errno = *code;
  if (call.result == -1) {
    call.error = errno;
  } else {
    errno = before;
  }
  Record(std::move(call));
  return result;
}

// A lookup: find says whether there is an answer. errno is unchanged unless a failure with a code is injected.
template <typename Find>
bool Look(Call call, Find find) {
  const int before = errno;
  const auto code = Injected(call.name.c_str());
  call.result = !code && find();
  call.error = code.value_or(0);
  call.injected = code.has_value();
  const bool found = call.result != 0;
  Record(std::move(call));
  errno = code.value_or(0) != 0 ? *code : before;
  return found;
}

// Records that the library has got or released a block.
void Exchange(void* from, void* to) {
  void** const place = std::find(std::begin(library_blocks), std::end(library_blocks), from);
  if (place != std::end(library_blocks)) *place = to;
}

// Whether an allocation of the library or the companion has to fail.
bool Refused(const char* name) {
  if (name != kCompanionMalloc) ++Now().allocations;
  if (!Injected(name)) return false;
  errno = ENOMEM;
  return true;
}

std::string AddressText(const sockaddr* address) {
  if (address == nullptr || address->sa_family != AF_INET) return "?";
  sockaddr_in in;
  memcpy(&in, address, sizeof in);
  return fmt::format("{}:{}", inet_ntoa(in.sin_addr), ntohs(in.sin_port));
}

// The first matching host, in static storage like real entries.
template <typename Fits>
hostent* LookHost(Call call, Fits fits) {
  static std::string host_name;
  static std::vector<in_addr> addresses;
  static std::vector<char*> list;
  static char* aliases[] = {nullptr};
  static hostent entry;
  const auto& hosts = Now().hosts;
  const auto host = std::find_if(hosts.begin(), hosts.end(), fits);
  if (!Look(std::move(call), [&] { return host != hosts.end(); })) return nullptr;
  host_name = host->first;
  addresses.clear();
  list.clear();
  for (const auto& quad : host->second) addresses.push_back({inet_addr(quad.c_str())});
  for (auto& address : addresses) list.push_back(reinterpret_cast<char*>(&address));
  list.push_back(nullptr);
  entry = {host_name.data(), aliases, AF_INET, sizeof(in_addr), list.data()};
  return &entry;
}

// The last matching service.
template <typename Fits>
servent* LookService(Call call, Fits fits) {
  static Service found;
  static char* aliases[] = {nullptr};
  static servent entry;
  const auto& all = Now().services;
  const auto last = std::find_if(all.rbegin(), all.rend(), fits);
  if (!Look(std::move(call), [&] { return last != all.rend(); })) return nullptr;
  found = *last;
  entry = {found.name.data(), aliases, htons(static_cast<uint16_t>(found.port)), found.protocol.data()};
  return &entry;
}

// Runs the pause hook and returns detail for the record.
std::string Pause(std::string detail) {
  Now().on_pause();
  return detail;
}

// The value of a socket option, one word or two.
std::string OptionText(const void* value, socklen_t length) {
  int words[2] = {};
  memcpy(words, value, std::min<size_t>(length, sizeof words));
  return fmt::format(fmt::runtime(length > 4 ? "{}, {}" : "{}"), words[0], words[1]);
}

// libc's own allocator is used while the next one is looked up.
template <typename Function>
Function* Allocator(Function*& next, const char* name, Function* sanitizers, Function* libcs) {
  static bool looking = false;
  if (sanitizers != nullptr) return sanitizers;
  if (next != nullptr || looking) return next != nullptr ? next : libcs;
  looking = true;
  Next(next, name);
  looking = false;
  return next;
}

}  // namespace

std::string Call::Text() const {
  if (kind != 'c') return name;
  const std::string text = fmt::format(fmt::runtime(flags != 0 ? "{}({}, flags {})" : "{}({})"), name, detail, flags);
  if (error != 0) return fmt::format("{} = -1 {}", text, strerrorname_np(error));
  if (name == "socket" || name == "accept") return text + " = fd";
  return fmt::format("{} = {}", text, result);
}

Platform::State& Platform::Now() {
  static State state;
  // Ignores what the library's destructors call at exit, as in a coverage build.
  static const struct End {
    ~End() { library.end = companion.end = 0; }
  } end;
  return state;
}
std::vector<Call> Platform::Records(std::initializer_list<std::string_view> names) {
  std::vector<Call> chosen = Now().records;
  std::erase_if(chosen, [&](const Call& call) {
    return names.size() != 0 && std::find(names.begin(), names.end(), call.name) == names.end();
  });
  return chosen;
}
std::vector<std::string> Platform::Calls(std::initializer_list<std::string_view> names) {
  std::vector<std::string> texts;
  for (const Call& call : Records(names)) texts.push_back(call.Text());
  return texts;
}
void Platform::Note(char kind, std::string event) { Record({.name = std::move(event), .kind = kind}); }

void Platform::StartCounting() {
  Now().counts.clear();
  counting = true;
}
long Platform::LibraryBlocks() { return 64 - std::count(library_blocks, library_blocks + 64, nullptr); }

// The definitions that libmqnode.so binds to. REAL declares the next definition; FOREIGN returns if the caller is not
// the library; ENTER does both.
#define REAL(name)                                \
  static decltype(&::name) next_##name = nullptr; \
  const auto real = Next(next_##name, #name)
#define FOREIGN(call) \
  if (!IsIn(library, __builtin_return_address(0))) return call
#define ENTER(name, arguments) \
  REAL(name);                  \
  FOREIGN(real arguments)
// Each row is a call that is recorded with these details and passed on.
#define PASS_ON(type, name, parameters, arguments, exceptions, ...)  \
  type name parameters exceptions {                                  \
    ENTER(name, arguments);                                          \
    return Do({#name, __VA_ARGS__}, [&] { return real arguments; }); \
  }
// The same for calls that move bytes, possibly fewer than asked for.
#define MOVE(name, parameters, arguments, detail)                                                             \
  ssize_t name parameters {                                                                                   \
    ENTER(name, arguments);                                                                                   \
    return Do({#name, detail, fd, size, flags}, [&, size = Limited(#name, size)] { return real arguments; }); \
  }
#define TEXT(...) fmt::format(__VA_ARGS__)

extern "C" {

PASS_ON(int, socket, (int domain, int type, int protocol), (domain, type, protocol), noexcept,
        TEXT("{}, {}, {}", domain, type, protocol))
PASS_ON(int, connect, (int fd, const sockaddr* to, socklen_t length), (fd, to, length), , AddressText(to), fd)
PASS_ON(int, bind, (int fd, const sockaddr* to, socklen_t length), (fd, to, length), noexcept, AddressText(to), fd)
PASS_ON(int, listen, (int fd, int backlog), (fd, backlog), noexcept, TEXT("{}", backlog), fd)
PASS_ON(int, accept, (int fd, sockaddr* from, socklen_t* length), (fd, from, length), , "", fd)
PASS_ON(int, getsockopt, (int fd, int level, int option, void* value, socklen_t* length),
        (fd, level, option, value, length), noexcept, TEXT("{}:{}", level, option), fd)
PASS_ON(int, gethostname, (char* name, size_t size), (name, size), noexcept, TEXT("{}", size))

MOVE(send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags), TEXT("{}", size))
MOVE(sendto, (int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length),
     (fd, data, size, flags, to, length), TEXT("{}, {}", size, AddressText(to)))
MOVE(recvfrom, (int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* length),
     (fd, data, size, flags, from, length), TEXT("{}", size))

PASS_ON(int, select, (int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout),
        (count, read, write, except, timeout), , TEXT("{}.{:06}s", timeout->tv_sec, timeout->tv_usec), -1,
        static_cast<size_t>(count))
PASS_ON(int, setsockopt, (int fd, int level, int option, const void* value, socklen_t length),
        (fd, level, option, value, length), noexcept, TEXT("{}:{}, {}", level, option, OptionText(value, length)), fd)
PASS_ON(int, poll, (pollfd * fds, nfds_t count, int milliseconds), (fds, count, milliseconds), ,
        Pause(TEXT("{}, {}", count, milliseconds)))

// An injected failure still closes the descriptor, like a failing close of the system.
int close(int fd) {
  ENTER(close, (fd));
  const int result = real(fd);
  const int code = errno;
  return Do({"close", "", fd}, [&] { return errno = code, result; });
}
int fcntl(int fd, int command, ...) {
  REAL(fcntl);
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  FOREIGN(real(fd, command, argument));
  const std::string set = TEXT("F_SETFL, {}", static_cast<int>(argument));
  return Do({"fcntl", command == F_GETFL ? "F_GETFL" : set, fd}, [&] { return real(fd, command, argument); });
}

hostent* gethostbyname(const char* name) {
  ENTER(gethostbyname, (name));
  return LookHost({"gethostbyname", name}, [&](const auto& host) { return host.first == name; });
}

hostent* gethostbyaddr(const void* address, socklen_t length, int family) {
  ENTER(gethostbyaddr, (address, length, family));
  const std::string quad = inet_ntoa(*static_cast<const in_addr*>(address));
  return LookHost({"gethostbyaddr", TEXT("{}, {}, {}", quad, length, family)}, [&](const auto& host) {
    return std::find(host.second.begin(), host.second.end(), quad) != host.second.end();
  });
}

servent* getservbyname(const char* name, const char* protocol) {
  ENTER(getservbyname, (name, protocol));
  return LookService({"getservbyname", TEXT("{}, {}", name, protocol)},
                     [&](const Service& service) { return service.name == name && service.protocol == protocol; });
}

servent* getservbyport(int port, const char* protocol) {
  ENTER(getservbyport, (port, protocol));
  const int number = ntohs(static_cast<uint16_t>(port));
  return LookService({"getservbyport", TEXT("{}, {}", number, protocol)},
                     [&](const Service& service) { return service.port == number && service.protocol == protocol; });
}

int uname(utsname* info) noexcept {
  ENTER(uname, (info));
  return Do({"uname", ""}, [&] {
    const int result = real(info);
    const std::string& name = Now().node_name;
    if (!name.empty()) info->nodename[name.copy(info->nodename, sizeof info->nodename - 1)] = '\0';
    return result;
  });
}

int system(const char* command) {
  ENTER(system, (command));
  const auto run = Now().run_system;
  return Do({"system", command}, [&] { return run ? run(command) : real(command); });
}

unsigned sleep(unsigned seconds) {
  ENTER(sleep, (seconds));
  Record({"sleep", Pause(TEXT("{}", seconds))});
  return 0;
}

int nanosleep(const timespec* wanted, timespec* left) {
  ENTER(nanosleep, (wanted, left));
  return Do({"nanosleep", Pause(TEXT("{}.{:09}s", wanted->tv_sec, wanted->tv_nsec))},
            [&] { return Now().skip_pauses ? 0 : real(wanted, left); });
}

time_t time(time_t* out) noexcept {
  ENTER(time, (out));
  const time_t now = Now().now.value_or(real(nullptr));
  if (out != nullptr) *out = now;
  return now;
}

// A companion may leave any errno behind. Signal handlers call this only while the test waits for that.
void LOGMSG(const char* text, int kind) {
  ENTER(LOGMSG, (text, kind));
  Record({"LOGMSG", TEXT("{}, {}", text, kind)});
  real(text, kind);
  errno = EBADMSG;
}

// The allocator: the sanitizer's if there is one; else the next one, which may be valgrind's.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void __libc_free(void* block);
__attribute__((weak)) void* __interceptor_malloc(size_t size);
__attribute__((weak)) void* __interceptor_calloc(size_t count, size_t size);
__attribute__((weak)) void __interceptor_free(void* block);

void* malloc(size_t size) noexcept {
  const void* const caller = __builtin_return_address(0);
  const bool counted = IsIn(library, caller);
  if (counted ? Refused("malloc") : counting && IsIn(companion, caller) && Refused(kCompanionMalloc)) return nullptr;
  static decltype(&__libc_malloc) next = nullptr;
  void* const block = Allocator(next, "malloc", __interceptor_malloc, __libc_malloc)(size);
  if (counted) Exchange(nullptr, block);
  return block;
}

void* calloc(size_t count, size_t size) noexcept {
  const bool counted = IsIn(library, __builtin_return_address(0));
  if (counted && Refused("calloc")) return nullptr;
  static decltype(&__libc_calloc) next = nullptr;
  void* const block = Allocator(next, "calloc", __interceptor_calloc, __libc_calloc)(count, size);
  if (counted) Exchange(nullptr, block);
  return block;
}

void free(void* block) noexcept {
  // The caller is not significant: the companion's last free may seem to come from the library.
  if (block != nullptr) Exchange(block, nullptr);
  static decltype(&__libc_free) next = nullptr;
  Allocator(next, "free", __interceptor_free, __libc_free)(block);
}

}  // extern "C"
