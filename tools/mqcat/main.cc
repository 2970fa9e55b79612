// main.cc - the command line of mqcat. Every command is a file of its own (options.hh names them).
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <new>

#include "help.hh"
#include "options.hh"
#include "output.hh"

namespace mqcat {
namespace {

constexpr char kFooter[] =
    "Examples:\n"
    "  mqcat listen 5000 --echo\n"
    "  mqcat send 127.0.0.1:5000 -c 7 -p 1=hello --reply\n"
    "  mqcat ping 127.0.0.1:5000 -c 5\n"
    "  mqcat explain 2026\n"
    "\n"
    "Exit codes:\n"
    "  0    success\n"
    "  1    internal error of mqcat\n"
    "  2    usage error\n"
    "  3    unreadable or malformed input: a file, an interface, JSON\n"
    "  4    connection: unknown name, refused, reset, address in use\n"
    "  5    no answer in time\n"
    "  6    bytes that violate the wire format\n"
    "  7    keys, signatures\n"
    "  8    output that cannot be written\n"
    "  9    output closed by its reader\n"
    "  10   out of memory or file descriptors\n"
    "  130  interrupted before the work was done\n"
    "\n"
    "mqcat COMMAND --help describes a command; man mqcat describes all of them.";

int ParseFailed(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
    std::ostringstream out, unused;
    app.exit(error, out, unused);
    Print(out.str());
    Flush();
    return kExitOk;
  }
  Note(UsageText(app, error));
  return kExitUsage;
}

int Run(int argc, char** argv) {
  CLI::App app("mqcat - send, receive, measure and decode mqnode messages", "mqcat");
  ExitCode exit = kExitOk;
  FormatHelp(app);
  app.set_version_flag("-V,-v,--version", std::string("mqcat ") + MQCAT_VERSION, "Print the version");
  app.require_subcommand(1);
  app.footer(kFooter);
  for (const auto add : {AddListen, AddSend, AddPing, AddDecode, AddKeys, AddExplain, AddHelp}) add(app, exit);
  for (CLI::App* command : app.get_subcommands({})) command->group("Commands");
  AddCompletion(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return ParseFailed(app, error);
  }
  Flush();
  return exit;
}

// A stream that the caller has closed stays unusable: a socket must not get its descriptor. Opened the wrong way round,
// so that reading and writing fail.
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
    Note("out of memory");
    return kExitResources;
  } catch (const std::exception& error) {
    Note(fmt::format("internal error: {}", error.what()));
    return kExitInternal;
  }
}
