// exchange.cc - the honest clients.
#include "tests/hostile/exchange.hh"

#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

#include "examples/example.h"
#include "mqnode/mqnode.hpp"

namespace hostile {
namespace {

using namespace mqnode;

constexpr int kPatienceSeconds = 20;  // for a connection, for an answer: any machine, however busy, is faster
constexpr useconds_t kSteadyPause = 500;
constexpr useconds_t kNewcomerPause = 50000;

// One connection, and the questions over it.
class Client {
 public:
  explicit Client(int port) : node_(Node::connector({"127.0.0.1", std::to_string(port)})) {
    const timeval patience = {kPatienceSeconds, 0};
    setsockopt(node_.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(node_.descriptor(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (const Result opened = node_.open(); !opened) Fail("connect", opened);
  }

  // Empty, or why there was no right answer; the same for ever after.
  const std::string& Ask(uint64_t number) {
    if (!why_.empty()) return why_;
    const std::string text = fmt::format("question {:0>200}", number);
    if (!msg_.begin(COMMAND_ASK) || !msg_.add(PARAM_TEXT, text)) why_ = "no memory";
    if (const Result sent = node_.write(msg_); !sent) {
      Fail("write", sent);
    } else if (const Result got = node_.read(msg_); !got) {
      Fail("read", got);
    } else if (msg_.command() != COMMAND_ANSWER || msg_.text_or(PARAM_TEXT, "") != text) {
      why_ = fmt::format("a wrong answer to question {}", number);
    }
    return why_;
  }

 private:
  void Fail(const char* doing, const Result& result) { why_ = fmt::format("{}: {}", doing, result.name()); }

  Node node_;
  Message msg_ = Message::create();
  std::string why_;
};

}  // namespace

Exchange::Exchange(int port, Kind kind) : port_(port), kind_(kind), thread_([this] { Run(); }) {}

Exchange::~Exchange() {
  stop_ = true;
  thread_.join();
}

Trips Exchange::Take() {
  const std::lock_guard lock(tallying_);
  return std::exchange(trips_, Trips{});
}

void Exchange::Pause() { asking_.lock(); }

void Exchange::Run() {
  using Clock = std::chrono::steady_clock;
  std::unique_ptr<Client> client;
  for (uint64_t number = 0; !stop_; ++number) {
    {
      const std::lock_guard asking(asking_);
      const auto began = Clock::now();
      if (client == nullptr || kind_ == kNewcomer) client = std::make_unique<Client>(port_);
      const std::string& why = client->Ask(number);
      const auto time = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began);
      const std::lock_guard tallying(tallying_);
      if (why.empty()) trips_.times.Add(static_cast<uint64_t>(time.count()));
      if (!why.empty() && trips_.failures++ == 0) trips_.firstFailure = why;
      if (kind_ == kNewcomer) client.reset();
    }
    usleep(kind_ == kSteady ? kSteadyPause : kNewcomerPause);
  }
}

}  // namespace hostile
