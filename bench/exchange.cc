// exchange.cc - exchanges messages between two processes, and compares nodes and other contestants with bare sockets.
#include "bench/exchange.hh"

#include <fmt/format.h>

#include "bench/peer.hh"
#include "bench/sections.hh"

namespace bench {
namespace {

constexpr double kMicro = 1e6;

// The bare sockets, the last contestant, determine how many messages a slice of every contestant consists of.
void ExchangeIn(Duel& duel, Pattern pattern, const Effort& effort, Exchanges* result) {
  const size_t bare = duel.size() - 1;
  // A stream needs some time to fill its buffers.
  const double slice = pattern == Pattern::kRoundTrip ? effort.slice : 3 * effort.slice;
  const size_t count = CountFor(slice, [&](size_t n) { return duel.Run(bare, n).elapsed; });
  for (size_t c = 0; c < duel.size(); ++c) duel.Run(c, count);
  const Samples elapsed = Interleave(duel.size(), effort.rounds, [&](size_t c) {
    const Spent spent = duel.Run(c, count);
    result->processor[c].push_back(spent.processor / static_cast<double>(count));
    return spent.elapsed / static_cast<double>(count);
  });
  result->elapsed = elapsed;
}

}  // namespace

std::string SizeText(size_t bytes) {
  if (bytes >= 1024 * 1024) return fmt::format("{} MiB", bytes / 1024 / 1024);
  if (bytes >= 1024) return fmt::format("{} KiB", bytes / 1024);
  return fmt::format("{} B", bytes);
}

Exchanges ExchangeOnce(const std::vector<Contestant>& contestants, Pattern pattern, size_t body, const Effort& effort,
                       unsigned layout) {
  Exchanges result;
  result.elapsed.resize(contestants.size());
  result.processor.resize(contestants.size());
  Duel duel(contestants, pattern, body, layout);
  ExchangeIn(duel, pattern, effort, &result);
  return result;
}

void Append(Samples* all, const Samples& more) {
  all->resize(more.size());
  for (size_t c = 0; c < more.size(); ++c) (*all)[c].insert((*all)[c].end(), more[c].begin(), more[c].end());
}

namespace {

// Adds for each contestant its ratio to bare sockets and the spread of that ratio.
void AddRatios(std::vector<Cell>* row, const Samples& samples, bool of_rates) {
  const size_t bare = samples.size() - 1;
  for (size_t c = 0; c < bare; ++c) {
    const Ratio ratio =
        of_rates ? RatioOfMedians(samples[bare], samples[c]) : RatioOfMedians(samples[c], samples[bare]);
    row->push_back(Number(ratio.value, 3));
    row->push_back(Number(ratio.Spread(), 3));
  }
}

void Measure(Report* report, const Settings& settings, const std::string& placement, Pattern pattern) {
  const bool one_way = pattern != Pattern::kRoundTrip;
  const std::vector<Contestant> contestants = Contestants();
  const size_t bare = contestants.size() - 1;
  Section section;
  section.id = fmt::format("{}_{}", one_way ? "one_way" : "round_trip", placement);
  section.title = one_way ? fmt::format("One way, {}: rate relative to bare sockets (aim 0.97 or more)", placement)
                          : fmt::format("Round trip, {}: time relative to bare sockets (aim 1.03 or less)", placement);
  section.columns = {"body"};
  for (const Contestant& c : contestants) section.columns.push_back(fmt::format("{} us", c.name));
  for (const char* measure : {"", " cpu"}) {
    for (size_t c = 0; c < bare; ++c) {
      section.columns.push_back(fmt::format("{}/bare{}", contestants[c].name, measure));
      section.columns.push_back(
          fmt::format("+-{}", c == 0 ? measure : fmt::format(" {}{}", contestants[c].name, measure)));
    }
  }
  section.notes = {"cpu: the same ratio for the processor time of the two processes"};
  for (const size_t body : kBodies) {
    Exchanges exchanges;
    for (unsigned layout = 0; layout < kLayouts; ++layout) {
      const Exchanges more = ExchangeOnce(contestants, pattern, body, settings.exchange, layout);
      Append(&exchanges.elapsed, more.elapsed);
      Append(&exchanges.processor, more.processor);
    }
    std::vector<Cell> row = {Text(SizeText(body))};
    for (const auto& times : exchanges.elapsed) row.push_back(Number(Median(times) * kMicro, 2));
    AddRatios(&row, exchanges.elapsed, one_way);
    AddRatios(&row, exchanges.processor, one_way);
    section.rows.push_back(std::move(row));
  }
  report->Add(std::move(section));
}

}  // namespace

void MeasureExchanges(Report* report, const Settings& settings, const std::string& placement) {
  Measure(report, settings, placement, Pattern::kRoundTrip);
  Measure(report, settings, placement, Pattern::kPacedOneWay);
}

}  // namespace bench
