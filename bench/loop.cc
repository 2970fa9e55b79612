// loop.cc - servers in event loops: connections that are idle, connections that are active.
#include <fmt/format.h>

#include <memory>
#include <utility>

#include "bench/echo.hh"
#include "bench/sections.hh"

namespace bench {
namespace {

constexpr size_t kBody = 64;
constexpr size_t kMostConnections = 10000;
constexpr size_t kFewConnections = 20;
constexpr size_t kActive = 10;
constexpr double kMicro = 1e6;

struct Case {
  EchoServer server;
  size_t connections;
  size_t active;
};

struct Figures {
  std::vector<double> rate;
  std::vector<double> half;
  std::vector<double> most;
  std::vector<double> processor;
  std::vector<double> memory;
};

// Measures the cases in short slices in turn. All servers run at the same time, but only one of them has work. Each
// process has memory areas of its own, so the processes are started several times.
std::vector<Figures> RunInTurn(const std::vector<Case>& cases, const Settings& settings) {
  std::vector<Figures> all(cases.size());
  for (size_t start = 0; start < settings.loopStarts; ++start) {
    std::vector<std::unique_ptr<EchoClients>> clients;
    for (size_t c = 0; c < cases.size(); ++c) {
      clients.push_back(std::make_unique<EchoClients>(cases[c].server, cases[c].connections, kBody));
      clients[c]->Run(cases[c].active, settings.loop.slice);
      all[c].memory.push_back(clients[c]->ServerBytes());
    }
    const size_t rounds = cases.size() > 1 ? settings.loop.rounds : settings.loop.rounds / 4 + 1;  // no ratio
    Interleave(cases.size(), rounds, [&](size_t c) {
      const EchoClients::Outcome outcome = clients[c]->Run(cases[c].active, settings.loop.slice);
      all[c].rate.push_back(outcome.rate);
      all[c].half.push_back(outcome.half);
      all[c].most.push_back(outcome.most);
      all[c].processor.push_back(outcome.processor);
      return outcome.rate;
    });
  }
  return all;
}

// Rate and processor time relative to another case that was measured in the same slices.
std::vector<Cell> Beside(const Figures& figures, const Figures& other) {
  std::vector<Cell> cells;
  for (const Ratio& ratio :
       {RatioOfMedians(figures.rate, other.rate), RatioOfMedians(figures.processor, other.processor)}) {
    cells.push_back(Number(ratio.value, 3));
    cells.push_back(Number(ratio.Spread(), 3));
  }
  return cells;
}

void AddRows(Section* section, const std::vector<EchoServer>& group, size_t connections, size_t active,
             const Settings& settings) {
  std::vector<Case> cases;
  for (const EchoServer& server : group) cases.push_back({server, connections, active});
  const std::vector<Figures> all = RunInTurn(cases, settings);
  for (size_t c = 0; c < cases.size(); ++c) {
    std::vector<Cell> row = {Text(cases[c].server.name),
                             Number(static_cast<double>(connections), 0),
                             Number(static_cast<double>(active), 0),
                             Count(Median(all[c].rate)),
                             Number(Median(all[c].half) * kMicro, 1),
                             Number(Median(all[c].most) * kMicro, 1),
                             Number(Median(all[c].processor) * kMicro, 2),
                             Count(Median(all[c].memory))};
    const bool has_bare = c + 1 < cases.size();
    for (Cell& cell : has_bare ? Beside(all[c], all[c + 1]) : std::vector<Cell>(4)) row.push_back(std::move(cell));
    section->rows.push_back(std::move(row));
  }
}

void MeasureServers(Report* report, const Settings& settings, size_t most) {
  Section section = {"loop",
                     "Servers that send 64 B back, server and clients on a processor each (aim: rate beside bare 0.95)",
                     {"server", "connected", "active", "messages/s", "p50 us", "p99 us", "cpu us", "bytes each",
                      "of bare", "+-", "cpu/bare", "+- cpu"},
                     {},
                     {"cpu: time that the server's process ran for a message, the system's work included",
                      "bytes each: growth of the server's resident memory for a connection that has sent one message",
                      "libzmq and nng serve with threads of their own, on the same processor"}};
  const std::vector<std::pair<size_t, std::vector<size_t>>> sizes = {
      {kActive, {1, kActive}}, {1000, {1, 100, 1000}}, {most, {1, 100, most}}};
  for (const auto& [connections, actives] : sizes) {
    for (const size_t active : actives) {
      for (const auto& group : EchoServers()) AddRows(&section, group, connections, active, settings);
    }
  }
  report->Add(std::move(section));
}

void MeasureIdle(Report* report, const Settings& settings, size_t most) {
  Section section = {
      "idle",
      fmt::format("{} active connections, {} in all relative to {} in all (aim: processor time 1.1 or less)", kActive,
                  most, kFewConnections),
      {"server", "few us", "many us", "rate", "+-", "cpu", "+- cpu"},
      {},
      {"us: processor time of the server for a message"}};
  for (const auto& group : EchoServers()) {
    if (group.size() == 1) continue;  // not on an engine
    const EchoServer& server = group.front();
    const auto all = RunInTurn({{server, kFewConnections, kActive}, {server, most, kActive}}, settings);
    std::vector<Cell> row = {Text(server.name)};
    for (const Figures& figures : all) row.push_back(Number(Median(figures.processor) * kMicro, 2));
    for (Cell& cell : Beside(all[1], all[0])) row.push_back(std::move(cell));
    section.rows.push_back(std::move(row));
  }
  report->Add(std::move(section));
}

}  // namespace

void MeasureLoops(Report* report, const Settings& settings) {
  const size_t most = RaiseConnectionLimit(2 * kMostConnections) / 2;  // of each of two servers
  PinToProcessor(0);
  MeasureServers(report, settings, most);
  MeasureIdle(report, settings, most);
  UnpinProcessor();
}

}  // namespace bench
