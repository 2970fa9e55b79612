// plots.cc - which pictures are drawn of the figures.
#include <fmt/format.h>

#include "bench/sections.hh"
#include "bench/svg.hh"

namespace bench {
namespace {

struct Plot {
  const char* file;
  const char* section;
  const char* title;
  const char* unit;
  std::vector<std::pair<const char*, const char*>> series;  // column, name; columns that are missing are left out
  bool lines = false;
  bool logarithmic = false;
  double low = 0;
  std::optional<double> guide = {};
  const char* guide_name = "";
  int decimals = 0;
};

const std::vector<std::pair<const char*, const char*>> kOthers = {
    {"bare us", "bare sockets"}, {"nodes us", "nodes"}, {"libzmq us", "libzmq"}, {"nng us", "nng"}};

const std::vector<Plot>& Plots() {
  static const std::vector<Plot> plots = {
      {"round-trip.svg",
       "round_trip_pinned",
       "Round trip beside bare sockets",
       "time, bare sockets = 1",
       {{"nodes/bare", "nodes"}},
       false,
       false,
       0,
       1.03,
       "aim: at most 1.03",
       3},
      {"one-way.svg",
       "one_way_pinned",
       "One way beside bare sockets",
       "rate, bare sockets = 1",
       {{"nodes/bare", "nodes"}},
       false,
       false,
       0,
       0.97,
       "aim: at least 0.97",
       3},
      {"wait.svg",
       "wait",
       "One wait over idle nodes and one that is ready",
       "microseconds",
       {{"mnPost us", "mnPost"},
        {"mnNPost us", "mnNPost"},
        {"select us", "select"},
        {"poll us", "poll"},
        {"epoll us", "epoll"}},
       true,
       true,
       0.1},
      {"instructions.svg",
       "instructions",
       "User-space instructions of one message, 64 B",
       "written and read",
       {{"library", "library"},
        {"companion", "companion"},
        {"libc", "libc"},
        {"bench", "the program itself"},
        {"all", "all"}}},
      {"others-round-trip.svg",
       "others_round_trip_free",
       "Round trip beside other libraries",
       "microseconds",
       kOthers,
       false,
       true,
       1,
       {},
       "",
       1},
      {"others-one-way.svg",
       "others_one_way_free",
       "One way beside other libraries",
       "microseconds a message",
       kOthers,
       false,
       true,
       0.1,
       {},
       "",
       1},
  };
  return plots;
}

Chart ChartOf(const Report& report, const Plot& plot, const Section& section) {
  Chart chart;
  chart.title = plot.title;
  chart.caption = fmt::format("{}; {}, {}", plot.unit, report.fact(1), report.fact(0));
  chart.lines = plot.lines;
  chart.logarithmic = plot.logarithmic;
  chart.low = plot.low;
  chart.guide = plot.guide;
  chart.guide_name = plot.guide_name;
  chart.decimals = plot.decimals;
  const bool differences = plot.section == std::string("instructions");  // the last row is one
  const size_t rows = section.rows.size() - (differences ? 1 : 0);
  for (size_t row = 0; row < rows; ++row) chart.categories.push_back(section.rows[row][0].text);
  for (const auto& [column, name] : plot.series) {
    Series series = {name, {}};
    for (size_t row = 0; row < rows; ++row) {
      if (const auto figure = section.Figure(row, column)) series.values.push_back(*figure);
    }
    if (series.values.size() == rows) chart.series.push_back(std::move(series));
  }
  return chart;
}

}  // namespace

void DrawPlots(const Report& report, const std::string& folder) {
  for (const Plot& plot : Plots()) {
    const Section* const section = report.Find(plot.section);
    if (section != nullptr && !section->rows.empty())
      WriteChart(ChartOf(report, plot, *section), folder + "/" + plot.file);
  }
}

}  // namespace bench
