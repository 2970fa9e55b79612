// wait.cc - one wait on many idle nodes and one ready node, compared with bare calls on the same file descriptors.
#include <fmt/format.h>

#include "bench/crowd.hh"
#include "bench/sections.hh"
#include "bench/waits.hh"

namespace bench {
namespace {

constexpr size_t kIdle[] = {10, 100, 1000, 2500};
constexpr size_t kSelect = 2;  // in WaitKinds
constexpr size_t kRecords = 5;
constexpr double kMicro = 1e6;

Samples Wait(const std::vector<MQNode*>& nodes, const Effort& effort) {
  std::vector<std::unique_ptr<Waiter>> waiters;
  for (const WaitKind& kind : WaitKinds()) {
    waiters.push_back(kind.make(nodes));
    Check(waiters.back()->Wait() == 1, "one node is ready");
  }
  const auto run = [&](size_t w, size_t count) {
    const double start = Seconds();
    for (size_t i = 0; i < count; ++i) waiters[w]->Wait();
    return Seconds() - start;
  };
  const size_t count = CountFor(effort.slice, [&](size_t n) { return run(kSelect, n); });
  return Interleave(waiters.size(), effort.rounds,
                    [&](size_t w) { return run(w, count) / static_cast<double>(count); });
}

}  // namespace

void MeasureWaits(Report* report, const Settings& settings) {
  Section section = {
      "wait",
      "One wait on idle nodes and a ready one, one processor: time relative to a bare select (aim 1.05 or less)",
      {"idle nodes"},
      {},
      {"select: descriptors in one array; records: the same select, each descriptor in its connection's record",
       "poll: array filled once; epoll: descriptors registered once; for information",
       "2500: descriptors of 1024 and more, sets sized for the highest one"}};
  for (const WaitKind& kind : WaitKinds()) section.columns.push_back(fmt::format("{} us", kind.name));
  for (const char* column :
       {"mnPost/select", "+-", "mnNPost/select", "+- mnNPost", "mnPost/records", "mnNPost/records"}) {
    section.columns.push_back(column);
  }
  Crowd crowd;
  for (const size_t idle : kIdle) {
    crowd.Grow(idle + 1);
    // The first node of the crowd, the ready one, goes to the middle of the list.
    const auto& all = crowd.nodes();
    std::vector<MQNode*> nodes(all.begin() + 1, all.begin() + static_cast<std::ptrdiff_t>(idle) + 1);
    nodes.insert(nodes.begin() + static_cast<std::ptrdiff_t>(idle / 2), all[0]);
    if (idle == kIdle[0]) crowd.Send(0, 1);
    const Samples samples = Wait(nodes, settings.wait);
    std::vector<Cell> row = {Number(static_cast<double>(idle), 0)};
    for (const auto& times : samples) row.push_back(Number(Median(times) * kMicro, 2));
    for (size_t w = 0; w < kSelect; ++w) {
      const Ratio ratio = RatioOfMedians(samples[w], samples[kSelect]);
      row.push_back(Number(ratio.value, 3));
      row.push_back(Number(ratio.Spread(), 3));
    }
    for (size_t w = 0; w < kSelect; ++w) row.push_back(Number(RatioOfMedians(samples[w], samples[kRecords]).value, 3));
    section.rows.push_back(std::move(row));
  }
  report->Add(std::move(section));
}

}  // namespace bench
