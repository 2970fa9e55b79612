// measure.hh - time, medians, and the one way in which contestants are compared: short slices of each in turn, many
// times over, so that whatever else the machine does falls on all of them alike.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// Ends the program with a line about what failed, and errno's text unless errno is 0.
[[noreturn]] void Die(const std::string& what);
void Check(bool ok, const char* what);

double Seconds();  // of a clock that only moves forward

double Median(std::vector<double> values);

// A ratio of two medians with the range in which it lies in 95 of 100 resamplings of the slices.
struct Ratio {
  double value;
  double low;
  double high;
  double Spread() const { return (high - low) / 2; }
};
Ratio RatioOfMedians(const std::vector<double>& numerator, const std::vector<double>& denominator);

// samples[c][i] is what slice(c) returned the i-th time. In each round the contestants come in a random order and
// then in that order backwards: two slices of each.
using Samples = std::vector<std::vector<double>>;
Samples Interleave(size_t contestants, size_t rounds, const std::function<double(size_t)>& slice);

// The number of repetitions that makes run(count), which returns seconds, last about this long; at least 1.
size_t CountFor(double seconds, const std::function<double(size_t)>& run);

// Keeps this process and its later children on one of the processors it may use: 0 the last, 1 the one before; the first
// if there are not as many.
void PinToProcessor(int from_last);
// Undoes that.
void UnpinProcessor();

// How long the benchmarks may take: the quick ones are for a first look.
struct Effort {
  double slice;   // seconds of one slice
  size_t rounds;  // of Interleave, each two slices of each contestant
};

}  // namespace bench
