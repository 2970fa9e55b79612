// arena.hh - the environment of peers that break the rules: port, time, sockets, and the server's faults.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "demo/child.hh"
#include "demo/peers.hh"
#include "demo/tally.hh"

namespace demo {

class Arena {
  static constexpr double kPatience = 30;  // seconds, ample even for a busy machine

 public:
  //   seconds   duration; 0 to run once
  //   served    counts the honest newcomers served so far; may be null
  //   alone     one peer instead of a crowd
  Arena(const Peer& peer, const Keys& keys, int port, double seconds, bool alone, std::function<uint64_t()> served)
      : peer_(peer), keys_(keys), port_(port), seconds_(seconds), alone_(alone), served_(std::move(served)) {}

  // Pauses. False once the time is over and the server still serves newcomers; adds a fault if it does not.
  bool Goes(double pause) {
    Sleep(pause);
    if (IsInterrupted() || alone_) return false;
    const double passed = Now() - began_;
    if (passed < seconds_) return true;
    const uint64_t served = served_();
    before_ = std::min(before_, served);
    if (served >= before_ + 2) return false;  // the first one may have connected before
    if (passed < seconds_ + kPatience) return true;
    faults.push_back("no newcomer is served during the attack");
    return false;
  }

  // Begins a turn with new sockets. True the first time; later calls pause and return what Goes returns.
  bool Begins(int receiveBuffer = 0) {
    if (begun_ && !Goes(0.001)) return false;
    begun_ = true;
    bares.clear();
    Fill(receiveBuffer);
    return true;
  }

  // Replaces closed sockets, up to the size of the crowd.
  void Fill(int receiveBuffer = 0) {
    std::erase_if(bares, [](const Bare& bare) { return !bare.is_open(); });
    while (bares.size() < (alone_ ? 1 : peer_.crowd)) bares.emplace_back(port_, datagrams(), receiveBuffer);
    if (seen.port == 0) seen.port = bares.front().port();
  }

  size_t Open() const {
    return static_cast<size_t>(std::ranges::count_if(bares, [](const Bare& bare) { return bare.is_open(); }));
  }

  // Repeats act until it returns true; adds a fault after kPatience seconds.
  void Await(const std::string& what, const std::function<bool()>& act) {
    for (const double end = Now() + kPatience; !act() && (alone_ || !IsInterrupted()); Sleep(0.001)) {
      if (Now() > end) return faults.push_back(what);
    }
  }

  // Waits until each socket has sent the given number of its bytes, or was closed by the server.
  void AwaitSent(const std::function<const Bytes&(size_t)>& bytes, const std::function<size_t(size_t)>& size) {
    Await("a message that cannot be sent", [&] {
      size_t sent = 0;
      for (size_t i = 0; i < bares.size(); ++i) sent += bares[i].SendUntil(bytes(i), size(i)) || !bares[i].is_open();
      return sent == bares.size();
    });
  }
  void AwaitSent(const Bytes& bytes, size_t size) {
    AwaitSent([&](size_t) -> const Bytes& { return bytes; }, [=](size_t) { return size; });
  }

  // Whether each socket, or any, has received this many bytes.
  bool AllHave(size_t bytes) {
    for (Bare& bare : bares) {
      if (bare.received() < bytes) bare.Receive();
    }
    return std::ranges::all_of(bares, [=](const Bare& bare) { return bare.received() >= bytes; });
  }

  bool AnyHas(size_t bytes) {
    for (Bare& bare : bares) bare.Receive();
    return std::ranges::any_of(bares, [=](const Bare& bare) { return bare.received() >= bytes; });
  }

  // Waits until the server has closed all connections; discards received bytes if reading.
  void AwaitEnd(bool reading = true) {
    const double began = Now();
    Await("a connection that the server does not end", [&] {
      for (Bare& bare : bares) {
        if (reading) bare.Receive();
      }
      return std::ranges::all_of(bares, [](Bare& bare) { return bare.IsEnded(); });
    });
    seen.ended = bares.front().IsEnded();
    seen.seconds = Now() - began;
  }

  const Peer& peer() const { return peer_; }
  const Keys& keys() const { return keys_; }
  bool isAlone() const { return alone_; }
  bool datagrams() const { return IsDatagram(peer_.port); }

  std::vector<Bare> bares;
  std::vector<std::string> faults;
  Seen seen{};  // what the first peer observed

 private:
  const Peer& peer_;
  const Keys& keys_;
  const int port_;
  const double seconds_;
  const bool alone_;
  const std::function<uint64_t()> served_;
  bool begun_ = false;
  uint64_t before_ = UINT64_MAX;  // newcomers served when the time was over
  const double began_ = Now();
};

}  // namespace demo
