// rogues.hh - clients that break the rules, each in a process of its own, and what the server ought to make of them.
#ifndef MQNODE_DEMO_ROGUES_HH
#define MQNODE_DEMO_ROGUES_HH

#include <span>

#include "demo/plan.hh"
#include "demo/shared.hh"

namespace demo {

// What a misbehaviour works with: its connection, the keys, where it reports.
class Mischief;

struct Rogue {
  const char* name;  // what it does, for the report
  const char* key;   // in JSON
  Port port;
  int code;          // the error that the server ought to have; MQ_OK: it ought to be served like everybody
  uint32_t answers;  // that it ought to get before
  void (*act)(Mischief& mischief);
};

std::span<const Rogue> Rogues();

// Waits for its turn, then misbehaves until the server has had enough. Returns the exit code of the
// process: 0 when it could do what it wanted to, whatever became of it.
int RunRogue(Shared* shared, int index, const Author& author, const Keys& keys);

}  // namespace demo

#endif
