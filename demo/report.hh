// report.hh - formats the results of a run. Lines are at most 100 columns wide, except for faults.
#pragma once

#include <span>
#include <string>

#include "demo/siege.hh"
#include "demo/world.hh"

namespace demo {

// Overwrites a line of the terminal with the progress of the run. Does nothing if standard error is not a terminal.
void ShowProgress(const std::string& line);

std::string TextOf(const Options& options, const Outcome& outcome, bool colors);
std::string TextOf(std::span<const Trial> trials);

}  // namespace demo
