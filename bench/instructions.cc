// instructions.cc - counts user-space instructions with valgrind's callgrind; unlike times, they hardly vary.
// The work program runs under callgrind, which counts only inside mqbench_pass. Its output lists the self cost of each
// function and the library that contains it.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "bench/sections.hh"

namespace bench {
namespace {

struct Profile {
  std::map<std::pair<std::string, std::string>, double> own;  // (library, function): instructions per pass

  double Of(const std::string& library) const {
    double sum = 0;
    for (const auto& [name, cost] : own) sum += name.first == library ? cost : 0;
    return sum;
  }
  double All() const {
    double sum = 0;
    for (const auto& entry : own) sum += entry.second;
    return sum;
  }
};

// Returns "libmqnode", "libmqcompanion", "libc", or "bench".
std::string LibraryOf(const std::string& object) {
  const std::string file = object.substr(object.rfind('/') + 1);
  return file.rfind("lib", 0) == 0 ? file.substr(0, file.find('.')) : "bench";
}

// A cost line belongs to the function named last; the line after "calls=" repeats the cost of the callee and is
// skipped.
Profile ReadProfile(const std::string& path, double passes) {
  Profile profile;
  std::ifstream file(path);
  std::string object;
  std::string function;
  std::string line;
  while (std::getline(file, line)) {
    const size_t equals = line.find('=');
    const std::string key = line.substr(0, equals == std::string::npos ? 0 : equals);
    const std::string value = key.empty() ? "" : line.substr(equals + 1);
    if (key == "ob") object = LibraryOf(value);
    if (key == "fn") function = value.substr(0, value.find('\''));
    if (key == "calls") std::getline(file, line);
    if (key.empty() && !line.empty() && isdigit(static_cast<unsigned char>(line[0]))) {
      const size_t blank = line.find(' ');
      if (blank == std::string::npos) continue;
      profile.own[{object, function}] += std::strtod(line.c_str() + blank, nullptr) / passes;
    }
  }
  return profile;
}

bool RunCallgrind(const std::string& out, std::vector<std::string> work) {
  std::vector<std::string> args = {"valgrind",
                                   "-q",
                                   "--tool=callgrind",
                                   "--callgrind-out-file=" + out + ".%p",
                                   "--toggle-collect=mqbench_pass",
                                   "--compress-strings=no",
                                   "--compress-pos=no",
                                   WorkProgram()};
  args.insert(args.end(), work.begin(), work.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t child = fork();
  Check(child != -1, "fork");
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 127) return false;
  Check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "valgrind");
  std::filesystem::rename(fmt::format("{}.{}", out, child), out);
  return true;
}

Profile Count(std::vector<std::string> work, int passes) {
  char folder[] = "/tmp/mqbench.XXXXXX";
  Check(mkdtemp(folder) != nullptr, "mkdtemp");
  const std::string out = std::string(folder) + "/out";
  work.push_back(std::to_string(passes));
  const bool ran = RunCallgrind(out, work);
  const Profile profile = ran ? ReadProfile(out, passes) : Profile{};
  std::filesystem::remove_all(folder);
  return profile;
}

std::vector<Cell> MessageRow(const char* name, const Profile& profile) {
  return {Text(name),
          Number(profile.All(), 0),
          Number(profile.Of("libmqnode"), 0),
          Number(profile.Of("libmqcompanion"), 0),
          Number(profile.Of("libc"), 0),
          Number(profile.Of("bench"), 0)};
}

Profile Difference(const Profile& one, const Profile& other) {
  Profile result = one;
  for (const auto& [name, cost] : other.own) result.own[name] -= cost;
  return result;
}

// The name of a function without its arguments and unnamed namespaces.
std::string BareName(std::string name) {
  const std::string unnamed = "(anonymous namespace)::";
  for (size_t at; (at = name.find(unnamed)) != std::string::npos;) name.erase(at, unnamed.size());
  return name.substr(0, name.find('('));
}

void AddFunctions(Report* report, const Profile& nodes, const Profile& bare) {
  Section section = {
      "instructions_functions", "Instructions by function", {"function", "library", "nodes", "bare"}, {}, {}};
  std::map<std::pair<std::string, std::string>, double> all = nodes.own;
  all.insert(bare.own.begin(), bare.own.end());
  std::vector<std::pair<double, std::pair<std::string, std::string>>> order;
  const auto cost = [](const Profile& profile, const std::pair<std::string, std::string>& function) {
    const auto found = profile.own.find(function);
    return found == profile.own.end() ? 0 : found->second;
  };
  for (const auto& entry : all)
    order.emplace_back(std::max(cost(nodes, entry.first), cost(bare, entry.first)), entry.first);
  std::sort(order.rbegin(), order.rend());
  for (const auto& [most, function] : order) {
    if (most < 0.5) break;
    std::string name = BareName(function.second);
    if (name.size() > 48) name.resize(48);
    section.rows.push_back({Text(std::move(name)), Text(function.first), Number(cost(nodes, function), 0),
                            Number(cost(bare, function), 0)});
  }
  report->Add(std::move(section));
}

void MeasureWaitInstructions(Report* report, bool quick) {
  constexpr int kFew = 10;
  constexpr int kMany = 410;
  constexpr int kMost = 2500;
  constexpr int kPasses = 20;
  Section section = {"instructions_wait",
                     "Instructions per node of one wait (aim 46)",
                     {"wait", "10 nodes, all", "a node, from 10 to 410", "a node, libraries only", "a node of 2500"},
                     {},
                     {}};
  for (const std::string kind : {"mnPost", "mnNPost", "select"}) {
    const auto count = [&](int nodes) { return Count({"wait", kind, std::to_string(nodes)}, kPasses); };
    const Profile few = count(kFew);
    const Profile grown = Difference(count(kMany), few);
    const double nodes = kMany - kFew;
    section.rows.push_back({Text(kind), Number(few.All(), 0), Number(grown.All() / nodes, 1),
                            Number((grown.Of("libmqnode") + grown.Of("libmqcompanion") + grown.Of("libc")) / nodes, 1),
                            quick ? Text("-") : Number(count(kMost).All() / kMost, 1)});
  }
  report->Add(std::move(section));
}

}  // namespace

void MeasureInstructions(Report* report, const Settings& settings) {
  constexpr int kPasses = 1000;
  const Profile nodes = Count({"message", "nodes", "64"}, kPasses);
  Section section = {
      "instructions",
      "Instructions to write and read one message, 64 B body (aim: nodes at most 368 above bare)",
      {"what", "all", "library", "companion", "libc", "bench"},
      {},
      {"library: libmqnode alone; libc: includes its allocations and copies for the library and the companion",
       "bench: the loop, and the code of the bare sockets"}};
  if (nodes.own.empty()) {
    section.notes = {"valgrind is not installed (package valgrind): no instructions were counted"};
    return report->Add(std::move(section));
  }
  const Profile bare = Count({"message", "bare", "64"}, kPasses);
  section.rows = {MessageRow("nodes", nodes), MessageRow("bare", bare),
                  MessageRow("nodes - bare", Difference(nodes, bare))};
  report->Add(std::move(section));
  if (settings.functions) AddFunctions(report, nodes, bare);
  MeasureWaitInstructions(report, settings.quick);
}

}  // namespace bench
