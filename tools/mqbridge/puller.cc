// puller.cc - see puller.hh.
#include "puller.hh"

#include <string_view>
#include <vector>

#include "fmt/format.h"
#include "mqcat/number.hh"
#include "mqnode/finish.h"

namespace mqbridge {
namespace {

constexpr double kCallTimeout = 5;
constexpr int64_t kPrepareEveryMsec = 1000;
constexpr int64_t kFetchMsec = 10000;
constexpr int64_t kNoLeaderMsec = 250;
constexpr int64_t kNanoseconds = 1000000;  // per millisecond

struct AckSubject {
  std::string_view stream, delivered, sequence;
};

// $JS.ACK.STREAM.CONSUMER.DELIVERED.SEQUENCE...., or with domain and account after ACK.
AckSubject ParseAck(const natsMsg* msg) {
  const char* const reply = natsMsg_GetReply(msg);
  std::vector<std::string_view> tokens;
  for (std::string_view rest = reply != nullptr ? reply : ""; !rest.empty();) {
    const size_t dot = std::min(rest.find('.'), rest.size());
    tokens.push_back(rest.substr(0, dot));
    rest.remove_prefix(std::min(dot + 1, rest.size()));
  }
  const size_t at = tokens.size() >= 11 ? 4 : 2;
  if (tokens.size() < 9) return {};
  return {tokens[at], tokens[at + 2], tokens[at + 3]};
}

}  // namespace

Puller::Puller(const OutOptions& options, Session& session, Bus::OnMessage fn)
    : options_(options), session_(session), fn_(std::move(fn)), inbox_(Bus::Inbox()), stream_(options.stream) {}

uint64_t Puller::DeliveriesOf(const natsMsg* msg) {
  return mqcat::ParseNumber<uint64_t>(ParseAck(msg).delivered, 1, UINT64_MAX).value_or(1);
}

std::string Puller::NameOf(const natsMsg* msg) {
  const AckSubject ack = ParseAck(msg);
  return fmt::format("{}/{}", ack.stream, ack.sequence);
}

void Puller::Begin() {
  session_.bus().Subscribe(inbox_ + ".*", "", [this](NatsMsg msg) { OnMessage(std::move(msg)); });
}

void Puller::FindStream() {
  is_preparing_ = true;
  session_.calls().Start("$JS.API.STREAM.NAMES", Json({{"subject", options_.subject}}).dump(), {}, kCallTimeout,
                         Repeat::kYes, [this](Outcome, NatsMsg msg, const std::string& why) {
                           const Json answer = msg ? Json::parse(BodyOf(msg.get()), nullptr, false) : Json();
                           std::string failure = msg ? ErrorOf(answer) : why;
                           const bool found = failure.empty() && answer.contains("streams") &&
                                              answer["streams"].is_array() && !answer["streams"].empty();
                           if (found) stream_ = answer["streams"][0].get<std::string>();
                           if (!found && failure.empty()) failure = "no stream has this subject";
                           OnPrepared("stream of " + options_.subject, failure);
                         });
}

void Puller::CreateConsumer() {
  is_preparing_ = true;
  const Json request = {{"stream_name", stream_},
                        {"config",
                         {{"durable_name", options_.durable},
                          {"deliver_policy", "all"},
                          {"ack_policy", "explicit"},
                          {"ack_wait", static_cast<int64_t>(options_.ack_wait * 1e9)},
                          {"max_deliver", -1},  // the bridge counts, to store dead letters with a reason
                          {"filter_subject", options_.subject},
                          {"replay_policy", "instant"}}}};
  session_.calls().Start(
      fmt::format("$JS.API.CONSUMER.DURABLE.CREATE.{}.{}", stream_, options_.durable), request.dump(), {}, kCallTimeout,
      Repeat::kYes, [this](Outcome, NatsMsg msg, const std::string& why) {
        const std::string failure = msg ? ErrorOf(Json::parse(BodyOf(msg.get()), nullptr, false)) : why;
        is_ready_ = failure.empty();
        OnPrepared(fmt::format("consumer {} of stream {}", options_.durable, stream_), failure);
      });
}

void Puller::OnPrepared(const std::string& what, const std::string& why) {
  is_preparing_ = false;
  if (why.empty()) {
    if (is_ready_) session_.report().Event("consuming", {{"stream", stream_}, {"durable", options_.durable}});
    return;
  }
  next_prepare_ = mq_clock() + kPrepareEveryMsec;
  if (why != last_failure_) session_.report().Event("waiting", {{"for", what}, {"because", why}});
  last_failure_ = why;
}

void Puller::Reconnected() { expected_ = 0; }

void Puller::Fetch(int64_t now, uint32_t space) {
  if (!is_ready_) {
    if (is_preparing_ || now < next_prepare_ || !session_.is_running()) return;
    return stream_.empty() ? FindStream() : CreateConsumer();
  }
  if (expected_ != 0 && now >= fetch_ends_) expected_ = 0;
  if (space == 0 || expected_ != 0 || now < next_fetch_ || !session_.bus().up()) return;
  const Json request = {{"batch", space}, {"expires", kFetchMsec * kNanoseconds}};
  const NatsMsg msg = MakeMsg(fmt::format("$JS.API.CONSUMER.MSG.NEXT.{}.{}", stream_, options_.durable),
                              fmt::format("{}.{}", inbox_, ++fetch_), request.dump());
  if (session_.bus().Publish(msg.get()) != NATS_OK) return;
  expected_ = space;
  fetch_ends_ = now + kFetchMsec + 1000;
}

void Puller::OnMessage(NatsMsg msg) {
  const std::string_view subject = natsMsg_GetSubject(msg.get());
  const bool is_status = subject.starts_with(inbox_);
  if (!is_status) {
    if (expected_ != 0) --expected_;
    return fn_(std::move(msg));
  }
  const std::string status = HeaderOf(msg.get(), "Status");
  if (!subject.ends_with("." + std::to_string(fetch_)) || status == "100") return;
  expected_ = 0;
  // 404 and 408: no messages; 409: the consumer is gone or has its limits; 503: no leader.
  if (status != "408") next_fetch_ = mq_clock() + kNoLeaderMsec;
  if (status == "409") is_ready_ = false;
}

}  // namespace mqbridge
