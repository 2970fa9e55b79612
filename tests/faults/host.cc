// host.cc - the operations, the model, and what is checked after each operation.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/faults/faults.hh"

namespace faults {

namespace {

constexpr int kPatience = 12;  // rounds of nothing but failures before the host gives up
constexpr uint32_t kCapacity = 65536;
constexpr char kUser[] = "tester";

uint8_t Pattern(uint32_t number, size_t at) { return static_cast<uint8_t>(at * 7 + number); }

// The message of this number and size, in a record that is large enough: no call here allocates.
void Compose(PcfMessage* msg, uint32_t number, size_t size) {
  static uint8_t bytes[kCapacity];
  for (size_t i = 0; i < size; ++i) bytes[i] = Pattern(number, i);
  if (!mqc_begin(msg, number) || !mqc_add_bytes(msg, 1, bytes, static_cast<uint32_t>(size))) abort();
}

bool IsMessage(const PcfMessage* msg, uint32_t number) {
  MqcParam param;
  char sender[13];
  mqc_sender(msg, sender);
  if (mqc_command(msg) != number || !mqc_param(msg, 0, &param) || param.bytes == nullptr) return false;
  for (size_t i = 0; i < param.length; ++i) {
    if (param.bytes[i] != Pattern(number, i)) return false;
  }
  return strcmp(sender, kUser) == 0;
}

int reports;     // calls of the error callback
int open_calls;  // trace points "...:Before" without their "...:After"

int CountReport(SockRec*) { return ++reports; }
void CountTrace(const char* point, SockRec*) {
  const std::string_view name = point;
  open_calls += name.ends_with(":Before") - name.ends_with(":After");
}
void PassTrace(const char*, MQNode*) {}

Outcome Of(const MQNode* node, int result) { return {result, node->error, node->sock.error}; }

// The wait of that number on nodes, which end with a null pointer.
int WaitBy(int form, MQNode** nodes, std::vector<MQNode*>* ready, int seconds, int* status, SockPostData* work) {
  MQNode **const listen = ready[0].data(), **const read = ready[1].data(), **const write = ready[2].data();
  if (form == 0) return mnPost(nodes, listen, read, seconds, status);
  if (form == 1) return mnPostEx(nodes, listen, read, seconds, status, work);
  if (form == 2) return mnPostExMSec(nodes, listen, read, seconds * 1000, status, work);
  if (form == 3) return mnNPost(nodes, listen, read, write, seconds, status);
  if (form == 4) return mnNPostEx(nodes, listen, read, write, seconds, status, work);
  return mnNPostExMSec(nodes, listen, read, write, seconds * 1000, status, work);
}

}  // namespace

MqcSigner* Signer() {
  static MqcSigner* const signer = [] {
    uint8_t secret[MQC_KEY_BYTES], key[MQC_KEY_BYTES];
    mqc_generate_key(secret, key);
    mqc_ring_add(kUser, key, nullptr, 0);
    return mqc_signer_new(kUser, secret, nullptr, 0);
  }();
  return signer;
}

uint64_t Refusals() {
  MqcMemory all;
  mqc_memory(nullptr, &all);
  return mqc_allocations() - all.total_blocks;
}

// Callbacks change the way that some operations take: half of the runs have them.
Host::Host(Run run, bool small)
    : run_(run),
      small_(small),
      out_(mqc_message_new(kCapacity)),
      in_(mqc_message_new(0)),
      peek_(mqc_message_new(kCapacity)) {
  if (Signer() == nullptr || out_ == nullptr || in_ == nullptr || peek_ == nullptr ||
      !InitSocketPostData(&work_, SOCK_POST_SIZE))
    abort();
  OnGSocketTrace(run == Run::kOnwards ? CountTrace : nullptr);
  mnGSetTraceCallBack(run == Run::kOnwards ? PassTrace : nullptr);
}

Host::~Host() {
  FreeSocketPostData(&work_);
  for (PcfMessage* msg : {out_, in_, peek_}) mqc_message_free(msg);
}

std::vector<size_t> Host::Sizes(const Link& link) const {
  if (small_) return {1, 40};
  return {1, 4000, link.datagram ? size_t{16000} : size_t{40000}};
}

void Host::Expect(bool good, const std::string& otherwise) {
  if (!good && verdicts_.size() < 8) verdicts_.push_back(otherwise);
}

int Host::Do(std::string_view operation, const std::function<Outcome()>& run) {
  Platform::Forget();
  reports = open_calls = 0;
  const size_t injections = Platform::Injections();
  const uint64_t refusals = Refusals();
  Outcome outcome = run();
  outcome.result = outcome.result != 0;
  calls_ = Platform::Records();
  // A failed allocation of the library is injected, and no call.
  const auto injected = std::count_if(calls_.begin(), calls_.end(), [](const Call& call) { return call.injected; });
  const bool refused = Refusals() != refusals || Platform::Injections() - injections > static_cast<size_t>(injected);
  if (const std::string promised = Judge(operation, calls_, refused, outcome); !promised.empty()) {
    std::string made;
    for (const Call& call : calls_) made += fmt::format("; {}{}", call.Text(), call.injected ? " (injected)" : "");
    Expect(false,
           fmt::format("{}: result {}, error {}, of the socket {}; promised is {}{}{}", operation, outcome.result,
                       outcome.error, outcome.socket_error, promised, made, refused ? "; memory was refused" : ""));
  }
  Expect(open_calls == 0, fmt::format("{}: trace points without their end: {}", operation, open_calls));
  return outcome.result;
}

MQNode* Host::Create(const std::function<MQNode*()>& make) {
  MQNode* node = nullptr;
  Do("create", [&] {
    node = make();
    return node != nullptr ? Outcome{1, node->error} : Outcome{0, 0};
  });
  if (node != nullptr && IsNodeFailed(node)) Delete(&node);
  return node;
}

int Host::DoOn(std::string_view operation, Link* link, int end, const std::function<int(MQNode*)>& run) {
  MQNode* const node = link->nodes[end];
  const int result = Do(operation, [&] { return Of(node, run(node)); });
  Settle(link, end);
  return result;
}

// Takes what the calls moved into the model.
void Host::Settle(Link* link, int end) {
  const SockRec& sock = link->nodes[end]->sock;
  Flow &out = link->flows[end], &in = link->flows[1 - end];
  int failures = 0;
  for (const Call& call : calls_) {
    const bool sends = call.name == "send" || call.name == "sendto";
    if (call.fd != sock.fd || !(sends || call.name == "recvfrom")) continue;
    if (const std::optional<int> code = FailureOf(call)) {
      Expect(call.injected || code == EAGAIN, "a call failed by itself: " + call.Text());
      ++failures;
      continue;
    }
    const bool looks = !sends && (call.flags & MSG_PEEK) != 0;
    const auto bytes = static_cast<uint64_t>(call.result);
    (sends ? out.sent : looks ? link->browsed[end] : in.received) += bytes;
    if (!looks) moved_ += bytes;
  }
  for (; out.whole < out.items.size() && out.items[out.whole].end <= out.sent; ++out.whole) ++out.completed;
  Expect(reports == failures, fmt::format("calls of the error callback are {}, must be {}", reports, failures));
  Expect(sock.buffer == nullptr, "a transfer is over, and the socket record still names its buffer");
  Expect(sock.bytesSent == out.sent && sock.bytesReceived == in.received + link->browsed[end],
         "the node's byte totals are not those of its calls");
}

// A node's counters are those of the model.
void Host::Check(const Link& link, int end) {
  const MQNode& node = *link.nodes[end];
  const Flow &out = link.flows[end], &in = link.flows[1 - end];
  const size_t left = out.items.size() - out.whole;
  const auto is = fmt::format("outstanding {}, queued {}, completed {}, read {}", node.writesOutstanding,
                              Qdepth(node.pending), node.writesCompleted, node.msgsRead);
  const auto must =
      fmt::format("outstanding {}, queued {}, completed {}, read {}", left, left, out.completed, in.delivered);
  Expect(is == must, fmt::format("counters: {}; must be {}", is, must));
  Expect(node.recvBuffer.received <= node.recvBuffer.capacity && node.recvBuffer.length <= kCapacity,
         "the receive buffer has more than its capacity");
}

bool Host::Twice(const char* what, const std::function<bool()>& attempt) {
  if (attempt()) return true;
  Expect(run_ != Run::kClean, fmt::format("{} failed in a clean run", what));
  if (attempt()) return true;
  Expect(run_ != Run::kOnce, fmt::format("{} failed twice after one failure", what));
  return false;
}

MQNode* Host::Listener(const char* name, const char* service) {
  MQNode* node = nullptr;
  Twice("a listener", [&] {
    SockAddrRec address = AddressOf(name, service);
    return (node = Create([&] { return CreateMQNode(&address, MQ_ROLE_LISTEN); })) != nullptr;
  });
  return node;
}

// What a host does with a fresh node. An option that cannot be set changes nothing that matters here.
bool Host::Prepare(MQNode* node, bool blocking) {
  SockRec* const sock = &node->sock;
  memset(node->user, 0, sizeof node->user);
  memcpy(node->user, kUser, sizeof kUser);
  OnSocketError(sock, CountReport);
  if (sock->type == SOCK_TYPE_STREAM) Do("option", [&] { return Outcome{SetTcpNoDelay(sock, 1), sock->error}; });
  return blocking || Do("mode", [&] { return Outcome{NoblockSocket(sock), sock->error}; });
}

bool Host::Connect(Link* link, MQNode* listener) {
  if (listener == nullptr) return false;
  return link->open = Twice("a connection", [&] {
           const bool open = Open(link, listener);
           if (!open) Close(link);
           return open;
         });
}

bool Host::Open(Link* link, MQNode* listener) {
  SockAddrRec address = AddressOf("127.0.0.1", PortOf(listener->sock.fd));
  MQNode* const client = link->nodes[0] = Create([&] { return CreateMQNode(&address, MQ_ROLE_CONNECT); });
  if (client == nullptr || !Prepare(client, link->blocking)) return false;
  const int opened = Do("connect", [&] { return Of(client, mnOpen(client)); });
  Expect(client->openState == static_cast<uint32_t>(opened), "a node is open, and its connect failed; or the reverse");
  if (!opened && (client->error != MQ_AGAIN || link->blocking)) return false;
  for (int round = 0; round < kPatience; ++round) {
    std::vector<MQNode*> nodes = {client};
    if (link->nodes[1] == nullptr) nodes.push_back(listener);
    if (!Wait(kNPostForm, nodes)) continue;
    if (!ready_[1].empty()) {  // nobody has written yet: the connect failed, and reading tells why
      Do("read", [&] { return Of(client, mnRead(in_, client)); });
      return false;
    }
    if (!ready_[0].empty()) Accept(link, listener);
    if (client->openState != 0 && link->nodes[1] != nullptr) return Prepare(link->nodes[1], link->blocking);
  }
  return false;
}

// Accepts the link's own connection, if there is one yet.
void Host::Accept(Link* link, MQNode* listener) {
  if (!Do("accept", [&] { return Of(listener, mnOpen(listener)); })) return;
  MQNode* child = std::exchange(listener->child, nullptr);
  if (child == nullptr) return;  // no memory; the connection is closed
  Expect(child->role == MQ_ROLE_CONNECT && child->openState == 1 && child->sock.owner == child && !child->pending,
         "an accepted child is not as it must be");
  if (static_cast<int>(child->sock.name.port) == PortOf(link->nodes[0]->sock.fd)) {
    link->nodes[1] = child;
  } else {
    Delete(&child);  // of an earlier attempt
  }
}

bool Host::Bind(Link* link) {
  link->datagram = true;
  return link->open = Twice("a pair of datagram nodes", [&] {
           for (int i = 0; i < 2; ++i) {
             SockAddrRec address = AddressOf("127.0.0.1", 0);
             MQNode* const node = link->nodes[i] = Create([&] { return CreateUDPMQNode(&address); });
             if (node != nullptr) link->ports[i] = PortOf(node->sock.fd);
             if (node != nullptr && Prepare(node, false)) continue;
             Close(link);
             return false;
           }
           return true;
         });
}

bool Host::Write(Link* link, int from, size_t size) {
  bool taken = false;
  Twice("a write", [&] {
    taken = link->open && WriteOnce(link, from, size);
    // A closed link takes no more, and a full queue has to be finished first.
    return taken || !link->open || link->nodes[from]->error == MQ_WRITE_LIMIT;
  });
  return taken;
}

bool Host::WriteOnce(Link* link, int from, size_t size) {
  Flow& flow = link->flows[from];
  Compose(out_, ++number_, size);
  const uint64_t end = flow.items.empty() ? flow.begin : flow.items.back().end;
  flow.items.push_back({number_, end + out_->raw.length + (link->secure ? 128 : 0)});
  SockAddrRec to = AddressOf("127.0.0.1", link->ports[1 - from]);
  const bool queued = link->nodes[from]->pending != nullptr;
  const bool taken = DoOn("write", link, from, [&](MQNode* node) {
    return mnSWriteTo(out_, node, link->datagram ? &to : nullptr, link->secure, Signer());
  });
  if (!taken) {
    Expect(queued || link->nodes[from]->pending == nullptr, "a write that failed left a queue behind");
    flow.items.pop_back();
    Expect(flow.whole <= flow.items.size(), "a write that was refused was sent");
    if (flow.sent > end) {
      Lose("a write that was refused had sent a part", link);
      return false;
    }
  }
  Check(*link, from);
  return taken;
}

bool Host::Finish(Link* link, int from) {
  Flow& flow = link->flows[from];
  const bool finished = DoOn("finish", link, from, mnFinishWrite);
  if (finished) {
    Expect(mnIsPendingIO(link->nodes[from]) == (flow.whole != flow.items.size()), "the queue is not as finish says");
  } else if (flow.whole == flow.items.size()) {
    Expect(false, "a finish dropped a message that was not queued");
  } else {
    const auto dropped = flow.items.begin() + static_cast<std::ptrdiff_t>(flow.whole);
    const uint64_t begin = flow.whole == 0 ? flow.begin : std::prev(dropped)->end, size = dropped->end - begin;
    for (auto after = flow.items.erase(dropped); after != flow.items.end(); ++after) after->end -= size;
    Check(*link, from);
    Lose("a finish dropped a message", flow.sent > begin ? link : nullptr);
  }
  if (link->open) Check(*link, from);
  return finished;
}

bool Host::Read(Link* link, int to) {
  const MQNode* const node = link->nodes[to];
  Flow& flow = link->flows[1 - to];
  const bool read = DoOn("read", link, to, [&](MQNode* at) { return mnSRead(in_, at, link->secure, nullptr); });
  const bool whole = flow.whole > 0 && flow.received == flow.items.front().end;
  const uint64_t held = whole || node->error != MQ_AGAIN ? 0 : flow.received - flow.begin;
  Expect(node->recvBuffer.received == held, fmt::format("a read that left error {} keeps {} bytes, must keep {}",
                                                        node->error, node->recvBuffer.received, held));
  if (whole) {
    const bool rejected = node->error == MQ_NOT_AUTHENTIC;
    Expect(!read || IsMessage(in_, flow.items.front().number), "a message is altered, twice there, or out of order");
    Expect(read || rejected || node->error == MQ_NO_ROOM, fmt::format("error {} after a lost message", node->error));
    flow.delivered += read || rejected;
    flow.begin = flow.items.front().end;
    flow.whole -= 1;
    flow.items.pop_front();
    if (!read) Lose("a read dropped a message");
  } else {
    Expect(!read, "a message was delivered that was not sent, or not all of it");
    if (held == 0 && flow.received != flow.begin) Lose("a read dropped a part of a message", link);
  }
  if (link->open) Check(*link, to);
  return read;
}

void Host::Browse(Link* link, int to) {
  const Flow& flow = link->flows[1 - to];
  if (!DoOn("browse", link, to, [&](MQNode* node) { return mnBrowse(peek_, node); })) return;
  uint32_t body = 0;
  memcpy(&body, peek_->raw.data + offsetof(MsgHeader, bodyLength), sizeof body);
  Expect(!flow.items.empty() && flow.begin + body + sizeof(MsgHeader) == flow.items.front().end,
         "a browse shows another header than the next message's");
}

// A failure was reported that cost a message. The application closes a link that it left out of step.
void Host::Lose(const char* why, Link* out_of_step) {
  lost_ += 1;
  Expect(run_ != Run::kClean, fmt::format("in a clean run, {}", why));
  Expect(run_ != Run::kOnce || lost_ == 1, fmt::format("one failure lost more than one message: {}", why));
  if (out_of_step != nullptr) Close(out_of_step);
}

bool Host::Wait(int form, std::vector<MQNode*> nodes, int seconds) {
  auto* const untouched = reinterpret_cast<MQNode*>(this);
  nodes.push_back(nullptr);
  for (auto& list : ready_) list.assign(nodes.size(), untouched);
  int status = kUntouched;
  const bool ready = Do("wait", [&] {
    const int result = WaitBy(form, nodes.data(), ready_, seconds, &status, &work_);
    return Outcome{result, status};
  });
  timed_out_ = status == SOCK_WAIT_TIMEOUT && seconds > 0;
  for (auto& list : ready_) {
    const bool filled = ready && (&list != &ready_[2] || WatchesWrites(form));
    const auto end = std::find(list.begin(), list.end(), filled ? nullptr : untouched);
    Expect(end == (filled ? end : list.begin()), "a wait without a result wrote into its arrays");
    list.erase(filled ? end : list.begin(), list.end());
    for (MQNode* node : list)
      Expect(node != untouched && std::count(nodes.begin(), nodes.end(), node), "a wait listed what it was not given");
  }
  return ready;
}

void Host::FinishAll(Link* link, int from) {
  for (bool goes_on = true; goes_on && link->open && mnIsPendingIO(link->nodes[from]);) {
    const uint64_t before = moved_;
    goes_on = Finish(link, from) && moved_ != before;
  }
}

// On a blocking node one message, once it was sent whole, after a look at it.
void Host::ReadAll(Link* link, int to) {
  const Flow& flow = link->flows[1 - to];
  if (link->blocking) {
    if (flow.whole > 0 && flow.received == flow.begin && !link->secure) Browse(link, to);
    if (flow.whole > 0) Read(link, to);
    return;
  }
  for (bool goes_on = true; goes_on && link->open;) {
    const uint64_t before = moved_;
    goes_on = Read(link, to) || (link->open && link->nodes[to]->error != MQ_AGAIN && moved_ != before);
  }
}

// Finishes what can go on, reads what can be read. The waits that do not watch writing only poll while something is
// queued.
void Host::Round(const std::vector<Link*>& links, int form) {
  std::vector<std::pair<Link*, int>> ends;
  std::vector<MQNode*> nodes;
  int seconds = 1;
  for (Link* link : links) {
    for (int i = 0; i < 2 && !WatchesWrites(form); ++i) FinishAll(link, i);
    for (int i = 0; i < 2 && link->open; ++i) {
      ends.emplace_back(link, i);
      nodes.push_back(link->nodes[i]);
      if (!WatchesWrites(form) && mnIsPendingIO(link->nodes[i])) seconds = 0;
    }
  }
  if (!Wait(form, nodes, seconds)) return;
  for (size_t i = 0; i < ends.size(); ++i) {
    const auto& [link, end] = ends[i];
    if (link->open && std::count(ready_[1].begin(), ready_[1].end(), nodes[i])) ReadAll(link, end);
    if (link->open && std::count(ready_[2].begin(), ready_[2].end(), nodes[i])) FinishAll(link, end);
  }
}

void Host::Pump(const std::vector<Link*>& links, int form) {
  const auto outstanding = [](const Link* link) {
    return link->open && (!link->flows[0].items.empty() || !link->flows[1].items.empty());
  };
  for (int failures = 0, quiet = 0; std::any_of(links.begin(), links.end(), outstanding);) {
    const uint64_t before = moved_;
    const size_t injections = Platform::Injections() + Refusals();
    Round(links, form);
    if (moved_ != before) {
      failures = quiet = 0;
      continue;
    }
    const bool failed = Platform::Injections() + Refusals() != injections;
    Expect(failed || (!timed_out_ && quiet < 3),
           "a message that was reported as written does not arrive, and no node says why");
    Expect(failures < kPatience - 1 || run_ == Run::kOnwards, "nothing but failures");
    if (!(failed ? ++failures == kPatience : timed_out_ || ++quiet == 4)) continue;
    for (Link* link : links) {
      if (link->open) Close(link);
    }
  }
}

void Host::Delete(MQNode** node) {
  if (*node == nullptr) return;
  const int error = (*node)->sock.error;
  Do("close", [&] { return Outcome{mnClose(*node), (*node)->error}; });
  const MQNode* const closed = *node;
  Expect(closed->sock.fd == -1 && closed->openState == 0 && closed->pending == nullptr && closed->error == error &&
             closed->recvBuffer.data == nullptr,
         "a closed node is not as it must be");
  Do("close", [&] { return Outcome{DeleteMQNode(*node), 0}; });
  *node = nullptr;
}

void Host::Close(Link* link) {
  for (MQNode*& node : link->nodes) Delete(&node);
  Link fresh(link->secure, link->blocking);
  fresh.datagram = link->datagram;
  *link = fresh;
}

}  // namespace faults
