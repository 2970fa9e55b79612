// output.hh - standard output with every error noticed, and notes on standard error.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace mqcat {

// Writes to standard output through one buffer. A failed write ends the program: kExitOutputClosed without a word when
// the reader has gone (SIGPIPE is ignored), kExitOutput with the reason for anything else.
void Print(std::string_view text);
void Flush();

// A JSON value on a line of its own, of characters that a terminal takes no harm from.
void PrintJson(const nlohmann::ordered_json& json);

// Columns to write for: of the terminal; COLUMNS when that is set; 100 otherwise. Between 20 and 400.
size_t OutputWidth();

bool OutputIsTerminal();
bool NotesAreOnTerminal();

// One line or more to standard error, behind "mqcat: ", fit for a terminal. Errors there are ignored: nobody is left to
// tell.
void Note(std::string_view text);

// Overwrites the last progress text on the terminal of standard error; an empty text erases it.
void ShowProgress(std::string_view text);

}  // namespace mqcat
