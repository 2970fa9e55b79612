// others.cc - the same exchanges with other messaging libraries, using each library's own pattern.
// Each connection is measured in a process of its own, because a process that has used these libraries cannot safely
// fork a peer.
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/exchange.hh"
#include "bench/sections.hh"

namespace bench {
namespace {

constexpr unsigned kOtherLayouts = 3;

void Send(int fd, const Samples& samples) {
  for (const auto& times : samples) {
    const size_t count = times.size();
    Check(write(fd, &count, sizeof count) == sizeof count, "write");
    for (const double time : times) Check(write(fd, &time, sizeof time) == sizeof time, "write");
  }
}

void ReadAll(int fd, void* buffer, size_t size) {
  for (auto* at = static_cast<char*>(buffer); size > 0;) {
    const ssize_t got = read(fd, at, size);
    Check(got > 0, "the process that measures ended early");
    at += got;
    size -= static_cast<size_t>(got);
  }
}

Samples Hear(int fd, size_t contestants) {
  Samples samples(contestants);
  for (auto& times : samples) {
    size_t count;
    ReadAll(fd, &count, sizeof count);
    times.resize(count);
    ReadAll(fd, times.data(), count * sizeof(double));
  }
  return samples;
}

Samples ExchangeInChild(const std::vector<Contestant>& contestants, Pattern pattern, size_t body, const Effort& effort,
                        unsigned layout) {
  int ends[2];
  Check(pipe(ends) == 0, "pipe");
  fflush(stdout);
  const pid_t child = fork();
  Check(child != -1, "fork");
  if (child == 0) {
    close(ends[0]);
    Send(ends[1], ExchangeOnce(contestants, pattern, body, effort, layout).elapsed);
    _exit(0);
  }
  close(ends[1]);
  const Samples samples = Hear(ends[0], contestants.size());
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return samples;
}

void Measure(Report* report, const Settings& settings, const std::string& placement, Pattern pattern) {
  const std::vector<Contestant> contestants = OtherContestants();
  const bool one_way = pattern == Pattern::kOneWay;
  Section section;
  section.id = fmt::format("others_{}_{}", one_way ? "one_way" : "round_trip", placement);
  section.title = one_way
                      ? fmt::format("One way, compared with other libraries, {}: microseconds per message", placement)
                      : fmt::format("Round trip, compared with other libraries, {}: microseconds", placement);
  section.columns = {"body"};
  for (const Contestant& c : contestants) section.columns.push_back(fmt::format("{} us", c.name));
  for (size_t c = 1; c + 1 < contestants.size(); ++c) {
    section.columns.push_back(fmt::format("{}/nodes", contestants[c].name));
  }
  section.notes = {one_way ? "others: push and pull, with I/O threads of their own"
                           : "others: request and reply, with I/O threads of their own"};
  for (const size_t body : kBodies) {
    Samples samples;
    for (unsigned layout = 0; layout < kOtherLayouts; ++layout) {
      Append(&samples, ExchangeInChild(contestants, pattern, body, settings.others, layout));
    }
    std::vector<Cell> row = {Text(SizeText(body))};
    for (const auto& times : samples) row.push_back(Number(Median(times) * 1e6, 2));
    for (size_t c = 1; c + 1 < samples.size(); ++c) {
      row.push_back(Number(RatioOfMedians(samples[c], samples[0]).value, 2));
    }
    section.rows.push_back(std::move(row));
  }
  report->Add(std::move(section));
}

}  // namespace

void MeasureOthers(Report* report, const Settings& settings, const std::string& placement) {
  if (OtherContestants().empty()) return;
  Measure(report, settings, placement, Pattern::kRoundTrip);
  Measure(report, settings, placement, Pattern::kOneWay);
}

}  // namespace bench
