// out.cc - mqbridge out: messages of the cluster go to a node over one connection, and its answers decide their fate.
//
// With --durable, messages come from a stream. They are fetched (pulled) only while the peer is connected and there is
// space for them. A message is acknowledged after the peer's answer. If the connection ends first, or no answer comes
// in time, the message is returned and delivered again, here or by another bridge. A redelivered message is sent alone,
// so that one that makes the peer fail does not fail others. A message that cannot be converted, or was delivered too
// often, goes to the dead-letter subject, and leaves its stream once it is stored there. With --queue, messages come
// from a queue group, at most once; the answer goes to the requester.
#include <deque>
#include <optional>

#include "body.hh"
#include "fmt/format.h"
#include "mqcat/address.hh"
#include "mqcat/failure.hh"
#include "mqcat/message.hh"
#include "mqcat/number.hh"
#include "mqcat/text.hh"
#include "mqnode/errors.h"
#include "puller.hh"
#include "session.hh"
#include "subject.hh"

namespace mqbridge {
namespace {

constexpr size_t kMostQueued = 4096;  // waiting messages of a queue group
constexpr int64_t kFirstPauseMsec = 100, kLastPauseMsec = 5000;
constexpr int64_t kPatienceMsec = 15000;  // without the peer; longer than a fetch, lest messages be delivered twice
constexpr double kDeadLetterTimeout = 10;
constexpr int64_t kNever = INT64_MAX;

// A message received from the cluster.
struct Item {
  NatsMsg msg;
  uint64_t deliveries = 1;
  int64_t deadline = kNever;  // of the peer's answer
  std::string last_error;
};

MqLoopLimits LimitsOf(const OutOptions&) {
  MqLoopLimits limits = mq_loop_limits();
  limits.messageBytes = MQ_MAX_MESSAGE;
  limits.idleMsec = 0;  // the deadline of an answer is the one that counts
  limits.endMsec = 2000;
  return limits;
}

class Outlet : public Side {
 public:
  explicit Outlet(const OutOptions& options)
      : options_(options),
        form_(FormOf(options.body)),
        place_(PlaceOf(options.place)),
        peer_(mqcat::AddressText(place_)),
        session_(options, LimitsOf(options)),
        message_(mqcat::NewMessage()) {
    if (!options.durable.empty()) {
      puller_.emplace(options, session_, [this](NatsMsg msg) { OnMessage(std::move(msg)); });
    }
  }

  void Run() { session_.Run(*this); }

  // ---- Side ----

  void Begin() override {
    if (puller_) {
      puller_->Begin();
    } else {
      session_.bus().Subscribe(options_.subject, options_.queue, [this](NatsMsg msg) { OnMessage(std::move(msg)); });
    }
    ConnectPeer();
  }

  void Connected() override {
    if (puller_) puller_->Reconnected();
  }
  void Lost() override {}

  void Tick(int64_t now) override {
    Report& report = session_.report();
    report[Count::kNodes] = is_open_ ? 1 : 0;
    report[Count::kInFlight] = sent_.size() + held_.size() + dying_;
    if (node_ == nullptr && session_.is_running() && now >= next_connect_) ConnectPeer();
    if (!sent_.empty() && now >= sent_.front().deadline) {
      sent_.front().last_error = fmt::format("no answer within {} s", options_.timeout);
      report.Event("no answer", {{"peer", peer_}, {"within", options_.timeout}});
      Drop();
    }
    if (!puller_) return;
    if (is_open_) reached_ = now;
    if (now - reached_ >= kPatienceMsec) Drain();
    if (now >= next_progress_) TellProgress(now);
    Fetch(now);
  }

  // Also called when the peer is unreachable: another bridge may reach its own.
  void Drain() override {
    for (Item& item : held_) GiveBack(item, 0);
    held_.clear();
  }

  bool IsDrained() override { return sent_.empty() && dying_ == 0; }

  void End() override {
    if (node_ != nullptr) mq_uv_end(node_);
  }

 private:
  // ---- The peer ----

  void ConnectPeer() {
    mqcat::NodePtr node(CreateMQNode(&place_, MQ_ROLE_CONNECT));
    if (node == nullptr) throw mqcat::Failure{mqcat::kExitResources, "no memory for a node"};
    session_.Name(node.get());
    is_open_ = false;
    node_ = IsNodeFailed(node.get())
                ? nullptr
                : mq_uv_connect(session_.nodes(), node.get(), session_.is_signed(), &kEvents, this);
    if (node_ == nullptr) return PeerFailed(mq_error_name(mq_node_cause(node.get(), nullptr)));
    static_cast<void>(node.release());
    mq_uv_set_signer(node_, session_.security().signer.get());
  }

  void OnOpen() {
    is_open_ = true;
    session_.report()[Count::kPeerUp] = 1;
    session_.report().Event("peer connected", {{"peer", peer_}});
    Send();
    Fetch(mq_clock());
  }

  void OnAnswer(PcfMessage* answer) {
    pause_ = kFirstPauseMsec;
    if (sent_.empty()) return Drop();  // an unexpected answer: answers no longer match messages
    const Item item = std::move(sent_.front());
    sent_.pop_front();
    Report& report = session_.report();
    ++report[Count::kAnswers];
    if (puller_) {
      session_.bus().Publish(natsMsg_GetReply(item.msg.get()), "+ACK");
      ++report[Count::kAcknowledged];
    } else {
      Reply(item, ToBody(form_, answer), {});
    }
    Send();
    Fetch(mq_clock());
  }

  void OnEnd(int code, const char* why) {
    node_ = nullptr;
    session_.report()[Count::kPeerUp] = 0;
    const std::string text = why != nullptr ? why : mq_error_name(code);
    const bool was_open = std::exchange(is_open_, false);
    for (Item& item : sent_) {
      if (item.last_error.empty()) item.last_error = "the peer ended the connection: " + text;
      Failed(item);
    }
    sent_.clear();
    if (!session_.is_running()) return;
    if (was_open) session_.report().Event("peer lost", {{"peer", peer_}, {"because", text}});
    was_open ? PauseConnecting() : PeerFailed(text);
  }

  void PeerFailed(const std::string& why) {
    if (pause_ == kFirstPauseMsec) {
      session_.report().Event("cannot reach the peer", {{"peer", peer_}, {"because", why}});
    }
    PauseConnecting();
  }

  void PauseConnecting() {
    next_connect_ = mq_clock() + pause_;
    pause_ = std::min(pause_ * 2, kLastPauseMsec);
  }

  // Gives up the connection; OnEnd follows.
  void Drop() {
    if (node_ != nullptr) mq_uv_stop(node_);
    is_open_ = false;
  }

  // ---- Messages ----

  void OnMessage(NatsMsg msg) {
    ++session_.report()[Count::kMessages];
    Item item{std::move(msg), 1, kNever, ""};
    if (puller_) {
      item.deliveries = Puller::DeliveriesOf(item.msg.get());
      if (!session_.is_running()) return GiveBack(item, 0);
      if (item.deliveries > options_.max_deliver) {
        return Bury(std::move(item), fmt::format("not answered in {} deliveries", options_.max_deliver));
      }
    } else if (held_.size() >= kMostQueued || !session_.is_running()) {
      ++session_.report()[Count::kLost];
      return Reply(item, "", {{kErrorHeader, "the bridge is busy"}});
    }
    held_.push_back(std::move(item));
    Send();
  }

  bool MaySend(const Item& item) const {
    if (!is_open_) return false;
    if (sent_.empty()) return true;
    return item.deliveries == 1 && sent_.front().deliveries == 1 && sent_.size() < options_.in_flight;
  }

  void Send() {
    while (!held_.empty() && MaySend(held_.front())) {
      Item item = std::move(held_.front());
      held_.pop_front();
      try {
        FromBody(form_, BodyOf(item.msg.get()), message_.get());
      } catch (const mqcat::Failure& failure) {
        Bury(std::move(item), failure.text);
        continue;
      }
      item.deadline = mq_clock() + static_cast<int64_t>(options_.timeout * 1000);
      sent_.push_back(std::move(item));
      if (mq_uv_write(node_, message_.get(), nullptr, nullptr)) continue;
      sent_.back().last_error = mq_error_name(mq_uv_node(node_)->error);
      return Drop();
    }
  }

  void Fetch(int64_t now) {
    if (!puller_) return;
    const size_t here = sent_.size() + held_.size() + dying_;
    const bool may = is_open_ && session_.is_running() && here < options_.in_flight;
    puller_->Fetch(now, may ? options_.in_flight - static_cast<uint32_t>(here) : 0);
  }

  // ---- Unanswered messages ----

  void Failed(Item& item) {
    if (!puller_) {
      ++session_.report()[Count::kErrors];
      return Reply(item, "", {{kErrorHeader, HeaderValue(item.last_error)}});
    }
    const std::string reason = item.last_error;
    if (item.deliveries >= options_.max_deliver) return Bury(std::move(item), reason);
    GiveBack(item, std::min<int64_t>(250 << std::min<uint64_t>(item.deliveries, 6), 10000));
  }

  void GiveBack(const Item& item, int64_t delay_msec) {
    ++session_.report()[Count::kReturned];
    session_.bus().Publish(natsMsg_GetReply(item.msg.get()),
                           fmt::format("-NAK {{\"delay\": {}}}", delay_msec * 1000000));
  }

  void Reply(const Item& item, std::string_view body, const Headers& headers) {
    const char* const to = natsMsg_GetReply(item.msg.get());
    if (to != nullptr && *to != '\0') session_.bus().Publish(MakeMsg(to, "", body, headers).get());
  }

  // Sends the message to the dead-letter subject. It leaves its stream only once it is stored there.
  void Bury(Item item, const std::string& reason) {
    session_.report().Event("dead letter", {{"subject", natsMsg_GetSubject(item.msg.get())}, {"because", reason}});
    if (!puller_) {
      ++session_.report()[Count::kErrors];
      return Reply(item, "", {{kErrorHeader, HeaderValue(reason)}});
    }
    ++dying_;
    const Headers headers = {{"Mq-Reason", HeaderValue(reason)},
                             {"Mq-Subject", natsMsg_GetSubject(item.msg.get())},
                             {"Mq-Deliveries", std::to_string(item.deliveries)},
                             {kMsgIdHeader, "dead/" + Puller::NameOf(item.msg.get())}};
    auto kept = std::make_shared<Item>(std::move(item));
    session_.calls().Start(options_.dead_letter, BodyOf(kept->msg.get()), headers, kDeadLetterTimeout, Repeat::kYes,
                           [this, kept](Outcome outcome, NatsMsg reply, const std::string& why) {
                             OnBuried(*kept, outcome, reply.get(), why);
                           });
  }

  void OnBuried(const Item& item, Outcome outcome, const natsMsg* reply, const std::string& why) {
    --dying_;
    const Json answer = reply != nullptr ? Json::parse(BodyOf(reply), nullptr, false) : Json();
    const std::string error = outcome == Outcome::kAnswered ? ErrorOf(answer) : why;
    if (error.empty() && answer.contains("seq")) {
      ++session_.report()[Count::kDead];
      session_.bus().Publish(natsMsg_GetReply(item.msg.get()), "+TERM");
      return;
    }
    session_.report().Event("dead letter not stored",
                            {{"subject", options_.dead_letter}, {"because", error.empty() ? "no such stream" : error}});
    GiveBack(item, kLastPauseMsec);
  }

  // The cluster redelivers messages of which it hears nothing for the time of --ack-wait. Reports progress on all
  // messages three times as often.
  void TellProgress(int64_t now) {
    next_progress_ = now + static_cast<int64_t>(options_.ack_wait * 1000 / 3);
    for (const auto* items : {&sent_, &held_}) {
      for (const Item& item : *items) session_.bus().Publish(natsMsg_GetReply(item.msg.get()), "+WPI");
    }
  }

  static Outlet* Of(MqUvNode* node) { return static_cast<Outlet*>(mq_uv_data(node)); }

  static constexpr MqUvEvents MakeEvents() {
    MqUvEvents events = {};
    events.on_open = [](MqUvNode* node) { Of(node)->OnOpen(); };
    events.on_message = [](MqUvNode* node, PcfMessage* msg) { Of(node)->OnAnswer(msg); };
    events.on_end = [](MqUvNode* node, int code, const char* why) { Of(node)->OnEnd(code, why); };
    return events;
  }
  static const MqUvEvents kEvents;

  const OutOptions& options_;
  Form form_;
  SockAddrRec place_;
  std::string peer_;  // its address
  Session session_;
  mqcat::MessagePtr message_;
  std::optional<Puller> puller_;  // with --durable
  MqUvNode* node_ = nullptr;
  bool is_open_ = false;
  std::deque<Item> held_;  // not sent to the peer yet
  std::deque<Item> sent_;  // sent, not answered, in order
  size_t dying_ = 0;       // being stored under the dead-letter subject
  int64_t next_connect_ = 0, next_progress_ = 0, reached_ = mq_clock(), pause_ = kFirstPauseMsec;
};

const MqUvEvents Outlet::kEvents = Outlet::MakeEvents();

void CheckOptions(OutOptions& options) {
  const auto refuse = [](const std::string& why) { throw mqcat::Failure{mqcat::kExitUsage, why}; };
  if (options.durable.empty() == options.queue.empty()) refuse("one of --durable and --queue is needed");
  if (options.durable.empty()) return;
  if (SubjectToken(options.durable) != options.durable) {
    refuse("--durable " + options.durable + ": letters, digits, '-' and '_' only");
  }
  if (options.dead_letter.empty()) options.dead_letter = "dead." + options.durable;
  if (!IsSubject(options.dead_letter)) refuse("--dead-letter " + options.dead_letter + ": not a subject");
  if (Matches(options.subject, options.dead_letter)) {
    refuse("dead letters to " + options.dead_letter + " would come back: " + options.subject + " includes it");
  }
}

}  // namespace

void RunOut(const OutOptions& given) {
  OutOptions options = given;
  CheckOptions(options);
  Outlet(options).Run();
}

}  // namespace mqbridge
