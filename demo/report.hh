// report.hh - tells a person how a run went. No line is wider than 100 columns, but for faults.
#pragma once

#include <span>
#include <string>

#include "demo/siege.hh"
#include "demo/world.hh"

namespace demo {

// Overwrites the line of a terminal with how far the run is; nothing when standard error is none.
void ShowProgress(const std::string& line);

std::string TextOf(const Options& options, const Outcome& outcome, bool colors);
std::string TextOf(std::span<const Trial> trials);

}  // namespace demo
