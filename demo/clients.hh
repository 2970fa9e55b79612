// clients.hh - the honest clients of one process.
#pragma once

#include <span>

#include "demo/author.hh"
#include "demo/tally.hh"

namespace demo {

// The clients of a process and what they do.
struct Crowd {
  Shared* shared;
  uint32_t process;  // whose tally this is
  uint64_t seed;     // of the author
  std::vector<uint32_t> clients;
  double seconds;         // of a round of questions; 0: until shared->stop
  double until = 0;       // time (Now) at which the rounds end; 0: one round
  uint32_t messages = 0;  // limit of questions per client; 0: none
  double pause = 0;       // seconds between two questions of a client, on average
  bool isNew = false;     // a new connection for each question
  bool chaos = false;     // through a bad network
  pid_t server = 0;
  Echo echo = Echo::kAll;
  bool plainAnswers = false;  // also to signed questions
};

// Returns the exit code of the process: 0 if all clients got all answers, else the faults of its tally say why not.
int RunClients(const Crowd& crowd, const Keys& keys);

}  // namespace demo
