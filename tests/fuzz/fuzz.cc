// fuzz.cc - see fuzz.hh.
#include "tests/fuzz/fuzz.hh"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "companion/host.h"

namespace fuzz {
namespace {

uint64_t LiveBlocks() {
  MqcMemory all, ring, replay;
  mqc_memory(nullptr, &all);
  mqc_memory("ring", &ring);
  mqc_memory("replay", &replay);
  return all.live_blocks - ring.live_blocks - replay.live_blocks;
}

}  // namespace

void Broken(const char* promise, const char* file, int line) {
  fprintf(stderr, "%s:%d: broken promise: %s\n", file, line, promise);
  abort();
}

uint8_t Input::Byte() {
  const Bytes byte = Take(1);
  return byte.empty() ? 0 : byte[0];
}

Bytes Input::Take(size_t size) {
  const Bytes taken = rest_.first(std::min(size, rest_.size()));
  rest_ = rest_.subspan(taken.size());
  return taken;
}

Account::Account() : live_(LiveBlocks()) { [[maybe_unused]] static const int quiet = mqc_log_to("/dev/null"); }

Account::~Account() {
  mqc_fail_allocation(0, 0);
  HOLDS(LiveBlocks() == live_);
}

}  // namespace fuzz
