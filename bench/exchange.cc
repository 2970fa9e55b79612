// exchange.cc - messages between two processes, nodes and other contestants beside bare sockets.
#include <fmt/format.h>

#include "bench/peer.hh"
#include "bench/sections.hh"

namespace bench {
namespace {

constexpr size_t kBodies[] = {64, 1024, 16 * 1024, 64 * 1024, 1024 * 1024};
constexpr double kMicro = 1e6;

std::string SizeText(size_t bytes) {
  if (bytes >= 1024 * 1024) return fmt::format("{} MiB", bytes / 1024 / 1024);
  if (bytes >= 1024) return fmt::format("{} KiB", bytes / 1024);
  return fmt::format("{} B", bytes);
}

// Seconds a message, by contestant. The bare sockets are the last contestant: the slice is as many messages as they
// manage in its time.
Samples Exchange(const std::vector<Contestant>& contestants, Pattern pattern, size_t body, const Effort& effort) {
  Duel duel(contestants, pattern, body);
  const size_t bare = duel.size() - 1;
  const size_t count = CountFor(effort.slice, [&](size_t n) { return duel.Run(bare, n); });
  for (size_t c = 0; c < duel.size(); ++c) duel.Run(c, count);
  return Interleave(duel.size(), effort.rounds,
                    [&](size_t c) { return duel.Run(c, count) / static_cast<double>(count); });
}

void Measure(Report* report, const Settings& settings, const std::string& placement, Pattern pattern) {
  const bool both_ways = pattern == Pattern::kRoundTrip;
  const std::vector<Contestant> contestants = Contestants();
  const size_t bare = contestants.size() - 1;
  Section section;
  section.id = fmt::format("{}_{}", both_ways ? "round_trip" : "one_way", placement);
  section.title = both_ways
                      ? fmt::format("Round trip, {}: time beside bare sockets (aim 1.03 or less)", placement)
                      : fmt::format("One way, {}: rate beside bare sockets (aim 0.97 or more)", placement);
  section.columns = {"body"};
  for (const Contestant& c : contestants) section.columns.push_back(fmt::format("{} us", c.name));
  if (!both_ways) section.columns.push_back("nodes MB/s");
  for (size_t c = 0; c < bare; ++c) {
    section.columns.push_back(fmt::format("{}/bare", contestants[c].name));
    section.columns.push_back(c == 0 ? "+-" : fmt::format("+- {}", contestants[c].name));
  }
  for (const size_t body : kBodies) {
    const Samples samples = Exchange(contestants, pattern, body, settings.exchange);
    std::vector<Cell> row = {Text(SizeText(body))};
    for (const auto& times : samples) row.push_back(Number(Median(times) * kMicro, 2));
    if (!both_ways) row.push_back(Number(static_cast<double>(body) / Median(samples[0]) / 1e6, 0));
    for (size_t c = 0; c < bare; ++c) {
      const Ratio ratio = both_ways ? RatioOfMedians(samples[c], samples[bare])
                                    : RatioOfMedians(samples[bare], samples[c]);
      row.push_back(Number(ratio.value, 3));
      row.push_back(Number(ratio.Spread(), 3));
    }
    section.rows.push_back(std::move(row));
  }
  report->Add(std::move(section));
}

}  // namespace

void MeasureExchanges(Report* report, const Settings& settings, const std::string& placement) {
  Measure(report, settings, placement, Pattern::kRoundTrip);
  Measure(report, settings, placement, Pattern::kOneWay);
}

}  // namespace bench
