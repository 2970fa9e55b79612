// scenarios.hh - whole scenarios, from the first node to the last one's end.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "tests/faults/host.hh"

namespace faults {

struct Scenario {
  std::string_view name;
  std::string_view about;
  void (*run)(Host* host);
  size_t cut;    // every send and receive moves at most so many bytes; 0: what the system takes
  bool streams;  // cutting its transfers is a situation
};

std::span<const Scenario> Scenarios();

// What the system is while a scenario runs: names, the shell, time. folder is for the shell's scratch files.
void PreparePlatform(const char* folder);

}  // namespace faults
