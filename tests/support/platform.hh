// platform.hh - the system calls of libmqnode in tests: each is recorded, and can be made to fail, shortened or
// answered.
//
// The test programs define the system calls themselves, and libmqnode.so.1 binds to those definitions. A call from the
// library is recorded, looked up in the scripts below and then passed on; a call from anywhere else (the test itself,
// GoogleTest, the companion) is passed on unchanged. The library resolves only names added by AddHost and AddService,
// and "localhost"; its sleep returns at once.
//
// The table in platform.cc lists the calls. malloc and calloc are counted and can be made to fail, and after
// StartCounting also the companion's mallocs, under the name "companion malloc".
#pragma once

#include <ctime>
#include <deque>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A time beyond the range of dates: ctime returns null.
constexpr time_t kNoDate = std::numeric_limits<time_t>::max();

struct Call {
  std::string name;
  std::string detail = {};  // the arguments, except descriptors and addresses in memory
  int fd = -1;
  size_t size = 0;  // bytes asked for; select: the descriptor count
  int flags = 0;
  long result = 0;
  int error = 0;  // errno when the call failed
  bool injected = false;
  char kind = 'c';  // 'c' a call; else an event recorded by a test

  // "recvfrom(136) = 100", "send(36, flags 2) = -1 EAGAIN", "socket(2, 1, 0) = fd", "sleep(5) = 0".
  std::string Text() const;
};

class Platform {
 public:
  static constexpr int kOnwards = -1;
  static constexpr int kZero = -1;  // instead of an errno: the call returns 0 and does nothing

  // No scripts and no records; only name lookups and sleep are simulated. The fixture calls it before each test.
  static void Reset() { Now() = State(); }
  // Makes the nth call of name from now on fail with errno code, and the count - 1 calls after it (kOnwards: all).
  // Lookups then find nothing, and set errno only if code is not 0.
  static void Fail(std::string_view name, int nth, int code, int count = 1) {
    Now().rules.push_back({std::string(name), nth - 1, count, code});
  }
  // No failures from now on.
  static void Mend() { Now().rules.clear(); }
  // The next calls of send, sendto or recvfrom move at most sizes[0], sizes[1] ... bytes; later calls are not limited.
  static void Limit(std::string_view name, const std::vector<size_t>& sizes) {
    Now().limits[std::string(name)].coming = {sizes.begin(), sizes.end()};
  }
  // Limits the bytes moved by every call.
  static void LimitAll(std::string_view name, size_t size) { Now().limits[std::string(name)].others = size; }

  // Results of lookups. A host may have several addresses.
  static void AddHost(const std::string& name, std::vector<std::string> quads) { Now().hosts[name] = std::move(quads); }
  static void AddService(std::string_view name, std::string_view protocol, int port) {
    Now().services.push_back({std::string(name), std::string(protocol), port});
  }
  static void SetNodeName(std::string_view name) { Now().node_name = name; }  // of uname
  static void SetTime(time_t now) { Now().now = now; }                        // what time returns
  // Called instead of the shell; provides the result of system.
  static void OnSystem(std::function<int(const char* command)> run) { Now().run_system = std::move(run); }
  // Called before each sleep, nanosleep or poll of the library.
  static void OnPause(std::function<void()> run) { Now().on_pause = std::move(run); }
  // Makes nanosleep return at once.
  static void SkipPauses() { Now().skip_pauses = true; }

  // The library's calls and the recorded events since Reset or Forget; all, or those of the given names.
  static std::vector<Call> Records(std::initializer_list<std::string_view> names = {});
  static std::vector<std::string> Calls(std::initializer_list<std::string_view> names = {});
  static void Note(char kind, std::string event);
  static void Forget() { Now().records.clear(); }

  // Starts to count calls that a failure can be injected into. In a process that counts, which has one thread, the
  // companion's mallocs are included.
  static void StartCounting();
  static std::map<std::string, size_t, std::less<>> Counts() { return Now().counts; }
  static size_t Injections() { return Now().injections; }    // failures injected since Reset
  static long LibraryBlocks();                               // blocks that the library has from malloc and calloc
  static size_t Allocations() { return Now().allocations; }  // malloc and calloc calls of the library since Reset

  struct Rule {
    std::string name;
    int skip, count, code;
  };
  struct Limits {
    std::deque<size_t> coming;
    size_t others = std::numeric_limits<size_t>::max();
  };
  struct Service {
    std::string name, protocol;
    int port;
  };
  struct State {
    std::vector<Call> records;
    std::vector<Rule> rules;
    std::map<std::string, Limits> limits;
    std::map<std::string, std::vector<std::string>> hosts = {{"localhost", {"127.0.0.1"}}};
    std::vector<Service> services;
    std::string node_name;
    std::optional<time_t> now;
    std::function<int(const char*)> run_system;
    std::function<void()> on_pause = [] {};
    bool skip_pauses = false;
    size_t allocations = 0, injections = 0;
    std::map<std::string, size_t, std::less<>> counts;
  };
  static State& Now();
};
