// rtt.cc - see rtt.hh.
#include "rtt.hh"

#include <algorithm>
#include <cmath>

#include "fmt/format.h"

namespace mqcat {
namespace {

constexpr size_t kMostSamples = 1000000;
constexpr int kStepsPerDecade = 4;

int BucketOf(double milliseconds) {
  return static_cast<int>(std::floor(std::log10(std::max(milliseconds, 1e-6)) * kStepsPerDecade));
}

double BoundOf(int bucket) { return std::pow(10.0, static_cast<double>(bucket) / kStepsPerDecade); }

}  // namespace

// Mean and deviation by Welford's method: one pass, no loss of digits.
void RoundTrips::Add(double milliseconds) {
  min_ = count_ == 0 ? milliseconds : std::min(min_, milliseconds);
  max_ = count_ == 0 ? milliseconds : std::max(max_, milliseconds);
  ++count_;
  const double off = milliseconds - mean_;
  mean_ += off / static_cast<double>(count_);
  squares_ += off * (milliseconds - mean_);
  if (samples_.size() < kMostSamples) return samples_.push_back(milliseconds);
  const uint64_t place = std::uniform_int_distribution<uint64_t>(0, count_ - 1)(random_);
  if (place < kMostSamples) samples_[place] = milliseconds;
}

double RoundTrips::deviation() const { return count_ == 0 ? 0 : std::sqrt(squares_ / static_cast<double>(count_)); }

double RoundTrips::Percentile(double percent) const {
  if (samples_.empty()) return 0;
  std::vector<double> sorted = samples_;
  const double rank = std::ceil(percent / 100 * static_cast<double>(sorted.size()));
  const size_t index = std::min(static_cast<size_t>(std::max(rank, 1.0)), sorted.size()) - 1;
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<ptrdiff_t>(index), sorted.end());
  return sorted[index];
}

std::vector<RoundTrips::Bucket> RoundTrips::Histogram() const {
  if (samples_.empty()) return {};
  const auto [least, most] = std::minmax_element(samples_.begin(), samples_.end());
  const int first = BucketOf(*least);
  std::vector<Bucket> buckets;
  for (int bucket = first; bucket <= BucketOf(*most); ++bucket)
    buckets.push_back({BoundOf(bucket), BoundOf(bucket + 1), 0});
  for (const double sample : samples_) ++buckets[static_cast<size_t>(BucketOf(sample) - first)].count;
  return buckets;
}

std::string RoundTrips::HistogramText(size_t width) const {
  const std::vector<Bucket> buckets = Histogram();
  uint64_t most = 1;
  for (const Bucket& bucket : buckets) most = std::max(most, bucket.count);
  std::string text;
  for (const Bucket& bucket : buckets) {
    const size_t bar = static_cast<size_t>(bucket.count * std::max<size_t>(width, 1) / most);
    text +=
        fmt::format("  {:>8.3f} ms {:>7}{}{}\n", bucket.from, bucket.count, bar == 0 ? "" : " ", std::string(bar, '#'));
  }
  return text;
}

}  // namespace mqcat
