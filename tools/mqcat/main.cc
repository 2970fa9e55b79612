// main.cc - the command line of mqcat. Every command is a file of its own (options.hh names them).
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <memory>
#include <new>

#include "options.hh"
#include "output.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr char kExitCodes[] =
    "Exit codes:\n"
    "  0    done\n"
    "  1    a fault of mqcat itself\n"
    "  2    the command line is wrong\n"
    "  3    a file, an interface or JSON cannot be read, or is malformed\n"
    "  4    connection: name unknown, refused, address in use, lost\n"
    "  5    no answer in time\n"
    "  6    bytes that break the rules of the wire format\n"
    "  7    keys, signing, authentication\n"
    "  8    the output cannot be written\n"
    "  9    whoever read the output has gone\n"
    "  10   no memory, no descriptors\n"
    "  130  interrupted before the work was done\n";

constexpr char kExamples[] =
    "Examples:\n"
    "  mqcat listen 5000 --echo\n"
    "  mqcat send 127.0.0.1 5000 -c 7 -p 1=hello --reply\n"
    "  mqcat ping 127.0.0.1 5000 -c 5\n"
    "  mqcat explain 2026\n"
    "\n";

// Help that fits the terminal.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() {
    label("TEXT", "TEXT");
    column_width(OutputWidth() < 72 ? 22 : 32);
  }
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
    return Wrap(CLI::Formatter::make_help(app, name, mode), OutputWidth());
  }
};

// unknown: the first word of the command line, when it is no command.
int ParseFailed(const CLI::App& app, const CLI::ParseError& error, const std::string& unknown) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    std::ostringstream out, unused;
    app.exit(error, out, unused);
    Print(out.str());
    Flush();
    return kExitOk;
  }
  std::string command = "mqcat";
  for (const CLI::App* used : app.get_subcommands()) command += " " + used->get_name();
  const std::string what = unknown.empty() ? error.what() : "no command " + Quote(unknown, 40);
  Note(fmt::format("{}\n  {} --help says more", what, command));
  return kExitUsage;
}

int Run(int argc, char** argv) {
  CLI::App app("mqcat - listen, send, ping, take apart: a tool for mqnode messages", "mqcat");
  ExitCode exit = kExitOk;
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_version_flag("--version", std::string("mqcat ") + MQCAT_VERSION);
  app.require_subcommand(1);
  app.footer(std::string(kExamples) + kExitCodes + "\nmqcat COMMAND --help says more about a command.");
  for (const auto add : {AddListen, AddSend, AddPing, AddDecode, AddKeys, AddExplain}) add(app, exit);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool no_command = argc > 1 && argv[1][0] != '-' && app.get_subcommands().empty();
    return ParseFailed(app, error, no_command ? argv[1] : "");
  }
  Flush();
  return exit;
}

// A stream that the caller has closed stays unusable: a socket in its place would be taken for it. Opened the wrong way
// round, so that reading and writing fail.
void KeepStreamsTaken() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

}  // namespace
}  // namespace mqcat

int main(int argc, char** argv) {
  using namespace mqcat;
  signal(SIGPIPE, SIG_IGN);
  KeepStreamsTaken();
  try {
    try {
      return Run(argc, argv);
    } catch (const Failure& failure) {
      if (!failure.text.empty()) Note(failure.text);
      Flush();  // what was printed before the failure
      return failure.code;
    }
  } catch (const Failure& failure) {
    if (!failure.text.empty()) Note(failure.text);
    return failure.code;
  } catch (const std::bad_alloc&) {
    Note("no memory");
    return kExitResources;
  } catch (const std::exception& error) {
    Note(fmt::format("internal fault: {}", error.what()));
    return kExitInternal;
  }
}
