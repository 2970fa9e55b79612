// faults.hh - the parts of mqfaults. calls.cc: which calls can fail, and how. promises.cc: what an operation owes its
// caller then. host.cc: the application that runs the operations, and a model of what has to arrive. scenarios.cc: what
// it does in which order. main.cc: makes the 1st, 2nd, 3rd ... call of each scenario fail.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/support/fixture.hh"

namespace faults {

// ---- Calls ----

// Codes beside errno values. kZero: the call returns 0 (the peer ended, the wait timed out). kNone: a failure without
// an errno. Cut: a transfer moves at most so many bytes.
constexpr int kZero = Platform::kZero;
constexpr int kNone = 0;
constexpr int Cut(int bytes) { return kZero - bytes; }
constexpr bool IsCut(int code) { return code < kZero; }
constexpr size_t BytesOf(int cut) { return static_cast<size_t>(kZero - cut); }

// Allocations that the companion refuses; a pseudo call, as "companion malloc" is.
constexpr std::string_view kAllocation = "allocation";

struct FailingCall {
  std::string_view name;
  std::vector<int> codes;  // each way in which it can fail
};
struct SafeCalls {
  std::string_view reason, names;
};
std::span<const FailingCall> Failing();
std::span<const SafeCalls> Safe();
std::string CodeName(int code);                             // "EAGAIN", "ZERO", "NONE", "CUT7"
bool Lists(std::string_view words, std::string_view word);  // words are separated by blanks
// What the library imports from libc, as nm sees it, and no table knows.
std::vector<std::string> UnknownImports();

// ---- Promises ----

// How an operation ended: 1 or 0, the code it left (a wait's: the status word; else node->error or rec->error), and the
// one in the node's socket record.
struct Outcome {
  int result, error, socket_error = 0;
};
constexpr int kUntouched = 7777;  // the status word before a wait

// Judges one operation by the calls it made, in order, and by whether memory was refused to it meanwhile. Returns what
// was promised instead, or an empty text.
std::string Judge(std::string_view operation, const std::vector<Call>& calls, bool refused, const Outcome& outcome);

// The code with which a call failed, if it did.
std::optional<int> FailureOf(const Call& call);

// ---- The application ----

// The messages that a write took, in one direction of a link, and how far they got: bytes from the first one on.
struct Flow {
  struct Item {
    uint32_t number;
    uint64_t end;
  };
  std::deque<Item> items;                 // not delivered yet
  uint64_t begin = 0;                     // of the first item
  uint64_t sent = 0, received = 0;        // bytes that the system took and gave
  size_t whole = 0;                       // items that were sent whole
  uint32_t completed = 0, delivered = 0;  // items since the link was opened
};

struct Link {
  explicit Link(bool is_secure = false, bool is_blocking = false) : secure(is_secure), blocking(is_blocking) {}
  MQNode* nodes[2] = {};  // [0] connected, [1] was accepted
  Flow flows[2];          // flows[i] leaves nodes[i]
  int ports[2] = {};      // of datagram nodes
  uint64_t browsed[2] = {};
  bool secure, blocking, datagram = false, open = false;
};

constexpr int kWaitForms = 6;
constexpr int kNPostForm = 5;  // mnNPostExMSec
constexpr bool WatchesWrites(int form) { return form >= 3; }

MqcSigner* Signer();  // of every link; made once
uint64_t Refusals();  // allocations that were refused since the process began

// An application that does as the headers say: it tries again what may be tried again, goes on where a stream is still
// in step, and closes a connection that a reported failure has left out of step. When one call fails once, the second
// attempt of everything succeeds and every message that a write took arrives; only a connection that was closed for its
// failure may lose some.
class Host {
 public:
  enum class Run { kClean, kOnce, kOnwards };

  Host(Run run, bool small);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Runs one operation and judges it.
  int Do(std::string_view operation, const std::function<Outcome()>& run);
  // Runs a creator. A node that has failed is deleted; null then.
  MQNode* Create(const std::function<MQNode*()>& make);
  // Runs attempt until it returns true, at most twice.
  bool Twice(const char* what, const std::function<bool()>& attempt);
  void Expect(bool good, const std::string& otherwise);

  MQNode* Listener(const char* name = "127.0.0.1", const char* service = "0");
  bool Connect(Link* link, MQNode* listener);
  bool Bind(Link* link);
  // Writes one message; false when it was refused twice or the link is closed.
  bool Write(Link* link, int from, size_t size);
  // Finishes what is queued and reads, until everything that was taken was delivered, or the links are closed.
  void Pump(const std::vector<Link*>& links, int form = kNPostForm);
  void Close(Link* link);
  void Delete(MQNode** node);

  // Small messages only, for runs in which every transfer is cut short.
  std::vector<size_t> Sizes(const Link& link) const;

  const std::vector<std::string>& verdicts() const { return verdicts_; }
  bool clean() const { return run_ == Run::kClean; }

 private:
  int DoOn(std::string_view operation, Link* link, int end, const std::function<int(MQNode*)>& run);
  void Settle(Link* link, int end);
  void Check(const Link& link, int end);
  bool Prepare(MQNode* node, bool blocking);
  bool Open(Link* link, MQNode* listener);
  void Accept(Link* link, MQNode* listener);
  bool WriteOnce(Link* link, int from, size_t size);
  bool Finish(Link* link, int from);
  bool Read(Link* link, int to);
  void Browse(Link* link, int to);
  void FinishAll(Link* link, int from);
  void ReadAll(Link* link, int to);
  bool Wait(int form, std::vector<MQNode*> nodes, int seconds = 1);
  void Round(const std::vector<Link*>& links, int form);
  void Lose(const char* why, Link* out_of_step = nullptr);

  Run run_;
  bool small_;
  std::vector<std::string> verdicts_;
  std::vector<Call> calls_;  // of the last operation
  PcfMessage *out_, *in_, *peek_;
  SockPostData work_ = {};
  std::vector<MQNode*> ready_[3];  // what the last wait listed: to accept on, to read, to write
  uint32_t number_ = 0;
  uint64_t moved_ = 0;
  int lost_ = 0;
  bool timed_out_ = false;
};

// ---- Scenarios ----

struct Scenario {
  std::string_view name, about;
  void (*run)(Host* host);
  size_t cut;    // every send and receive moves at most so many bytes; 0: what the system takes
  bool streams;  // its receives may be cut
};
std::span<const Scenario> Scenarios();

// What the system is while a scenario runs: names, the shell, time. The shell writes into MQFAULTS_FOLDER.
void PreparePlatform();

}  // namespace faults
