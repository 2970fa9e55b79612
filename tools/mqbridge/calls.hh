// calls.hh - asynchronous calls to the cluster, each with a deadline: requests to workers, messages to store, requests
// to JetStream.
//
// A repeatable call is published again until it is answered: after two seconds, after a reconnect, and while the
// cluster has no responder (as for a stream without a leader) or says that it is busy. Such a message must carry a
// Nats-Msg-Id or do no harm when repeated. Other calls are published once: if the connection is lost afterwards, it is
// not known whether a worker has processed them.
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
  // msg: the answer. why: for users, with other outcomes. Called once for each call, from the loop, never from within
  // Start.
  using Done = std::function<void(Outcome outcome, NatsMsg msg, const std::string& why)>;

  Calls(Bus& bus, Report& report) : bus_(bus), report_(report), inbox_(Bus::Inbox()) {}

  // Called once, when the bus has connected.
  void Open();

  void Start(const std::string& subject, std::string_view body, const Headers& headers, double timeout, Repeat repeat,
             Done done);

  // Called after a reconnect.
  void Reconnected();
  // Called ten times a second.
  void Tick(int64_t now);

  size_t count() const { return calls_.size(); }

 private:
  struct Call {
    NatsMsg msg;
    Done done;
    int64_t deadline;
    int64_t due;  // time of the next tick that handles it
    Repeat repeat;
    bool published = false;
    Outcome outcome = Outcome::kTimeOver;  // unless something else happens
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
