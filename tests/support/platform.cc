// platform.cc - the interposed system library of the test programs.
// Invariant: only calls whose caller lies in libmqnode.so are looked at; all others go straight on.
#include "tests/support/platform.hh"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <optional>

#include "runtime/runtime.h"

namespace {

struct Rule {
  std::string name;
  int skip;
  int count;
  int code;
};

struct Service {
  std::string name;
  std::string protocol;
  int port;
};

// A line logged, perhaps from a signal handler: kept without allocating, in lines reserved beforehand.
struct LogLine {
  size_t position;  // calls recorded before it
  int kind;
  char text[640];
};
constexpr size_t kLogLines = 64;

struct State {
  State() { log.reserve(kLogLines); }

  std::vector<Call> records;
  std::vector<LogLine> log;
  std::vector<Rule> rules;
  std::map<std::string, std::deque<size_t>, std::less<>> limits;
  std::map<std::string, size_t, std::less<>> constant_limits;
  std::map<std::string, std::vector<std::string>, std::less<>> hosts = {{"localhost", {"127.0.0.1"}}};
  std::vector<Service> services;
  std::string node_name;
  std::optional<time_t> now;
  std::function<int(const char*)> run_system;
  std::function<void()> on_pause;
  bool skip_pauses = false;
  bool failure_used = false;
  size_t allocations = 0;
  std::map<std::string, size_t, std::less<>> counts;
  size_t injections = 0;
};

struct Place {
  const char* name;
  uintptr_t begin;
  uintptr_t end;
};
Place library = {"libmqnode.so", 0, 0};
Place companion = {"libmqcompanion.so", 0, 0};
// Blocks that the library has from malloc and calloc; null where there is none.
void* library_blocks[64];

// What the companion allocates is looked at once counting began: it may be used by many threads.
constexpr char kCompanionMalloc[] = "companion malloc";
bool counting;

State& Now() {
  static State state;
  // What the library's destructors call at the end of the process, as they do in a coverage build, goes past.
  static const struct End {
    ~End() { library.end = companion.end = 0; }
  } end;
  return state;
}

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

bool IsIn(const Place& place, const void* caller) {
  const auto address = reinterpret_cast<uintptr_t>(caller);
  return address >= place.begin && address < place.end;
}

bool InLibrary(const void* caller) { return IsIn(library, caller); }

template <typename Function>
Function* Next(Function*& slot, const char* name) {
  if (slot == nullptr) slot = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  return slot;
}

// Looked up at the start: a signal handler may be the first to write a line.
decltype(&::LOGMSG) next_log;

__attribute__((constructor)) void FindAtStart() {
  dl_iterate_phdr(FindPlaces, nullptr);
  Next(next_log, "LOGMSG");
}

// The errno that a rule wants for this call, if one does.
std::optional<int> Injected(const char* name) {
  std::optional<int> code;
  ++Now().counts[name];
  for (Rule& rule : Now().rules) {
    if (rule.name != name) continue;
    if (rule.skip > 0) {
      --rule.skip;
    } else if (rule.count != 0 && !code) {
      if (rule.count > 0) --rule.count;
      code = rule.code;
    }
  }
  if (code) {
    Now().failure_used = true;
    Now().injections += 1;
  }
  return code;
}

size_t Limited(const char* name, size_t size) {
  State& state = Now();
  if (const auto all = state.constant_limits.find(name); all != state.constant_limits.end()) {
    return std::min(size, all->second);
  }
  const auto script = state.limits.find(name);
  if (script == state.limits.end() || script->second.empty()) return size;
  const size_t limit = script->second.front();
  script->second.pop_front();
  return std::min(size, limit);
}

std::string AddressText(const sockaddr* address) {
  if (address == nullptr || address->sa_family != AF_INET) return "?";
  sockaddr_in in;
  memcpy(&in, address, sizeof in);
  char quad[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &in.sin_addr, quad, sizeof quad);
  return std::string(quad) + ":" + std::to_string(ntohs(in.sin_port));
}

// Runs one call: injected failure or the real thing, then the record. errno is the call's afterwards.
template <typename Run>
auto Do(Call call, Run run) -> decltype(run()) {
  const int before = errno;
  if (const auto code = Injected(call.name.c_str())) {
    call.injected = true;
    call.result = *code == Platform::kZero ? 0 : -1;
    call.error = *code == Platform::kZero ? 0 : *code;
  } else {
    errno = before;
    call.result = static_cast<long>(run());
    call.error = call.result == -1 ? errno : 0;
  }
  const int after = call.result == -1 ? call.error : before;
  const auto result = static_cast<decltype(run())>(call.result);
  Now().records.push_back(std::move(call));
  errno = after;
  return result;
}

// A lookup: found says whether there is an answer. errno stays, unless a failure with a code is injected.
template <typename Find>
bool Look(Call call, Find find) {
  const int before = errno;
  const auto code = Injected(call.name.c_str());
  const bool found = !code && find();
  call.result = found ? 1 : 0;
  call.error = code.value_or(0);
  call.injected = code.has_value();
  Now().records.push_back(std::move(call));
  errno = code && *code != 0 ? *code : before;
  return found;
}

// Notes that the library has a block, or no longer has it.
void Exchange(void* from, void* to) {
  void** const place = std::find(std::begin(library_blocks), std::end(library_blocks), from);
  if (place != std::end(library_blocks)) *place = to;
}

// An allocation of the library's or the companion's that has to fail.
bool Refused(const char* name) {
  if (name != kCompanionMalloc) ++Now().allocations;
  const int before = errno;
  const auto code = Injected(name);
  errno = code ? ENOMEM : before;
  return code.has_value();
}

void Record(Call call) {
  const int before = errno;
  Now().records.push_back(std::move(call));
  errno = before;
}

void Pause() {
  const auto run = Now().on_pause;
  if (run) run();
}

// The one entry that a lookup hands out, in static storage as the real ones are.
hostent* HostEntry(const std::string& name, const std::vector<std::string>& quads) {
  static std::string host_name;
  static std::vector<in_addr> addresses;
  static std::vector<char*> list;
  static char* aliases[] = {nullptr};
  static hostent entry;
  host_name = name;
  addresses.clear();
  list.clear();
  for (const auto& quad : quads) addresses.push_back({inet_addr(quad.c_str())});
  for (auto& address : addresses) list.push_back(reinterpret_cast<char*>(&address));
  list.push_back(nullptr);
  entry = {host_name.data(), aliases, AF_INET, sizeof(in_addr), list.data()};
  return &entry;
}

// The last service that fits.
template <typename Fits>
servent* LookService(Call call, Fits fits) {
  static Service found;
  static char* aliases[] = {nullptr};
  static servent entry;
  const bool any = Look(std::move(call), [&] {
    const auto& all = Now().services;
    const auto last = std::find_if(all.rbegin(), all.rend(), fits);
    if (last != all.rend()) found = *last;
    return last != all.rend();
  });
  entry = {found.name.data(), aliases, htons(static_cast<uint16_t>(found.port)), found.protocol.data()};
  return any ? &entry : nullptr;
}

// While next is looked up, and only then, libc's own serves.
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

std::string Text(const char* text) { return text != nullptr ? text : "(null)"; }

const char* ErrorName(int code) {
  const char* const name = strerrorname_np(code);
  return name != nullptr ? name : "?";
}

}  // namespace

std::string Call::Text() const {
  std::string text = name + "(" + detail;
  if (flags != 0) text += ", flags " + std::to_string(flags);
  text += ")";
  if (error != 0) return text + " = -1 " + ErrorName(error);
  if (name == "socket" || name == "accept") return text + " = fd";
  return text + " = " + std::to_string(result);
}

void Platform::Reset() { Now() = State(); }

void Platform::Fail(std::string_view name, int nth, int code, int count) {
  Now().failure_used = false;
  Now().rules.push_back({std::string(name), nth - 1, count, code});
}

void Platform::Mend() { Now().rules.clear(); }

void Platform::Limit(std::string_view name, std::vector<size_t> sizes) {
  Now().limits[std::string(name)] = {sizes.begin(), sizes.end()};
}

void Platform::LimitAll(std::string_view name, size_t size) { Now().constant_limits[std::string(name)] = size; }

void Platform::AddHost(std::string_view name, std::vector<std::string> quads) {
  Now().hosts[std::string(name)] = std::move(quads);
}

void Platform::AddService(std::string_view name, std::string_view protocol, int port) {
  Now().services.push_back({std::string(name), std::string(protocol), port});
}

void Platform::SetNodeName(std::string_view name) { Now().node_name = name; }
void Platform::SetTime(time_t now) { Now().now = now; }
void Platform::OnSystem(std::function<int(const char*)> run) { Now().run_system = std::move(run); }
void Platform::OnPause(std::function<void()> run) { Now().on_pause = std::move(run); }
void Platform::SkipPauses() { Now().skip_pauses = true; }

std::vector<Call> Platform::Records(std::initializer_list<std::string_view> names) {
  std::vector<Call> chosen;
  const auto choose = [&](const Call& call) {
    if (names.size() == 0 || std::find(names.begin(), names.end(), call.name) != names.end()) chosen.push_back(call);
  };
  auto line = Now().log.begin();
  for (size_t at = 0; at <= Now().records.size(); ++at) {
    for (; line != Now().log.end() && line->position == at; ++line) {
      choose({"LOGMSG", std::string(line->text) + ", " + std::to_string(line->kind)});
    }
    if (at < Now().records.size()) choose(Now().records[at]);
  }
  return chosen;
}

std::vector<std::string> Platform::Calls(std::initializer_list<std::string_view> names) {
  std::vector<std::string> texts;
  for (const Call& call : Records(names)) texts.push_back(call.Text());
  return texts;
}

void Platform::Forget() {
  Now().records.clear();
  Now().log.clear();
}
std::map<std::string, size_t, std::less<>> Platform::Counts() { return Now().counts; }
void Platform::StartCounting() {
  Now().counts.clear();
  counting = true;
}
size_t Platform::Injections() { return Now().injections; }
long Platform::LibraryBlocks() {
  return std::count_if(std::begin(library_blocks), std::end(library_blocks), [](void* b) { return b != nullptr; });
}
size_t Platform::Allocations() { return Now().allocations; }
bool Platform::FailureWasUsed() { return Now().failure_used; }

// The definitions that libmqnode.so binds to. REAL names the next definition; FOREIGN leaves when the caller is not the
// library; ENTER does both.
#define REAL(name)                                \
  static decltype(&::name) next_##name = nullptr; \
  const auto real = Next(next_##name, #name)
#define FOREIGN(call) \
  if (!InLibrary(__builtin_return_address(0))) return call
#define ENTER(name, ...) \
  REAL(name);            \
  FOREIGN(real(__VA_ARGS__))

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  ENTER(socket, domain, type, protocol);
  const std::string detail = std::to_string(domain) + ", " + std::to_string(type) + ", " + std::to_string(protocol);
  return Do({"socket", detail}, [&] { return real(domain, type, protocol); });
}

int connect(int fd, const sockaddr* address, socklen_t length) {
  ENTER(connect, fd, address, length);
  return Do({"connect", AddressText(address), fd}, [&] { return real(fd, address, length); });
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  ENTER(bind, fd, address, length);
  return Do({"bind", AddressText(address), fd}, [&] { return real(fd, address, length); });
}

int listen(int fd, int backlog) noexcept {
  ENTER(listen, fd, backlog);
  return Do({"listen", std::to_string(backlog), fd}, [&] { return real(fd, backlog); });
}

int accept(int fd, sockaddr* address, socklen_t* length) {
  ENTER(accept, fd, address, length);
  return Do({"accept", "", fd}, [&] { return real(fd, address, length); });
}

ssize_t send(int fd, const void* data, size_t size, int flags) {
  ENTER(send, fd, data, size, flags);
  return Do({"send", std::to_string(size), fd, size, flags},
            [&] { return real(fd, data, Limited("send", size), flags); });
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length) {
  ENTER(sendto, fd, data, size, flags, to, length);
  return Do({"sendto", std::to_string(size) + ", " + AddressText(to), fd, size, flags},
            [&] { return real(fd, data, Limited("sendto", size), flags, to, length); });
}

ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from, socklen_t* length) {
  ENTER(recvfrom, fd, data, size, flags, from, length);
  return Do({"recvfrom", std::to_string(size), fd, size, flags},
            [&] { return real(fd, data, Limited("recvfrom", size), flags, from, length); });
}

int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
  ENTER(select, count, read, write, except, timeout);
  char limit[48] = "none";
  if (timeout != nullptr) snprintf(limit, sizeof limit, "%ld.%06lds", timeout->tv_sec, timeout->tv_usec);
  return Do({"select", limit, -1, static_cast<size_t>(count)},
            [&] { return real(count, read, write, except, timeout); });
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
  ENTER(setsockopt, fd, level, option, value, length);
  std::string detail = std::to_string(level) + ":" + std::to_string(option);
  for (socklen_t at = 0; at + sizeof(int) <= length; at += sizeof(int)) {
    int word;
    memcpy(&word, static_cast<const char*>(value) + at, sizeof word);
    detail += ", " + std::to_string(word);
  }
  return Do({"setsockopt", detail, fd, length}, [&] { return real(fd, level, option, value, length); });
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
  ENTER(getsockopt, fd, level, option, value, length);
  const std::string detail = std::to_string(level) + ":" + std::to_string(option);
  return Do({"getsockopt", detail, fd, *length}, [&] { return real(fd, level, option, value, length); });
}

// An injected failure leaves the descriptor closed all the same, as the system does.
int close(int fd) {
  ENTER(close, fd);
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
  const std::string detail = command == F_GETFL   ? "F_GETFL"
                             : command == F_SETFL ? "F_SETFL, " + std::to_string(static_cast<int>(argument))
                                                  : std::to_string(command);
  return Do({"fcntl", detail, fd}, [&] { return real(fd, command, argument); });
}

hostent* gethostbyname(const char* name) {
  ENTER(gethostbyname, name);
  hostent* entry = nullptr;
  Look({"gethostbyname", name}, [&] {
    const auto host = Now().hosts.find(name);
    if (host != Now().hosts.end()) entry = HostEntry(host->first, host->second);
    return entry != nullptr;
  });
  return entry;
}

hostent* gethostbyaddr(const void* address, socklen_t length, int family) {
  ENTER(gethostbyaddr, address, length, family);
  in_addr in = {};
  memcpy(&in, address, std::min<size_t>(length, sizeof in));
  char quad[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &in, quad, sizeof quad);
  hostent* entry = nullptr;
  Look({"gethostbyaddr", std::string(quad) + ", " + std::to_string(length) + ", " + std::to_string(family)}, [&] {
    for (const auto& [name, quads] : Now().hosts) {
      if (std::find(quads.begin(), quads.end(), quad) != quads.end()) entry = HostEntry(name, quads);
    }
    return entry != nullptr;
  });
  return entry;
}

servent* getservbyname(const char* name, const char* protocol) {
  ENTER(getservbyname, name, protocol);
  return LookService({"getservbyname", Text(name) + ", " + Text(protocol)},
                     [&](const Service& service) { return service.name == name && service.protocol == protocol; });
}

servent* getservbyport(int port, const char* protocol) {
  ENTER(getservbyport, port, protocol);
  const int number = ntohs(static_cast<uint16_t>(port));
  return LookService({"getservbyport", std::to_string(number) + ", " + Text(protocol)},
                     [&](const Service& service) { return service.port == number && service.protocol == protocol; });
}

int uname(utsname* info) noexcept {
  ENTER(uname, info);
  return Do({"uname", ""}, [&] {
    const int result = real(info);
    const std::string& name = Now().node_name;
    if (!name.empty()) info->nodename[name.copy(info->nodename, sizeof info->nodename - 1)] = '\0';
    return result;
  });
}

int gethostname(char* name, size_t size) noexcept {
  ENTER(gethostname, name, size);
  return Do({"gethostname", std::to_string(size), -1, size}, [&] { return real(name, size); });
}

int system(const char* command) {
  ENTER(system, command);
  return Do({"system", Text(command)}, [&] {
    const auto run = Now().run_system;
    return run ? run(command) : real(command);
  });
}

unsigned sleep(unsigned seconds) {
  ENTER(sleep, seconds);
  Pause();
  Record({"sleep", std::to_string(seconds)});
  return 0;
}

int nanosleep(const timespec* wanted, timespec* left) {
  ENTER(nanosleep, wanted, left);
  Pause();
  char detail[48];
  snprintf(detail, sizeof detail, "%ld.%09lds", wanted->tv_sec, wanted->tv_nsec);
  return Do({"nanosleep", detail}, [&] { return Now().skip_pauses ? 0 : real(wanted, left); });
}

int poll(pollfd* fds, nfds_t count, int milliseconds) {
  ENTER(poll, fds, count, milliseconds);
  Pause();
  return Do({"poll", std::to_string(count) + ", " + std::to_string(milliseconds)},
            [&] { return real(fds, count, milliseconds); });
}

// signal and alarm may be the last thing that an exported function does, and then seem to be called by the test: they
// are always recorded.
sighandler_t signal(int number, sighandler_t handler) noexcept {
  REAL(signal);
  Record({"signal", std::to_string(number)});
  return real(number, handler);
}

unsigned alarm(unsigned seconds) noexcept {
  REAL(alarm);
  const unsigned left = real(seconds);
  Record({.name = "alarm", .detail = std::to_string(seconds), .result = static_cast<long>(left)});
  return left;
}

// The number of processors is what the library asks for as the last thing it does: any caller's question can be failed,
// and without a code errno stays.
long sysconf(int name) noexcept {
  REAL(sysconf);
  if (name != _SC_NPROCESSORS_ONLN || (!counting && Now().rules.empty())) return real(name);
  const int before = errno;
  const auto code = Injected("sysconf");
  errno = code.value_or(0) != 0 ? *code : before;
  return code ? -1 : real(name);
}

// What the library does with files answers a lookup's way: there or not.
FILE* fopen(const char* path, const char* mode) {
  ENTER(fopen, path, mode);
  FILE* file = nullptr;
  Look({"fopen", mode}, [&] { return (file = real(path, mode)) != nullptr; });
  return file;
}

char* fgets(char* line, int size, FILE* file) {
  ENTER(fgets, line, size, file);
  char* read = nullptr;
  Look({"fgets", std::to_string(size)}, [&] { return (read = real(line, size, file)) != nullptr; });
  return read;
}

int fclose(FILE* file) {
  ENTER(fclose, file);
  const int result = real(file);
  return static_cast<int>(Do({"fclose", ""}, [&] { return result; }));
}

int remove(const char* path) noexcept {
  ENTER(remove, path);
  return static_cast<int>(Do({"remove", ""}, [&] { return real(path); }));
}

time_t time(time_t* out) noexcept {
  ENTER(time, out);
  const time_t now = Now().now.value_or(real(nullptr));
  if (out != nullptr) *out = now;
  return now;
}

// A companion may leave any errno behind.
void LOGMSG(const char* text, int kind) {
  FOREIGN(next_log(text, kind));
  State& state = Now();
  if (state.log.size() == kLogLines) abort();
  state.log.push_back({state.records.size(), kind, {}});
  memcpy(state.log.back().text, text, std::min(strlen(text), sizeof(LogLine::text) - 1));
  next_log(text, kind);
  errno = EBADMSG;
}

// The allocator: the sanitizers' own when they are there; else the next one, which may be valgrind's.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void __libc_free(void* block);
__attribute__((weak)) void* __interceptor_malloc(size_t size);
__attribute__((weak)) void* __interceptor_calloc(size_t count, size_t size);
__attribute__((weak)) void __interceptor_free(void* block);

void* malloc(size_t size) noexcept {
  const void* const caller = __builtin_return_address(0);
  const bool counted = InLibrary(caller);
  if (counted ? Refused("malloc") : counting && IsIn(companion, caller) && Refused(kCompanionMalloc)) return nullptr;
  static decltype(&__libc_malloc) next = nullptr;
  void* const block = Allocator(next, "malloc", __interceptor_malloc, __libc_malloc)(size);
  if (counted) Exchange(nullptr, block);
  return block;
}

void* calloc(size_t count, size_t size) noexcept {
  const bool counted = InLibrary(__builtin_return_address(0));
  if (counted && Refused("calloc")) return nullptr;
  static decltype(&__libc_calloc) next = nullptr;
  void* const block = Allocator(next, "calloc", __interceptor_calloc, __libc_calloc)(count, size);
  if (counted) Exchange(nullptr, block);
  return block;
}

void free(void* block) noexcept {
  // The caller does not tell: what the companion frees last may seem to be freed by the library.
  if (block != nullptr) Exchange(block, nullptr);
  static decltype(&__libc_free) next = nullptr;
  Allocator(next, "free", __interceptor_free, __libc_free)(block);
}

}  // extern "C"
