// app.hh - an application that follows the headers, and a model of what has to arrive. It retries what may be retried,
// continues while a stream is intact, and closes a link that a reported failure has broken. If one call fails once,
// every second attempt succeeds and every message accepted by a write arrives; only a link closed for its failure may
// lose messages.
#pragma once

#include <deque>
#include <span>

#include "tests/faults/promises.hh"

namespace faults {

constexpr int kPatience = 10;  // rounds without progress before the application gives up
constexpr uint32_t kCapacity = 65536;
constexpr int32_t kNoError = 0;

// The accepted messages in one direction of a link, and their progress, in bytes since the link was opened.
struct Flow {
  struct Item {
    std::string text;  // see Message
    uint64_t end;
  };
  std::deque<Item> items;  // not delivered yet
  uint64_t begin = 0;      // of the first item
  uint64_t sent = 0, received = 0;
  size_t whole = 0;                       // items that were sent whole
  uint32_t completed = 0, delivered = 0;  // items since the link was opened
};

struct Link {
  bool secure = false, datagram = false, open = false;
  MQNode* nodes[2] = {};  // [0] connected, [1] accepted
  Flow flows[2] = {};     // flows[i] leaves nodes[i]
};

enum class Run { kClean, kOnce, kOnwards };

class App {
 public:
  // small: only short messages, for runs in which all transfers are cut short.
  App(Run how, bool small) : kind(how), small_(small) {
    // Callbacks change the code path of some operations: half of the runs have them.
    OnGSocketTrace(how == Run::kOnwards ? +[](const char*, SockRec*) {} : nullptr);
    mnGSetTraceCallBack(how == Run::kOnwards ? +[](const char*, MQNode*) {} : nullptr);
  }

  const Run kind;
  Lines verdicts;
  void Expect(bool good, const std::string& otherwise) {
    if (!good && verdicts.size() < 8) verdicts.push_back(otherwise);
  }

  // Runs one operation and judges it by its result and by the errors that it left.
  int Do(std::string_view operation, const std::function<int()>& run, const int32_t* error = &kNoError,
         const int32_t* socket_error = &kNoError) {
    Platform::Forget();
    reports_ = 0;
    const size_t injections = Platform::Injections();
    const uint64_t refusals = Refusals();
    const int result = run() != 0;
    calls_ = Platform::Records();
    // An injected failure that is not a call is a failed allocation of the library.
    const auto injected = static_cast<size_t>(std::ranges::count(calls_, true, &Call::injected));
    const bool refused = Refusals() != refusals || Platform::Injections() - injections > injected;
    if (!IsPromised(operation, calls_, refused, {result, *error, *socket_error})) {
      std::string text = format("{}: result {}, error {}, of the socket {}", operation, result, *error, *socket_error);
      for (const Call& call : calls_) text += format("; {}{}", call.Text(), call.injected ? " (injected)" : "");
      Expect(false, text + (refused ? "; memory was refused" : ""));
    }
    return result;
  }
  int Do(std::string_view operation, const MQNode* node, const std::function<int()>& run) {
    return Do(operation, run, &node->error, &node->sock.error);
  }

  // Runs attempt until it returns true, at most twice.
  bool Twice(const char* what, const std::function<bool()>& attempt) {
    if (attempt()) return true;
    Expect(kind != Run::kClean, format("{} failed in a clean run", what));
    if (attempt()) return true;
    Expect(kind != Run::kOnce, format("{} failed twice after one failure", what));
    return false;
  }

  // Runs a creator. Deletes a node that has failed, and returns null.
  MQNode* Create(const std::function<MQNode*()>& make) {
    MQNode* node = nullptr;
    int32_t error = 0;
    const auto run = [&] {
      if ((node = make()) != nullptr) error = node->error;
      return node != nullptr;
    };
    Do("create", run, &error);
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

  // Writes one message. False if it was refused twice or the link is closed.
  bool Write(Link* link, int from, size_t size) {
    bool taken = false;
    Twice("a write", [&] {
      taken = link->open && WriteOnce(link, from, size);
      // A closed link accepts no messages, and a full queue has to be finished first.
      return taken || !link->open || link->nodes[from]->error == MQ_WRITE_LIMIT;
    });
    return taken;
  }

  // Finishes queued writes and reads until all accepted messages were delivered, or the links are closed.
  void Pump(std::span<Link> links) {
    const auto outstanding = [](const Link& link) {
      return link.open && (!link.flows[0].items.empty() || !link.flows[1].items.empty());
    };
    for (int idle = 0; std::ranges::any_of(links, outstanding);) {
      const uint64_t before = moved_;
      Round(links);
      idle = moved_ != before ? 0 : idle + 1;
      if (idle < kPatience) continue;
      Expect(kind == Run::kOnwards, "a message that was reported as written does not arrive, and no node says why");
      for (Link& link : links) Close(&link);
    }
  }

  void Delete(MQNode** node) {
    MQNode* const closed = std::exchange(*node, nullptr);
    if (closed == nullptr) return;
    Do("close", [&] { return mnClose(closed); });
    Do("close", [&] { return DeleteMQNode(closed); });
  }

  void Close(Link* link) {
    for (MQNode*& node : link->nodes) Delete(&node);
    *link = Link{link->secure, link->datagram};
  }

  std::vector<size_t> Sizes(const Link& link) const {
    return small_ ? std::vector<size_t>{1, 40} : std::vector<size_t>{1, 4000, link.datagram ? 16000u : 40000u};
  }

 private:
  // Allocations refused since the process began.
  static uint64_t Refusals() {
    MqcMemory all;
    mqc_memory(nullptr, &all);
    return mqc_allocations() - all.total_blocks;
  }

  // Prepares a new node as an application does. Options that cannot be set make no difference here.
  bool Prepare(MQNode* node) {
    SockRec* const sock = &node->sock;
    OnSocketError(sock, [](SockRec*) { return ++reports_; });
    const auto set = [&] { return SetTcpNoDelay(sock, 1); };
    const auto unblock = [&] { return NoblockSocket(sock); };
    if (sock->type == SOCK_TYPE_STREAM) Do("option", set, &sock->error);
    return Do("mode", unblock, &sock->error);
  }

  bool Bind(Link* link, int end) {
    link->nodes[end] = Create([] { return CreateDatagram().release(); });
    return link->nodes[end] != nullptr && Prepare(link->nodes[end]);
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
      if (!Wait(nodes)) continue;
      if (IsReady(1, node)) {  // nothing was written yet: the connect failed, and a read reports why
        Do("read", node, [&] { return mnRead(in_, node); });
        return false;
      }
      if (IsReady(0, listener)) Accept(link, listener);
      if (node->openState != 0 && link->nodes[1] != nullptr) return Prepare(link->nodes[1]);
    }
    return false;
  }

  // Accepts the link's own connection, if it has arrived.
  void Accept(Link* link, MQNode* listener) {
    if (!Do("accept", listener, [&] { return mnOpen(listener); })) return;
    MQNode* child = std::exchange(listener->child, nullptr);
    if (child == nullptr) return;  // out of memory; the connection was closed
    const bool own = static_cast<int>(child->sock.name.port) == PortOf(link->nodes[0]->sock.fd);
    own ? void(link->nodes[1] = child) : Delete(&child);  // of an earlier attempt
  }

  // Runs an operation at one end of a link, and adds the bytes moved by its calls to the model.
  int DoOn(std::string_view operation, Link* link, int end, const std::function<int(MQNode*)>& run) {
    MQNode* const node = link->nodes[end];
    const int result = Do(operation, node, [&] { return run(node); });
    Flow &out = link->flows[end], &in = link->flows[1 - end];
    int failures = 0;
    for (const Call& call : calls_) {
      if (!Lists("send sendto recvfrom", call.name)) continue;
      Expect(call.result > 0 || call.injected || call.error == EAGAIN, "a call failed by itself: " + call.Text());
      failures += call.result <= 0;
      const auto bytes = static_cast<uint64_t>(std::max(call.result, 0L));
      (call.name == "recvfrom" ? in.received : out.sent) += bytes;
      moved_ += bytes;
    }
    for (; out.whole < out.items.size() && out.items[out.whole].end <= out.sent; ++out.whole) ++out.completed;
    Expect(reports_ == failures, format("calls of the error callback are {}, must be {}", reports_, failures));
    return result;
  }

  // A node's counters must equal those of the model.
  void Check(const Link& link, int end) {
    if (!link.open) return;
    const MQNode& node = *link.nodes[end];
    const Flow &out = link.flows[end], &in = link.flows[1 - end];
    const size_t left = out.items.size() - out.whole;
    const auto text = [](auto... counts) { return format("outstanding {}, queue {}, sent {}, read {}", counts...); };
    const auto is = text(node.writesOutstanding, Qdepth(node.pending), node.writesCompleted, node.msgsRead);
    const auto must = text(left, left, out.completed, in.delivered);
    Expect(is == must, format("{}; must be {}", is, must));
  }

  // Accounts for a reported failure that cost a message, and closes the link if the stream is broken.
  void Lose(const std::string& why, Link* link, bool out_of_step) {
    lost_ += 1;
    Expect(kind != Run::kClean && (kind != Run::kOnce || lost_ == 1), why + ", and no failure explains it");
    if (out_of_step) Close(link);
  }

  bool WriteOnce(Link* link, int from, size_t size) {
    Flow& flow = link->flows[from];
    out_.Put(++number_, size);
    const uint64_t end = flow.items.empty() ? flow.begin : flow.items.back().end;
    flow.items.push_back(
        {format("{}:{} from tester", number_, size), end + out_->raw.length + (link->secure ? 128 : 0)});
    SockAddrRec to = AddressOf("127.0.0.1", PortOf(link->nodes[1 - from]->sock.fd));
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
    const std::string must = whole ? flow.items.front().text : "nothing";
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

  // Repeats a step at one end of a link until it moves nothing.
  void Repeat(void (App::*step)(Link*, int), Link* link, int end) {
    for (uint64_t before = moved_ + 1; link->open && moved_ != before;) {
      before = moved_;
      (this->*step)(link, end);
    }
  }

  bool Wait(std::vector<MQNode*> nodes) {
    nodes.push_back(nullptr);
    for (auto& list : ready_) list.assign(nodes.size(), nullptr);
    int status = kUntouched;
    const auto run = [&] {
      return mnNPost(nodes.data(), ready_[0].data(), ready_[1].data(), ready_[2].data(), 1, &status);
    };
    return Do("wait", run, &status);
  }
  bool IsReady(int list, const MQNode* node) const { return std::ranges::count(ready_[list], node) != 0; }

  // Finishes and reads where the wait says so.
  void Round(std::span<Link> links) {
    std::vector<std::pair<Link*, int>> ends;
    std::vector<MQNode*> nodes;
    for (Link& link : links) {
      for (int i = 0; i < 2 && link.open; ++i) {
        ends.emplace_back(&link, i);
        nodes.push_back(link.nodes[i]);
      }
    }
    if (!Wait(nodes)) return;
    for (size_t i = 0; i < ends.size(); ++i) {
      const auto& [link, end] = ends[i];
      if (link->open && IsReady(1, nodes[i])) Repeat(&App::Read, link, end);
      if (link->open && IsReady(2, nodes[i])) Repeat(&App::Finish, link, end);
    }
  }

  static inline int reports_;  // calls of the error callback
  static inline const Keys keys_;
  const bool small_;
  const Message out_ = Message(kCapacity), in_;  // no write allocates for out_
  std::vector<Call> calls_;                      // of the last operation
  std::vector<MQNode*> ready_[3];                // result of the last wait: to accept on, to read, to write
  uint32_t number_ = 0;
  uint64_t moved_ = 0;  // bytes
  int lost_ = 0;
};

}  // namespace faults
