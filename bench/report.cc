// report.cc - prints sections in columns and writes them as JSON and Markdown.
#include "bench/report.hh"

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>

#include "bench/measure.hh"

namespace bench {
namespace {

std::string ProcessorName() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
  }
  return "unknown processor";
}

std::string FirstLine(const char* path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string Date() {
  char text[32];
  const time_t now = time(nullptr);
  strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", gmtime(&now));
  return text;
}

void PrintRow(const std::vector<std::string>& cells, const std::vector<size_t>& widths) {
  for (size_t i = 0; i < cells.size(); ++i) {
    // Names are left-aligned, figures right-aligned.
    if (i == 0)
      fmt::print("  {:<{}}", cells[i], widths[i]);
    else
      fmt::print("  {:>{}}", cells[i], widths[i]);
  }
  fmt::print("\n");
}

void Print(const Section& section) {
  std::vector<std::vector<std::string>> lines = {section.columns};
  for (const auto& row : section.rows) {
    lines.emplace_back();
    for (const Cell& cell : row) lines.back().push_back(cell.text);
  }
  std::vector<size_t> widths(section.columns.size());
  for (const auto& line : lines) {
    for (size_t i = 0; i < line.size(); ++i) widths.at(i) = std::max(widths[i], line[i].size());
  }
  fmt::print("\n{}\n", section.title);
  for (const auto& line : lines) PrintRow(line, widths);
  for (const std::string& note : section.notes) fmt::print("  {}\n", note);
  fflush(stdout);
}

}  // namespace

Cell Text(std::string text) { return {std::move(text), {}}; }

Cell Number(double value, int decimals) { return {fmt::format("{:.{}f}", value, decimals), value}; }

Cell Count(double value) {
  std::string digits = fmt::format("{:.0f}", value);
  for (size_t at = digits.size(); at > 3 && digits[at - 4] != '-';) digits.insert(at -= 3, 1, ' ');
  return {digits, value};
}

std::optional<double> Section::Figure(size_t row, const std::string& column) const {
  const auto at = std::find(columns.begin(), columns.end(), column);
  if (at == columns.end() || row >= rows.size()) return {};
  return rows[row].at(static_cast<size_t>(at - columns.begin())).number;
}

Report::Report() {
  utsname system;
  uname(&system);
  facts_ = {{"date", Date()},
            {"processor", fmt::format("{} x {}", sysconf(_SC_NPROCESSORS_ONLN), ProcessorName())},
            {"system", fmt::format("{} {}", system.sysname, system.release)},
            {"load at start", FirstLine("/proc/loadavg")}};
  for (const auto& [name, value] : facts_) fmt::print("{}: {}\n", name, value);
}

void Report::Add(Section section) {
  Print(section);
  sections_.push_back(std::move(section));
}

const Section* Report::Find(const std::string& id) const {
  for (const Section& section : sections_) {
    if (section.id == id) return &section;
  }
  return nullptr;
}

void Report::WriteMarkdown(const std::string& path) const {
  std::ofstream file(path);
  for (const auto& [name, value] : facts_) file << fmt::format("{}: {}  \n", name, value);
  for (const Section& section : sections_) {
    file << fmt::format("\n### {}\n\n|", section.title);
    for (const std::string& column : section.columns) file << fmt::format(" {} |", column);
    file << "\n|---|";
    for (size_t i = 1; i < section.columns.size(); ++i) file << "---:|";
    for (const auto& row : section.rows) {
      file << "\n|";
      for (const Cell& cell : row) file << fmt::format(" {} |", cell.text);
    }
    file << "\n";
    for (const std::string& note : section.notes) file << fmt::format("\n{}\n", note);
  }
  if (!file.flush()) Die("cannot write " + path);
}

void Report::WriteJson(const std::string& path) const {
  nlohmann::ordered_json all;
  for (const auto& [name, value] : facts_) all[name] = value;
  for (const Section& section : sections_) {
    nlohmann::ordered_json& list = all[section.id] = nlohmann::ordered_json::array();
    for (const auto& row : section.rows) {
      nlohmann::ordered_json object;
      for (size_t i = 0; i < row.size(); ++i) {
        if (row[i].number)
          object[section.columns[i]] = *row[i].number;
        else
          object[section.columns[i]] = row[i].text;
      }
      list.push_back(std::move(object));
    }
  }
  std::ofstream file(path);
  file << all.dump(2) << '\n';
  if (!file.flush()) Die("cannot write " + path);
}

}  // namespace bench
