// app.hh - an application that does as the headers say, and a model of what has to arrive. It tries again what may be
// tried again, goes on where a stream is still in step, and closes a link that a reported failure has left out of step.
// When one call fails once, the second attempt of everything succeeds and every message that a write took arrives; only
// a link that was closed for its failure may lose some.
#pragma once

#include <deque>

#include "tests/faults/promises.hh"

namespace faults {

constexpr int kPatience = 10;  // rounds in which nothing moves before the application gives up
constexpr uint32_t kCapacity = 65536;
constexpr int32_t kNoError = 0;

// The messages that a write took, in one direction of a link, and how far they got, in bytes since it was opened.
struct Flow {
  struct Item {
    uint32_t number;
    size_t size;
    uint64_t end;
  };
  std::deque<Item> items;  // not delivered yet
  uint64_t begin = 0;      // of the first item
  uint64_t sent = 0, received = 0;
  size_t whole = 0;                       // items that were sent whole
  uint32_t completed = 0, delivered = 0;  // items since the link was opened
};

struct Link {
  explicit Link(bool is_secure = false, bool is_datagram = false) : secure(is_secure), datagram(is_datagram) {}
  bool secure, datagram;
  bool open = false;
  MQNode* nodes[2] = {};  // [0] connected, [1] was accepted
  Flow flows[2];          // flows[i] leaves nodes[i]
  int ports[2] = {};      // of datagram nodes
};

class App {
 public:
  enum class Run { kClean, kOnce, kOnwards };

  // small: short messages only, for runs in which every transfer is cut short.
  App(Run run, bool small) : run_(run), small_(small) {
    // Callbacks change the way that some operations take: half of the runs have them.
    OnGSocketTrace(run == Run::kOnwards ? CountTrace : nullptr);
    mnGSetTraceCallBack(run == Run::kOnwards ? RunNothing : nullptr);
  }
  App(const App&) = delete;
  App& operator=(const App&) = delete;

  std::vector<std::string> verdicts;
  void Expect(bool good, const std::string& otherwise) {
    if (!good && verdicts.size() < 8) verdicts.push_back(otherwise);
  }

  // Runs one operation and judges it by its result and, when it is over, by what it left as errors.
  int Do(std::string_view operation, const int32_t* error, const int32_t* socket_error,
         const std::function<int()>& run) {
    Platform::Forget();
    reports_ = open_points_ = 0;
    const size_t injections = Platform::Injections();
    const uint64_t refusals = Refusals();
    const int result = run() != 0;
    calls_ = Platform::Records();
    // A failed allocation of the library is injected, and no call.
    const auto injected = std::count_if(calls_.begin(), calls_.end(), [](const Call& call) { return call.injected; });
    const bool refused = Refusals() != refusals || Platform::Injections() - injections > static_cast<size_t>(injected);
    if (!IsPromised(operation, calls_, refused, {result, *error, *socket_error})) {
      std::string text = format("{}: result {}, error {}, of the socket {}", operation, result, *error, *socket_error);
      for (const Call& call : calls_) text += format("; {}{}", call.Text(), call.injected ? " (injected)" : "");
      Expect(false, text + (refused ? "; memory was refused" : ""));
    }
    Expect(open_points_ == 0, format("{}: trace points without their end: {}", operation, open_points_));
    return result;
  }

  int Do(std::string_view operation, const MQNode* node, const std::function<int()>& run) {
    return Do(operation, &node->error, &node->sock.error, run);
  }
  int Do(std::string_view operation, const SockRec* sock, const std::function<int()>& run) {
    return Do(operation, &sock->error, &kNoError, run);
  }
  int Do(std::string_view operation, const std::function<int()>& run) {
    return Do(operation, &kNoError, &kNoError, run);
  }

  // Runs attempt until it returns true, at most twice.
  bool Twice(const char* what, const std::function<bool()>& attempt) {
    if (attempt()) return true;
    Expect(run_ != Run::kClean, format("{} failed in a clean run", what));
    if (attempt()) return true;
    Expect(run_ != Run::kOnce, format("{} failed twice after one failure", what));
    return false;
  }

  // Runs a creator. A node that has failed is deleted; null then.
  MQNode* Create(const std::function<MQNode*()>& make) {
    MQNode* node = nullptr;
    int32_t error = 0;
    Do("create", &error, &kNoError, [&] {
      node = make();
      error = node != nullptr ? node->error : 0;
      return node != nullptr;
    });
    if (node != nullptr && IsNodeFailed(node)) Delete(&node);
    return node;
  }

  MQNode* Listener(const char* name = "127.0.0.1", const char* service = "0") {
    MQNode* node = nullptr;
    Twice("a listener", [&] {
      SockAddrRec address = AddressOf(name, service);
      return (node = Create([&] { return CreateMQNode(&address, MQ_ROLE_LISTEN); })) != nullptr;
    });
    return node;
  }

  // Opens a link, through the listener or between two datagram nodes.
  bool Open(Link* link, MQNode* listener) {
    if (!link->datagram && listener == nullptr) return false;
    link->open = Twice("a link", [&] {
      const bool open = link->datagram ? Bind(link, 0) && Bind(link, 1) : Connect(link, listener);
      if (!open) Close(link);
      return open;
    });
    return link->open;
  }

  // Writes one message; false when it was refused twice or the link is closed.
  bool Write(Link* link, int from, size_t size) {
    bool taken = false;
    Twice("a write", [&] {
      taken = link->open && WriteOnce(link, from, size);
      // A closed link takes no more, and a full queue has to be finished first.
      return taken || !link->open || link->nodes[from]->error == MQ_WRITE_LIMIT;
    });
    return taken;
  }

  // Finishes what is queued and reads until everything that was taken was delivered, or the links are closed. Without
  // writing the waits watch reading alone.
  void Pump(const std::vector<Link*>& links, bool writing = true) {
    const auto outstanding = [](const Link* link) {
      return link->open && (!link->flows[0].items.empty() || !link->flows[1].items.empty());
    };
    for (int idle = 0; std::any_of(links.begin(), links.end(), outstanding);) {
      const uint64_t before = moved_;
      Round(links, writing);
      idle = moved_ != before ? 0 : idle + 1;
      if (idle < kPatience) continue;
      Expect(run_ == Run::kOnwards, "a message that was reported as written does not arrive, and no node says why");
      for (Link* link : links) Close(link);
    }
  }

  void Delete(MQNode** node) {
    MQNode* const closed = *node;
    if (closed == nullptr) return;
    const int error = closed->sock.error;
    Do("close", [&] { return mnClose(closed); });
    Expect(closed->sock.fd == -1 && closed->openState == 0 && closed->pending == nullptr && closed->error == error &&
               closed->recvBuffer.data == nullptr,
           "a closed node is not as it must be");
    Do("close", [&] { return DeleteMQNode(closed); });
    *node = nullptr;
  }

  void Close(Link* link) {
    for (MQNode*& node : link->nodes) Delete(&node);
    *link = Link(link->secure, link->datagram);
  }

  std::vector<size_t> Sizes(const Link& link) const {
    if (small_) return {1, 40};
    return {1, 4000, link.datagram ? size_t{16000} : size_t{40000}};
  }
  bool clean() const { return run_ == Run::kClean; }

  // Allocations that were refused since the process began.
  static uint64_t Refusals() {
    MqcMemory all;
    mqc_memory(nullptr, &all);
    return mqc_allocations() - all.total_blocks;
  }

 private:
  static int CountReport(SockRec*) { return ++reports_; }
  static void CountTrace(const char* point, SockRec*) {
    const std::string_view name = point;
    open_points_ += name.ends_with(":Before") - name.ends_with(":After");
  }

  static void RunNothing(const char*, MQNode*) {}

  // What an application does with a fresh node. An option that cannot be set changes nothing that matters here.
  bool Prepare(MQNode* node) {
    SockRec* const sock = &node->sock;
    OnSocketError(sock, CountReport);
    if (sock->type == SOCK_TYPE_STREAM) Do("option", sock, [&] { return SetTcpNoDelay(sock, 1); });
    return Do("mode", sock, [&] { return NoblockSocket(sock); });
  }

  bool Bind(Link* link, int end) {
    MQNode* const node = link->nodes[end] = Create([] { return CreateDatagram().release(); });
    if (node == nullptr) return false;
    link->ports[end] = PortOf(node->sock.fd);
    return Prepare(node);
  }

  bool Connect(Link* link, MQNode* listener) {
    const int port = PortOf(listener->sock.fd);
    MQNode* const node = link->nodes[0] = Create([&] { return ::Create(port, MQ_ROLE_CONNECT).release(); });
    if (node == nullptr || !Prepare(node)) return false;
    const int opened = Do("connect", node, [&] { return mnOpen(node); });
    Expect(node->openState == static_cast<uint32_t>(opened), "a node's state is not what its connect came to");
    if (!opened && node->error != MQ_AGAIN) return false;
    for (int round = 0; round < kPatience; ++round) {
      std::vector<MQNode*> nodes = {node};
      if (link->nodes[1] == nullptr) nodes.push_back(listener);
      if (!Wait(true, nodes)) continue;
      if (!ready_[1].empty()) {  // nobody has written yet: the connect failed, and reading tells why
        Do("read", node, [&] { return mnRead(in_, node); });
        return false;
      }
      if (!ready_[0].empty()) Accept(link, listener);
      if (node->openState != 0 && link->nodes[1] != nullptr) return Prepare(link->nodes[1]);
    }
    return false;
  }

  // Accepts the link's own connection, if there is one yet.
  void Accept(Link* link, MQNode* listener) {
    if (!Do("accept", listener, [&] { return mnOpen(listener); })) return;
    MQNode* child = std::exchange(listener->child, nullptr);
    if (child == nullptr) return;  // no memory; the connection is closed
    Expect(child->role == MQ_ROLE_CONNECT && child->openState == 1 && child->sock.owner == child && !child->pending,
           "an accepted child is not as it must be");
    const bool own = static_cast<int>(child->sock.name.port) == PortOf(link->nodes[0]->sock.fd);
    own ? void(link->nodes[1] = child) : Delete(&child);  // of an earlier attempt
  }

  // Runs an operation of a link's end, and takes what its calls moved into the model.
  int DoOn(std::string_view operation, Link* link, int end, const std::function<int(MQNode*)>& run) {
    MQNode* const node = link->nodes[end];
    const SockRec& sock = node->sock;
    const int result = Do(operation, node, [&] { return run(node); });
    Flow &out = link->flows[end], &in = link->flows[1 - end];
    int failures = 0;
    for (const Call& call : calls_) {
      if (!Lists("send sendto recvfrom", call.name)) continue;
      if (const std::optional<int> code = FailureOf(call)) {
        Expect(call.injected || code == EAGAIN, "a call failed by itself: " + call.Text());
        ++failures;
        continue;
      }
      (call.name == "recvfrom" ? in.received : out.sent) += static_cast<uint64_t>(call.result);
      moved_ += static_cast<uint64_t>(call.result);
    }
    for (; out.whole < out.items.size() && out.items[out.whole].end <= out.sent; ++out.whole) ++out.completed;
    Expect(reports_ == failures, format("calls of the error callback are {}, must be {}", reports_, failures));
    Expect(sock.buffer == nullptr, "a transfer is over, and the socket record still names its buffer");
    Expect(sock.bytesSent == out.sent && sock.bytesReceived == in.received,
           "the node's byte totals are not those of its calls");
    return result;
  }

  // A node's counters are those of the model.
  void Check(const Link& link, int end) {
    if (!link.open) return;
    const MQNode& node = *link.nodes[end];
    const Flow &out = link.flows[end], &in = link.flows[1 - end];
    const size_t left = out.items.size() - out.whole;
    const auto text = [](auto... counts) { return format("outstanding {}, queue {}, sent {}, read {}", counts...); };
    const auto is = text(node.writesOutstanding, Qdepth(node.pending), node.writesCompleted, node.msgsRead);
    const auto must = text(left, left, out.completed, in.delivered);
    Expect(is == must, format("counters: {}; must be {}", is, must));
  }

  // A failure was reported that cost a message; a link that it left out of step is closed.
  void Lose(const std::string& why, Link* link, bool out_of_step) {
    lost_ += 1;
    Expect(run_ != Run::kClean && (run_ != Run::kOnce || lost_ == 1), why + ", and no failure explains it");
    if (out_of_step) Close(link);
  }

  bool WriteOnce(Link* link, int from, size_t size) {
    Flow& flow = link->flows[from];
    out_.Put(++number_, size);
    const uint64_t end = flow.items.empty() ? flow.begin : flow.items.back().end;
    flow.items.push_back({number_, size, end + out_->raw.length + (link->secure ? 128 : 0)});
    SockAddrRec to = AddressOf("127.0.0.1", link->ports[1 - from]);
    const bool queued = link->nodes[from]->pending != nullptr;
    const bool taken = DoOn("write", link, from, [&](MQNode* node) {
      return mnSWriteTo(out_, node, link->datagram ? &to : nullptr, link->secure, keys_.signer.get());
    });
    if (!taken) {
      Expect(queued || link->nodes[from]->pending == nullptr, "a write that failed left a queue behind");
      flow.items.pop_back();
      if (flow.sent > end) Lose("a write that was refused had sent a part", link, true);
    }
    Check(*link, from);
    return taken;
  }

  void Finish(Link* link, int from) {
    Flow& flow = link->flows[from];
    const bool finished = DoOn("finish", link, from, mnFinishWrite);
    const bool left = flow.whole != flow.items.size();
    if (finished) {
      Expect(mnIsPendingIO(link->nodes[from]) == left, "the queue is not as finish says");
    } else if (!left) {
      Expect(false, "a finish dropped a message that was not queued");
    } else {
      const auto dropped = flow.items.begin() + static_cast<std::ptrdiff_t>(flow.whole);
      const uint64_t begin = flow.whole == 0 ? flow.begin : std::prev(dropped)->end, size = dropped->end - begin;
      for (auto after = flow.items.erase(dropped); after != flow.items.end(); ++after) after->end -= size;
      Lose("a finish dropped a message", link, flow.sent > begin);
    }
    Check(*link, from);
  }

  void Read(Link* link, int to) {
    const MQNode* const node = link->nodes[to];
    Flow& flow = link->flows[1 - to];
    const bool read = DoOn("read", link, to, [&](MQNode* at) { return mnSRead(in_, at, link->secure, nullptr); });
    const int error = node->error;
    const bool whole = flow.whole > 0 && flow.received == flow.items.front().end;
    const uint64_t held = whole || error != MQ_AGAIN ? 0 : flow.received - flow.begin;
    Expect(node->recvBuffer.received == held,
           format("a read that left error {} keeps {} bytes, must keep {}", error, node->recvBuffer.received, held));
    const auto must =
        whole ? format("{}:{} from tester", flow.items.front().number, flow.items.front().size) : "nothing";
    Expect(!read || in_.Text() == must, format("a read gave {}, must give {}", in_.Text(), must));
    if (whole) {
      Expect(read || error == MQ_NOT_AUTHENTIC || error == MQ_NO_ROOM, format("error {} lost a message", error));
      flow.delivered += read || error == MQ_NOT_AUTHENTIC;
      flow.begin = flow.items.front().end;
      flow.whole -= 1;
      flow.items.pop_front();
    }
    const bool part = held == 0 && flow.received != flow.begin;
    if ((whole && !read) || part) Lose("a read dropped a message or a part of one", link, part);
    Check(*link, to);
  }

  // Takes a step of a link's end until it moves nothing.
  void Repeat(void (App::*step)(Link*, int), Link* link, int end) {
    for (uint64_t before = moved_ + 1; link->open && moved_ != before;) {
      before = moved_;
      (this->*step)(link, end);
    }
  }

  bool Wait(bool writing, std::vector<MQNode*> nodes, int seconds = 1) {
    auto* const untouched = reinterpret_cast<MQNode*>(this);
    nodes.push_back(nullptr);
    for (auto& list : ready_) list.assign(nodes.size(), untouched);
    int status = kUntouched;
    const bool ready = Do("wait", &status, &kNoError, [&] {
      MQNode **const listen = ready_[0].data(), **const read = ready_[1].data(), **const write = ready_[2].data();
      return writing ? mnNPost(nodes.data(), listen, read, write, seconds, &status)
                     : mnPost(nodes.data(), listen, read, seconds, &status);
    });
    for (auto& list : ready_) {
      const bool filled = ready && (&list != &ready_[2] || writing);
      const auto end = filled ? std::find(list.begin(), list.end(), nullptr) : list.begin();
      const bool right = filled ? std::find(list.begin(), end, untouched) == end : *end == untouched;
      Expect(right, "a wait without a result wrote into its arrays, or one with a result did not");
      list.erase(end, list.end());
    }
    return ready;
  }

  // Finishes what can go on, reads what can be read. The waits that do not watch writing only poll while something is
  // queued.
  void Round(const std::vector<Link*>& links, bool writing) {
    std::vector<std::pair<Link*, int>> ends;
    std::vector<MQNode*> nodes;
    int seconds = 1;
    for (Link* link : links) {
      for (int i = 0; i < 2 && !writing; ++i) Repeat(&App::Finish, link, i);
      for (int i = 0; i < 2 && link->open; ++i) {
        ends.emplace_back(link, i);
        nodes.push_back(link->nodes[i]);
        if (!writing && mnIsPendingIO(link->nodes[i])) seconds = 0;
      }
    }
    if (!Wait(writing, nodes, seconds)) return;
    const auto listed = [&](int list, size_t i) {
      return std::count(ready_[list].begin(), ready_[list].end(), nodes[i]);
    };
    for (size_t i = 0; i < ends.size(); ++i) {
      const auto& [link, end] = ends[i];
      if (link->open && listed(1, i)) Repeat(&App::Read, link, end);
      if (link->open && listed(2, i)) Repeat(&App::Finish, link, end);
    }
  }

  static inline int reports_;      // calls of the error callback
  static inline int open_points_;  // trace points "...:Before" without their "...:After"

  static inline const Keys keys_;
  const Run run_;
  const bool small_;
  const Message out_ = Message(kCapacity), in_;  // no write allocates for out_
  std::vector<Call> calls_;                      // of the last operation
  std::vector<MQNode*> ready_[3];                // what the last wait listed: to accept on, to read, to write
  uint32_t number_ = 0;
  uint64_t moved_ = 0;  // bytes
  int lost_ = 0;
};

}  // namespace faults
