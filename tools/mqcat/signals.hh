// signals.hh - SIGINT and SIGTERM as a flag that loops test.
#pragma once

namespace mqcat {

// Waits and reads fail with EINTR. A second signal terminates the program.
void CatchSignals();

bool Interrupted();

}  // namespace mqcat
