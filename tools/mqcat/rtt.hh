// rtt.hh - statistics of round-trip times.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace mqcat {

// In milliseconds. Minimum, mean, maximum and deviation are of all samples; percentiles and histogram of all up to a
// million, and of a uniform random choice of a million beyond that.
class RoundTrips {
 public:
  void Add(double milliseconds);

  uint64_t count() const { return count_; }
  double min() const { return min_; }
  double max() const { return max_; }
  double mean() const { return mean_; }
  double deviation() const;

  // The smallest sample that this percentage of the samples does not exceed; 0 without samples.
  double Percentile(double percent) const;

  // A line for each bucket, four buckets for a power of ten; bars of at most width characters. Empty without samples.
  struct Bucket {
    double from, to;
    uint64_t count;
  };
  std::vector<Bucket> Histogram() const;
  std::string HistogramText(size_t width) const;

 private:
  std::vector<double> samples_;
  std::minstd_rand random_;
  uint64_t count_ = 0;
  double min_ = 0, max_ = 0, mean_ = 0, squares_ = 0;
};

}  // namespace mqcat
