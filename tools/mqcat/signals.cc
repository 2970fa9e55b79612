// signals.cc - see signals.hh.
#include "signals.hh"

#include <csignal>

namespace mqcat {
namespace {

volatile sig_atomic_t interrupted = 0;

void OnSignal(int) { interrupted = 1; }

}  // namespace

void CatchSignals() {
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // without SA_RESTART: calls come back
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() { return interrupted != 0; }

}  // namespace mqcat
