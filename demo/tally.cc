#include "demo/tally.hh"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <new>

namespace demo {

double Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void Histogram::Add(double seconds) {
  const double bucket = kSteps * std::log2(1 + seconds * 1e6);
  ++total;
  longest = std::max(longest, seconds);
  ++counts[std::min(static_cast<size_t>(bucket), kBuckets - 1)];
}

void Histogram::Merge(const Histogram& other) {
  total += other.total;
  longest = std::max(longest, other.longest);
  for (size_t i = 0; i < kBuckets; ++i) counts[i] += other.counts[i];
}

double Histogram::Percentile(double share) const {
  uint64_t seen = 0;
  for (size_t i = 0; i < kBuckets; ++i) {
    seen += counts[i];
    const double highest = (std::exp2(static_cast<double>(i + 1) / kSteps) - 1) * 1e-6;
    if (static_cast<double>(seen) >= share * static_cast<double>(total)) return std::min(highest, longest);
  }
  return longest;
}

void Faults::Add(std::string_view text) {
  const uint32_t at = count;
  if (at < kMost) lines[at][text.copy(lines[at], kLength - 1)] = '\0';
  count = at + 1;
}

SharedPtr MakeShared() {
  void* const area = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) throw std::bad_alloc();
  return {static_cast<Shared*>(area), [](Shared* shared) { munmap(shared, sizeof *shared); }};
}

}  // namespace demo
