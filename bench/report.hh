// report.hh - what was measured, as one readable table and as JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bench {

struct Cell {
  std::string text;
  std::optional<double> number;  // what JSON gets in place of the text
};
Cell Text(std::string text);
Cell Number(double value, int decimals);
Cell Count(double value);  // with separators between thousands

struct Section {
  std::string id;     // in JSON
  std::string title;  // in the table, with what the figures are held against
  std::vector<std::string> columns;
  std::vector<std::vector<Cell>> rows;
  std::vector<std::string> notes;

  // The figure in that row's column; none when there is no such column or no figure in it.
  std::optional<double> Figure(size_t row, const std::string& column) const;
};

class Report {
 public:
  Report();  // notes date, machine and load
  // Prints the section at once and keeps it for the file.
  void Add(Section section);
  void WriteJson(const std::string& path) const;
  void WriteMarkdown(const std::string& path) const;

  // Null when the section was not measured.
  const Section* Find(const std::string& id) const;

 private:
  std::vector<std::pair<std::string, std::string>> facts_;
  std::vector<Section> sections_;
};

}  // namespace bench
