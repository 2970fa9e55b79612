// server.hh - the server of the demonstration: one process, one thread, one wait over all its nodes.
#ifndef MQNODE_DEMO_SERVER_HH
#define MQNODE_DEMO_SERVER_HH

#include "demo/plan.hh"
#include "demo/shared.hh"

namespace demo {

// Serves until shared->stop. Returns the exit code of the process; shared->server.failure says why it is not 0.
int RunServer(Shared* shared, const Keys& keys, const Options& options);

}  // namespace demo

#endif
