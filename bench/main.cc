// main.cc - the command line of the benchmarks.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <set>

#include "bench/sections.hh"

namespace bench {

std::string WorkProgram() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  Check(length > 0 && length < PATH_MAX, "readlink /proc/self/exe");
  return std::string(path, static_cast<size_t>(length)) + "_work";
}

namespace {

struct Wanted {
  bool pinned = false;
  bool free = false;
  std::set<std::string> sections;
  bool Has(const char* section) const { return sections.empty() || sections.count(section) != 0; }
};

void MeasureAll(Report* report, const Settings& settings, const Wanted& wanted) {
  if (wanted.Has("held")) MeasureHeld(report);
  if (wanted.Has("loop")) MeasureLoops(report, settings);
  if (wanted.Has("instructions")) MeasureInstructions(report, settings);
  PinToProcessor(0);
  if (wanted.pinned && wanted.Has("exchange")) MeasureExchanges(report, settings, "pinned");
  if (wanted.Has("wait")) MeasureWaits(report, settings);
  if (wanted.pinned && wanted.Has("signed")) MeasureSigned(report, settings, "pinned");
  if (wanted.pinned && wanted.Has("others")) MeasureOthers(report, settings, "pinned");
  UnpinProcessor();
  if (wanted.free && wanted.Has("exchange")) MeasureExchanges(report, settings, "free");
  if (wanted.free && wanted.Has("signed")) MeasureSigned(report, settings, "free");
  if (wanted.free && wanted.Has("others")) MeasureOthers(report, settings, "free");
  Summarise(report);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  CLI::App app("Compares nodes with bare sockets that make the same system calls and copies.", "bench");
  bench::Settings settings;
  bench::Wanted wanted;
  std::string json;
  std::string markdown;
  std::vector<std::string> only;
  app.add_flag("--quick", settings.quick, "fewer slices, for a first impression");
  app.add_flag("--pin", wanted.pinned, "measure only with both processes on one processor (default: --pin and --free)");
  app.add_flag("--free", wanted.free, "measure only with the processes where the system schedules them");
  app.add_flag("--functions", settings.functions, "also count instructions by function");
  app.add_option("--json", json, "also write the figures to this file");
  app.add_option("--markdown", markdown, "also write the tables to this file, as Markdown");
  app.add_option("--only", only, "sections to run")
      ->delimiter(',')
      ->check(CLI::IsMember({"held", "instructions", "exchange", "wait", "signed", "others", "loop"}));
  CLI11_PARSE(app, argc, argv);
  if (!wanted.pinned && !wanted.free) wanted.pinned = wanted.free = true;
  wanted.sections = {only.begin(), only.end()};
  settings.exchange = settings.quick ? bench::Effort{0.001, 2} : bench::Effort{0.0015, 25};
  settings.others = settings.quick ? bench::Effort{0.002, 2} : bench::Effort{0.002, 10};
  settings.wait = settings.quick ? bench::Effort{0.0005, 20} : bench::Effort{0.0005, 300};
  settings.loop = settings.quick ? bench::Effort{0.02, 2} : bench::Effort{0.02, 40};
  settings.loopStarts = settings.quick ? 1 : 3;
  signal(SIGPIPE, SIG_IGN);

  bench::Report report;
  bench::MeasureAll(&report, settings, wanted);
  if (!json.empty()) report.WriteJson(json);
  if (!markdown.empty()) report.WriteMarkdown(markdown);
  return 0;
}
