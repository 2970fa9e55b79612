// exchange.cc - the honest clients.
#include "tests/hostile/exchange.hh"

#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>

#include "examples/example.h"
#include "mqnode/mqnode.hpp"
#include "tests/hostile/peer.hh"

namespace hostile {
namespace {

using namespace mqnode;

constexpr int kPatienceSeconds = 20;    // for a connection, for an answer: any machine, however busy, is faster
constexpr int kDatagramPause = 200000;  // microseconds until a datagram is sent again
constexpr useconds_t kSteadyPause = 500;
constexpr useconds_t kNewcomerPause = 50000;

// One connection, and the questions over it.
class Client {
 public:
  Client(int port, Kind kind)
      : kind_(kind),
        server_("127.0.0.1", std::to_string(port), kind == kDatagrams ? "udp" : "tcp"),
        node_(kind == kDatagrams ? Node::datagram({"127.0.0.1", "0", "udp"}) : Node::connector(server_)) {
    const timeval patience = {kind == kDatagrams ? 0 : kPatienceSeconds, kDatagramPause};
    setsockopt(node_.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(node_.descriptor(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (kind == kSigned) snprintf(node_.record().user, sizeof node_.record().user, "%s", kHonest);
    if (kind == kDatagrams) return;
    if (const Result opened = node_.open(); !opened) Fail("connect", opened);
  }

  // Empty, or why there was no right answer; the same for ever after.
  const std::string& Ask(uint64_t number) {
    if (!why_.empty()) return why_;
    const std::string text = fmt::format("question {:0>200}", number);
    const int tries = kind_ == kDatagrams ? kPatienceSeconds * 1000000 / kDatagramPause : 1;
    for (int i = 0; i < tries; ++i) {
      if (!msg_.begin(COMMAND_ASK) || !msg_.add(PARAM_TEXT, text)) return why_ = "no memory";
      if (const Result sent = Write(); !sent) {
        Fail("write", sent);
      } else if (const Result got = ReadAnswer(text); got) {
        return why_;
      } else if (kind_ != kDatagrams || !got.again()) {
        Fail("read", got);
      }
      if (!why_.empty()) return why_;
    }
    return why_ = "no answer";
  }

 private:
  Result Write() {
    if (kind_ == kDatagrams) return node_.write_to(msg_, server_);
    return kind_ == kSigned ? node_.write_signed(msg_, signer_) : node_.write(msg_);
  }

  // A datagram may be the answer to an earlier question.
  Result ReadAnswer(const std::string& text) {
    for (;;) {
      const Result got = node_.read(msg_);
      if (!got || msg_.text_or(PARAM_TEXT, "") == text) return got;
      if (kind_ == kDatagrams) continue;
      why_ = "a wrong answer";
      return got;
    }
  }

  void Fail(const char* doing, const Result& result) { why_ = fmt::format("{}: {}", doing, result.name()); }

  const Kind kind_;
  Address server_;
  Node node_;
  Signer signer_{mqc_signer_new(kHonest, SeedOf(kHonest).data(), nullptr, 0)};
  Message msg_ = Message::create();
  std::string why_;
};

}  // namespace

Exchange::Exchange(int port, const Target& target, Kind kind)
    : port_(port), target_(target), kind_(kind), thread_([this] { Run(); }) {}

Exchange::~Exchange() {
  stop_ = true;
  thread_.join();
}

Trips Exchange::Take() {
  const std::lock_guard lock(tallying_);
  return std::exchange(trips_, Trips{});
}

uint64_t Exchange::Answers() {
  const std::lock_guard lock(tallying_);
  return trips_.times.total;
}

void Exchange::Pause() { asking_.lock(); }

void Exchange::Run() {
  using Clock = std::chrono::steady_clock;
  std::unique_ptr<Client> client;
  for (uint64_t number = 0; !stop_; ++number) {
    {
      const std::lock_guard asking(asking_);
      const auto began = Clock::now();
      if (client == nullptr || kind_ == kNewcomer) client = std::make_unique<Client>(port_, target_.kind);
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
