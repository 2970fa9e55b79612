// attacks.hh - what hostile peers do, as a table.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tests/hostile/peer.hh"
#include "tests/hostile/server.hh"

namespace hostile {

// Where an attack takes place: the server's port, the time, the attackers, and what the server got wrong.
class Arena {
 public:
  // served: honest newcomers that were served so far.
  Arena(int port, bool datagrams, double seconds, std::function<uint64_t()> served)
      : port_(port), datagrams_(datagrams), seconds_(seconds), served_(std::move(served)) {}

  // Pauses; false when the time of the attack is over and a newcomer that came after it was served: a fault when none
  // is.
  bool Goes(int microseconds);

  // Tops the attackers up to so many: those whose connection has ended are replaced.
  void Fill(size_t count, int receiveBuffer = 0);
  size_t Open() const;

  // Repeats act until it says true; a fault when it does not in any time that a server needs.
  void Await(const std::string& what, const std::function<bool()>& act);
  // Awaits that the server has ended all connections.
  void AwaitDropped();

  std::vector<Peer> peers;
  std::vector<std::string> faults;

 private:
  using Clock = std::chrono::steady_clock;

  const int port_;
  const bool datagrams_;
  const std::chrono::duration<double> seconds_;
  const std::function<uint64_t()> served_;
  std::optional<uint64_t> before_;  // newcomers that were served when the time was over
  const Clock::time_point began_ = Clock::now();
};

struct Attack {
  const char* name;
  const char* what;
  void (*run)(Arena& arena);
  unsigned kinds;          // of servers that it is for
  const char* log = "";    // what an example must say of it; empty when there is nothing to say
  rlim_t descriptors = 0;  // of the server; 0: plenty
};

std::span<const Attack> Attacks();

}  // namespace hostile
