// listen.cc - mqcat listen: accepts many clients, prints what they send, answers when asked to.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <thread>
#include <unordered_map>

#include "client.hh"
#include "examples/answers.h"
#include "mqnode/errors.h"
#include "options.hh"
#include "output.hh"
#include "show.hh"
#include "signals.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr int kMostPending = 64;    // answers that may wait in a node before it is not read from any more
constexpr int kMostAtOnce = 64;     // messages read, or clients accepted, before the others have their turn
constexpr int kBacklog = 128;       // connections that wait to be accepted
constexpr int kMostNotes = 20;      // a second, about what peers do
constexpr double kKept = 1;         // seconds that a client keeps its place, however many others wait
constexpr double kAcceptPause = 1;  // seconds, when no descriptor or memory was left to accept with
constexpr auto kSlowTick = std::chrono::milliseconds(10);
constexpr double kLastAnswers = 2;       // seconds for answers that wait when the end has come
constexpr size_t kSignedRest = 32 + 96;  // bytes that signing adds: envelope and trailer

Clock::duration Seconds(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// The number of this second.
long Second() {
  return static_cast<long>(std::chrono::floor<std::chrono::seconds>(Clock::now()).time_since_epoch().count());
}

struct Options {
  std::vector<std::string> where;
  std::string format = "text";
  bool echo = false;
  bool udp = false;
  bool trace = false;
  std::string ring, sign, user;
  uint64_t count = UINT64_MAX;
  size_t max_clients = 256;
  size_t max_per_address = SIZE_MAX;
  Bounds bounds;
  uint32_t answer_rate = MOST_ANSWERS;
};

struct Totals {
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t clients = 0;
  uint64_t refused = 0;  // not authentic
  uint64_t faulty = 0;   // bad messages and bodies
  uint64_t dropped = 0;  // clients that passed a bound
  uint64_t answers_lost = 0;
  uint64_t answers_held = 0;  // datagrams: the address had its answers for the second
};

// Notes about what peers do: a bounded number a second, so that no peer can fill a disk.
class Reporter {
 public:
  void Tell(const std::string& text) {
    EndSecond();
    if (notes_++ < kMostNotes) Note(text);
  }

  // Says how many notes were left out, once their second is over.
  void EndSecond() {
    if (second_ != Second()) Finish();
    second_ = Second();
  }

  void Finish() {
    if (notes_ > kMostNotes) Note(fmt::format("... and {} more", notes_ - kMostNotes));
    notes_ = 0;
  }

 private:
  uint64_t notes_ = 0;
  long second_ = 0;
};

// ---- Trace ----

void TraceNode(const char* point, MQNode* node) {
  Note(fmt::format("trace {} node fd {} {} error {}", LocalTime(), node->sock.fd, point, node->error));
}

void TraceSocket(const char* point, SockRec* rec) {
  Note(fmt::format("trace {} socket fd {} {} error {}", LocalTime(), rec->fd, point, rec->error));
}

class Listener {
 public:
  explicit Listener(const Options& options)
      : options_(options),
        format_(ShowFormatOf(options.format)),
        transport_(options.udp ? Transport::kUdp : Transport::kTcp),
        security_(LoadSecurity(options.sign, options.user, options.ring)),
        msg_(NewMessage()),
        waiter_(options.max_clients + 1) {}

  void Open() {
    const bool has_host = options_.where.size() == 2;
    const std::string host = has_host ? options_.where[0] : "127.0.0.1";
    SockAddrRec address = MakeAddress(host, options_.where.back(), transport_);
    if (options_.trace) {
      mnGSetTraceCallBack(TraceNode);
      OnGSocketTrace(TraceSocket);
    }
    SockOption reuse = {SOCK_OPT_REUSEADDR, 0, 1};
    node_.reset(options_.udp ? CreateUDPMQNode(&address) : CreateMQNodeWithOpt(&address, MQ_ROLE_LISTEN, &reuse));
    if (node_ == nullptr) throw Failure{kExitResources, "no memory for a node"};
    SetApplication(node_.get());
    const std::string place = fmt::format("{}:{}", host, address.port);
    if (node_->error != 0)
      throw NodeFailure(fmt::format("listen on {} {}", options_.udp ? "UDP" : "TCP", place), node_.get());
    NoblockSocket(&node_->sock);
    if (options_.udp) {
      node_->writeLimit = kMostPending;
    } else {
      ListenSocket(&node_->sock, kBacklog);
    }
    Prepare(node_.get());
    Note(fmt::format("listening on {} {}:{}", options_.udp ? "UDP" : "TCP", host, BoundPort()));
  }

  void Run() {
    while (!Interrupted() && totals_.messages < options_.count) Turn();
    SendLastAnswers();
    reporter_.Finish();
  }

  std::string Summary() const {
    std::string text = Count(totals_.messages, "message") + ", " + Count(totals_.bytes, "byte");
    if (!options_.udp) text += ", " + Count(totals_.clients, "client");
    if (totals_.refused != 0) text += fmt::format(", {} not authentic", totals_.refused);
    if (totals_.faulty != 0) text += fmt::format(", {} faulty", totals_.faulty);
    if (totals_.dropped != 0) text += fmt::format(", {} dropped", totals_.dropped);
    if (totals_.answers_held != 0) text += ", " + Count(totals_.answers_held, "answer") + " held back";
    if (totals_.answers_lost != 0) text += ", " + Count(totals_.answers_lost, "answer") + " not delivered";
    const std::chrono::duration<double> time = Clock::now() - start_;
    return text + fmt::format(", {:.1f} s", time.count());
  }

 private:
  // A signed answer carries the node's user, which must be the signer's. Children copy their listening node's.
  void Prepare(MQNode* node) const {
    const MqcSigner* const signer = security_.signer.get();
    if (signer != nullptr) snprintf(node->user, sizeof node->user, "%s", mqc_signer_user(signer));
  }

  // The kernel picks a port for service 0; the node does not learn which.
  int BoundPort() const {
    sockaddr_in name = {};
    socklen_t size = sizeof name;
    getsockname(node_->sock.fd, reinterpret_cast<sockaddr*>(&name), &size);
    return ntohs(name.sin_port);
  }

  bool IsSlow(const Client& client) const {
    const Queue* const pending = client.node()->pending;
    return pending != nullptr && (pending->count > kMostPending || client.Waiting() > options_.bounds.waiting);
  }

  bool IsFull() const { return clients_.size() >= options_.max_clients; }

  // One wait and what it brought. A client that does not take its answers is not waited for, and so not read from; its
  // answers are tried at short intervals.
  void Turn() {
    std::vector<MQNode*> nodes;
    bool slow = false;
    if (options_.udp || (!IsFull() && Clock::now() >= accept_from_)) nodes.push_back(node_.get());
    for (const Client& client : clients_) {
      const bool is_slow = IsSlow(client);
      slow = slow || is_slow;
      if (!is_slow) nodes.push_back(client.node());
    }
    waiter_.Wait(std::move(nodes), slow ? Clock::now() + kSlowTick : In(1));
    for (MQNode* node : waiter_.to_write()) node == node_.get() ? FinishDatagrams() : FinishWrites(FindClient(node));
    for (Client& client : clients_) {
      if (IsSlow(client)) FinishWrites(client);
    }
    if (!waiter_.to_accept().empty()) Accept();
    for (MQNode* node : waiter_.to_read()) node == node_.get() ? ReadDatagrams() : ReadClient(FindClient(node));
    Sweep();
    DropOverdue();
    Sweep();
    reporter_.EndSecond();
    Flush();
  }

  Client& FindClient(const MQNode* node) {
    return *std::find_if(clients_.begin(), clients_.end(), [node](const Client& c) { return c.node() == node; });
  }

  // ---- Connections come and go ----

  void Accept() {
    for (int i = 0; i < kMostAtOnce && !IsFull(); ++i) {
      if (!mnOpen(node_.get())) return AcceptFailed();
      NodePtr child(node_->child);
      if (child == nullptr) return reporter_.Tell("accept a client: no memory for a node");
      NoblockSocket(&child->sock);
      SetTcpNoDelay(&child->sock, 1);
      SockOption linger = {SOCK_OPT_LINGER, 0, 0};
      SetSocketOptions(&child->sock, &linger);
      if (options_.trace) OnSocketTrace(&child->sock, TraceSocket);
      Admit(std::move(child));
    }
  }

  // Without a descriptor or memory the connection stays in the queue, and every wait would come back at once.
  void AcceptFailed() {
    if (node_->error == MQ_AGAIN || node_->error == ECONNABORTED) return;
    const auto now = Clock::now();
    if (now >= tell_from_) reporter_.Tell(NodeFailure("accept a client", node_.get()).text);
    tell_from_ = now + Seconds(kAcceptPause);
    accept_from_ = In(kAcceptPause);
  }

  void Admit(NodePtr child) {
    ++totals_.clients;
    const Client& added = clients_.emplace_back(std::move(child), security_.check);
    const auto same = std::count_if(clients_.begin(), clients_.end(),
                                    [&added](const Client& c) { return c.address() == added.address(); });
    if (static_cast<size_t>(same) > options_.max_per_address) {
      Drop(clients_.back(), "its address has all the places that it may have (--max-per-address)");
    }
  }

  void Drop(Client& client, const std::string& why) {
    ++totals_.dropped;
    reporter_.Tell(fmt::format("client {} dropped: {}", client.peer(), why));
    client.End();
  }

  // Drops clients that have been quiet for too long, and one more when somebody waits and cannot be accepted.
  void DropOverdue() {
    const auto now = Clock::now();
    const bool in_need = (IsFull() || now < accept_from_) && SomeoneWaits();
    if (!in_need && now < look_at_) return;
    look_at_ = now + std::chrono::seconds(1);
    for (Client& client : clients_) {
      const auto quiet = client.Quiet(now);
      if (client.done()) continue;
      if (client.Owes() && quiet >= Seconds(options_.bounds.midway)) {
        Drop(client, fmt::format("{} for {} s (--midway)",
                                 client.node()->pending != nullptr ? "its answers were not taken" : "half a message",
                                 options_.bounds.midway));
      } else if (quiet >= Seconds(options_.bounds.idle)) {
        Drop(client, fmt::format("idle for {} s (--idle)", options_.bounds.idle));
      }
    }
    if (!in_need) return;
    if (Client* const client = MakesRoom(now)) Drop(*client, "its place is needed");
  }

  // The client that gives its place to a newcomer: of the address with the most clients, the one that has been quiet
  // longest. One address can therefore push out clients of others only until it has as many as they have.
  Client* MakesRoom(Clock::time_point now) {
    struct Group {
      size_t clients = 0;
      Client* quietest = nullptr;
      Clock::duration quiet{};
    };
    std::unordered_map<std::string_view, Group> groups;
    for (Client& client : clients_) {
      if (client.done()) continue;
      Group& group = groups[client.address()];
      ++group.clients;
      const auto quiet = client.Quiet(now);
      if (now - client.accepted() < Seconds(kKept) || quiet < group.quiet) continue;
      group.quietest = &client;
      group.quiet = quiet;
    }
    const auto largest = std::max_element(groups.begin(), groups.end(), [](const auto& a, const auto& b) {
      return std::pair(a.second.clients, a.second.quiet) < std::pair(b.second.clients, b.second.quiet);
    });
    return largest != groups.end() ? largest->second.quietest : nullptr;
  }

  bool SomeoneWaits() const {
    pollfd queue = {node_->sock.fd, POLLIN, 0};
    return !options_.udp && poll(&queue, 1, 0) == 1;
  }

  // A place and a descriptor are free afterwards.
  void Sweep() {
    const auto is_done = [this](const Client& client) {
      if (client.done()) totals_.answers_lost += static_cast<uint64_t>(Qdepth(client.node()->pending));
      return client.done();
    };
    if (std::erase_if(clients_, is_done) != 0) accept_from_ = Clock::now();
  }

  // ---- Reading ----

  // What one call may read of one client, so that none starves the others.
  void ReadClient(Client& client) {
    for (int i = 0; i < kMostAtOnce && !client.done() && totals_.messages < options_.count; ++i) {
      if (IsSlow(client)) return;
      const bool midway = client.node()->recvBuffer.received != 0;
      if (ReceiveFrom(client)) {
        Deliver(client.node(), &client);
      } else if (!client.done() && !ReadFailed(client, midway)) {
        break;
      }
    }
    if (!client.done()) client.GiveBack();
    if (msg_->raw.capacity > kKeptArea) msg_ = NewMessage();
  }

  // Gathers the header alone first: nothing of a message that is too long is taken in.
  bool ReceiveFrom(Client& client) {
    MQNode* const node = client.node();
    if (!(security_.check ? mnSReadMsg(node) : mnReadMsg(node))) return false;
    if (const uint64_t length = client.Announced(); length > options_.bounds.message) {
      Drop(client, fmt::format("a message of {} bytes is too long (--max-message)", length));
      return false;
    }
    return mnSRead(msg_.get(), node, security_.check, nullptr) != 0;
  }

  // After a failed read: true when the next message can be read.
  bool ReadFailed(Client& client, bool midway) {
    MQNode* const node = client.node();
    if (node->error == MQ_AGAIN) return false;
    if (IsInStep(node, client.peer())) return true;
    client.End();
    // Nodes reset when they close: only what was cut off is worth a word.
    const bool gone = node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET;
    if (!gone || midway) TellBadMessage(node, client.peer(), "\n  closed");
    return false;
  }

  void ReadDatagrams() {
    MQNode* const node = node_.get();
    for (int i = 0; i < kMostAtOnce && totals_.messages < options_.count; ++i) {
      if (mnSRead(msg_.get(), node, security_.check, nullptr)) {
        Deliver(node, nullptr);
      } else if (node->error == MQ_AGAIN) {
        return;
      } else if (const std::string peer = AddressText(node->sock.from); !IsInStep(node, peer)) {
        TellBadMessage(node, peer, "");
      }
    }
  }

  // Whether what was refused is one message, behind which a stream goes on.
  bool IsInStep(const MQNode* node, const std::string& peer) {
    if (node->error != MQ_NOT_AUTHENTIC && node->error != MQ_BAD_BODY) return false;
    const bool is_faulty = node->error == MQ_BAD_BODY;
    ++(is_faulty ? totals_.faulty : totals_.refused);
    reporter_.Tell(NodeFailure("message from " + peer, node, is_faulty ? mqc_message_error(msg_.get()) : "").text);
    return true;
  }

  void TellBadMessage(const MQNode* node, const std::string& peer, const std::string& outcome) {
    if (node->error == MQ_BAD_MESSAGE) ++totals_.faulty;
    reporter_.Tell(NodeFailure("message from " + peer, node, FramingHint(node)).text + outcome);
  }

  // What a reader refused is still in its buffer: the other framing is the usual mistake.
  std::string FramingHint(const MQNode* node) const {
    if (node->error != MQ_BAD_MESSAGE || node->recvBuffer.data == nullptr) return "";
    uint32_t first = 0;
    memcpy(&first, node->recvBuffer.data, sizeof first);
    if (!security_.check && (first == 32 || first == bwlong(32))) return "it is signed: --ring FILE reads it";
    if (security_.check && (first == 136 || first == bwlong(136))) return "it is not signed: without --ring it is read";
    return "";
  }

  void Deliver(MQNode* node, Client* client) {
    const std::string peer = client != nullptr ? client->peer() : AddressText(node->sock.from);
    ++totals_.messages;
    totals_.bytes += msg_->raw.length;
    ShowMessage(msg_.get(), peer, security_.check, format_);
    if (!options_.echo || (client == nullptr && !MayAnswer(node->sock.from, peer)) || Answer(node, peer)) return;
    ++totals_.answers_lost;
    // A message that was dropped may have left in part: the stream is out of step.
    if (client != nullptr && node->error == MQ_AGAIN) client->End();
  }

  // ---- Answering ----

  // A datagram may carry a forged sender: only questions are answered, no address too often, and the answer is marked.
  bool MayAnswer(const SockAddrRec& to, const std::string& peer) {
    if (is_answer(msg_.get())) return false;
    if (!may_answer(answers_.get(), &to, Second(), options_.answer_rate)) {
      ++totals_.answers_held;
      reporter_.Tell(fmt::format("answer to {} held back: {} a second (--answer-rate)", peer, options_.answer_rate));
      return false;
    }
    const size_t rest = security_.signer != nullptr ? kSignedRest : 0;
    if (mark_answer(msg_.get()) && msg_->raw.length + rest <= kMaxDatagram) return true;
    ++totals_.answers_lost;
    reporter_.Tell(fmt::format("answer to {}: a datagram takes at most {} bytes", peer, kMaxDatagram));
    return false;
  }

  bool Answer(MQNode* node, const std::string& peer) {
    MqcSigner* const signer = security_.signer.get();
    SockAddrRec to = node->sock.from;
    if (mnSWriteMsg(msg_.get(), node, options_.udp ? &to : nullptr, node->user, signer != nullptr, signer, 0))
      return true;
    reporter_.Tell(NodeFailure("answer to " + peer, node).text);
    return false;
  }

  // A failure has dropped an answer that may have left in part: the stream is out of step.
  void FinishWrites(Client& client) {
    MQNode* const node = client.node();
    if (client.done() || mnFinishWrite(node)) return;
    ++totals_.answers_lost;
    client.End();
    const int cause = mq_node_cause(node, nullptr);
    if (cause != ECONNRESET && cause != EPIPE) reporter_.Tell(NodeFailure("answers to " + client.peer(), node).text);
  }

  void FinishDatagrams() {
    if (mnFinishWrite(node_.get())) return;
    ++totals_.answers_lost;
    reporter_.Tell(NodeFailure("answer", node_.get()).text);
  }

  void SendLastAnswers() {
    const auto deadline = In(kLastAnswers);
    const auto has_sent = [](const Client& client) { return !mnIsPendingIO(client.node()); };
    for (std::erase_if(clients_, has_sent); !clients_.empty(); Sweep(), std::erase_if(clients_, has_sent)) {
      if (Clock::now() >= deadline) {
        for (Client& client : clients_) client.End();
        continue;
      }
      std::this_thread::sleep_for(kSlowTick);
      for (Client& client : clients_) FinishWrites(client);
    }
  }

  const Options& options_;
  ShowFormat format_;
  Transport transport_;
  Security security_;
  MessagePtr msg_;
  Waiter waiter_;
  NodePtr node_;
  std::vector<Client> clients_;
  std::unique_ptr<Answers> answers_ = std::make_unique<Answers>();
  Clock::time_point accept_from_{};  // accepting pauses until then
  Clock::time_point tell_from_{};    // while accepting fails again and again, this is said once
  Clock::time_point look_at_{};      // of the next look at quiet clients
  Reporter reporter_;
  Totals totals_;
  Clock::time_point start_ = Clock::now();
};

void RunListen(const Options& options) {
  CatchSignals();
  Listener listener(options);
  listener.Open();
  try {
    listener.Run();
  } catch (const Failure& failure) {
    if (failure.code != kExitOutputClosed) Note(listener.Summary());
    throw;
  }
  Flush();
  Note(listener.Summary());
}

}  // namespace

void AddListen(CLI::App& app, ExitCode&) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("listen", "Accept messages and print them");
  command
      ->add_option("PLACE", options->where,
                   "[HOST] SERVICE: where to listen; 127.0.0.1 without a host, * for everywhere; "
                   "service 0 lets the system pick a port")
      ->required()
      ->expected(1, 2);
  command->add_option("--format", options->format, "text, json (one object a line), hex, raw or quiet")
      ->check(CLI::IsMember({"text", "json", "hex", "raw", "quiet"}))
      ->type_name("FORMAT");
  command->add_flag("--echo", options->echo, "Send every message back; datagrams marked as answers are not");
  command->add_flag("--udp", options->udp, "Datagrams instead of connections");
  command->add_option("--ring", options->ring, "Accept signed messages only, of the users in this file")
      ->type_name("FILE");
  command->add_option("--sign", options->sign, "Sign the answers with the secret key in this file")
      ->type_name("KEYFILE");
  command->add_option("--user", options->user, "Whose key, when the file holds several")->type_name("USER");
  AddNumber<uint64_t>(*command, "--count", options->count, 1, UINT64_MAX, "Stop after so many messages");
  AddNumber<size_t>(*command, "--max-clients", options->max_clients, 1, 2500,
                    "Most clients at once; others wait (256)");
  AddNumber<size_t>(*command, "--max-per-address", options->max_per_address, 1, 2500,
                    "Most clients of one address; others are dropped (no bound)");
  AddNumber<uint32_t>(*command, "--max-message", options->bounds.message, 256, MQ_MAX_MESSAGE,
                      "Bytes of the longest message of a connection (1048576)");
  AddNumber<uint32_t>(*command, "--max-waiting", options->bounds.waiting, 0, UINT32_MAX,
                      "Bytes of answers that may wait before a client is not read from any more (1048576)");
  AddSeconds(*command, "--midway", options->bounds.midway, 0.1, 86400 * 365.0,
             "Drop clients that stop in the middle of a message or do not take answers for so long (30)");
  AddSeconds(*command, "--idle", options->bounds.idle, 0.1, 86400 * 365.0,
             "Drop clients that send nothing for so long (3600)");
  AddNumber<uint32_t>(*command, "--answer-rate", options->answer_rate, 1, UINT32_MAX,
                      "Most answers a second to one address, with --udp (1000)");
  command->add_flag("--trace", options->trace, "Show every trace point as it happens, on standard error");
  command->footer(
      "Messages go to standard output, everything else to standard error. SIGINT stops with a summary.\n\n"
      "Examples:\n  mqcat listen 5000 --echo\n  mqcat listen '*' 5000 --format json --count 10\n"
      "  mqcat listen 5000 --ring ring --trace\n  mqcat listen 5000 --udp --format hex");
  command->callback([options] { RunListen(*options); });
}

}  // namespace mqcat
