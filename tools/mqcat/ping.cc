// ping.cc - mqcat ping: round trips of messages to a node that sends them back.
#include <unistd.h>

#include <cmath>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "link.hh"
#include "message.hh"
#include "options.hh"
#include "output.hh"
#include "rtt.hh"
#include "signals.hh"
#include "text.hh"
#include "trace.hh"

namespace mqcat {
namespace {

// A ping: this command, with the ping's number, its sender and filling as parameters.
constexpr uint32_t kPingCommand = 0x50494e47;
constexpr uint32_t kNumberId = 1;
constexpr uint32_t kOwnerId = 2;
constexpr uint32_t kFillId = 3;
constexpr uint32_t kMostFill = 16u << 20;

struct Options {
  std::vector<std::string> peer;
  uint64_t count = UINT64_MAX;
  double interval = 1;
  uint32_t size = 56;
  double deadline = 0;  // 0: none
  double timeout = 1;
  bool quiet = false;
  bool json = false;
  bool udp = false;
  bool trace = false;
  KeyOptions keys;
};

// For JSON: whole nanoseconds, so that figures have only significant digits.
double Rounded(double milliseconds) { return std::round(milliseconds * 1e6) / 1e6; }

double MillisecondsSince(Clock::time_point then) {
  return std::chrono::duration<double, std::milli>(Clock::now() - then).count();
}

class Pinger {
 public:
  explicit Pinger(const Options& options)
      : options_(options),
        security_(LoadSecurity(options.keys)),
        link_(AddressOf(options), TransportOf(options), In(std::max(options.timeout, 1.0))),
        msg_(NewMessage()),
        answer_(NewMessage()),
        fill_(options.size, 0xa5),
        owner_(static_cast<int64_t>(getpid()) << 32 ^ Clock::now().time_since_epoch().count()) {
    link_.Use(&security_);
    if (options.keys.sign.empty()) link_.set_user(options.keys.user);
  }

  void Run() {
    if (!options_.json) Print(fmt::format("PING {} with {} bytes\n", link_.target(), options_.size));
    const auto end = options_.deadline > 0 ? In(options_.deadline) : Clock::time_point::max();
    auto next = Clock::now();
    while (!Interrupted() && Clock::now() < end && !Done()) {
      if (sent_ < options_.count && Clock::now() >= next) {
        Send();
        next += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options_.interval));
        next = std::max(next, Clock::now() - std::chrono::seconds(1));
      }
      Receive(NextMoment(next, end));
      Forget();
    }
  }

  // The connection has ended: outstanding answers will not come.
  void Fail() { waiting_.clear(); }

  void Finish() {
    Flush();
    options_.json ? PrintJsonSummary() : PrintSummary();
    Flush();
  }

  // As ping does: 0 if something came back; with both count and deadline only if everything did.
  ExitCode Result() const {
    const bool all = options_.deadline > 0 && options_.count != UINT64_MAX;
    return trips_.count() == 0 || (all && trips_.count() < options_.count) ? kExitTimeout : kExitOk;
  }

 private:
  static Transport TransportOf(const Options& options) { return options.udp ? Transport::kUdp : Transport::kTcp; }
  static SockAddrRec AddressOf(const Options& options) {
    const Place peer = ParsePlace(options.peer, true);
    return MakeAddress(peer.host, peer.service, TransportOf(options));
  }

  bool Done() const { return sent_ >= options_.count && waiting_.empty(); }

  // At an interval of 0, the next ping goes out when the last one came back or was lost.
  Clock::time_point NextMoment(Clock::time_point next, Clock::time_point end) const {
    Clock::time_point moment = end;
    const bool flood = options_.interval == 0 && !waiting_.empty();
    if (sent_ < options_.count && !flood) moment = std::min(moment, next);
    if (!waiting_.empty()) moment = std::min(moment, waiting_.begin()->second + Timeout());
    return moment;
  }

  Clock::duration Timeout() const {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options_.timeout));
  }

  void Send() {
    BeginMessage(msg_.get(), kPingCommand);
    const int built = mqc_add_int64(msg_.get(), kNumberId, static_cast<int64_t>(sent_)) &&
                      mqc_add_int64(msg_.get(), kOwnerId, owner_) &&
                      mqc_add_bytes(msg_.get(), kFillId, fill_.data(), static_cast<uint32_t>(fill_.size()));
    if (!built)
      throw Failure{kExitInput, fmt::format("ping of {} bytes: {}", fill_.size(), mqc_message_error(msg_.get()))};
    const auto now = Clock::now();
    link_.Write(msg_.get(), In(std::max(options_.timeout, 1.0)));
    waiting_[sent_++] = now;
  }

  // Receives answers until the given time; at an interval of 0 until one has arrived.
  void Receive(Clock::time_point moment) {
    while (link_.Read(answer_.get(), moment)) {
      Take();
      if (Done() || options_.interval == 0 || Interrupted()) return;
    }
  }

  void Take() {
    MqcParam number, owner;
    const bool ours = mqc_command(answer_.get()) == kPingCommand && mqc_find(answer_.get(), kNumberId, &number) &&
                      mqc_find(answer_.get(), kOwnerId, &owner) && owner.number == owner_;
    if (!ours) {
      ++strange_;
      return;
    }
    const auto sequence = static_cast<uint64_t>(number.number);
    const auto place = waiting_.find(sequence);
    if (place == waiting_.end()) {
      ++late_;
      return;
    }
    const double time = MillisecondsSince(place->second);
    waiting_.erase(place);
    trips_.Add(time);
    if (options_.quiet || options_.json) return;
    Print(
        fmt::format("{} bytes from {}: seq={} time={:.3f} ms\n", answer_->raw.length, link_.target(), sequence, time));
    Flush();
  }

  // Pings without an answer within the timeout are lost.
  void Forget() {
    const auto now = Clock::now();
    while (!waiting_.empty() && now - waiting_.begin()->second >= Timeout()) {
      if (!options_.quiet && !options_.json) {
        Print(fmt::format("no answer from {} within {} s: seq={}\n", link_.target(), options_.timeout,
                          waiting_.begin()->first));
        Flush();
      }
      waiting_.erase(waiting_.begin());
    }
  }

  // Pings that are still on their way at the end are not counted as lost.
  uint64_t Counted() const { return sent_ - waiting_.size(); }
  double Loss() const {
    return Counted() == 0 ? 0
                          : 100.0 * static_cast<double>(Counted() - trips_.count()) / static_cast<double>(Counted());
  }

  void PrintSummary() const {
    Print(fmt::format("\n--- {} ping statistics ---\n", link_.target()));
    const std::string under_way = waiting_.empty() ? "" : fmt::format(", {} on the way", waiting_.size());
    Print(fmt::format("{} sent, {} answered{}, {:.4g}% loss, time {:.0f} ms\n", sent_, trips_.count(), under_way,
                      Loss(), MillisecondsSince(start_)));
    if (late_ + strange_ != 0) Print(fmt::format("{} late or duplicate, {} of others\n", late_, strange_));
    if (trips_.count() == 0) return;
    const std::string text = fmt::format(
        "rtt min/avg/max/stddev = {:.3f}/{:.3f}/{:.3f}/{:.3f} ms\nrtt p50/p90/p99 = {:.3f}/{:.3f}/{:.3f} ms\n",
        trips_.min(), trips_.mean(), trips_.max(), trips_.deviation(), trips_.Percentile(50), trips_.Percentile(90),
        trips_.Percentile(99));
    const size_t width = OutputWidth();
    Print(Wrap(text, width) + trips_.HistogramText(width > 62 ? 40 : width > 23 ? width - 22 : 1));
  }

  void PrintJsonSummary() const {
    Json json = {{"peer", link_.target()},
                 {"sent", sent_},
                 {"answered", trips_.count()},
                 {"lossPercent", Rounded(Loss())},
                 {"late", late_},
                 {"ofOthers", strange_},
                 {"timeMs", Rounded(MillisecondsSince(start_))}};
    if (trips_.count() != 0) {
      json["rttMs"] = {{"min", Rounded(trips_.min())},          {"avg", Rounded(trips_.mean())},
                       {"max", Rounded(trips_.max())},          {"stddev", Rounded(trips_.deviation())},
                       {"p50", Rounded(trips_.Percentile(50))}, {"p90", Rounded(trips_.Percentile(90))},
                       {"p99", Rounded(trips_.Percentile(99))}};
      json["histogram"] = Json::array();
      for (const auto& bucket : trips_.Histogram()) {
        json["histogram"].push_back(
            {{"fromMs", Rounded(bucket.from)}, {"toMs", Rounded(bucket.to)}, {"count", bucket.count}});
      }
    }
    Print(json.dump() + "\n");
  }

  const Options& options_;
  Security security_;
  Link link_;
  MessagePtr msg_;
  MessagePtr answer_;
  std::vector<uint8_t> fill_;
  int64_t owner_;
  std::map<uint64_t, Clock::time_point> waiting_;  // by number, when it was sent
  RoundTrips trips_;
  uint64_t sent_ = 0;
  uint64_t late_ = 0;
  uint64_t strange_ = 0;
  Clock::time_point start_ = Clock::now();
};

ExitCode RunPing(const Options& options) {
  CatchSignals();
  if (options.trace) StartTrace();
  Pinger pinger(options);
  try {
    pinger.Run();
  } catch (const Failure& failure) {
    pinger.Fail();
    if (failure.code != kExitOutput && failure.code != kExitOutputClosed) pinger.Finish();
    throw;
  }
  pinger.Finish();
  return pinger.Result();
}

}  // namespace

void AddPing(CLI::App& app, ExitCode& exit) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("ping", "Measure round trips to a node that sends messages back");
  AddPeer(*command, options->peer);
  AddNumber<uint64_t>(*command, "-c,--count", options->count, 1, UINT64_MAX, "Stop after this many pings");
  AddSeconds(*command, "-i,--interval", options->interval, 0, 86400,
             "Time between two pings; 0: send each ping when the previous one has returned");
  AddNumber<uint32_t>(*command, "-s,--size", options->size, 0, kMostFill, "Bytes of data in a ping");
  AddSeconds(*command, "-w,--deadline", options->deadline, 0.001, 86400 * 365.0, "Stop after this time");
  AddSeconds(*command, "-W,--timeout", options->timeout, 0.001, 86400, "Count a ping as lost after this time");
  AddKeyOptions(*command, options->keys, "Sign with the secret key in this file",
                "Accept only answers that are signed by a user in this ring",
                "Name this user as the sender, instead of your login name; with --sign, the user whose key to take");
  AddSealTo(*command, options->keys);
  command->add_flag("-q,--quiet", options->quiet, "Print only the summary");
  command->add_flag("--json", options->json, "Print only the summary, as one JSON object");
  command->add_flag("--udp", options->udp, "Send datagrams");
  command->add_flag("-v,--trace", options->trace, "Print every step of the connection on standard error");
  command->footer(
      "mqcat listen --echo sends messages back. Ctrl-C ends ping with the summary. The exit code is 5 if no ping was "
      "answered; with both --count and --deadline, also if any ping was not answered.\n\n"
      "Examples:\n  mqcat ping 127.0.0.1:5000\n  mqcat ping 127.0.0.1:5000 -c 1000 -i 0 -s 4096 -q");
  command->callback([options, &exit] { exit = RunPing(*options); });
}

}  // namespace mqcat
