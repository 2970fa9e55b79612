// histogram.hh - counts durations in buckets that are at most 1/16 wide, so that percentiles of millions of round trips
// cost a few kilobytes. Plain data: it may lie in memory that processes share.
#ifndef MQNODE_DEMO_HISTOGRAM_HH
#define MQNODE_DEMO_HISTOGRAM_HH

#include <cstdint>

namespace demo {

struct Histogram {
  static constexpr int kSteps = 16;                   // buckets for each doubling
  static constexpr int kBuckets = kSteps * (33 - 4);  // durations up to 2^32 microseconds

  void Add(uint64_t microseconds);
  void Merge(const Histogram& other);

  // The duration that the given share (0 to 1) of all durations does not pass, microseconds; 0 without any.
  uint64_t Percentile(double share) const;

  uint64_t total;
  uint64_t longest;
  uint64_t counts[kBuckets];
};

}  // namespace demo

#endif
