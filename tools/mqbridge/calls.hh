// calls.hh - questions to the cluster and their answers, without waiting: requests to workers, messages to be stored,
// the interface of JetStream. Each has a deadline.
//
// A call that may be repeated is published again until it is answered: after two seconds, after a reconnect, and while
// the cluster has no responder (a stream without a leader looks like that) or says that it is busy. Such a message must
// carry a Nats-Msg-Id, or be one that does no harm the second time. Others are published once: if the connection is
// lost behind them, it is not known whether somebody has worked on them.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "bus.hh"
#include "report.hh"

namespace mqbridge {

// Why JetStream refuses; empty if it does not. The answer to a message that is not stored may have a stream and a
// sequence beside the error.
std::string ErrorOf(const Json& answer);

enum class Outcome { kAnswered, kNoResponder, kTimeOver, kRefused };

enum class Repeat { kNo, kYes };

class Calls {
 public:
  // msg: the answer. why: for a person, with other outcomes. Runs from the loop, once for each call, and never from
  // within Start.
  using Done = std::function<void(Outcome outcome, NatsMsg msg, const std::string& why)>;

  Calls(Bus& bus, Report& report) : bus_(bus), report_(report), inbox_(Bus::Inbox()) {}

  // Once, when the bus has connected.
  void Open();

  void Start(const std::string& subject, std::string_view body, const Headers& headers, double timeout, Repeat repeat,
             Done done);

  // The connection is there again.
  void Reconnected();
  // Ten times a second.
  void Tick(int64_t now);

  size_t count() const { return calls_.size(); }

 private:
  struct Call {
    NatsMsg msg;
    Done done;
    int64_t deadline;
    int64_t due;  // the next look at it
    Repeat repeat;
    bool published = false;
    Outcome outcome = Outcome::kTimeOver;  // if nothing else happens
    std::string why;
  };
  using Table = std::unordered_map<uint64_t, Call>;

  void Publish(uint64_t id, Call& call);
  void LookAgain(uint64_t id, Call& call, int64_t at);
  void OnAnswer(NatsMsg msg);
  void Finish(Table::iterator place, Outcome outcome, NatsMsg msg, const std::string& why);

  Bus& bus_;
  Report& report_;
  std::string inbox_;
  uint64_t last_ = 0;
  Table calls_;
  std::set<std::pair<int64_t, uint64_t>> due_;  // of all calls: due, id
};

}  // namespace mqbridge
