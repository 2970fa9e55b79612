// help.hh - help and usage errors, made from the definition of the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace mqcat {

// Sets the program's help up, before commands are added to it.
void FormatHelp(CLI::App& app);

// "mqcat keys add": a command as it is typed.
std::string FullName(const CLI::App& command);

// What is wrong with the command line that was parsed last: an unknown word and the most similar known one, or the
// message of the error.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error);

}  // namespace mqcat
