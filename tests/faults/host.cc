// host.cc - the operations, the model, and what is checked after each operation.
// Not here: the table of promises (promises.cc), what is done in which order (scenarios.cc).
#include "tests/faults/host.hh"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/support/fixture.hh"

namespace faults {

namespace {

constexpr int kPatience = 12;  // rounds of nothing but failures before the host gives up
constexpr uint32_t kCapacity = 65536;
constexpr uint32_t kParamOverhead = 20;

uint64_t Refusals() {
  MqcMemory all;
  mqc_memory(nullptr, &all);
  return mqc_allocations() - all.total_blocks;
}

uint8_t Pattern(uint32_t number, size_t at) { return static_cast<uint8_t>(at * 7 + number); }

bool Holds(const PcfMessage* msg, uint32_t number) {
  MqcParam param;
  if (mqc_command(msg) != number || !mqc_param(msg, 0, &param) || param.bytes == nullptr) return false;
  for (size_t i = 0; i < param.length; ++i) {
    if (param.bytes[i] != Pattern(number, i)) return false;
  }
  return true;
}

// Messages of this number and size in a record that is large enough: no call here allocates.
void Compose(PcfMessage* msg, uint32_t number, size_t size) {
  static uint8_t bytes[kCapacity];
  for (size_t i = 0; i < size; ++i) bytes[i] = Pattern(number, i);
  if (!mqc_begin(msg, number) || !mqc_add_bytes(msg, 1, bytes, static_cast<uint32_t>(size))) abort();
}

uint64_t Total(const Flow& flow) {
  uint64_t total = 0;
  for (const Flow::Item& item : flow.items) total += item.size;
  return total;
}

// Where the first item that was not sent whole begins.
uint64_t Boundary(const Flow& flow) {
  uint64_t end = 0;
  for (size_t i = 0; i < flow.whole; ++i) end += flow.items[i].size;
  return end;
}

void DropFront(Flow* flow) {
  flow->sent -= flow->items.front().size;
  flow->received = 0;
  flow->whole -= 1;
  flow->items.pop_front();
}

bool WatchesWrites(int form) { return form >= 3; }

int reports;

int CountReport(SockRec*) { return ++reports; }

template <typename Is, typename Must>
std::string Number(const char* what, Is is, Must must) {
  return std::string(what) + " is " + std::to_string(is) + ", must be " + std::to_string(must);
}

}  // namespace

MqcSigner* Signer() {
  static MqcSigner* const signer = [] {
    uint8_t secret[MQC_KEY_BYTES];
    uint8_t pub[MQC_KEY_BYTES];
    char error[256];
    MqcSigner* made = nullptr;
    if (!mqc_generate_key(secret, pub) || !mqc_ring_add(kUser, pub, error, sizeof error) ||
        (made = mqc_signer_new(kUser, secret, error, sizeof error)) == nullptr) {
      abort();
    }
    return made;
  }();
  return signer;
}

int PortOf(int fd) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

Host::Host(Run run)
    : run_(run), out_(mqc_message_new(kCapacity)), in_(mqc_message_new(0)), peek_(mqc_message_new(kCapacity)) {
  if (out_ == nullptr || in_ == nullptr || peek_ == nullptr || !InitSocketPostData(&work_, SOCK_POST_SIZE)) abort();
}

Host::~Host() {
  FreeSocketPostData(&work_);
  for (PcfMessage* msg : {out_, in_, peek_}) mqc_message_free(msg);
}

void Host::Fell(const std::string& what) {
  if (verdicts_.size() < 8) verdicts_.push_back(what);
}

std::vector<size_t> Host::Sizes(const Link& link) const {
  if (small) return {1, 40};
  return {1, 4000, link.datagram ? size_t{16000} : size_t{40000}};
}

int Host::Do(Op op, const std::function<Came()>& run, End* end) {
  Platform::Forget();
  reports = 0;
  const size_t injections = Platform::Injections();
  const uint64_t refusals = Refusals();
  Came came = run();
  came.result = came.result != 0;
  calls_ = Platform::Records();
  // A failed allocation of the library is injected, and no call.
  const auto injected =
      static_cast<size_t>(std::count_if(calls_.begin(), calls_.end(), [](const Call& call) { return call.injected; }));
  const bool refused = Refusals() != refusals || Platform::Injections() - injections > injected;
  const std::string promised = Judge(op, calls_, refused, came);
  if (!promised.empty()) {
    std::string made;
    for (const Call& call : calls_) made += " " + call.Text() + (call.injected ? " (injected)" : "");
    Fell(Text(op) + ": result " + std::to_string(came.result) + ", error " + std::to_string(came.error) +
         "; promised is " + promised + "; its calls:" + made + (refused ? "; memory was refused" : ""));
  }
  if (end != nullptr && !Settle(end)) Fell(Text(op) + ": the node's byte totals are not those of its calls");
  return came.result;
}

int Host::DoOn(Op op, MQNode* node, const std::function<int()>& run, End* end) {
  const auto come = [&] {
    const int result = run();
    return Came{result, node->error, node->sock.error};
  };
  return Do(op, come, end);
}

MQNode* Host::Create(const std::function<MQNode*()>& make) {
  MQNode* node = nullptr;
  Do(Op::kCreate, [&] {
    node = make();
    return node != nullptr ? Came{1, node->error} : Came{0, 0};
  });
  if (node != nullptr && IsNodeFailed(node)) Delete(&node);
  return node;
}

// Takes what the calls moved into the model. False when the node's totals say something else.
bool Host::Settle(End* end) {
  int failures = 0;
  for (const Call& call : calls_) {
    int code = 0;
    if (call.fd != end->node->sock.fd) continue;
    const bool failed = Failed(call, &code);
    if (failed && !call.injected && code != EAGAIN && code != EINPROGRESS && call.name != "poll") {
      Fell("a call failed by itself: " + call.Text());
    }
    if (call.name == "send" || call.name == "sendto" || call.name == "recvfrom") failures += failed;
    if (failed) continue;
    const auto bytes = static_cast<uint64_t>(call.result);
    if (call.name == "send" || call.name == "sendto") {
      end->out->sent += bytes;
      end->bytes_sent += bytes;
      moved_ += bytes;
    } else if (call.name == "recvfrom") {
      end->bytes_received += bytes;
      if (call.flags & MSG_PEEK) continue;
      end->in->received += bytes;
      moved_ += bytes;
    }
  }
  if (reports != failures) Fell(Number("calls of the error callback", reports, failures));
  if (end->node->sock.buffer != nullptr) Fell("a transfer is over, and the socket record still names its buffer");
  return end->bytes_sent == end->node->sock.bytesSent && end->bytes_received == end->node->sock.bytesReceived;
}

void Host::CheckCounters(const End& end) {
  const MQNode* const node = end.node;
  const size_t outstanding = end.out->items.size() - end.out->whole;
  const auto depth = static_cast<size_t>(node->pending != nullptr ? Qdepth(node->pending) : 0);
  if (static_cast<size_t>(node->writesOutstanding) != outstanding) {
    Fell(Number("writesOutstanding", node->writesOutstanding, outstanding));
  }
  if (depth != outstanding) Fell(Number("the length of the queue", depth, outstanding));
  if (node->writesCompleted != end.completed) Fell(Number("writesCompleted", node->writesCompleted, end.completed));
  if (node->msgsRead != end.read) Fell(Number("msgsRead", node->msgsRead, end.read));
  if (node->recvBuffer.received > node->recvBuffer.capacity || node->recvBuffer.length > kCapacity) {
    Fell("the receive buffer holds more than it has room for");
  }
}

bool Host::Twice(const char* what, const std::function<bool()>& attempt) {
  if (attempt()) return true;
  if (run_ == Run::kClean) Fell(std::string(what) + " failed in a clean run");
  if (attempt()) return true;
  if (run_ == Run::kOnce) Fell(std::string(what) + " failed twice after one failure");
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
bool Host::Prepare(End* end, bool blocking) {
  SockRec* const sock = &end->node->sock;
  memset(end->node->user, 0, sizeof end->node->user);
  memcpy(end->node->user, kUser, sizeof kUser);
  OnSocketError(sock, CountReport);
  const auto came = [&](int result) { return Came{result, sock->error}; };
  if (sock->type == SOCK_TYPE_STREAM) Do(Op::kOption, [&] { return came(SetTcpNoDelay(sock, 1)); });
  return blocking || Do(Op::kMode, [&] { return came(NoblockSocket(sock)); });
}

bool Host::Connect(Link* link, MQNode* listener, bool blocking) {
  if (listener == nullptr) return false;
  return link->open = Twice("a connection", [&] {
           const bool open = Open(link, listener, blocking);
           if (!open) Close(link);
           return open;
         });
}

bool Host::Open(Link* link, MQNode* listener, bool blocking) {
  End& client = link->ends[0];
  SockAddrRec address = AddressOf("127.0.0.1", PortOf(listener->sock.fd));
  client.node = Create([&] { return CreateMQNode(&address, MQ_ROLE_CONNECT); });
  if (client.node == nullptr || !Prepare(&client, blocking)) return false;
  const int opened = DoOn(Op::kConnect, client.node, [&] { return mnOpen(client.node); });
  if (!opened && client.node->error != MQ_AGAIN) return false;
  if (!opened && blocking) return false;
  for (int round = 0; round < kPatience; ++round) {
    End& child = link->ends[1];
    std::vector<MQNode*> nodes = {client.node};
    if (child.node == nullptr) nodes.push_back(listener);
    if (!Wait(kNPostForm, nodes)) continue;
    if (!read_ready.empty()) {  // nobody has written yet: the connect failed, and reading tells why
      DoOn(Op::kRead, client.node, [&] { return mnRead(in_, client.node); });
      return false;
    }
    if (!listen_ready.empty()) Accept(link, listener);
    if (client.node->openState == 0 || child.node == nullptr) continue;
    for (int i = 0; i < 2; ++i) link->ends[i] = {link->ends[i].node, &link->flows[i], &link->flows[1 - i]};
    return Prepare(&child, blocking);
  }
  return false;
}

// Accepts the link's own connection. False when there is none yet.
bool Host::Accept(Link* link, MQNode* listener) {
  if (!DoOn(Op::kAccept, listener, [&] { return mnOpen(listener); })) return false;
  MQNode* child = listener->child;
  listener->child = nullptr;
  if (child == nullptr) return false;  // no memory; the connection is closed
  if (child->role != MQ_ROLE_CONNECT || child->openState != 1 || child->sock.owner != child || child->pending) {
    Fell("an accepted child is not as it must be");
  }
  if (static_cast<int>(child->sock.name.port) != PortOf(link->ends[0].node->sock.fd)) {
    Delete(&child);  // of an earlier attempt
    return false;
  }
  link->ends[1].node = child;
  return true;
}

bool Host::Bind(Link* link) {
  link->datagram = true;
  return link->open = Twice("a pair of datagram nodes", [&] {
           bool ready = true;
           for (int i = 0; i < 2 && ready; ++i) {
             End& end = link->ends[i];
             SockAddrRec address = AddressOf("127.0.0.1", 0);
             Do(Op::kCreate, [&] {
               end.node = CreateUDPMQNode(&address);
               return end.node != nullptr ? Came{1, end.node->error} : Came{0, 0};
             });
             ready = end.node != nullptr && !IsNodeFailed(end.node);
             if (!ready) break;
             end = {end.node, &link->flows[i], &link->flows[1 - i], PortOf(end.node->sock.fd)};
             ready = Prepare(&end, false);
           }
           if (!ready) Close(link);
           return ready;
         });
}

bool Host::Adopt(Link* link, int first, int second) {
  const int fds[] = {first, second};
  for (int i = 0; i < 2; ++i) {
    End& end = link->ends[i];
    SockRec sock;
    CreateSocketFromExisting(&sock, fds[i]);
    sock.connected = 1;
    Twice("a node over a descriptor",
          [&] { return (end.node = Create([&] { return CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT); })) != nullptr; });
    if (end.node == nullptr) DeleteSocket(&sock);
    end = {end.node, &link->flows[i], &link->flows[1 - i]};
    link->open = (i == 0 || link->open) && end.node != nullptr && Twice("a mode", [&] { return Prepare(&end, false); });
  }
  if (!link->open) Close(link);
  return link->open;
}

bool Host::Write(Link* link, int end, size_t size) {
  bool taken = false;
  return Twice("a write",
               [&] {
                 taken = link->open && WriteOnce(link, end, size);
                 // A closed link takes no more, and a full queue has to be finished first.
                 return taken || !link->open || link->ends[end].node->error == MQ_WRITE_LIMIT;
               }) &&
         taken;
}

bool Host::WriteOnce(Link* link, int which, size_t size) {
  End& end = link->ends[which];
  Flow& flow = *end.out;
  Compose(out_, ++number_, size);
  const uint32_t plain = out_->raw.length;
  const uint64_t wire = link->secure ? plain + 128 : plain;
  SockAddrRec to = AddressOf("127.0.0.1", link->ends[1 - which].port);
  const bool queued = end.node->pending != nullptr;
  const auto write = [&] { return mnSWriteTo(out_, end.node, link->datagram ? &to : nullptr, link->secure, Signer()); };
  const int taken = DoOn(Op::kWrite, end.node, write, &end);
  if (taken) flow.items.push_back({number_, wire});
  if (!taken && !queued && end.node->pending != nullptr) Fell("a write that failed left a queue behind");
  if (flow.sent > Total(flow)) {
    Lost(link, "a write that was refused had sent a part");
    return false;
  }
  while (flow.whole < flow.items.size() && flow.sent >= Boundary(flow) + flow.items[flow.whole].size) {
    flow.whole += 1;
    end.completed += 1;
  }
  CheckCounters(end);
  return taken;
}

bool Host::Finish(Link* link, int which) {
  End& end = link->ends[which];
  Flow& flow = *end.out;
  const int finished = DoOn(
      Op::kFinish, end.node, [&] { return mnFinishWrite(end.node); }, &end);
  while (flow.whole < flow.items.size() && flow.sent >= Boundary(flow) + flow.items[flow.whole].size) {
    flow.whole += 1;
    end.completed += 1;
  }
  const bool inPart = flow.sent > Boundary(flow);
  if (!finished) {
    if (flow.whole == flow.items.size()) {
      Fell("a finish dropped a message that was not queued");
    } else {
      flow.items.erase(flow.items.begin() + static_cast<std::ptrdiff_t>(flow.whole));
    }
    Lose("a finish dropped a message");
  }
  if (finished && mnIsPendingIO(end.node) != (flow.whole != flow.items.size())) Fell("the queue is not as finish says");
  if (!finished && inPart) {
    CheckCounters(end);
    Close(link);  // the stream is out of step
    return false;
  }
  CheckCounters(end);
  return finished;
}

// A read that has given a message must have given the next one, whole.
void Host::CheckDelivered(const Flow& flow, bool whole) {
  char sender[13];
  mqc_sender(in_, sender);
  if (!whole) return Fell("a message was delivered that was not sent, or not all of it");
  if (!Holds(in_, flow.items.front().number)) Fell("a message is altered, twice there, or out of order");
  if (strcmp(sender, kUser) != 0) Fell("a message came from " + std::string(sender));
}

bool Host::Read(Link* link, int which) {
  End& end = link->ends[which];
  Flow& flow = *end.in;
  const auto from_node = [&] { return mnSRead(in_, end.node, link->secure, nullptr); };
  const int read = DoOn(Op::kRead, end.node, from_node, &end);
  const int error = end.node->error;
  const bool whole = flow.whole > 0 && flow.received == flow.items.front().size;
  if (read) CheckDelivered(flow, whole);
  if (whole) {
    if (!read && error != MQ_NO_ROOM && error != MQ_NOT_AUTHENTIC) {
      Fell(Number("error after a lost message", error, static_cast<int>(MQ_NO_ROOM)));
    }
    if (!read) Lose("a read dropped a message");
    end.read += read || error == MQ_NOT_AUTHENTIC;
    DropFront(&flow);
  } else if (error == MQ_AGAIN) {
    if (end.node->recvBuffer.received != flow.received) Fell("an unfinished read did not keep what it gathered");
  } else {
    if (end.node->recvBuffer.received != 0) Fell("a read that failed keeps what it gathered");
    if (flow.received != 0) Lost(link, "a read dropped a part of a message");
  }
  if (link->open) CheckCounters(end);
  return read != 0;
}

bool Host::Browse(Link* link, int which) {
  End& end = link->ends[which];
  const int found = DoOn(
      Op::kBrowse, end.node, [&] { return mnBrowse(peek_, end.node); }, &end);
  uint32_t body = 0;
  memcpy(&body, peek_->raw.data + offsetof(MsgHeader, bodyLength), sizeof body);
  if (found && (end.in->items.empty() || body + sizeof(MsgHeader) != end.in->items.front().size)) {
    Fell("a browse shows another header than the next message's");
  }
  return found != 0;
}

// A failure was reported that cost a message.
void Host::Lose(const char* why) {
  lost_ += 1;
  if (run_ == Run::kClean) Fell(std::string("in a clean run, ") + why);
  if (run_ == Run::kOnce && lost_ > 1) Fell(std::string("one failure lost more than one message: ") + why);
}

// One that left the link out of step: the host closes it.
void Host::Lost(Link* link, const char* why) {
  Lose(why);
  Close(link);
}

bool Host::ReadAll(Link* link, int end) {
  for (int i = 0; i < 64 && link->open; ++i) {
    const uint64_t before = moved_;
    if (!Read(link, end) && (!link->open || link->ends[end].node->error == MQ_AGAIN || moved_ == before)) return false;
  }
  return true;
}

// The wait of that number on nodes, which end with a null pointer.
int Host::WaitBy(int form, MQNode** nodes, MQNode** listen, MQNode** read, MQNode** write, int seconds, int* status) {
  switch (form) {
    case 0:
      return mnPost(nodes, listen, read, seconds, status);
    case 1:
      return mnPostEx(nodes, listen, read, seconds, status, &work_);
    case 2:
      return mnPostExMSec(nodes, listen, read, seconds * 1000, status, &work_);
    case 3:
      return mnNPost(nodes, listen, read, write, seconds, status);
    case 4:
      return mnNPostEx(nodes, listen, read, write, seconds, status, &work_);
    default:
      return mnNPostExMSec(nodes, listen, read, write, seconds * 1000, status, &work_);
  }
}

bool Host::Wait(int form, const std::vector<MQNode*>& nodes, int seconds) {
  std::vector<MQNode*> list = nodes;
  list.push_back(nullptr);
  auto* const untouched = reinterpret_cast<MQNode*>(this);
  std::vector<MQNode*> lists[3];
  for (auto& each : lists) each.assign(list.size(), untouched);
  int status = kUntouched;
  const int ready = Do(Op::kWait, [&] {
    const int result = WaitBy(form, list.data(), lists[0].data(), lists[1].data(), lists[2].data(), seconds, &status);
    return Came{result, status};
  });
  timed_out_ = status == SOCK_WAIT_TIMEOUT && seconds > 0;
  std::vector<MQNode*>* const found[] = {&listen_ready, &read_ready, &write_ready};
  for (int i = 0; i < 3; ++i) {
    found[i]->clear();
    if (!ready || (i == 2 && !WatchesWrites(form))) {
      if (lists[i][0] != untouched) Fell("a wait without a result wrote into its arrays");
      continue;
    }
    for (MQNode* node : lists[i]) {
      if (node == nullptr) break;
      if (std::find(nodes.begin(), nodes.end(), node) == nodes.end()) {
        Fell("a wait listed what it was not given");
        break;
      }
      found[i]->push_back(node);
    }
  }
  return ready != 0;
}

void Host::FinishAll(Link* link, int end) {
  for (int k = 0; k < 64 && link->open && mnIsPendingIO(link->ends[end].node); ++k) {
    const uint64_t before = moved_;
    if (!Finish(link, end) || moved_ == before) return;
  }
}

// Finishes what can go on, reads what can be read. The waits that do not watch writing only poll while something is
// queued.
void Host::Round(const std::vector<Link*>& links, int form) {
  const bool watches_writes = WatchesWrites(form);
  std::vector<std::pair<Link*, int>> ends;
  std::vector<MQNode*> nodes;
  int seconds = 1;
  for (Link* link : links) {
    for (int i = 0; i < 2; ++i) {
      if (!watches_writes) FinishAll(link, i);
      if (!link->open) break;
      if (!watches_writes && mnIsPendingIO(link->ends[i].node)) seconds = 0;
    }
    for (int i = 0; i < 2 && link->open; ++i) {
      ends.emplace_back(link, i);
      nodes.push_back(link->ends[i].node);
    }
  }
  if (!Wait(form, nodes, seconds)) return;
  const auto has = [&](const std::vector<MQNode*>& list, size_t i) {
    return std::find(list.begin(), list.end(), nodes[i]) != list.end();
  };
  for (size_t i = 0; i < ends.size(); ++i) {
    const auto& [link, end] = ends[i];
    if (link->open && has(read_ready, i)) ReadAll(link, end);
    if (link->open && has(write_ready, i)) FinishAll(link, end);
  }
}

void Host::GiveUp(const std::vector<Link*>& links, const char* why) {
  if (run_ != Run::kOnwards) Fell(why);
  for (Link* link : links) {
    if (link->open) Close(link);
  }
}

void Host::Pump(const std::vector<Link*>& links, int form) {
  int failures = 0;
  int quiet = 0;
  const auto outstanding = [&] {
    return std::any_of(links.begin(), links.end(), [](const Link* link) {
      return link->open && (!link->flows[0].items.empty() || !link->flows[1].items.empty());
    });
  };
  while (outstanding()) {
    const uint64_t before = moved_;
    const size_t injections = Platform::Injections() + Refusals();
    Round(links, form);
    if (moved_ != before) {
      failures = quiet = 0;
    } else if (Platform::Injections() + Refusals() != injections) {
      if (++failures == kPatience) return GiveUp(links, "nothing but failures");
    } else if (timed_out_ || ++quiet == 4) {
      Fell("a message that was reported as written does not arrive, and no node says why");
      return GiveUp(links, "nothing moves");
    }
  }
}

void Host::PumpBlocking(Link* link) {
  for (int i = 0; i < 2 && link->open; ++i) {
    Flow& flow = *link->ends[i].in;
    for (int failures = 0; link->open && !flow.items.empty();) {
      const uint64_t before = moved_;
      if (link->ends[1 - i].node->pending != nullptr) {
        Finish(link, 1 - i);
      } else if (flow.whole > 0) {
        // Nobody browses in the middle of a message.
        if (flow.received == 0 && !link->secure) Browse(link, i);
        Read(link, i);
      }
      if (moved_ == before && ++failures == kPatience) return GiveUp({link}, "nothing but failures");
    }
  }
}

void Host::Delete(MQNode** node) {
  if (*node == nullptr) return;
  const int error = (*node)->sock.error;
  Do(Op::kClose, [&] { return Came{mnClose(*node), (*node)->error}; });
  const MQNode* const closed = *node;
  if (closed->sock.fd != -1 || closed->openState != 0 || closed->pending != nullptr || closed->error != error ||
      closed->recvBuffer.data != nullptr) {
    Fell("a closed node is not as it must be");
  }
  Do(Op::kClose, [&] { return Came{DeleteMQNode(*node), 0}; });
  *node = nullptr;
}

void Host::Close(Link* link) {
  link->open = false;
  for (End& end : link->ends) {
    Delete(&end.node);
    end = {};
  }
  for (Flow& flow : link->flows) flow = {};
}

}  // namespace faults
