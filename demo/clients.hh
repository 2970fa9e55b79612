// clients.hh - the honest clients of one process.
#ifndef MQNODE_DEMO_CLIENTS_HH
#define MQNODE_DEMO_CLIENTS_HH

#include "demo/plan.hh"
#include "demo/shared.hh"

namespace demo {

// Runs the clients whose number is process modulo options.processes. Returns the exit code of the process: 0 when each
// of them got every answer it was owed; the tally's firstFailure says what went wrong.
int RunClients(Shared* shared, int process, const Author& author, const Keys& keys, const Options& options);

}  // namespace demo

#endif
