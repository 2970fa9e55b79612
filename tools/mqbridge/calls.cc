// calls.cc - see calls.hh. Invariant: due_ has exactly one entry for each call.
#include "calls.hh"

#include <algorithm>
#include <vector>

#include "mqcat/number.hh"
#include "mqnode/finish.h"

namespace mqbridge {
namespace {

constexpr int64_t kRepeatMsec = 2000;
constexpr int64_t kBusyMsec = 250;
constexpr int kMostUnsent = 1 << 20;
constexpr size_t kLongestError = 1000;  // bytes of an answer that is searched for an error

// True for a temporary error of the cluster: its code is 503.
bool IsBusy(std::string_view body) {
  if (body.size() > kLongestError || body.find("\"error\"") == std::string_view::npos) return false;
  const Json json = Json::parse(body, nullptr, false);
  if (!json.is_object() || !json.contains("error") || !json["error"].is_object()) return false;
  return json["error"].value("code", Json()) == 503;
}

}  // namespace

std::string ErrorOf(const Json& answer) {
  if (!answer.is_object()) return "not an answer of JetStream";
  if (!answer.contains("error")) return "";
  const Json& error = answer["error"];
  const Json text = error.is_object() ? error.value("description", Json()) : Json();
  return text.is_string() ? text.get<std::string>() : error.dump();
}

void Calls::Open() {
  bus_.Subscribe(inbox_ + ".*", "", [this](NatsMsg msg) { OnAnswer(std::move(msg)); });
}

void Calls::Start(const std::string& subject, std::string_view body, const Headers& headers, double timeout,
                  Repeat repeat, Done done) {
  const uint64_t id = ++last_;
  const int64_t now = mq_clock();
  Call call{MakeMsg(subject, inbox_ + "." + std::to_string(id), body, headers),
            std::move(done),
            now + static_cast<int64_t>(timeout * 1000),
            now,
            repeat,
            false,
            Outcome::kTimeOver,
            ""};
  Call& placed = calls_.emplace(id, std::move(call)).first->second;
  due_.emplace(placed.due, id);
  Publish(id, placed);
}

void Calls::LookAgain(uint64_t id, Call& call, int64_t at) {
  due_.erase({call.due, id});
  call.due = std::min(at, call.deadline);
  due_.emplace(call.due, id);
}

void Calls::Publish(uint64_t id, Call& call) {
  const int64_t now = mq_clock();
  LookAgain(id, call, call.repeat == Repeat::kYes ? now + kRepeatMsec : call.deadline);
  if (!bus_.up()) {
    call.why = "the cluster is away";
    return;
  }
  const natsStatus status = bus_.Publish(call.msg.get());
  if (status == NATS_OK) {
    if (call.published) ++report_[Count::kResent];
    call.published = true;
    call.why = "no answer in time";
  } else if (status == NATS_MAX_PAYLOAD || status == NATS_INVALID_SUBJECT || status == NATS_NO_SERVER_SUPPORT) {
    call.outcome = Outcome::kRefused;  // reported at the next tick
    call.why = natsStatus_GetText(status);
    LookAgain(id, call, call.deadline = now);
  } else {
    call.why = natsStatus_GetText(status);
  }
}

void Calls::Reconnected() {
  std::vector<uint64_t> again;
  for (const auto& [id, call] : calls_) {
    if (call.repeat == Repeat::kYes || !call.published) again.push_back(id);
  }
  std::sort(again.begin(), again.end());  // in their original order
  for (const uint64_t id : again) Publish(id, calls_.at(id));
}

void Calls::Tick(int64_t now) {
  while (!due_.empty() && due_.begin()->first <= now) {
    const auto place = calls_.find(due_.begin()->second);
    Call& call = place->second;
    if (now >= call.deadline) {
      Finish(place, call.outcome, nullptr, std::string(call.why));
    } else if (call.published && bus_.buffered() > kMostUnsent) {
      LookAgain(place->first, call, now + kRepeatMsec);  // the socket is full, and the first copy may be in front of it
    } else {
      Publish(place->first, call);
    }
  }
}

void Calls::OnAnswer(NatsMsg msg) {
  const std::string_view subject = natsMsg_GetSubject(msg.get());
  const auto id = mqcat::ParseNumber<uint64_t>(subject.substr(subject.rfind('.') + 1), 1, UINT64_MAX);
  const auto place = id ? calls_.find(*id) : calls_.end();
  if (place == calls_.end()) return;  // a second answer, or a late one
  Call& call = place->second;
  const bool no_responder = natsMsg_IsNoResponders(msg.get());
  if (call.repeat == Repeat::kYes && (no_responder || IsBusy(BodyOf(msg.get())))) {
    call.outcome = no_responder ? Outcome::kNoResponder : Outcome::kTimeOver;
    call.why = no_responder ? "nothing stores this subject, or its stream has no leader" : "the cluster is busy";
    return LookAgain(place->first, call, mq_clock() + kBusyMsec);
  }
  if (no_responder) return Finish(place, Outcome::kNoResponder, nullptr, "nobody answers on this subject");
  Finish(place, Outcome::kAnswered, std::move(msg), "");
}

void Calls::Finish(Table::iterator place, Outcome outcome, NatsMsg msg, const std::string& why) {
  due_.erase({place->second.due, place->first});
  const Done done = std::move(place->second.done);
  calls_.erase(place);
  done(outcome, std::move(msg), why);
}

}  // namespace mqbridge
