// main.cc - mqdemo: options, a run, its report, the exit code.
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <new>
#include <random>

#include "demo/report.hh"
#include "demo/supervise.hh"

namespace {

using namespace demo;

constexpr int kExitWrong = 1;
constexpr int kExitCannot = 2;
constexpr rlim_t kSpareDescriptors = 128;

int Cannot(const std::string& why) {
  fmt::print(stderr, "mqdemo: {}\n", why);
  return kExitCannot;
}

void Describe(CLI::App* app, Options* options) {
  app->description(
      "The system at work: one server process with one thread serves hundreds of clients at once, plain and signed, "
      "TCP and\n"
      "UDP, small and large messages, while others misbehave. Everything stays on 127.0.0.1, on ports that the kernel "
      "picks.");
  app->add_option("--clients", options->clients, "honest clients, 1 to 2000")
      ->check(CLI::Range(1, kMostClients))
      ->capture_default_str();
  app->add_option("--processes", options->processes, "processes that the honest clients are spread over, 1 to 32")
      ->check(CLI::Range(1, kMostProcesses))
      ->capture_default_str();
  app->add_option("--messages", options->messages, "most questions of a client, 0 for as many as fit into the time")
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str();
  app->add_option("--seconds", options->seconds, "how long the clients go on asking, 1 to 60")
      ->check(CLI::Range(1, 60))
      ->capture_default_str();
  app->add_flag("--honest-only", options->honestOnly, "nobody misbehaves");
  app->add_flag("--json", options->json, "report as JSON");
  app->footer(
      "Exit code: 0 all was right at both ends, 1 something was not, 2 it could not be run.\n"
      "Example: mqdemo --clients 1000 --seconds 10 --json");
}

// Room for a descriptor of every connection in the server, and of every client in its process. Empty, or why not.
std::string RaiseDescriptorLimit(const Options& options) {
  const rlim_t needed = static_cast<rlim_t>(options.clients) + kSpareDescriptors;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) return {};
  if (limit.rlim_max < needed) {
    return fmt::format("{} clients need {} open files, the limit is {} (ulimit -Hn)", options.clients, needed,
                       limit.rlim_max);
  }
  limit.rlim_cur = needed;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return "cannot raise the limit of open files";
  return {};
}

Shared* NewShared() {
  void* const area = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) return nullptr;
  return new (area) Shared{};
}

bool Print(const std::string& text) {
  return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

int RunDemo(const Options& options) {
  signal(SIGPIPE, SIG_IGN);
  unsetenv("TEVRA_HOME");  // with it every node would start a shell to learn the name of this program
  if (const std::string why = RaiseDescriptorLimit(options); !why.empty()) return Cannot(why);
  Shared* const shared = NewShared();
  if (shared == nullptr) return Cannot("no memory to share between processes");
  Keys keys{};
  if (const std::string why = MakeKeys(&keys); !why.empty()) return Cannot(why);
  const Author author(std::random_device{}());

  Course course;
  {
    Progress progress(*shared, options);
    course = Supervise(shared, author, keys, options, [&](double seconds) { progress.Show(seconds); });
  }
  mqc_wipe(&keys, sizeof keys);
  mqc_ring_clear();
  const Verdict verdict = Judge(*shared, options, course);
  const bool colors = isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr;
  const std::string text =
      options.json ? JsonOf(*shared, options, course, verdict) : TableOf(*shared, options, course, verdict, colors);
  if (!Print(text)) return Cannot("cannot write the report");
  return verdict.problems.empty() ? 0 : kExitWrong;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    CLI::App app;
    Describe(&app, &options);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return app.exit(error) == 0 ? 0 : kExitCannot;
    }
    options.processes = std::min(options.processes, options.clients);
    return RunDemo(options);
  } catch (const std::exception& error) {
    return Cannot(error.what());
  }
}
