// host.hh - the host program of the scenarios: it runs the library's operations, judges each by the table of promises,
// keeps a model of every direction of every connection, and notices what the model does not explain.
//
// It behaves as the headers tell hosts to: it tries again what may be tried again, goes on where a stream is still in
// step, and closes a connection that a reported failure has left out of step. When one call fails once, the second
// attempt of everything succeeds and every message that a write took arrives; only a connection that was closed for its
// failure may lose some.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/faults/promises.hh"

namespace faults {

// Messages that a write took, in one direction. Positions are bytes from the start of the first item.
struct Flow {
  struct Item {
    uint32_t number;
    uint64_t size;  // on the wire
  };
  std::deque<Item> items;  // not yet delivered
  uint64_t sent = 0;       // bytes that the system took
  uint64_t received = 0;   // bytes that the reader's system gave
  size_t whole = 0;        // items at the front that were sent whole
};

struct End {
  MQNode* node = nullptr;
  Flow* out = nullptr;
  Flow* in = nullptr;
  int port = 0;  // its own, of a datagram node
  uint32_t completed = 0;
  uint32_t read = 0;
  uint64_t bytes_sent = 0;
  uint64_t bytes_received = 0;
};

struct Link {
  Flow flows[2];
  End ends[2];  // [0] connected, [1] was accepted
  bool datagram = false;
  bool secure = false;
  bool open = false;
};

// The six waits, as numbers.
constexpr int kWaitForms = 6;
constexpr int kNPostForm = 5;  // mnNPostExMSec

class Host {
 public:
  enum class Run { kClean, kOnce, kOnwards };

  explicit Host(Run run);
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Small messages only and one way, for runs in which every transfer is cut short.
  bool small = false;
  std::vector<size_t> Sizes(const Link& link) const;

  MQNode* Listener(const char* name = "127.0.0.1", const char* service = "0");
  // Connects a stream link through the listener, with 2 attempts.
  bool Connect(Link* link, MQNode* listener, bool blocking = false);
  // Two datagram nodes.
  bool Bind(Link* link);
  // Nodes over two connected descriptors, which are the host's from here on.
  bool Adopt(Link* link, int first, int second);

  // Writes one message; false when it was refused twice or the link is closed.
  bool Write(Link* link, int end, size_t size);
  // Finishes what is queued and reads, until everything that was taken was delivered, or the links are closed.
  void Pump(const std::vector<Link*>& links, int form = kNPostForm);
  // The same on blocking nodes, without waits; browses first.
  void PumpBlocking(Link* link);
  bool Finish(Link* link, int end);
  bool Read(Link* link, int end);
  bool Browse(Link* link, int end);
  bool Wait(int form, const std::vector<MQNode*>& nodes, int seconds = 1);
  void Close(Link* link);
  void Delete(MQNode** node);

  // Runs one operation and judges it.
  int Do(Op op, const std::function<Came()>& run, End* end = nullptr);
  // One on a node: result, and the errors of the node and its socket.
  int DoOn(Op op, MQNode* node, const std::function<int()>& run, End* end = nullptr);
  // Runs a creator. A node that has failed is deleted; null then.
  MQNode* Create(const std::function<MQNode*()>& make);
  // Runs attempt until it returns true, at most twice.
  bool Twice(const char* what, const std::function<bool()>& attempt);

  // What the last wait listed.
  std::vector<MQNode*> listen_ready, read_ready, write_ready;

  void Fell(const std::string& what);
  const std::vector<std::string>& verdicts() const { return verdicts_; }
  bool clean() const { return run_ == Run::kClean; }

 private:
  bool Settle(End* end);
  void CheckCounters(const End& end);
  void CheckDelivered(const Flow& flow, bool whole);
  int WaitBy(int form, MQNode** nodes, MQNode** listen, MQNode** read, MQNode** write, int seconds, int* status);
  bool Accept(Link* link, MQNode* listener);
  bool Open(Link* link, MQNode* listener, bool blocking);
  bool Prepare(End* end, bool blocking);
  bool WriteOnce(Link* link, int end, size_t size);
  void Round(const std::vector<Link*>& links, int form);
  void GiveUp(const std::vector<Link*>& links, const char* why);
  void Lose(const char* why);
  void Lost(Link* link, const char* why);
  void FinishAll(Link* link, int end);
  bool ReadAll(Link* link, int end);

  Run run_;
  std::vector<std::string> verdicts_;
  std::vector<Call> calls_;
  PcfMessage* out_;
  PcfMessage* in_;
  PcfMessage* peek_;
  SockPostData work_;
  uint32_t number_ = 0;
  uint64_t moved_ = 0;
  int lost_ = 0;
  bool timed_out_ = false;
};

// The signer of every link, and its user; made once.
MqcSigner* Signer();
constexpr char kUser[] = "tester";

int PortOf(int fd);

}  // namespace faults
