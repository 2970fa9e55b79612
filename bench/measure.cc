// measure.cc - clock, medians, resampling, order of slices, processor affinity.
#include "bench/measure.hh"

#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

namespace bench {
namespace {

constexpr int kResamplings = 300;
constexpr size_t kMaxRepetitions = 1u << 24;

std::mt19937& Random() {
  static std::mt19937 engine(20240229);
  return engine;
}

cpu_set_t AllowedAtStart() {
  cpu_set_t set;
  Check(sched_getaffinity(0, sizeof set, &set) == 0, "sched_getaffinity");
  return set;
}
const cpu_set_t allowed = AllowedAtStart();

double MedianInPlace(std::vector<double>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

void Die(const std::string& what) {
  const int code = errno;
  fprintf(stderr, "mqbench: %s%s%s\n", what.c_str(), code != 0 ? ": " : "", code != 0 ? strerror(code) : "");
  exit(1);
}

void Check(bool ok, const char* what) {
  if (!ok) Die(what);
}

double Seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

double Median(std::vector<double> values) {
  Check(!values.empty(), "median of no values");
  return MedianInPlace(values);
}

Ratio RatioOfMedians(const std::vector<double>& numerator, const std::vector<double>& denominator) {
  const size_t count = std::min(numerator.size(), denominator.size());
  std::uniform_int_distribution<size_t> pick(0, count - 1);
  std::vector<double> ratios;
  std::vector<double> above(count);
  std::vector<double> below(count);
  for (int i = 0; i < kResamplings; ++i) {
    for (size_t k = 0; k < count; ++k) {
      const size_t slice = pick(Random());
      above[k] = numerator[slice];
      below[k] = denominator[slice];
    }
    ratios.push_back(MedianInPlace(above) / MedianInPlace(below));
  }
  std::sort(ratios.begin(), ratios.end());
  const size_t tail = kResamplings / 40;
  return {Median(numerator) / Median(denominator), ratios[tail], ratios[ratios.size() - 1 - tail]};
}

Samples Interleave(size_t contestants, size_t rounds, const std::function<double(size_t)>& slice) {
  Samples samples(contestants);
  std::vector<size_t> order(contestants);
  for (size_t c = 0; c < contestants; ++c) order[c] = c;
  for (size_t round = 0; round < rounds; ++round) {
    std::shuffle(order.begin(), order.end(), Random());
    for (int pass = 0; pass < 2; ++pass) {
      for (const size_t c : order) samples[c].push_back(slice(c));
      std::reverse(order.begin(), order.end());
    }
  }
  return samples;
}

size_t CountFor(double seconds, const std::function<double(size_t)>& run) {
  size_t count = 1;
  run(count);
  for (; count < kMaxRepetitions; count *= 2) {
    const double taken = run(count);
    if (taken < seconds / 4) continue;
    return std::max<size_t>(1, static_cast<size_t>(static_cast<double>(count) * seconds / taken));
  }
  return count;
}

void PinToProcessor(int from_last) {
  int chosen = -1;
  for (int cpu = CPU_SETSIZE - 1; cpu >= 0 && from_last >= 0; --cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    chosen = cpu;
    --from_last;
  }
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(chosen, &one);
  Check(sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity");
}

void UnpinProcessor() { Check(sched_setaffinity(0, sizeof allowed, &allowed) == 0, "sched_setaffinity"); }

}  // namespace bench
