// trace.hh - the output of --trace: each trace point of nodes and sockets, and each message, on standard error.
#pragma once

#include <string>

#include "companion/host.h"
#include "mqnode/mqnode.h"

namespace mqcat {

// Traces the nodes created from now on. Accepted ones must be passed to TraceAccepted.
void StartTrace();
void TraceAccepted(MQNode* node);

// A message that was read or written, when tracing is on. what: "message from", "message to".
void TraceMessage(const MQNode* node, const char* what, const std::string& peer, const PcfMessage* msg);

}  // namespace mqcat
