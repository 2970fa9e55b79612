// sections.hh - the measurements; each adds one or a few sections to the report.
#pragma once

#include <cstddef>
#include <string>

#include "bench/measure.hh"
#include "bench/report.hh"

namespace bench {

struct Settings {
  bool quick = false;
  bool functions = false;  // also count instructions by function
  Effort exchange;
  Effort others;
  Effort wait;
  Effort loop;
  size_t loopStarts = 1;  // of the processes
};

// Round trips and one-way streams between two processes. placement, for the titles, says on which processors they run.
void MeasureExchanges(Report* report, const Settings& settings, const std::string& placement);

// The same with other messaging libraries, if any were found at build time.
void MeasureOthers(Report* report, const Settings& settings, const std::string& placement);

// Signed round trips compared with plain ones, and the signature functions alone.
void MeasureSigned(Report* report, const Settings& settings, const std::string& placement);

// Waits on idle nodes and one that is ready.
void MeasureWaits(Report* report, const Settings& settings);

// Servers in event loops with many connections, compared with bare sockets and other libraries.
void MeasureLoops(Report* report, const Settings& settings);

// Memory of many open nodes.
void MeasureHeld(Report* report);

// User-space instructions for one message and for one wait; needs valgrind.
void MeasureInstructions(Report* report, const Settings& settings);

// Adds a table of all figures in the report that have an aim, and whether they meet it.
void Summarise(Report* report);

// Path of mqbench_work, which does the work of MeasureHeld and MeasureInstructions; it is in the folder of this
// program.
std::string WorkProgram();

}  // namespace bench
