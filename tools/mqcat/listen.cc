// listen.cc - mqcat listen: accepts many clients, prints what they send, answers when asked to.
// The limits on clients are those of mqnode/server.h.
#include <algorithm>
#include <cstring>
#include <exception>
#include <map>
#include <memory>

#include "examples/answers.h"
#include "link.hh"
#include "mqnode/errors.h"
#include "mqnode/server.hpp"
#include "options.hh"
#include "output.hh"
#include "show.hh"
#include "signals.hh"
#include "text.hh"
#include "trace.hh"

namespace mqcat {
namespace {

using mqnode::MessageRef;
using mqnode::NodeRef;
using mqnode::ServerClient;

constexpr int kMostPending = 64;  // answers that may be queued on a datagram node
constexpr int kMostAtOnce = 64;   // messages of one client, or clients accepted, before the others have their turn
constexpr double kMostSeconds = 2.1e6;  // of a limit: the server counts milliseconds in an int
constexpr double kLastAnswers = 2;      // seconds for answers that are queued at the end
constexpr size_t kMostSealing = 256;    // signers for answers to sealed messages that are kept
constexpr size_t kShownBytes = 32;      // of something that is not a message
constexpr auto kTick = std::chrono::milliseconds(200);

// The limits that the options change, by the reason that the server gives.
constexpr std::pair<std::string_view, const char*> kReasons[] = {{MQ_SERVER_TOO_SLOW, "--midway"},
                                                                 {MQ_SERVER_TAKES_NO_ANSWERS, "--midway"},
                                                                 {MQ_SERVER_IDLE, "--idle"},
                                                                 {MQ_SERVER_TOO_LONG, "--max-message"},
                                                                 {MQ_SERVER_NO_PLACE, "--max-per-address"},
                                                                 {MQ_SERVER_PLACE_NEEDED, "--max-clients"}};

// The number of this second.
long Second() {
  return static_cast<long>(std::chrono::floor<std::chrono::seconds>(Clock::now()).time_since_epoch().count());
}

struct Options {
  std::vector<std::string> place;
  FormatOptions format;
  bool echo = false;
  bool udp = false;
  bool trace = false;
  KeyOptions keys;
  bool only_sealed = false;
  uint64_t count = UINT64_MAX;
  int backlog = 1024;
  int max_clients = 256;
  int max_per_address = INT_MAX;
  uint32_t max_message = 1 << 20;  // bytes, headers included
  uint32_t max_waiting = 1 << 20;  // bytes
  double midway = 30;              // seconds
  double idle = 3600;              // seconds
  uint32_t answer_rate = MOST_ANSWERS;
};

struct Totals {
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t clients = 0;
  uint64_t refused = 0;  // not authentic
  uint64_t faulty = 0;   // bad messages and bodies
  uint64_t dropped = 0;  // clients that passed a limit
  uint64_t answers_lost = 0;
  uint64_t answers_held = 0;  // datagrams: the address had its answers for the second
};

MqServerLimits LimitsOf(const Options& options) {
  MqServerLimits limits = mq_server_limits();
  limits.clients = options.max_clients;
  limits.clientsPerAddress = options.max_per_address;
  limits.backlog = options.backlog;
  limits.acceptsPerRound = kMostAtOnce;
  limits.messagesPerRound = kMostAtOnce;
  limits.midwayMsec = static_cast<int>(options.midway * 1000);
  limits.firstMsec = limits.idleMsec = static_cast<int>(options.idle * 1000);
  const size_t header = options.keys.ring.empty() ? sizeof(MsgHeader) : sizeof(SecureHeader);
  limits.messageBytes = options.max_message - static_cast<uint32_t>(header);
  limits.waitingBytes = options.max_waiting;
  limits.socketBytes = 0;
  limits.pauses = 1;
  return limits;
}

// Whether the first word of some bytes is the length of that header, in either byte order.
bool BeginsWith(Bytes bytes, uint32_t header_length) {
  uint32_t first = 0;
  if (bytes.size() < sizeof first) return false;
  memcpy(&first, bytes.data(), sizeof first);
  return first == header_length || first == bwlong(header_length);
}

// What has arrived of a message that was not accepted; size bytes were received of it.
Bytes Arrived(const MQNode* node, uint64_t size) {
  const IoBuffer& buffer = node->recvBuffer;
  return buffer.data == nullptr ? Bytes() : Bytes(buffer.data, std::min<uint64_t>(size, buffer.capacity));
}

std::string Shown(Bytes bytes) {
  return Quote({reinterpret_cast<const char*>(bytes.data()), std::min(bytes.size(), kShownBytes)});
}

class Listener : public mqnode::Server {
 public:
  explicit Listener(const Options& options)
      : Server(LimitsOf(options)),
        options_(options),
        format_(ShowFormatOf(options.format.format)),
        security_(LoadSecurity(options.keys)),
        datagram_(NewMessage()) {
    if (options.only_sealed) mqc_set_sealing(MQC_SEAL_MUST);
    if (Server::failed()) throw Failure{kExitResources, "out of memory for a server"};
  }

  void Open() {
    Place place = ParsePlace(options_.place, false);
    if (place.host.empty()) place.host = "127.0.0.1";
    SockAddrRec address = MakeAddress(place.host, place.service, options_.udp ? Transport::kUdp : Transport::kTcp);
    const std::string where = fmt::format("{} {}:", options_.udp ? "UDP" : "TCP", place.host);
    SockOption reuse = {SOCK_OPT_REUSEADDR, 0, 1};
    node_.reset(options_.udp ? CreateUDPMQNode(&address) : CreateMQNodeWithOpt(&address, MQ_ROLE_LISTEN, &reuse));
    if (node_ == nullptr) throw Failure{kExitResources, "out of memory for a node"};
    SetApplication(node_.get());
    if (options_.udp) node_->writeLimit = kMostPending;
    SignAs(node_.get());
    if (node_->error != 0 || !add(node_.get(), security_.check)) {
      throw NodeFailure(fmt::format("listen on {}{}", where, address.port), node_.get());
    }
    Note(fmt::format("listening on {}{}", where, NodeRef(node_.get()).local_port()));
  }

  void Run() {
    while (!Interrupted() && record().reading && totals_.messages < options_.count) Turn(kTick);
    SendLastAnswers();
    close();
    if (failure_) std::rethrow_exception(failure_);
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
  void Turn(std::chrono::milliseconds time) {
    if (const mqnode::Result waited = round(time); !waited) {
      throw Failure{kExitResources,
                    fmt::format("wait on {} nodes: {}", size() + 1, CodeText(waited.code(), MQ_IN_STATUS))};
    }
    if (!failure_) Flush();
  }

  // The sockets go on sending what they have when they are closed.
  void SendLastAnswers() {
    record().reading = 0;
    const auto has_queued = [](const MqServerClient* client) { return client->node->pending != nullptr; };
    for (const auto deadline = In(kLastAnswers); Clock::now() < deadline;) {
      MqServerClient** const clients = record().clients;
      if (std::none_of(clients, clients + size(), has_queued)) return;
      Turn(kTick);
    }
  }

  // A signed answer carries the node's user, which must be the signer's. Accepted nodes copy their listening node's.
  void SignAs(MQNode* node) const {
    const MqcSigner* const signer = security_.signer.get();
    if (signer != nullptr) snprintf(node->user, sizeof node->user, "%s", mqc_signer_user(signer));
  }

  // An event must not throw: what it throws ends the rounds, and is thrown again after them.
  template <typename Function>
  void Guard(Function function) noexcept {
    try {
      function();
    } catch (...) {
      if (!failure_) failure_ = std::current_exception();
      record().reading = 0;
    }
  }

  // ---- Events ----

  const char* accepted(ServerClient client) noexcept override {
    SockOption linger = {SOCK_OPT_LINGER, 0, 0};
    SetSocketOptions(&client.node().record().sock, &linger);
    TraceAccepted(client.node().get());
    ++totals_.clients;
    return nullptr;
  }

  const char* message(ServerClient client, MessageRef msg) noexcept override {
    Guard([&] {
      MQNode* const node = client.node().get();
      const std::string peer = AddressText(node->sock.name);
      Deliver(node, msg.get(), peer);
      if (!options_.echo || Answer(node, msg.get(), nullptr, peer, msg.sealed())) return;
      drop(client, nullptr);  // a part of the answer may have been sent
    });
    return nullptr;
  }

  const char* failed(ServerClient client, const char*) noexcept override {
    Guard([&] {
      const MQNode* const node = client.node().get();
      const Bytes bytes = Arrived(node, node->sock.bytesReceived - client.record().whole);
      if (node->error == SOCK_PEER_CLOSED || node->error == ECONNRESET) return TellLeft(node, bytes);
      TellBadMessage(node, node->sock.name, bytes, record().in);
    });
    return nullptr;
  }

  void dropped(ServerClient client, const char* why) noexcept override {
    if (why != nullptr) ++totals_.dropped;
    totals_.answers_lost += static_cast<uint64_t>(client.record().lost);
  }

  void ready(NodeRef ref) noexcept override {
    MQNode* const node = ref.get();
    PcfMessage* const msg = datagram_.get();
    Guard([&] {
      for (int i = 0; i < kMostAtOnce && record().reading; ++i) {
        const uint64_t before = node->sock.bytesReceived;
        if (mnSRead(msg, node, security_.check, nullptr)) {
          const std::string peer = AddressText(node->sock.from);
          Deliver(node, msg, peer);
          SockAddrRec to = node->sock.from;
          const bool sealed = mqc_sealed(msg) != 0;
          if (options_.echo && MayAnswer(msg, to, sealed)) Answer(node, msg, &to, peer, sealed);
        } else if (node->error == MQ_AGAIN) {
          return;
        } else {
          TellBadMessage(node, node->sock.from, Arrived(node, node->sock.bytesReceived - before), msg);
        }
      }
    });
  }

  void log(const char* line) noexcept override {
    Guard([line] {
      const std::string_view text = line;
      for (const auto& [reason, option] : kReasons) {
        if (text.ends_with(reason)) return Note(fmt::format("{} ({})", text, option));
      }
      Note(text);
    });
  }

  // ---- What peers do ----

  // A client that left between two messages and has received its answers is not logged.
  void TellLeft(const MQNode* node, Bytes bytes) {
    std::string text = "left before it took its answers";
    if (!bytes.empty()) {
      const bool is_part =
          bytes.size() < 4 || BeginsWith(bytes, sizeof(MsgHeader)) || BeginsWith(bytes, sizeof(SecureHeader));
      text = is_part
                 ? fmt::format("left in the middle of a message, after {}", Count(bytes.size(), "byte"))
                 : fmt::format("left after {} that are not a message: {}", Count(bytes.size(), "byte"), Shown(bytes));
    }
    say("client", node->sock.name, text.c_str());
  }

  void TellBadMessage(const MQNode* node, const SockAddrRec& peer, Bytes bytes, const PcfMessage* msg) {
    ++(node->error == MQ_NOT_AUTHENTIC ? totals_.refused : totals_.faulty);
    std::string reason;
    if (node->error == MQ_BAD_BODY) reason = mqc_message_error(msg);
    if (node->error == MQ_BAD_MESSAGE) reason = FramingHint(bytes);
    if (node->error == MQ_NOT_AUTHENTIC) reason = mqc_authenticate_error();
    const bool is_last = node->error == MQ_BAD_MESSAGE && !options_.udp;
    const std::string text = NodeCodeText(node) + (reason.empty() ? "" : "\n  " + reason);
    say(is_last ? "dropped" : "message from", peer, text.c_str());
  }

  // The usual mistake is the other framing.
  std::string FramingHint(Bytes bytes) const {
    if (!security_.check && BeginsWith(bytes, sizeof(SecureHeader))) return "it is signed: listen with --ring FILE";
    if (security_.check && BeginsWith(bytes, sizeof(MsgHeader)))
      return "it is not signed: send with --sign, or listen without --ring";
    return "it begins with " + Shown(bytes);
  }

  void Deliver(const MQNode* node, const PcfMessage* msg, const std::string& peer) {
    ++totals_.messages;
    totals_.bytes += msg->raw.length;
    if (totals_.messages == options_.count) record().reading = 0;
    TraceMessage(node, "message from", peer, msg);
    ShowMessage(msg, peer, security_.check, format_);
  }

  // ---- Answering ----

  // A datagram may carry a forged sender: only questions are answered, no address too often, and the answer is marked.
  bool MayAnswer(PcfMessage* msg, const SockAddrRec& to, bool sealed) {
    if (is_answer(msg)) return false;
    if (!may_answer(answers_.get(), &to, Second(), options_.answer_rate)) {
      ++totals_.answers_held;
      say("answer held back to", to, fmt::format("{} a second (--answer-rate)", options_.answer_rate).c_str());
      return false;
    }
    const size_t most = kMaxDatagram - AddedBytes(security_.signer != nullptr, sealed);
    if (mark_answer(msg) && msg->raw.length <= most) return true;
    ++totals_.answers_lost;
    say("no answer to", to, fmt::format("a datagram carries a message of at most {} bytes", most).c_str());
    return false;
  }

  // Signs answers. The answer to a sealed message is sealed for its sender. Throws a Failure if there is no key for it.
  MqcSigner* SignerFor(const PcfMessage* msg, bool sealed) {
    if (!sealed) return security_.signer.get();
    char user[13];
    mqc_sender(msg, user);
    if (sealing_.size() >= kMostSealing) sealing_.clear();
    SignerPtr& signer = sealing_[user];
    if (signer == nullptr) signer = SealingSigner(security_.signer.get(), user);
    return signer.get();
  }

  // to: null on a connection. sealed: the message was.
  bool Answer(MQNode* node, PcfMessage* msg, SockAddrRec* to, const std::string& peer, bool sealed) try {
    MqcSigner* const signer = SignerFor(msg, sealed);
    if (mnSWriteMsg(msg, node, to, node->user, signer != nullptr, signer, 0)) {
      TraceMessage(node, "message to", peer, msg);
      return true;
    }
    ++totals_.answers_lost;
    const int code = mq_node_cause(node, nullptr);
    const std::string why = code == MQ_NOT_SIGNED ? std::string("\n  ") + mqc_sign_error() : AdviceText(code);
    say("no answer to", to != nullptr ? *to : node->sock.name, (NodeCodeText(node) + why).c_str());
    return false;
  } catch (const Failure& failure) {
    ++totals_.answers_lost;
    say("no answer to", to != nullptr ? *to : node->sock.name, failure.text.c_str());
    return false;
  }

  const Options& options_;
  ShowFormat format_;
  Security security_;
  std::map<std::string, SignerPtr> sealing_;  // by sender, who is in the ring
  MessagePtr datagram_;                       // the one that was read last
  NodePtr node_;
  std::unique_ptr<Answers> answers_ = std::make_unique<Answers>();
  std::exception_ptr failure_;
  Totals totals_;
  Clock::time_point start_ = Clock::now();
};

void RunListen(const Options& options) {
  CatchSignals();
  CheckFormat(options.format);
  if (options.echo && !options.keys.key.empty() && options.keys.sign.empty()) {
    throw Failure{kExitUsage, "listen: --echo with --key requires --sign: the answer to a sealed message is sealed"};
  }
  if (options.trace) StartTrace();
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

void AddLimits(CLI::App& command, Options& options) {
  AddNumber<uint64_t>(command, "--count", options.count, 1, UINT64_MAX, "Stop after this many messages");
  AddNumber<int>(command, "--backlog", options.backlog, 1, 65535,
                 "Maximum number of connections that wait to be accepted; net.core.somaxconn may allow fewer");
  AddNumber<int>(command, "--max-clients", options.max_clients, 1, 2500,
                 "Maximum number of connected clients; above it, a new client replaces the longest idle one");
  AddNumber<int>(command, "--max-per-address", options.max_per_address, 1, 2500,
                 "Maximum number of clients from one address; others are refused (default: no limit)");
  AddNumber<uint32_t>(command, "--max-message", options.max_message, 256, MQ_MAX_MESSAGE,
                      "Maximum size of a message, including headers; a client that announces a longer one is dropped");
  AddNumber<uint32_t>(command, "--max-waiting", options.max_waiting, 0, UINT32_MAX - 1,
                      "Maximum size of the answers queued behind the oldest one; above it, the client is not read");
  AddSeconds(command, "--midway", options.midway, 0.1, kMostSeconds,
             "Drop a client that stops in the middle of a message, or does not read its answers, for this long");
  AddSeconds(command, "--idle", options.idle, 0.1, kMostSeconds, "Drop a client that sends nothing for this long");
  AddNumber<uint32_t>(command, "--answer-rate", options.answer_rate, 1, UINT32_MAX - 1,
                      "Maximum number of answers to one address per second, with --udp");
}

}  // namespace

void AddListen(CLI::App& app, ExitCode&) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("listen", "Receive messages and print them");
  command
      ->add_option("[HOST:]PORT", options->place,
                   "Address to listen on: a host and a port or service name, also as HOST SERVICE. The default host is "
                   "127.0.0.1; * means all addresses. With port 0, the system chooses a port")
      ->required()
      ->expected(1, 2);
  AddFormat(*command, options->format, "Print messages as text, json (one object per line), hex, raw or quiet");
  command->add_flag("--echo", options->echo, "Send every message back, except datagrams that are marked as answers");
  command->add_flag("--udp", options->udp, "Receive datagrams");
  AddKeyOptions(*command, options->keys, "Sign the answers of --echo with the secret key in this file",
                "Accept only messages that are signed by a user in this ring",
                "User whose key to take from the files of --sign and --key");
  CLI::Option* const key =
      AddKeyFile(*command, "--key", options->keys.key,
                 "Open messages that are sealed for the user of this secret key; --echo then requires --sign")
          ->needs("--ring");
  command->add_flag("--only-sealed", options->only_sealed, "Refuse messages that are not sealed")->needs(key);
  AddLimits(*command, *options);
  command->add_flag("-v,--trace", options->trace, "Print every step of every connection on standard error");
  command->footer(
      "Messages are printed on standard output, everything else on standard error. Ctrl-C ends it with a summary.\n\n"
      "Examples:\n  mqcat listen 5000 --echo\n  mqcat listen '*:5000' --format json --count 10\n"
      "  mqcat listen 5000 --ring ring --trace\n  mqcat listen 5000 --udp --format hex");
  command->callback([options] { RunListen(*options); });
}

}  // namespace mqcat
