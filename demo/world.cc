#include "demo/world.hh"

#include <fmt/format.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <sstream>

#include "demo/arena.hh"
#include "demo/child.hh"
#include "demo/clients.hh"
#include "demo/report.hh"
#include "demo/server.hh"

namespace demo {
namespace {

constexpr double kStartSeconds = 40;  // limit for listening and for connecting
constexpr double kEndSeconds = 60;    // limit for the last answers, after the time of the questions
constexpr double kAloneShare = 0.5;   // of the time of the questions: before the rogues come
constexpr size_t kSpareGuests = 64;
constexpr double kPatience = 2, kPatienceInSoak = 10;  // of the server, seconds

// Datagrams that the system has dropped because a socket was full.
uint64_t LostBySystem() {
  std::ifstream table("/proc/net/snmp");
  for (std::string names, values; std::getline(table, names) && std::getline(table, values);) {
    std::istringstream name(names), value(values);
    for (std::string n, v; name >> n && value >> v;) {
      if (names.starts_with("Udp:") && n == "RcvbufErrors") return std::stoull(v);
    }
  }
  return 0;
}

std::vector<Remark> RemarksIn(const std::string& log) {
  std::vector<Remark> remarks;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    const size_t port = line.find(':'), why = line.find(": ");
    if (why != std::string::npos) remarks.push_back({atoi(line.c_str() + port + 1), line.substr(why + 2)});
  }
  return remarks;
}

class World {
 public:
  explicit World(const Options& options) : options_(options), shared_(outcome_.shared.get()) {}

  Outcome Run() {
    const uint64_t lost = LostBySystem();
    Stages();
    if (const std::string failure = children_[0].Stop(); !failure.empty()) Problem(failure);
    outcome_.remarks = RemarksIn(children_[0].Log());
    children_.clear();
    ShowProgress("");
    outcome_.lostBySystem = LostBySystem() - lost;
    if (shared_->go || !outcome_.interrupted) Judge(options_, &outcome_);
    return std::move(outcome_);
  }

 private:
  void Problem(const std::string& text) { outcome_.problems.push_back(text); }

  void Stages() {
    const Limits limits{options_.clients + kSpareGuests, options_.soak ? kPatienceInSoak : kPatience, UINT32_MAX};
    children_.emplace_back(
        "server", [&] { return RunServer(shared_, options_.seed, keys_, limits, options_.engine); }, true);
    if (!WaitFor("the server listens", kStartSeconds, [this] { return shared_->ready.load(); })) return;
    const double connecting = Now();
    StartClients();
    const auto connected = [this] {
      uint32_t count = 0;
      for (const Process& worker : shared_->workers) count += worker.connected;
      return count == options_.clients;
    };
    if (!WaitFor("all clients are connected", kStartSeconds, connected)) return;
    const double began = Now();
    outcome_.connecting = began - connecting;
    const bool hasRogues = !options_.honestOnly && !options_.soak;
    shared_->phase = hasRogues ? kBefore : kDuring;
    shared_->go = true;
    const auto ended = [this] {
      return std::all_of(children_.begin() + 1, children_.end(), [](Child& child) { return child.HasEnded(); });
    };
    if (hasRogues) {
      const double end = began + kAloneShare * options_.seconds;
      const auto over = [&] { return Now() >= end || IsInterrupted() || ended(); };
      if (!WaitFor("honest clients alone", options_.seconds + kEndSeconds, over)) return;
      shared_->phase = kDuring;
      outcome_.alone = Now() - began;
      if (!IsInterrupted()) StartRogues();
    }
    WaitFor("all clients have ended", options_.seconds + kEndSeconds, ended);
  }

  void StartClients() {
    for (uint32_t process = 0; process < options_.processes; ++process) {
      Crowd crowd{shared_, process, options_.seed, {}, options_.seconds};
      for (uint32_t client = process; client < options_.clients; client += options_.processes) {
        crowd.clients.push_back(client);
      }
      crowd.messages = options_.messages;
      crowd.pause = options_.rate != 0 ? options_.clients / options_.rate : 0;
      crowd.server = children_[0].pid();
      crowd.chaos = options_.soak;
      if (options_.soak) crowd.seconds = std::clamp(options_.seconds / 10, 0.5, 30.0);
      if (options_.soak) crowd.until = Now() + options_.seconds;
      children_.emplace_back(fmt::format("client process {}", process + 1), [&] { return RunClients(crowd, keys_); });
    }
  }

  void StartRogues() {
    outcome_.hasRogues = true;
    Seen* seen = shared_->rogues;
    for (const Peer& peer : Peers()) {
      if (peer.does == nullptr) continue;
      children_.emplace_back(fmt::format("rogue that {}", peer.does), [&] {
        Sleep(0.03 * static_cast<double>(seen - shared_->rogues));
        Arena arena(peer, keys_, shared_->ports[peer.port], 0, true, nullptr);
        peer.act(arena);
        *seen = arena.seen;
        return 0;
      });
      ++seen;
    }
  }

  // False if a child failed, the time is over, or a signal came before all clients were connected. A later signal only
  // makes the clients finish.
  bool WaitFor(const char* what, double seconds, const std::function<bool()>& done) {
    for (const double end = Now() + seconds;; Sleep(0.02)) {
      for (Child& child : children_) {
        if (child.HasEnded() && !child.Failure().empty()) Problem(child.Failure());
      }
      if (children_[0].HasEnded()) Problem("the server ended before it was asked to");
      if (IsInterrupted()) outcome_.interrupted = shared_->stop = true;
      if (IsInterrupted() && !shared_->go) return false;
      if (Now() > end) Problem(fmt::format("{}: not within {} seconds", what, seconds));
      if (!outcome_.problems.empty()) return false;
      if (done()) return true;
      ShowProgress(fmt::format("{:5.1f} s  {} connections  {} messages  {} dropped", Now() - beganAt_,
                               shared_->server.connected.load(), shared_->server.messages.load(),
                               shared_->server.dropped.load()));
    }
  }

  const Options& options_;
  Outcome outcome_;
  Shared* const shared_;
  const Keys keys_ = MakeKeys();
  std::deque<Child> children_;  // the server first
  const double beganAt_ = Now();
};

}  // namespace

Outcome RunWorld(const Options& options) { return World(options).Run(); }

}  // namespace demo
