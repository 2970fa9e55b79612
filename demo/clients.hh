// clients.hh - the honest clients of one process.
#pragma once

#include <span>

#include "demo/author.hh"
#include "demo/tally.hh"

namespace demo {

// Who they are and how they go about it.
struct Crowd {
  Shared* shared;
  uint32_t process;  // whose tally this is
  uint64_t seed;     // of the author
  std::vector<uint32_t> clients;
  double seconds;         // that a round of questions lasts; 0: until shared->stop
  double until = 0;       // rounds go on until then, in time of Now; 0: one round
  uint32_t messages = 0;  // most questions of a client; 0: as many as fit into the time
  double pause = 0;       // seconds between two questions of a client, on average
  bool isNew = false;     // a client connects anew for each question
  bool chaos = false;     // through a bad network
  pid_t server = 0;
  Echo echo = Echo::kAll;
  bool plainAnswers = false;  // to signed questions, too
};

// Returns the exit code of the process: 0 when each of them got every answer that it was owed; its faults say what went
// wrong.
int RunClients(const Crowd& crowd, const Keys& keys);

}  // namespace demo
