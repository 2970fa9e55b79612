// in.cc - mqbridge in: clients that send to a node get their answers from the cluster.
//
// Order: the answers of a client leave in the order of its messages, whatever the order in which they come.
// Bound: a client has at most per_client messages without an answer, and the messages and answers of all clients take
// at most the bytes of --memory and one message; beyond that clients are not read. So nothing is lost while the cluster
// is away: what was read waits here, the rest at the clients.
#include <malloc.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <unordered_set>

#include "body.hh"
#include "fmt/format.h"
#include "mqcat/address.hh"
#include "mqcat/failure.hh"
#include "mqcat/text.hh"
#include "mqnode/errors.h"
#include "session.hh"
#include "subject.hh"

namespace mqbridge {
namespace {

constexpr uint64_t kRestBytes = 512;  // overhead of a waiting message: headers, subject, tables
constexpr int kEndMsec = 2000;
constexpr uint64_t kWorthTrimming = 4u << 20;

struct Client;

// A message of a client, until its answer was sent.
struct Slot {
  Client* client;  // null when it has gone
  std::string subject;
  uint64_t bytes = 0;
  bool is_ready = false;
  Outcome outcome = Outcome::kTimeOver;
  NatsMsg reply;
  std::string why;
};

class Inlet;

struct Client {
  Inlet* inlet;
  MqUvNode* node;
  std::string peer;
  std::string id;  // of the connection, unique across all bridges
  uint64_t messages = 0;
  bool is_paused = false;
  std::deque<std::shared_ptr<Slot>> slots;
};

MqLoopLimits LimitsOf(const InOptions& options) {
  MqLoopLimits limits = mq_loop_limits();
  limits.messageBytes = options.max_message;
  limits.nodes = options.clients;
  limits.idleMsec = static_cast<int>(options.idle * 1000);
  limits.endMsec = kEndMsec;
  return limits;
}

class Inlet : public Side {
 public:
  explicit Inlet(const InOptions& options)
      : options_(options),
        subject_(options.subject),
        form_(FormOf(options.body)),
        stores_(options.mode == "store"),
        place_(PlaceOf(options.place)),
        session_(options, LimitsOf(options)),
        answer_(mqcat::NewMessage()),
        run_(Bus::Inbox()) {}

  void Run() { session_.Run(*this); }

  // ---- Side ----

  void Begin() override {
    SockOption reuse = {SOCK_OPT_REUSEADDR, 0, 1};
    mqcat::NodePtr node(CreateMQNodeWithOpt(&place_, MQ_ROLE_LISTEN, &reuse));
    if (node == nullptr) throw mqcat::Failure{mqcat::kExitResources, "no memory for a node"};
    const auto failure = [&] { return mqcat::NodeFailure("listen on " + mqcat::AddressText(place_), node.get()); };
    if (IsNodeFailed(node.get())) throw failure();
    session_.Name(node.get());
    sockaddr_in bound = {};
    socklen_t size = sizeof bound;
    getsockname(node->sock.fd, reinterpret_cast<sockaddr*>(&bound), &size);
    listener_ = mq_uv_start(session_.nodes(), node.get(), session_.is_signed(), &kEvents, this);
    if (listener_ == nullptr) throw failure();
    static_cast<void>(node.release());
    mq_uv_set_signer(listener_, session_.security().signer.get());
    session_.report().Event("listening", {{"mode", options_.mode}, {"port", ntohs(bound.sin_port)}});
  }

  void Connected() override {}
  void Lost() override {}

  void Tick(int64_t) override {
    most_held_ = std::max(most_held_, held_);
    if (most_held_ > held_ + kWorthTrimming) {
      malloc_trim(0);  // messages are allocated and released by different threads, which leaves holes
      most_held_ = held_;
    }
    session_.report()[Count::kNodes] = clients_.size();
    session_.report()[Count::kInFlight] = waiting_;
    session_.report()[Count::kHeldBytes] = held_;
  }

  void Drain() override {
    if (listener_ != nullptr) mq_uv_stop(listener_);
    listener_ = nullptr;
    SettleAll();
  }

  bool IsDrained() override { return waiting_ == 0; }

  void End() override {
    for (Client* const client : clients_) mq_uv_end(client->node);
  }

 private:
  // ---- Nodes ----

  static Inlet* Of(MqUvNode* listener) { return static_cast<Inlet*>(mq_uv_data(listener)); }
  static Client* ClientOf(MqUvNode* node) { return static_cast<Client*>(mq_uv_data(node)); }

  void OnAccept(MqUvNode* node) {
    const std::string peer = mqcat::AddressText(mq_uv_node(node)->sock.name);
    auto* const client =
        new Client{this, node, peer, fmt::format("{}/{}/{}", run_, peer, ++connections_), 0, false, {}};
    clients_.insert(client);
    mq_uv_set_data(node, client);
    mq_uv_set_events(node, &kClientEvents);
    Settle(client);
  }

  void OnMessage(Client* client, PcfMessage* msg) {
    Report& report = session_.report();
    ++report[Count::kMessages];
    ++client->messages;
    Headers headers = HeadersOf(client, msg);
    auto slot = std::make_shared<Slot>();
    slot->client = client;
    slot->subject = SubjectOf(client, msg);
    const std::string body = ToBody(form_, msg);
    slot->bytes = body.size() + kRestBytes;
    if (stores_) headers.emplace_back(kMsgIdHeader, IdOf(client, msg));
    client->slots.push_back(slot);
    mq_uv_set_owed(client->node, static_cast<int>(client->slots.size()));
    held_ += slot->bytes;
    ++waiting_;
    session_.calls().Start(slot->subject, body, headers, options_.timeout, stores_ ? Repeat::kYes : Repeat::kNo,
                           [this, slot](Outcome outcome, NatsMsg reply, const std::string& why) {
                             OnAnswer(*slot, outcome, std::move(reply), why);
                           });
    SettleMemory();
    Settle(client);
  }

  void OnEnd(Client* client, int code, const char* why) {
    if (why != nullptr) {
      const char* const name = mq_error_name(code);
      session_.report().Event("dropped", {{"peer", client->peer}, {"error", name}, {"because", why}});
    }
    for (const auto& slot : client->slots) {
      slot->client = nullptr;
      if (slot->is_ready) held_ -= slot->bytes;
    }
    clients_.erase(client);
    delete client;
    SettleMemory();
  }

  // ---- Messages ----

  std::string SubjectOf(const Client* client, const PcfMessage* msg) const {
    char user[13], application[49];
    mqc_sender(msg, user);
    mqc_application(msg, application);
    const std::string command = std::to_string(mqc_command(msg));
    return subject_.Make({user, application, command, client->peer});
  }

  Headers HeadersOf(const Client* client, const PcfMessage* msg) const {
    char user[13], application[49], signer[13];
    mqc_user(msg, user);
    mqc_application(msg, application);
    Headers headers = {{kUserHeader, HeaderValue(user)},
                       {kApplicationHeader, HeaderValue(application)},
                       {kCommandHeader, std::to_string(mqc_command(msg))},
                       {kPeerHeader, client->peer}};
    mqc_sender(msg, signer);
    if (session_.is_signed()) headers.emplace_back(kSignerHeader, HeaderValue(signer));
    return headers;
  }

  // A signed message is stored once, whichever bridges it is sent to. An unsigned one has no identity of its own: only
  // repetitions by this bridge are recognised.
  std::string IdOf(const Client* client, const PcfMessage* msg) const {
    if (!session_.is_signed()) return fmt::format("{}/{}", client->id, client->messages);
    uint8_t nonce[16];
    char signer[13];
    mqc_nonce(nonce);
    mqc_sender(msg, signer);
    return fmt::format("{}/{}", HeaderValue(signer), mqcat::Hex({nonce, sizeof nonce}));
  }

  void OnAnswer(Slot& slot, Outcome outcome, NatsMsg reply, const std::string& why) {
    --waiting_;
    held_ -= slot.bytes;
    if (slot.client == nullptr) return SettleMemory();
    slot.is_ready = true;
    slot.outcome = outcome;
    slot.reply = std::move(reply);
    slot.why = why;
    slot.bytes = kRestBytes + (slot.reply != nullptr ? BodyOf(slot.reply.get()).size() : 0);
    held_ += slot.bytes;
    GiveAnswers(slot.client);
    SettleMemory();
  }

  // ---- Answers ----

  void GiveAnswers(Client* client) {
    while (!client->slots.empty() && client->slots.front()->is_ready) {
      const std::shared_ptr<Slot> slot = client->slots.front();
      client->slots.pop_front();
      held_ -= slot->bytes;
      // Without this answer, the client would assign all later ones to the wrong messages.
      if (!Compose(*slot) || !mq_uv_write(client->node, answer_.get(), nullptr, nullptr)) mq_uv_stop(client->node);
    }
    mq_uv_set_owed(client->node, static_cast<int>(client->slots.size()));
    Settle(client);
  }

  bool Compose(const Slot& slot) {
    switch (slot.outcome) {
      case Outcome::kAnswered:
        return stores_ ? ComposeStored(slot) : ComposeReply(slot);
      case Outcome::kNoResponder:
        return ComposeFailure(Count::kNoResponder, kNoResponderAnswer, slot.why, slot);
      case Outcome::kTimeOver:
        return ComposeFailure(Count::kTimeOver, kTimeOverAnswer, slot.why, slot);
      case Outcome::kRefused:
        break;
    }
    return ComposeFailure(Count::kErrors, kErrorAnswer, slot.why, slot);
  }

  bool ComposeFailure(Count count, uint32_t command, const std::string& why, const Slot& slot) {
    ++session_.report()[count];
    PcfMessage* const msg = answer_.get();
    return mqc_begin(msg, command) && mqc_add_text(msg, 1, mqcat::Plain(why).c_str()) &&
           mqc_add_text(msg, 2, slot.subject.c_str());
  }

  bool ComposeReply(const Slot& slot) {
    const std::string error = HeaderOf(slot.reply.get(), kErrorHeader);
    if (!error.empty()) return ComposeFailure(Count::kErrors, kErrorAnswer, error, slot);
    try {
      FromBody(form_, BodyOf(slot.reply.get()), answer_.get());
    } catch (const mqcat::Failure& failure) {
      return ComposeFailure(Count::kErrors, kErrorAnswer, "the worker's answer: " + failure.text, slot);
    }
    ++session_.report()[Count::kAnswers];
    return true;
  }

  // {"stream": ..., "seq": ..., "duplicate": true} or {"error": {"description": ...}}
  bool ComposeStored(const Slot& slot) {
    const Json json = Json::parse(BodyOf(slot.reply.get()), nullptr, false);
    std::string error = ErrorOf(json);
    const bool is_stored = error.empty() && json.contains("seq") && json["seq"].is_number_unsigned();
    if (error.empty()) error = "not an acknowledgement";
    if (!is_stored || !json.contains("stream")) return ComposeFailure(Count::kErrors, kErrorAnswer, error, slot);
    const bool is_duplicate = json.value("duplicate", Json()) == true;
    ++session_.report()[Count::kStored];
    if (is_duplicate) ++session_.report()[Count::kDuplicates];
    PcfMessage* const msg = answer_.get();
    const std::string stream = json["stream"].is_string() ? json["stream"].get<std::string>() : "";
    return mqc_begin(msg, kStoredAnswer) && mqc_add_text(msg, 1, mqcat::Plain(stream).c_str()) &&
           mqc_add_int64(msg, 2, json["seq"].get<int64_t>()) && mqc_add_int32(msg, 3, is_duplicate);
  }

  // ---- Pausing clients ----

  void Settle(Client* client) {
    const bool pause = is_full_ || listener_ == nullptr || client->slots.size() >= options_.per_client;
    if (pause == client->is_paused) return;
    client->is_paused = pause;
    pause ? mq_uv_pause(client->node) : mq_uv_resume(client->node);
  }

  void SettleAll() {
    for (Client* const client : clients_) Settle(client);
  }

  // Pauses all clients at once, so that the bound is exceeded by one message at most; resumes them at half of the
  // bound.
  void SettleMemory() {
    const bool is_full = held_ > (is_full_ ? options_.memory / 2 : options_.memory);
    if (is_full == is_full_) return;
    is_full_ = is_full;
    session_.report().Event(is_full ? "full" : "not full", {{"held_bytes", held_}});
    SettleAll();
  }

  static constexpr MqUvEvents MakeEvents() {
    MqUvEvents events = {};
    events.on_accept = [](MqUvNode* listener, MqUvNode* node) { Of(listener)->OnAccept(node); };
    events.on_lost = [](MqUvNode* listener, int code) {
      Of(listener)->session_.report().Event("not accepting", {{"error", mq_error_name(code)}});
    };
    return events;
  }

  static constexpr MqUvEvents MakeClientEvents() {
    MqUvEvents events = {};
    events.on_message = [](MqUvNode* node, PcfMessage* msg) {
      Client* const client = ClientOf(node);
      client->inlet->OnMessage(client, msg);
    };
    events.on_end = [](MqUvNode* node, int code, const char* why) {
      Client* const client = ClientOf(node);
      client->inlet->OnEnd(client, code, why);
    };
    return events;
  }

  static const MqUvEvents kEvents, kClientEvents;

  const InOptions& options_;
  SubjectTemplate subject_;
  Form form_;
  bool stores_;
  SockAddrRec place_;
  Session session_;
  mqcat::MessagePtr answer_;
  std::string run_;  // unique to this run of the bridge
  MqUvNode* listener_ = nullptr;
  std::unordered_set<Client*> clients_;
  uint64_t connections_ = 0;
  uint64_t waiting_ = 0;    // messages that the cluster has not answered
  uint64_t held_ = 0;       // bytes of these messages, and of answers that wait for earlier ones
  uint64_t most_held_ = 0;  // since memory was given back to the system
  bool is_full_ = false;
};

const MqUvEvents Inlet::kEvents = Inlet::MakeEvents();
const MqUvEvents Inlet::kClientEvents = Inlet::MakeClientEvents();

}  // namespace

void RunIn(const InOptions& options) { Inlet(options).Run(); }

}  // namespace mqbridge
