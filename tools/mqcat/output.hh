// output.hh - standard output with every error noticed, and notes on standard error.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace mqcat {

// Writes to standard output through one buffer. A failed write ends the program: silently with kExitOutputClosed if the
// reader has closed the output (SIGPIPE is ignored), else with kExitOutput and the reason.
void Print(std::string_view text);
void Flush();

// A JSON value on a line of its own, with control characters escaped.
void PrintJson(const nlohmann::ordered_json& json);

// Width of the output in columns: of the terminal, else COLUMNS if it is set, else 100. Between 20 and 400.
size_t OutputWidth();

bool OutputIsTerminal();
bool NotesAreOnTerminal();

// One line or more to standard error, after "mqcat: ", fit for a terminal. Errors there are ignored, because they
// could not be reported.
void Note(std::string_view text);

// Overwrites the last progress text on the terminal of standard error; an empty text erases it.
void ShowProgress(std::string_view text);

}  // namespace mqcat
