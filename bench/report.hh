// report.hh - the results, as tables and as JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bench {

struct Cell {
  std::string text;
  std::optional<double> number;  // written to JSON instead of the text
};
Cell Text(std::string text);
Cell Number(double value, int decimals);
Cell Count(double value);  // with thousands separators

struct Section {
  std::string id;     // in JSON
  std::string title;  // above the table; names the baseline and the aim
  std::vector<std::string> columns;
  std::vector<std::vector<Cell>> rows;
  std::vector<std::string> notes;

  // The figure in this row and column; none if there is no such column or no figure in it.
  std::optional<double> Figure(size_t row, const std::string& column) const;
};

class Report {
 public:
  Report();  // records date, machine and load
  // Prints the section at once and keeps it for the files.
  void Add(Section section);
  void WriteJson(const std::string& path) const;
  void WriteMarkdown(const std::string& path) const;

  // Null if the section was not measured.
  const Section* Find(const std::string& id) const;

 private:
  std::vector<std::pair<std::string, std::string>> facts_;
  std::vector<Section> sections_;
};

}  // namespace bench
