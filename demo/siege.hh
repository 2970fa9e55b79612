// siege.hh - attacks on a server while honest clients go on, measured without and with it.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "demo/author.hh"
#include "demo/tally.hh"

namespace demo {

// A server under attack: this program's own, or a program beside it that prints its port, or "listening on ...:PORT".
struct Target {
  const char* name;
  Port port;
  const char* program;                 // null: this program's own server
  std::vector<const char*> arguments;  // kRing: the path of a file with the keys of both users
  Echo echo;
  bool isMqcat = false;
  double seconds = 0;  // that an attack takes at least
};

std::span<const Target> Targets();

struct Trial {
  const Target* target;
  const Peer* peer;
  SharedPtr shared = MakeShared();
};

// Whether an attack is for a server.
bool IsFor(const Peer& peer, const Target& target);

// The honest clients of a trial: one asks on over one connection, the other connects anew for each question.
enum { kSteady, kNewcomer, kJudge };

// Tries each in turn, or all together, until a signal asks to end: trials that were not finished are not ended.
void TryAll(std::vector<Trial>* trials, double seconds, bool together);

// The tally of one of the honest clients; what went wrong; whether nothing did.
const Tally& TallyOf(const Trial& trial, int client);
std::vector<std::string> FaultsOf(const Trial& trial);
bool Withstood(const Trial& trial);

}  // namespace demo
