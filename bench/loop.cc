// loop.cc - servers in event loops: connections that are idle, connections that are active.
#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "bench/echo.hh"
#include "bench/sections.hh"

namespace bench {
namespace {

constexpr size_t kBody = 64;
constexpr size_t kMostConnections = 10000;
constexpr double kMicro = 1e6;

struct Case {
  size_t connections;
  std::vector<size_t> active;
};

std::vector<Case> Cases() {
  const size_t most = RaiseConnectionLimit(kMostConnections);
  return {{10, {1, 10}}, {20, {10}}, {1000, {1, 100, 1000}}, {most, {1, 10, 100, most}}};
}

struct Figures {
  std::vector<double> rate;
  std::vector<double> half;
  std::vector<double> most;
  std::vector<double> processor;
  std::vector<double> memory;
};

// Runs the servers in turn, so that other load on the machine affects all of them alike.
std::vector<std::vector<Figures>> RunAll(const std::vector<EchoServer>& servers, const Case& of, const Effort& effort) {
  std::vector<std::vector<Figures>> all(of.active.size(), std::vector<Figures>(servers.size()));
  for (size_t round = 0; round < effort.rounds; ++round) {
    for (size_t i = 0; i < servers.size(); ++i) {
      const size_t s = (i + round) % servers.size();
      EchoClients clients(servers[s], of.connections, kBody);
      for (size_t a = 0; a < of.active.size(); ++a) {
        const EchoClients::Outcome outcome = clients.Run(of.active[a], effort.slice);
        Figures& figures = all[a][s];
        figures.rate.push_back(outcome.rate);
        figures.half.push_back(outcome.half);
        figures.most.push_back(outcome.most);
        figures.processor.push_back(outcome.processor);
        figures.memory.push_back(clients.ServerBytes());
      }
    }
  }
  return all;
}

// Rate and processor time relative to the bare server that follows in the list; empty cells if none follows.
std::vector<Cell> BesideBare(const std::vector<EchoServer>& servers, const std::vector<Figures>& figures, size_t s) {
  constexpr std::string_view kBare = "bare";
  const bool has_bare = s + 1 < servers.size() && std::string_view(servers[s + 1].name).starts_with(kBare) &&
                        !std::string_view(servers[s].name).starts_with(kBare);
  if (!has_bare) return {Text(""), Text(""), Text("")};
  const Ratio rate = RatioOfMedians(figures[s].rate, figures[s + 1].rate);
  const Ratio processor = RatioOfMedians(figures[s].processor, figures[s + 1].processor);
  return {Number(rate.value, 3), Number(rate.Spread(), 3), Number(processor.value, 3)};
}

}  // namespace

void MeasureLoops(Report* report, const Settings& settings) {
  const std::vector<EchoServer> servers = EchoServers();
  Section section = {"loop",
                     "Servers that send 64 B back, server and clients on a processor each (aim: rate beside bare 0.95)",
                     {"server", "connected", "active", "messages/s", "p50 us", "p99 us", "cpu us", "bytes each",
                      "of bare", "+-", "cpu/bare"},
                     {},
                     {"cpu: time that the server's process ran for a message, the system's work included",
                      "bytes each: growth of the server's resident memory for a connection that has sent one message",
                      "libzmq and nng serve with threads of their own, on the same processor"}};
  PinToProcessor(0);
  for (const Case& of : Cases()) {
    const auto all = RunAll(servers, of, settings.loop);
    for (size_t a = 0; a < of.active.size(); ++a) {
      for (size_t s = 0; s < servers.size(); ++s) {
        const Figures& figures = all[a][s];
        std::vector<Cell> row = {Text(servers[s].name),
                                 Number(static_cast<double>(of.connections), 0),
                                 Number(static_cast<double>(of.active[a]), 0),
                                 Count(Median(figures.rate)),
                                 Number(Median(figures.half) * kMicro, 1),
                                 Number(Median(figures.most) * kMicro, 1),
                                 Number(Median(figures.processor) * kMicro, 2),
                                 Count(Median(figures.memory))};
        for (Cell& cell : BesideBare(servers, all[a], s)) row.push_back(std::move(cell));
        section.rows.push_back(std::move(row));
      }
    }
  }
  UnpinProcessor();
  report->Add(std::move(section));
}

}  // namespace bench
