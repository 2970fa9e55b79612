// output.hh - standard output with every error noticed, and notes on standard error.
#pragma once

#include <string>
#include <string_view>

namespace mqcat {

// Writes to standard output through one buffer. A failed write ends the program: kExitOutputClosed without a word when
// the reader has gone (SIGPIPE is ignored), kExitOutput with the reason for anything else.
void Print(std::string_view text);
void Flush();

// Columns to write for: of the terminal; COLUMNS when that is set; 100 otherwise. Between 20 and 400.
size_t OutputWidth();

bool OutputIsTerminal();
bool NotesAreOnTerminal();

// One line or more to standard error, behind "mqcat: ". Errors there are ignored: nobody is left to tell.
void Note(std::string_view text);

// Overwrites the last progress text on the terminal of standard error; an empty text erases it.
void ShowProgress(std::string_view text);

}  // namespace mqcat
