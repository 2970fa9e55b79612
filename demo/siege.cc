#include "demo/siege.hh"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "demo/arena.hh"
#include "demo/child.hh"
#include "demo/clients.hh"
#include "demo/report.hh"
#include "demo/server.hh"

namespace demo {
namespace {

constexpr double kCalmShare = 0.5;        // of an attack's duration: measurement of the honest clients before it
constexpr double kRestSeconds = 0.3;      // time over which the processor use of a server at rest is measured
constexpr double kRestShare = 0.2;        // of a processor
constexpr long kMostLines = 5000;         // in the log
constexpr long kMostPeakKb = 64 << 10;    // growth of the peak that an attack may cause
constexpr long kMostGrowthKb = 16 << 10;  // growth that may remain afterwards, in the heap
constexpr uint64_t kSeed = 1;
constexpr Limits kLimits = {1000, 4, 1000};
constexpr const char* kRing = "RING";
constexpr const char* kCluster = "CLUSTER";  // the address of a cluster in which something answers

const Target kTargets[] = {
    {"mqdemo", kPlain, nullptr, {}, Echo::kAll},
    {"mqdemo_signed", kSigned, nullptr, {}, Echo::kAll},
    {"mqdemo_udp", kDatagram, nullptr, {}, Echo::kAll},
#ifdef MQDEMO_UV
    {"uv_signed", kSigned, nullptr, {}, Echo::kAll, false, 0, "uv"},
    {"uv_udp", kDatagram, nullptr, {}, Echo::kAll, false, 0, "uv"},
#endif
#ifdef MQDEMO_ASIO
    {"asio_signed", kSigned, nullptr, {}, Echo::kAll, false, 0, "asio"},
    {"asio_udp", kDatagram, nullptr, {}, Echo::kAll, false, 0, "asio"},
#endif
    {"multi_server", kPlain, "multi_server", {"127.0.0.1", "0", "1000", "4"}, Echo::kTextAlone},
    {"cpp_server", kPlain, "cpp_server", {"127.0.0.1", "0", "1000", "4"}, Echo::kTextAlone},
    // They drop a client that does not take its answers after 4 seconds, not at once.
    {"uv_server", kPlain, "uv_server", {"127.0.0.1", "0", "1000", "4"}, Echo::kTextAlone, false, 6},
    // A client of this one costs more memory, of which the heap keeps some: it has fewer places.
    {"asio_server", kPlain, "asio_server", {"127.0.0.1", "0", "900", "4"}, Echo::kTextAlone, false, 6},
    // Here after 10 seconds.
    {"mqbridge",
     kPlain,
     "mqbridge",
     {"in", "127.0.0.1:0", "--server", kCluster, "--clients", "1000", "--memory", "16777216", "--timeout", "60"},
     Echo::kSame,
     false,
     14},
    {"datagram_server", kDatagram, "datagram_server", {"127.0.0.1", "0"}, Echo::kTextAlone},
    {"mqcat", kPlain, "mqcat", {"listen", "0", "--echo", "--format", "quiet"}, Echo::kSame, true},
    {"mqcat_signed",
     kSigned,
     "mqcat",
     {"listen", "0", "--echo", "--format", "quiet", "--ring", kRing},
     Echo::kSame,
     true},
    {"mqcat_udp", kDatagram, "mqcat", {"listen", "0", "--echo", "--format", "quiet", "--udp"}, Echo::kSame, true},
};

// A temporary file with the public keys of both users.
class Ring {
 public:
  explicit Ring(const Keys& keys) {
    close(mkstemp(path_.data()));
    std::ofstream file(path_);
    char text[MQC_KEY_TEXT];
    for (const auto& [user, key] : {std::pair{kHonest, keys.honestPublic}, {kHostile, keys.hostilePublic}}) {
      mqc_key_text(key, text);
      file << user << ' ' << text << '\n';
    }
  }
  ~Ring() { unlink(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "mqdemo-XXXXXX";
};

// The path of a program: in the directory of this one, or else in PATH. Empty if there is none.
std::string PathOf(const std::string& program) {
  const char* const path = getenv("PATH");
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  std::istringstream folders(fmt::format("{}:{}:/usr/sbin", self.parent_path().string(), path == nullptr ? "" : path));
  for (std::string folder; std::getline(folders, folder, ':');) {
    const std::string file = folder + "/" + program;
    if (access(file.c_str(), X_OK) == 0) return file;
  }
  return "";
}

int Become(const std::string& program, std::vector<std::string> arguments) {
  const std::string path = PathOf(program);
  std::vector<char*> words = {const_cast<char*>(path.c_str())};
  for (std::string& argument : arguments) words.push_back(argument.data());
  words.push_back(nullptr);
  close_range(STDERR_FILENO + 1, ~0u, 0);
  execv(path.c_str(), words.data());
  return 127;
}

// The number at the end of the first line with "listening", or alone on a line; 0 if there is none yet.
int PortIn(const std::string& log) {
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line) && !lines.eof();) {
    const size_t before = line.find_last_not_of("0123456789");
    const bool is_alone = before == std::string::npos;
    if (is_alone || line.find("istening") != std::string::npos) return atoi(line.c_str() + (is_alone ? 0 : before + 1));
  }
  return 0;
}

// What mqbridge publishes comes back: nats-server, a bridge out of it, and mqcat, which sends back.
class Cluster {
 public:
  // Waits until all are connected.
  std::string Url() {
    Await([this] { return out_.Log().find("peer connected") != std::string::npos; });
    return UrlOf(nats_);
  }

 private:
  static int PortOf(const Child& child) {
    int port = 0;
    Await([&] { return (port = PortIn(child.Log())) != 0; });
    return port;
  }
  static std::string UrlOf(const Child& nats) { return fmt::format("nats://127.0.0.1:{}", PortOf(nats)); }

  int BridgeOut() {
    return Become("mqbridge", {"out", "mq.>", fmt::format("127.0.0.1:{}", PortOf(echo_)), "--server", UrlOf(nats_),
                               "--queue", "echo", "--in-flight", "256"});
  }

  Child nats_{"nats-server", [] { return Become("nats-server", {"-a", "127.0.0.1", "-p", "-1"}); }, true};
  Child echo_{"mqcat", [] { return Become("mqcat", {"listen", "0", "--echo", "--format", "quiet"}); }, true};
  Child out_{"mqbridge out", [this] { return BridgeOut(); }, true};
};

bool NeedsCluster(const Target& target) { return std::ranges::count(target.arguments, kCluster) != 0; }

// The number of a client with small messages on this port.
uint32_t ClientFor(Port port) {
  return static_cast<uint32_t>(std::ranges::find(kKinds, port, &Kind::port) - std::begin(kKinds));
}

// One attack, from the start of the server to its end.
class Siege {
 public:
  Siege(const Trial& trial, double seconds)
      : target_(*trial.target),
        peer_(*trial.peer),
        shared_(*trial.shared),
        seconds_(std::max(seconds, target_.seconds)),
        cluster_(NeedsCluster(target_) ? std::make_unique<Cluster>() : nullptr),
        server_(
            "server", [this] { return Serve(); }, true, peer_.descriptors),
        steady_("steady client", [this] { return Talk(kSteady); }),
        newcomer_("newcomers", [this] { return Talk(kNewcomer); }) {}

  void Run() {
    const auto listens = [this] {
      if (target_.program != nullptr) shared_.ports[target_.port] = PortIn(server_.Log());
      return shared_.ports[target_.port] != 0;
    };
    if (!Await(listens)) return Fault("the server does not start: " + Tail(server_.Log()));
    shared_.ready = true;
    const auto talking = [this] {
      return shared_.workers[kSteady].connected != 0 && shared_.workers[kNewcomer].connected != 0;
    };
    if (!Await(talking)) return Fault("the honest clients get no answer");
    shared_.go = true;
    Besiege();
    shared_.stop = true;
    Await([this] { return steady_.HasEnded() && newcomer_.HasEnded(); });
    if (const std::string why = server_.Stop(); !why.empty()) Fault(why + "\n" + Tail(server_.Log()));
    JudgeLog(server_.Log());
    shared_.ended = !IsInterrupted();
  }

 private:
  int Serve() {
    if (target_.program == nullptr) return RunServer(&shared_, kSeed, keys_, kLimits, target_.engine);
    std::vector<std::string> arguments = target_.arguments;
    std::ranges::replace(arguments, kRing, ring_.path());
    if (cluster_ != nullptr) std::ranges::replace(arguments, kCluster, cluster_->Url());
    return Become(target_.program, arguments);
  }

  int Talk(uint32_t process) {
    while (!shared_.ready) Sleep(0.005);
    Crowd crowd{&shared_, process, kSeed, {ClientFor(target_.port) + 20 * process}, 0};
    crowd.pause = process == kSteady ? 0.002 : 0.05;
    crowd.isNew = process == kNewcomer;
    crowd.echo = target_.echo;
    crowd.plainAnswers = target_.isMqcat;
    return RunClients(crowd, keys_);
  }

  void Fault(const std::string& what) { shared_.workers[kJudge].faults.Add(what); }
  static std::string Tail(const std::string& text) { return text.substr(text.size() - std::min(text.size(), 200ul)); }
  uint64_t Served() const { return shared_.workers[kNewcomer].kinds[ClientFor(target_.port)][kAnswers]; }

  void Besiege() {
    Await([] { return false; }, seconds_ * kCalmShare);
    shared_.before = AtRest();
    shared_.phase = kDuring;
    {
      Arena arena(peer_, keys_, shared_.ports[target_.port], seconds_, false, [this] { return Served(); });
      peer_.act(arena);
      for (const std::string& fault : arena.faults) Fault(fault);
      shared_.held = AtRest();
    }
    shared_.phase = kAfter;
    const int had = shared_.before.descriptors;
    if (!Await([&] { return UsageOf(server_.pid()).descriptors <= had + 1; }))
      Fault("the server does not close descriptors");
    const uint64_t served = Served();
    if (!Await([&] { return Served() > served + 1; })) Fault("no newcomer is served after the attack");
    shared_.after = AtRest();
    const long peak = shared_.after.peakKb - shared_.before.residentKb;
    const long growth = shared_.after.residentKb - shared_.before.residentKb;
    if (!kInstrumented && peak > kMostPeakKb) Fault(fmt::format("the server took {} KiB of memory", peak));
    if (!kInstrumented && growth > kMostGrowthKb) Fault(fmt::format("the server keeps {} KiB of memory", growth));
  }

  // Measures the server while the honest clients pause. A server that spins never comes to rest.
  Usage AtRest() {
    shared_.pause = true;
    Usage usage{};
    const bool rests = Await([&] {
      if (!steady_.HasEnded() && !shared_.workers[kSteady].resting) return false;
      if (!newcomer_.HasEnded() && !shared_.workers[kNewcomer].resting) return false;
      const double before = UsageOf(server_.pid()).processor;
      Sleep(kRestSeconds);
      usage = UsageOf(server_.pid());
      rest_ = (usage.processor - before) / kRestSeconds;
      return rest_ < kRestShare;
    });
    shared_.pause = false;
    if (!rests && rest_ < kRestShare) Fault("honest clients still wait for answers");
    if (!rests && rest_ >= kRestShare) {
      Fault(fmt::format("the server spins: {:.0f} % of a processor while idle", rest_ * 100));
    }
    return usage;
  }

  void JudgeLog(const std::string& log) {
    const long lines = std::ranges::count(log, '\n');
    if (lines > kMostLines) Fault(fmt::format("the server logs {} lines", lines));
    if (!target_.isMqcat && log.find(peer_.says) == std::string::npos) {
      Fault(fmt::format("the server's log does not contain '{}'", peer_.says));
    }
  }

  const Target& target_;
  const Peer& peer_;
  Shared& shared_;
  const double seconds_;
  double rest_ = 0;
  const Keys keys_ = MakeKeys();
  const Ring ring_{keys_};
  const std::unique_ptr<Cluster> cluster_;
  Child server_, steady_, newcomer_;
};

// Adds the faults that the processes themselves could not report.
void Conclude(const Trial& trial, const Child& child) {
  Faults& faults = trial.shared->workers[kJudge].faults;
  if (const std::string why = child.Failure(); !why.empty()) faults.Add(why);
  for (const int client : {kSteady, kNewcomer}) {
    const bool served = TallyOf(trial, client).latency[kDuring].total != 0;
    if (trial.shared->ended && !served) {
      faults.Add(client == kSteady ? "the honest client got no answer during the attack"
                                   : "no newcomer was served during the attack");
    }
  }
}

}  // namespace

std::span<const Target> Targets() { return kTargets; }

std::string MissingFor(const Target& target) {
  std::vector<std::string> programs;
  if (target.program != nullptr) programs.emplace_back(target.program);
  if (NeedsCluster(target)) programs.emplace_back("nats-server");
  const auto missing = std::ranges::find_if(programs, [](const std::string& name) { return PathOf(name).empty(); });
  return missing == programs.end() ? "" : *missing;
}

bool IsFor(const Peer& peer, const Target& target) {
  const bool isPort = peer.port == target.port || std::string_view(peer.name) == kHonestOnly;
  return peer.attack != nullptr && isPort && (peer.mqcat || !target.isMqcat);
}

const Tally& TallyOf(const Trial& trial, int client) {
  return trial.shared->workers[client].kinds[ClientFor(trial.target->port)];
}

std::vector<std::string> FaultsOf(const Trial& trial) {
  std::vector<std::string> texts;
  const Shared& shared = *trial.shared;
  if (IsInterrupted() && !shared.ended) return texts;  // the missing answers are due to the interruption
  for (const Process* process :
       {&shared.workers[kJudge], &shared.workers[kSteady], &shared.workers[kNewcomer], &shared.server}) {
    for (uint32_t i = 0; i < process->faults.kept(); ++i) texts.emplace_back(process->faults.lines[i]);
  }
  return texts;
}

bool Withstood(const Trial& trial) { return trial.shared->ended && FaultsOf(trial).empty(); }

void TryAll(std::vector<Trial>* trials, double seconds, bool together) {
  std::deque<Child> children;
  const auto finish = [&](size_t first) {
    for (size_t i = first; i < children.size(); ++i) {
      while (!children[i].HasEnded()) Sleep(0.01);
      Conclude((*trials)[i], children[i]);
    }
  };
  for (const Trial& trial : *trials) {
    if (IsInterrupted()) break;
    ShowProgress(fmt::format("{}, {}: {}", trial.target->name, trial.peer->name, trial.peer->attack));
    children.emplace_back(fmt::format("trial of {}", trial.peer->name), [&] {
      Siege(trial, seconds).Run();
      return 0;
    });
    if (!together) finish(children.size() - 1);
  }
  if (together) finish(0);
  ShowProgress("");
}

}  // namespace demo
