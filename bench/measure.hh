// measure.hh - time, medians, and the method of comparison: short slices of each contestant in turn, repeated many
// times, so that other load on the machine affects all of them alike.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// Prints what failed, with the text of errno unless it is 0, and exits.
[[noreturn]] void Die(const std::string& what);
void Check(bool ok, const char* what);

double Seconds();  // monotonic clock

double Median(std::vector<double> values);

// A ratio of two medians with its 95 % confidence interval, found by resampling the slices.
struct Ratio {
  double value;
  double low;
  double high;
  double Spread() const { return (high - low) / 2; }
};
Ratio RatioOfMedians(const std::vector<double>& numerator, const std::vector<double>& denominator);

// samples[c][i] is the result of the i-th call of slice(c). Each round consists of two slices of each contestant: in
// random order, then in the reverse of that order.
using Samples = std::vector<std::vector<double>>;
Samples Interleave(size_t contestants, size_t rounds, const std::function<double(size_t)>& slice);

// Finds the count for which run(count), which returns its duration in seconds, takes about this long; at least 1.
size_t CountFor(double seconds, const std::function<double(size_t)>& run);

// Pins this process and its future children to one of the processors that it may use: 0 the last one, 1 the one before.
// The first one if there are fewer.
void PinToProcessor(int from_last);
// Undoes PinToProcessor.
void UnpinProcessor();

// Duration of a benchmark.
struct Effort {
  double slice;   // seconds
  size_t rounds;  // of Interleave
};

}  // namespace bench
