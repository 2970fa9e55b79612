// listen.cc - mqcat listen: accepts many clients, prints what they send, answers when asked to.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <thread>

#include "link.hh"
#include "mqnode/errors.h"
#include "options.hh"
#include "output.hh"
#include "show.hh"
#include "signals.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr int kMostPending = 64;  // answers that may wait in a node before it is not read from any more
constexpr auto kSlowTick = std::chrono::milliseconds(10);
constexpr double kLastAnswers = 2;  // seconds for answers that wait when the end has come

struct Options {
  std::vector<std::string> where;
  std::string format = "text";
  bool echo = false;
  bool udp = false;
  bool trace = false;
  std::string ring, sign, user;
  uint64_t count = UINT64_MAX;
  size_t max_clients = 256;
};

struct Totals {
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t clients = 0;
  uint64_t refused = 0;  // not authentic
  uint64_t faulty = 0;   // bad messages and bodies
  uint64_t answers_lost = 0;
};

struct Client {
  NodePtr node;
  std::string peer;
  bool done = false;
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
    const std::string place = fmt::format("{}:{}", host, address.port);
    if (node_->error != 0)
      throw NodeFailure(fmt::format("listen on {} {}", options_.udp ? "UDP" : "TCP", place), node_.get());
    NoblockSocket(&node_->sock);
    Prepare(node_.get());
    Note(fmt::format("listening on {} {}:{}", options_.udp ? "UDP" : "TCP", host, BoundPort()));
  }

  void Run() {
    while (!Interrupted() && totals_.messages < options_.count) Turn();
    SendLastAnswers();
  }

  std::string Summary() const {
    std::string text = Count(totals_.messages, "message") + ", " + Count(totals_.bytes, "byte");
    if (!options_.udp) text += ", " + Count(totals_.clients, "client");
    if (totals_.refused != 0) text += fmt::format(", {} not authentic", totals_.refused);
    if (totals_.faulty != 0) text += fmt::format(", {} faulty", totals_.faulty);
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

  static bool IsSlow(const MQNode* node) { return node->pending != nullptr && Qdepth(node->pending) > kMostPending; }

  // One wait and what it brought. A client that does not take its answers is not waited for, and so not read from; its
  // answers are tried at short intervals.
  void Turn() {
    std::vector<MQNode*> nodes;
    bool slow = false;
    if (options_.udp || clients_.size() < options_.max_clients) nodes.push_back(node_.get());
    for (const Client& client : clients_) {
      const bool is_slow = IsSlow(client.node.get());
      slow = slow || is_slow;
      if (!is_slow) nodes.push_back(client.node.get());
    }
    waiter_.Wait(std::move(nodes), slow ? Clock::now() + kSlowTick : In(1));
    for (MQNode* node : waiter_.to_write()) mnFinishWrite(node);
    for (Client& client : clients_) {
      if (IsSlow(client.node.get())) mnFinishWrite(client.node.get());
    }
    if (!waiter_.to_accept().empty()) Accept();
    for (MQNode* node : waiter_.to_read()) node == node_.get() ? ReadDatagrams() : ReadClient(FindClient(node));
    clients_.erase(std::remove_if(clients_.begin(), clients_.end(), [](const Client& c) { return c.done; }),
                   clients_.end());
    Flush();
  }

  Client& FindClient(const MQNode* node) {
    return *std::find_if(clients_.begin(), clients_.end(), [node](const Client& c) { return c.node.get() == node; });
  }

  void Accept() {
    if (!mnOpen(node_.get())) {
      // A client that left again, or no descriptor: the next wait tries again.
      if (node_->error != MQ_AGAIN) Note(NodeFailure("accept a client", node_.get()).text);
      return;
    }
    NodePtr child(node_->child);
    if (child == nullptr) return Note("accept a client: no memory for a node");
    NoblockSocket(&child->sock);
    SetTcpNoDelay(&child->sock, 1);
    SockOption linger = {SOCK_OPT_LINGER, 0, 0};
    SetSocketOptions(&child->sock, &linger);
    if (options_.trace) OnSocketTrace(&child->sock, TraceSocket);
    std::string peer = AddressText(child->sock.name);
    ++totals_.clients;
    clients_.push_back({std::move(child), std::move(peer), false});
  }

  // What one call may read of one client, so that none starves the others.
  void ReadClient(Client& client) {
    for (int i = 0; i < kMostPending && !client.done && totals_.messages < options_.count; ++i) {
      if (IsSlow(client.node.get())) return;
      if (!ReadOne(client.node.get(), client.peer, client.done)) return;
    }
  }

  void ReadDatagrams() {
    for (int i = 0; i < kMostPending && totals_.messages < options_.count; ++i) {
      bool unused = false;
      if (!ReadOne(node_.get(), "", unused)) return;
    }
  }

  // False when there is nothing more to read for now. done becomes true when the connection is of no more use.
  bool ReadOne(MQNode* node, const std::string& client, bool& done) {
    const bool got = mnSRead(msg_.get(), node, security_.check, nullptr) != 0;
    const std::string peer = client.empty() ? AddressText(node->sock.from) : client;
    if (got) {
      Deliver(node, peer);
      return true;
    }
    switch (node->error) {
      case MQ_AGAIN:
        return false;
      case SOCK_PEER_CLOSED:
        done = true;
        return false;
      case ECONNRESET:
        // Nodes reset when they close: only what was cut off is worth a word.
        if (!options_.udp && node->recvBuffer.received == 0) return !(done = true);
        return ReadFailed(node, peer, done);
      case MQ_NOT_AUTHENTIC:
        ++totals_.refused;
        Note(NodeFailure("message from " + peer, node).text);
        return true;
      case MQ_BAD_BODY:
        ++totals_.faulty;
        Note(NodeFailure("message from " + peer, node, mqc_message_error(msg_.get())).text);
        return true;
      default:
        return ReadFailed(node, peer, done);
    }
  }

  // After a bad message a stream is out of step; datagrams stand for themselves.
  bool ReadFailed(MQNode* node, const std::string& peer, bool& done) {
    if (node->error == MQ_BAD_MESSAGE) ++totals_.faulty;
    Note(NodeFailure("message from " + peer, node, FramingHint(node)).text + (options_.udp ? "" : "\n  closed"));
    done = true;
    return options_.udp;
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

  void Deliver(MQNode* node, const std::string& peer) {
    ++totals_.messages;
    totals_.bytes += msg_->raw.length;
    ShowMessage(msg_.get(), peer, security_.check, format_);
    if (options_.echo) Answer(node, peer);
  }

  void Answer(MQNode* node, const std::string& peer) {
    MqcSigner* const signer = security_.signer.get();
    SockAddrRec to = node->sock.from;
    if (mnSWriteMsg(msg_.get(), node, options_.udp ? &to : nullptr, node->user, signer != nullptr, signer, 0)) return;
    ++totals_.answers_lost;
    Note(NodeFailure("answer to " + peer, node).text);
  }

  void SendLastAnswers() {
    const auto deadline = In(kLastAnswers);
    for (;;) {
      std::vector<MQNode*> waiting;
      for (const Client& client : clients_) {
        if (mnIsPendingIO(client.node.get())) waiting.push_back(client.node.get());
      }
      if (waiting.empty()) return;
      if (Clock::now() >= deadline) {
        for (const MQNode* node : waiting) totals_.answers_lost += static_cast<uint64_t>(Qdepth(node->pending));
        return;
      }
      std::this_thread::sleep_for(kSlowTick);
      for (MQNode* node : waiting) mnFinishWrite(node);
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
  command->add_flag("--echo", options->echo, "Send every message back");
  command->add_flag("--udp", options->udp, "Datagrams instead of connections");
  command->add_option("--ring", options->ring, "Accept signed messages only, of the users in this file")
      ->type_name("FILE");
  command->add_option("--sign", options->sign, "Sign the answers with the secret key in this file")
      ->type_name("KEYFILE");
  command->add_option("--user", options->user, "Whose key, when the file holds several")->type_name("USER");
  AddNumber<uint64_t>(*command, "--count", options->count, 1, UINT64_MAX, "Stop after so many messages");
  AddNumber<size_t>(*command, "--max-clients", options->max_clients, 1, 2500,
                    "Most clients at once; others wait (256)");
  command->add_flag("--trace", options->trace, "Show every trace point as it happens, on standard error");
  command->footer(
      "Messages go to standard output, everything else to standard error. SIGINT stops with a summary.\n\n"
      "Examples:\n  mqcat listen 5000 --echo\n  mqcat listen '*' 5000 --format json --count 10\n"
      "  mqcat listen 5000 --ring ring --trace\n  mqcat listen 5000 --udp --format hex");
  command->callback([options] { RunListen(*options); });
}

}  // namespace mqcat
