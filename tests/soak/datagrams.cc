#include "tests/soak/datagrams.hh"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace soak {

using mqnode::Node;
using mqnode::Result;

namespace {

constexpr uint32_t kMostBytes = 14000;  // with header, envelope and trailer below what one datagram may have
constexpr int kReadsInTurn = 4;

// Datagrams that the system has thrown away because a socket of this port was full.
uint64_t DroppedBySystem(int port) {
  std::ifstream table("/proc/net/udp");
  const std::string local = fmt::format("0100007F:{:04X}", port);
  for (std::string line; std::getline(table, line);) {
    std::istringstream columns(line);
    std::vector<std::string> words{std::istream_iterator<std::string>(columns), {}};
    if (words.size() > 2 && words[1] == local) return std::stoull(words.back());
  }
  return 0;
}

}  // namespace

class Datagrams::Peer : public Member {
 public:
  Peer(World* world, int kind, uint32_t pair, int side) : world_(*world), kind_(kind), pair_(pair), side_(side) {
    node = Node::datagram({"127.0.0.1", "0", "udp"});
    if (node.failed() || !world_.Join(this)) world_.Fault("no datagram node");
    turn_ = world_.NextTurn();
  }
  ~Peer() override { world_.Leave(this); }

  void SetRelay(int port) { relay_ = mqnode::Address("127.0.0.1", std::to_string(port), "udp"); }
  void SetOther(Peer* other) { other_ = other; }
  uint64_t written() const { return written_; }

  void OnReadable() override {
    for (int i = 0; i < kReadsInTurn; ++i) {
      const Result got = world_.Read(kind_, node);
      if (!got && got.again()) return;
      if (!got && got.code() == MQ_NOT_AUTHENTIC && IsSigned(kind_)) {
        ++tally().replays;
      } else if (!got) {
        world_.Fault(fmt::format("a datagram node failed with {}", got.name()));
      } else {
        Check();
      }
    }
  }

  void OnWritable() override { (void)static_cast<bool>(node.finish_write()); }

  void Write() {
    if (world_.now < turn_) return;
    turn_ = world_.NextTurn();
    if (!world_.author.Build(world_.out.get(), PlaceOf(side_, written_), kMostBytes)) world_.Fault("no memory");
    const Result sent =
        IsSigned(kind_) ? node.write_signed_to(world_.out, relay_, world_.signer) : node.write_to(world_.out, relay_);
    if (!sent) return world_.Fault(fmt::format("a datagram was not written: {}", sent.name()));
    ++written_;
    tally().queued += node.has_pending();
  }

 private:
  Place PlaceOf(int way, uint64_t number) const { return {pair_, 0, static_cast<uint32_t>(way), number}; }
  Tally& tally() const { return world_.tallies[kind_]; }

  void Check() {
    const uint64_t number = world_.in.command() - 1;
    const std::string wrong = number < other_->written_
                                  ? world_.author.Compare(world_.in.get(), PlaceOf(1 - side_, number), kMostBytes)
                                  : "one that nobody has written";
    if (!wrong.empty()) return world_.Fault(fmt::format("datagram: {}", wrong));
    if (seen_.size() <= number) seen_.resize(number + 1);
    if (seen_[number]) {
      ++tally().repeats;
      if (IsSigned(kind_)) world_.Fault("a signed datagram was delivered twice");
      return;
    }
    tally().late += number + 1 < seen_.size();
    seen_[number] = true;
    ++tally().delivered;
    tally().bytes += world_.in.raw().size();
  }

  World& world_;
  const int kind_;
  const uint32_t pair_;
  const int side_;
  double turn_;
  mqnode::Address relay_;
  Peer* other_ = nullptr;
  uint64_t written_ = 0;
  std::vector<bool> seen_;
};

Datagrams::Datagrams(World* world, int kind, uint32_t firstPair, uint32_t pairs)
    : world_(*world), kind_(kind), firstSlot_(world->shared.pairs) {
  for (uint32_t i = 0; i < pairs; ++i) {
    auto& slot = world_.shared.datagrams[world_.shared.pairs++];
    slot.kind = kind;
    for (const int side : {0, 1}) {
      peers_.push_back(std::make_unique<Peer>(world, kind, firstPair + i, side));
      slot.ends[side] = peers_.back()->node.local_port();
    }
    Peer* const pair[] = {peers_[peers_.size() - 2].get(), peers_.back().get()};
    for (const int side : {0, 1}) pair[side]->SetOther(pair[1 - side]);
  }
  world_.tallies[kind].nodes = peers_.size();
}

Datagrams::~Datagrams() = default;

void Datagrams::Start() {
  for (size_t i = 0; i < peers_.size(); ++i) {
    peers_[i]->SetRelay(world_.shared.datagrams[static_cast<size_t>(firstSlot_) + i / 2].relay);
  }
}

void Datagrams::Write() {
  for (const auto& peer : peers_) peer->Write();
}

bool Datagrams::Quiet() const {
  const DatagramCounts& counts = world_.shared.counts[kind_];
  const Tally& tally = world_.tallies[kind_];
  uint64_t written = 0, lostBefore = 0, lostAfter = 0;
  for (size_t i = 0; i < peers_.size(); ++i) {
    const auto& slot = world_.shared.datagrams[static_cast<size_t>(firstSlot_) + i / 2];
    if (peers_[i]->node.has_pending()) return false;
    written += peers_[i]->written();
    lostAfter += DroppedBySystem(slot.ends[i % 2]);
    if (i % 2 == 0) lostBefore += DroppedBySystem(slot.relay);
  }
  return counts.taken == written - lostBefore && world_.shared.held == 0 &&
         counts.forwarded == tally.delivered + tally.repeats + tally.replays + lostAfter;
}

void Datagrams::Account() {
  const DatagramCounts& counts = world_.shared.counts[kind_];
  Tally& tally = world_.tallies[kind_];
  for (const auto& peer : peers_) tally.written += peer->written();
  tally.missing = tally.written - tally.delivered;
  // Where the system has lost some itself it is not known which.
  const uint64_t lost =
      tally.written - counts.taken + (counts.forwarded - tally.delivered - tally.repeats - tally.replays);
  const uint64_t again = tally.repeats + tally.replays;
  if (tally.missing < counts.dropped || tally.missing > counts.dropped + lost) {
    world_.Fault(fmt::format("{} datagrams are missing where {} were dropped", tally.missing, counts.dropped.load()));
  }
  if (again > counts.repeated || again + lost < counts.repeated) {
    world_.Fault(fmt::format("{} datagrams came again where {} were repeated", again, counts.repeated.load()));
  }
  if (tally.late > counts.late) world_.Fault("datagrams came out of order that were passed on in order");
}

}  // namespace soak
