// options.hh - the commands of mqcat and what they share on the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

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

// An option that takes a whole number from min to max.
template <typename T>
CLI::Option* AddNumber(CLI::App& app, const std::string& name, T& target, T min, T max, const std::string& help) {
  return app
      .add_option_function<std::string>(
          name,
          [&target, min, max, name](const std::string& text) {
            const auto value = ParseNumber<T>(text, min, max);
            if (!value) {
              throw CLI::ValidationError(name,
                                         fmt::format("\"{}\" is not a whole number from {} to {}", text, min, max));
            }
            target = *value;
          },
          help)
      ->type_name("N");
}

// An option that takes seconds, with a fraction.
inline CLI::Option* AddSeconds(CLI::App& app, const std::string& name, double& target, double min, double max,
                               const std::string& help) {
  return app
      .add_option_function<std::string>(
          name,
          [&target, min, max, name](const std::string& text) {
            const auto value = ParseSeconds(text, min, max);
            if (!value) {
              throw CLI::ValidationError(name, fmt::format("\"{}\" is not a time from {} to {} s", text, min, max));
            }
            target = *value;
          },
          help)
      ->type_name("SECONDS");
}

}  // namespace mqcat
