// options.hh - the commands of mqcat and what they share on the command line.
// Help, error messages and completion are made from the options as they are added here: the type name of an option says
// what completes its value (complete.cc).
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "failure.hh"
#include "fmt/format.h"
#include "number.hh"

namespace mqcat {

// Each adds its command. It runs while the command line is parsed, leaves its exit code in exit, or throws a Failure.
void AddListen(CLI::App& app, ExitCode& exit);
void AddSend(CLI::App& app, ExitCode& exit);
void AddPing(CLI::App& app, ExitCode& exit);
void AddDecode(CLI::App& app, ExitCode& exit);
void AddKeys(CLI::App& app, ExitCode& exit);
void AddExplain(CLI::App& app, ExitCode& exit);
void AddHelp(CLI::App& app, ExitCode& exit);

// The command that prints completion scripts. Not only of mqcat.
void AddCompletion(CLI::App& app);

// An option that takes a whole number from min to max. Its value so far is the default; the largest of T means none.
template <typename T>
CLI::Option* AddNumber(CLI::App& app, const std::string& name, T& target, T min, T max, const std::string& help) {
  CLI::Option* const option = app.add_option_function<std::string>(
      name,
      [&target, min, max, name](const std::string& text) {
        const auto value = ParseNumber<T>(text, min, max);
        if (!value) {
          throw CLI::ValidationError(name, fmt::format("\"{}\" is not a whole number from {} to {}", text, min, max));
        }
        target = *value;
      },
      help);
  if (target != std::numeric_limits<T>::max()) option->default_str(std::to_string(target));
  return option->type_name("N");
}

// An option that takes seconds, with a fraction. Its value so far is the default; 0 below min means none.
inline CLI::Option* AddSeconds(CLI::App& app, const std::string& name, double& target, double min, double max,
                               const std::string& help) {
  CLI::Option* const option = app.add_option_function<std::string>(
      name,
      [&target, min, max, name](const std::string& text) {
        const auto value = ParseSeconds(text, min, max);
        if (!value) {
          throw CLI::ValidationError(name, fmt::format("\"{}\" is not a time from {} to {} s", text, min, max));
        }
        target = *value;
      },
      help);
  if (target >= min) option->default_str(fmt::format("{}", target));
  return option->type_name("SECONDS");
}

// The peer of send and ping: HOST:PORT, or HOST SERVICE. ParsePlace reads it.
inline void AddPeer(CLI::App& app, std::vector<std::string>& words) {
  app.add_option("HOST:PORT", words,
                 "The peer: a host name or an IPv4 address, and a port or a service name; also HOST SERVICE")
      ->required()
      ->expected(1, 2);
}

// How messages are printed, and --force, which lets raw ones go to a terminal.
struct FormatOptions {
  std::string format = "text";
  bool force = false;
};
void AddFormat(CLI::App& app, FormatOptions& options, const std::string& help);
// Throws a Failure for raw bytes on a terminal.
void CheckFormat(const FormatOptions& options);

// Files of keys, and users. What is empty was not given.
struct KeyOptions {
  std::string sign;     // secret key file
  std::string ring;     // ring file
  std::string user;     // whose key to take, or the sender of unsigned messages
  std::string seal_to;  // user of the ring
  std::string key;      // secret key file, to open sealed messages
};
void AddKeyOptions(CLI::App& app, KeyOptions& options, const std::string& sign, const std::string& ring,
                   const std::string& user);
// An option that takes the path of a secret key file.
CLI::Option* AddKeyFile(CLI::App& app, const std::string& name, std::string& path, const std::string& help);
void AddSealTo(CLI::App& app, KeyOptions& options);
// --user, for a name that a message can have.
CLI::Option* AddUser(CLI::App& app, std::string& user, const std::string& help);

}  // namespace mqcat
