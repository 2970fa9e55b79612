// attacks.hh - what hostile peers do, as a table.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "tests/hostile/peer.hh"

namespace hostile {

// Where an attack takes place: the server's port, the time, the attackers, and what the server got wrong.
class Arena {
 public:
  Arena(int port, double seconds) : port_(port), seconds_(seconds) {}

  // Pauses; false when the time of the attack is over.
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
  const std::chrono::duration<double> seconds_;
  const Clock::time_point began_ = Clock::now();
};

struct Attack {
  const char* name;
  const char* what;
  void (*run)(Arena& arena);
  const char* log;         // what the server must say of it; empty when there is nothing to say
  bool crowds = false;     // newcomers may be turned away while it lasts
  rlim_t descriptors = 0;  // of the server; 0: plenty
};

std::span<const Attack> Attacks();

}  // namespace hostile
