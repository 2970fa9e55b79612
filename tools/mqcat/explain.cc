// explain.cc - mqcat explain: what an error code means, where it comes from, and what to do about it.
// docs/errors.md is the output of mqcat explain --all --format markdown.
#include <algorithm>
#include <cctype>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "mqnode/errors.h"
#include "options.hh"
#include "output.hh"
#include "text.hh"

namespace mqcat {
namespace {

struct Options {
  std::vector<std::string> codes;
  bool all = false;
  std::string format = "text";
};

std::vector<const MqErrorInfo*> WholeTable() {
  size_t count = 0;
  const MqErrorInfo* const table = mq_error_table(&count);
  std::vector<const MqErrorInfo*> entries;
  for (size_t i = 0; i < count; ++i) entries.push_back(table + i);
  return entries;
}

std::string Places(const MqErrorInfo& entry) {
  std::string places;
  const auto add = [&](unsigned place, const char* name) {
    if ((entry.places & place) != 0) places += (places.empty() ? "" : ", ") + std::string(name);
  };
  add(MQ_IN_NODE, "node->error");
  add(MQ_IN_SOCKET, "sock.error");
  add(MQ_IN_STATUS, "status word of a wait");
  return places;
}

std::string Names(const MqErrorInfo& entry) {
  return entry.alias == nullptr ? entry.name : fmt::format("{} ({})", entry.name, entry.alias);
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// Codes whose name or meaning contains the text.
std::string Suggestions(const std::string& text) {
  std::string names;
  for (const MqErrorInfo* entry : WholeTable()) {
    const std::string all = Lower(Names(*entry) + " " + entry->meaning);
    if (all.find(Lower(text)) != std::string::npos) names += fmt::format("\n  {} {}", entry->code, entry->name);
  }
  return names.empty() ? "\n  mqcat explain --all lists every code" : "\n  similar:" + names;
}

std::vector<const MqErrorInfo*> Find(const std::string& text) {
  std::vector<const MqErrorInfo*> found;
  if (const auto code = ParseNumber<int>(text, INT32_MIN, INT32_MAX)) {
    for (auto* entry = mq_error_find(*code, MQ_IN_ANY); entry != nullptr; entry = mq_error_next(entry)) {
      found.push_back(entry);
    }
    if (!found.empty()) return found;
    throw Failure{kExitUsage, fmt::format("explain {}: not a code of the library", text)};
  }
  if (const MqErrorInfo* const entry = mq_error_by_name(text.c_str())) return {entry};
  throw Failure{kExitUsage, fmt::format("explain {}: unknown name{}", Quote(text, 40), Suggestions(text))};
}

std::string ToText(const MqErrorInfo& entry) {
  return fmt::format("{}  {}\n  meaning  {}\n  seen in  {}\n  from     {}\n  do       {}\n", entry.code, Names(entry),
                     entry.meaning, Places(entry), entry.origin, entry.remedy);
}

std::string ToMarkdownRow(const MqErrorInfo& entry) {
  const std::string alias = entry.alias == nullptr ? "" : fmt::format(", `{}`", entry.alias);
  return fmt::format("| {} | `{}`{} | {} | {} | {} | {} |\n", entry.code, entry.name, alias, entry.meaning,
                     Places(entry), entry.origin, entry.remedy);
}

constexpr char kMarkdownHead[] =
    "# Error codes\n\n"
    "Generated from `mqnode/errors.h` by `mqcat explain --all --format markdown`. Do not edit.\n\n"
    "A code is found in `node->error`, in the `error` of a socket record such as `node->sock`, or in the status word\n"
    "of a wait. The codes 11 and 105 have different meanings in different places. `mqcat explain CODE` describes one\n"
    "code; applications call `mq_error_name`, `mq_error_meaning` and `mq_error_remedy`.\n\n"
    "| code | name | meaning | seen in | from | what to do |\n"
    "|---:|---|---|---|---|---|\n";

void PrintEntries(const std::vector<const MqErrorInfo*>& entries, const std::string& format) {
  if (format == "markdown") Print(kMarkdownHead);
  const char* separator = "";
  for (const MqErrorInfo* entry : entries) {
    if (format == "markdown") {
      Print(ToMarkdownRow(*entry));
    } else if (format == "json") {
      nlohmann::ordered_json json = {{"code", entry->code},       {"name", entry->name},      {"alias", nullptr},
                                     {"meaning", entry->meaning}, {"seenIn", Places(*entry)}, {"origin", entry->origin},
                                     {"remedy", entry->remedy}};
      if (entry->alias != nullptr) json["alias"] = entry->alias;
      Print(json.dump() + "\n");
    } else {
      Print(separator + Wrap(ToText(*entry), OutputWidth()));
      separator = "\n";
    }
  }
}

void RunExplain(const Options& options) {
  if (options.codes.empty() && !options.all) {
    throw Failure{kExitUsage, "explain: a code, a name or --all is required\n  see mqcat explain --help"};
  }
  std::vector<const MqErrorInfo*> entries;
  if (options.all) entries = WholeTable();
  for (const std::string& code : options.codes) {
    const auto found = Find(code);
    entries.insert(entries.end(), found.begin(), found.end());
  }
  PrintEntries(entries, options.format);
}

}  // namespace

void AddExplain(CLI::App& app, ExitCode&) {
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("explain", "Explain an error code and how to resolve it");
  command->add_option("CODE", options->codes, "Numbers or names, such as 2026, -1001, econnreset");
  command->add_flag("--all", options->all, "Every code of the library");
  command->add_option("--format", options->format, "text, json (one object per line) or markdown")
      ->check(CLI::IsMember({"text", "json", "markdown"}))
      ->type_name("FORMAT");
  command->footer("Examples:\n  mqcat explain 2026\n  mqcat explain -- -1001\n  mqcat explain MQ_WRITE_LIMIT");
  command->callback([options] { RunExplain(*options); });
}

}  // namespace mqcat
