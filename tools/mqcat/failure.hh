// failure.hh - how a command ends: exit codes by cause, and the exception that carries one with its text.
#pragma once

#include <string>

namespace mqcat {

// Documented in --help and in the manual page; keep the three together.
enum ExitCode : int {
  kExitOk = 0,
  kExitInternal = 1,       // an internal error
  kExitUsage = 2,          // the command line is wrong
  kExitInput = 3,          // a file, an interface or JSON cannot be read, or is malformed
  kExitConnection = 4,     // unknown name, refused, reset, address in use
  kExitTimeout = 5,        // no answer in time
  kExitBadMessage = 6,     // bytes that break the rules of the wire format
  kExitSecurity = 7,       // keys, signing, authentication
  kExitOutput = 8,         // the output cannot be written
  kExitOutputClosed = 9,   // the reader of the output has closed it
  kExitResources = 10,     // memory, descriptors
  kExitInterrupted = 130,  // SIGINT before the work was done
};

// Thrown anywhere, caught in main. An empty text ends the program silently.
struct Failure {
  ExitCode code;
  std::string text;
};

// "ECONNREFUSED (111): no program listens on that port": the text of a code of errors.h in that place.
std::string CodeText(int code, unsigned place);

// What the user of mqcat can do about a code, on a line of its own; empty when there is nothing to say.
std::string AdviceText(int code);

}  // namespace mqcat
