// situation.hh - one scenario with one thing going wrong, and how it is carried out.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tests/faults/scenarios.hh"

namespace faults {

struct Situation {
  const Scenario* scenario = nullptr;
  std::string call;  // empty: none fails
  uint64_t nth = 0;  // 1 the first
  int code = 0;
  bool onwards = false;    // the nth and all after it
  size_t cut_send = 0;     // at most so many bytes a send; 0 the scenario's own
  size_t cut_receive = 0;  // and a receive

  // The arguments that repeat it.
  std::string Text() const;
};

// Calls of a scenario by name.
using Counts = std::map<std::string, uint64_t, std::less<>>;

// What Try returns when the scenario made too few calls this time, so that nothing failed.
constexpr char kNotReached[] = "not reached\n";

// Runs the situation in this process, looks for what it left behind, then runs the scenario once clean and looks again.
// Returns what fell, a line each; counts gets the calls of the first run, which many clean ones follow then.
std::string Try(const Situation& situation, Counts* counts);

}  // namespace faults
