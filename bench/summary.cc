// summary.cc - a table of all figures that have an aim.
#include <fmt/format.h>

#include "bench/sections.hh"

namespace bench {
namespace {

struct Aim {
  const char* section;
  const char* column;
  const char* spread;  // column; null if the figure does not vary
  bool at_least;
  double limit;
  int decimals;
  int row;  // -1: all rows that have a figure, named by their first cells
  const char* what;
  size_t names = 1;  // how many of the first cells name a row
};

constexpr Aim kAims[] = {
    {"round_trip_pinned", "nodes/bare", "+-", false, 1.03, 3, -1, "round trip, time relative to bare sockets"},
    {"one_way_pinned", "nodes/bare", "+-", true, 0.97, 3, -1, "one way, rate relative to bare sockets"},
    {"wait", "mnPost/select", "+-", false, 1.05, 3, -1, "mnPost, time relative to a bare select, idle nodes"},
    {"wait", "mnNPost/select", "+- mnNPost", false, 1.05, 3, -1, "mnNPost, time relative to a bare select, idle nodes"},
    {"instructions", "all", nullptr, false, 368, 0, 2, "instructions per message above bare sockets"},
    {"instructions_wait", "a node, from 10 to 410", nullptr, false, 46.5, 1, 0,
     "instructions per node of a wait, mnPost"},
    {"instructions_wait", "a node, from 10 to 410", nullptr, false, 46.5, 1, 1,
     "instructions per node of a wait, mnNPost"},
    {"loop", "of bare", "+-", true, 0.95, 3, -1, "rate relative to bare sockets; connected, active", 3},
    {"idle", "cpu", "+- cpu", false, 1.1, 3, -1, "processor time with many idle connections relative to few"},
};

// "yes", "no", or "within +-" if the figure misses the aim by no more than its spread.
std::string Verdict(const Aim& aim, double figure, double spread) {
  const double beyond = aim.at_least ? aim.limit - figure : figure - aim.limit;
  if (beyond <= 0) return "yes";
  return beyond <= spread ? "within +-" : "no";
}

void AddRow(Section* table, const Section& from, const Aim& aim, size_t row) {
  const std::optional<double> figure = from.Figure(row, aim.column);
  if (!figure) return;
  const double spread = aim.spread == nullptr ? 0 : from.Figure(row, aim.spread).value_or(0);
  std::string name = aim.what;
  for (size_t cell = 0; aim.row == -1 && cell < aim.names; ++cell) {
    name += fmt::format("{} {}", cell == 0 ? ":" : ",", from.rows[row][cell].text);
  }
  table->rows.push_back({Text(name), Number(*figure, aim.decimals),
                         aim.spread == nullptr ? Text("") : Number(spread, 3),
                         Text(fmt::format("{} {:g}", aim.at_least ? "at least" : "at most", aim.limit)),
                         Text(Verdict(aim, *figure, spread))});
}

}  // namespace

void Summarise(Report* report) {
  Section table = {"summary", "Figures and their aims", {"what", "figure", "+-", "aim", "met"}, {}, {}};
  for (const Aim& aim : kAims) {
    const Section* const from = report->Find(aim.section);
    if (from == nullptr) continue;
    const size_t first = aim.row == -1 ? 0 : static_cast<size_t>(aim.row);
    const size_t last = aim.row == -1 ? from->rows.size() : first + 1;
    for (size_t row = first; row < last; ++row) AddRow(&table, *from, aim, row);
  }
  if (!table.rows.empty()) report->Add(std::move(table));
}

}  // namespace bench
