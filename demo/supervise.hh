// supervise.hh - starts the processes of a run, watches them, ends them.
#ifndef MQNODE_DEMO_SUPERVISE_HH
#define MQNODE_DEMO_SUPERVISE_HH

#include <functional>
#include <string>
#include <vector>

#include "demo/plan.hh"
#include "demo/shared.hh"

namespace demo {

// How a run went, as seen from outside of its processes.
struct Course {
  double connecting = 0;  // seconds until every client was connected
  std::vector<std::string> problems;
};

// Runs server and clients to their end, or ends them: when one of them dies, when a deadline passes, when a signal asks
// for it. Afterwards no child is left. watch is called about ten times a second with the seconds since the start.
Course Supervise(Shared* shared, const Author& author, const Keys& keys, const Options& options,
                 const std::function<void(double)>& watch);

}  // namespace demo

#endif
