// signals.hh - SIGINT and SIGTERM as a flag that loops look at; SIGPIPE ignored.
#pragma once

namespace mqcat {

// Waits and reads come back with EINTR. A second signal ends the program the hard way.
void CatchSignals();

bool Interrupted();

}  // namespace mqcat
