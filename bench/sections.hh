// sections.hh - what is measured, a section or a few each.
#pragma once

#include <cstddef>
#include <string>

#include "bench/measure.hh"
#include "bench/report.hh"

namespace bench {

struct Settings {
  bool quick = false;
  bool functions = false;  // instructions function by function too
  Effort exchange;
  Effort others;
  Effort wait;
  Effort loop;
};

// Round trips and one-way streams between two processes. placement says where they run, for the titles.
void MeasureExchanges(Report* report, const Settings& settings, const std::string& placement);

// The same beside other messaging libraries, where the build has found them.
void MeasureOthers(Report* report, const Settings& settings, const std::string& placement);

// Signed round trips beside plain ones, and the signature by itself.
void MeasureSigned(Report* report, const Settings& settings, const std::string& placement);

// One wait over idle nodes and one that is ready.
void MeasureWaits(Report* report, const Settings& settings);

// Servers in event loops with many connections, beside bare sockets and other libraries.
void MeasureLoops(Report* report, const Settings& settings);

// Memory of many nodes held at once.
void MeasureHeld(Report* report);

// User-space instructions of one message and of one wait; needs valgrind.
void MeasureInstructions(Report* report, const Settings& settings);

// Every figure that has an aim, with the aim and whether it is met, from what the report holds.
void Summarise(Report* report);

// The program that does the work of the last three; it stands beside this one.
std::string WorkProgram();

}  // namespace bench
