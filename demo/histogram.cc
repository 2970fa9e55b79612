#include "demo/histogram.hh"

#include <algorithm>
#include <bit>
#include <cmath>

namespace demo {
namespace {

// Durations below 16 have a bucket each; from there on the leading bit chooses a row and the next four the step in it.
int BucketOf(uint64_t value) {
  if (value < Histogram::kSteps) return static_cast<int>(value);
  const int shift = static_cast<int>(std::bit_width(value)) - 5;
  const int bucket = (shift + 1) * Histogram::kSteps + (static_cast<int>(value >> shift) - Histogram::kSteps);
  return std::min(bucket, Histogram::kBuckets - 1);
}

// The highest duration that falls into a bucket.
uint64_t HighestOf(int bucket) {
  if (bucket < Histogram::kSteps) return static_cast<uint64_t>(bucket);
  const int shift = bucket / Histogram::kSteps - 1;
  const auto step = static_cast<uint64_t>(bucket) % Histogram::kSteps + Histogram::kSteps;
  return ((step + 1) << shift) - 1;
}

}  // namespace

void Histogram::Add(uint64_t microseconds) {
  ++total;
  longest = std::max(longest, microseconds);
  ++counts[BucketOf(microseconds)];
}

void Histogram::Merge(const Histogram& other) {
  total += other.total;
  longest = std::max(longest, other.longest);
  for (int i = 0; i < kBuckets; ++i) counts[i] += other.counts[i];
}

uint64_t Histogram::Percentile(double share) const {
  const auto wanted = static_cast<uint64_t>(std::ceil(share * static_cast<double>(total)));
  uint64_t seen = 0;
  for (int i = 0; i < kBuckets; ++i) {
    seen += counts[i];
    if (seen >= wanted) return std::min(HighestOf(i), longest);
  }
  return longest;
}

}  // namespace demo
