// held.cc - memory of many open nodes, measured in a new process.
#include <cstdio>
#include <string>

#include "bench/sections.hh"

namespace bench {
namespace {

constexpr int kNodes = 2500;

}  // namespace

void MeasureHeld(Report* report) {
  const std::string command = WorkProgram() + " held " + std::to_string(kNodes);
  FILE* const pipe = popen(command.c_str(), "r");
  Check(pipe != nullptr, "popen");
  double idle;
  double read;
  double asked;
  double open;
  const int found = fscanf(pipe, "%lf %lf %lf %lf", &idle, &read, &asked, &open);
  Check(pclose(pipe) == 0 && found == 4, "mqbench_work held");
  report->Add(
      {"held",
       "Many open connections: memory per node, bytes",
       {"nodes", "resident, idle", "resident, after a message", "asked for", "allocations"},
       {{Number(kNodes, 0), Count(idle), Count(read), Count(asked), Number(open, 2)}},
       {"resident: growth of the process; asked for: node record and receive buffer; memory of the kernel is not "
        "included"}});
}

}  // namespace bench
