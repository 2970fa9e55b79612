#include "tests/soak/round.hh"

#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <new>
#include <stdexcept>

#include "tests/soak/datagrams.hh"
#include "tests/soak/streams.hh"

namespace soak {
namespace {

using namespace std::chrono_literals;

constexpr double kPatience = 60;  // seconds for what must come about, on any machine, however busy

// The relay's process, and what it shares.
class RelayProcess {
 public:
  RelayProcess() {
    void* const area = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) throw std::runtime_error("no memory to share");
    shared = new (area) Shared{};
  }
  ~RelayProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    munmap(shared, sizeof *shared);
  }
  RelayProcess(const RelayProcess&) = delete;
  RelayProcess& operator=(const RelayProcess&) = delete;

  bool Start(uint64_t seed) {
    shared->cutting = true;
    pid_ = StartRelay(shared, seed);
    for (int i = 0; pid_ > 0 && i < 2000 && !shared->ready; ++i) usleep(10000);
    return shared->ready;
  }
  bool Stop() {
    int status = 0;
    shared->stop = true;
    const bool ended = waitpid(pid_, &status, 0) == pid_;
    pid_ = -1;
    return ended && status == 0;
  }

  Shared* shared;

 private:
  pid_t pid_ = -1;
};

class Round {
 public:
  Round(const Plan& plan, Shared* shared)
      : plan_(plan),
        world_(shared, *plan.author, *plan.signer, plan.in, plan.out, plan.seed,
               plan.pairs * 2.0 * int{kKinds} / plan.rate),
        plain_(&world_, kStream, 0, plan.pairs),
        signed_(&world_, kSignedStream, plan.pairs, plan.pairs),
        datagrams_(&world_, kDatagram, 2 * plan.pairs, plan.pairs),
        signedDatagrams_(&world_, kSignedDatagram, 3 * plan.pairs, plan.pairs) {}

  void Run() {
    Talk();
    world_.writing = false;
    world_.shared.cutting = false;
    Turn();
    usleep(50000);  // the relay may be about to cut
    Until("all is delivered", [this] { return plain_.Quiet() && signed_.Quiet(); });
    Until("all datagrams are delivered", [this] { return datagrams_.Quiet() && signedDatagrams_.Quiet(); });
    plain_.End();
    signed_.End();
    Until("all connections have ended", [this] { return plain_.Ended() && signed_.Ended(); });
  }

  // After the relay has ended.
  Outcome Account();

 private:
  void Talk() {
    world_.now = Now();
    world_.writing = true;
    plain_.Start();
    signed_.Start();
    datagrams_.Start();
    signedDatagrams_.Start();
    for (const double end = Now() + plan_.seconds; Now() < end && world_.faults.empty();) {
      plain_.Write();
      signed_.Write();
      datagrams_.Write();
      signedDatagrams_.Write();
      Turn();
    }
  }

  // Waits once and lets everybody who is ready do what is to be done.
  void Turn() {
    const mqnode::Result ready = world_.set.wait(2ms);
    if (!ready && !ready.timed_out() && ready.code() != EINTR) world_.Fault("the wait fails");
    const auto act = [this](mqnode::Nodes nodes, void (Member::*what)()) {
      for (const mqnode::NodeRef node : nodes) {
        if (const auto it = world_.members.find(node.get()); it != world_.members.end()) (it->second->*what)();
      }
    };
    act(world_.set.writable(), &Member::OnWritable);
    act(world_.set.readable(), &Member::OnReadable);
    act(world_.set.listening(), &Member::OnReadable);
    world_.now = Now();
    plan_.watch(world_);
  }

  void Until(const char* what, const std::function<bool()>& done) {
    const double deadline = Now() + kPatience;
    for (int i = 0; world_.faults.empty() && !(i % 8 == 0 && done()); ++i) {
      Turn();
      if (Now() > deadline) world_.Fault(fmt::format("{}: not within {} s", what, kPatience));
    }
  }

  const Plan& plan_;
  World world_;
  Streams plain_, signed_;
  Datagrams datagrams_, signedDatagrams_;
};

Outcome Round::Account() {
  const Shared& shared = world_.shared;
  if (world_.faults.empty()) {
    plain_.Account();
    signed_.Account();
    datagrams_.Account();
    signedDatagrams_.Account();
    const uint64_t early = world_.tallies[kStream].early + world_.tallies[kSignedStream].early;
    if (early != shared.cuts) {
      world_.Fault(fmt::format("{} connections ended early where {} were cut", early, shared.cuts.load()));
    }
  }
  Outcome outcome;
  std::ranges::copy(world_.tallies, outcome.tallies);
  outcome.faults = world_.faults;
  RelayCounts& relay = outcome.relay;
  relay = {shared.connections, shared.bytes,  shared.pieces, shared.splits,
           shared.joins,       shared.pauses, shared.cuts,   {}};
  for (int kind = 0; kind < kKinds; ++kind) {
    const DatagramCounts& counts = shared.counts[kind];
    relay.datagrams[kind] = {counts.dropped, counts.repeated, counts.late};
  }
  return outcome;
}

}  // namespace

Outcome RunRound(const Plan& plan) {
  RelayProcess relay;
  Round round(plan, relay.shared);
  if (!relay.Start(plan.seed + 1)) throw std::runtime_error("the relay does not start");
  round.Run();
  const bool ended = relay.Stop();
  Outcome outcome = round.Account();
  if (!ended) outcome.faults.push_back("the relay has failed");
  return outcome;
}

}  // namespace soak
