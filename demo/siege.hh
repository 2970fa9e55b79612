// siege.hh - attacks on a server, with honest clients measured before and during each.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "demo/author.hh"
#include "demo/tally.hh"

namespace demo {

// A server to attack: this program's own, or another program in its directory, which prints its port, alone or at the
// end of a line with "listening".
struct Target {
  const char* name;
  Port port;
  const char* program;                 // null: this program's own server
  std::vector<std::string> arguments;  // kRing: the path of a file with the keys of both users; kCluster: see there
  Echo echo;
  bool isMqcat = false;
  double seconds = 0;           // that an attack takes at least
  const char* engine = "node";  // of this program's own server
};

std::span<const Target> Targets();

// What a target needs and this machine lacks; empty if nothing.
std::string MissingFor(const Target& target);

struct Trial {
  const Target* target;
  const Peer* peer;
  SharedPtr shared = MakeShared();
};

// True if an attack applies to a server.
bool IsFor(const Peer& peer, const Target& target);

// The honest clients of a trial: one keeps its connection, the other makes a new one for each question.
enum { kSteady, kNewcomer, kJudge };

// Runs the trials one after the other, or all together. A signal stops them; the flag ended is set in finished ones.
void TryAll(std::vector<Trial>* trials, double seconds, bool together);

// The tally of an honest client; the faults of a trial; whether it finished without any.
const Tally& TallyOf(const Trial& trial, int client);
std::vector<std::string> FaultsOf(const Trial& trial);
bool Withstood(const Trial& trial);

}  // namespace demo
