// svg.hh - one kind of picture: figures of a few series over a few categories, as bars or as lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bench {

struct Series {
  std::string name;
  std::vector<double> values;  // one for each category
};

struct Chart {
  std::string title;
  std::string caption;  // below the title: unit, machine, date
  std::vector<std::string> categories;
  std::vector<Series> series;
  bool lines = false;
  bool logarithmic = false;
  double low = 0;               // where the scale begins; above 0 on a logarithmic one
  std::optional<double> guide;  // a dashed line
  std::string guide_name;
  int decimals = 0;  // of the figures written at the bars
};

// Writes the chart to a file; ends the program when it cannot.
void WriteChart(const Chart& chart, const std::string& path);

}  // namespace bench
