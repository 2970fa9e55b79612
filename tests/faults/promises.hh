// promises.hh - what each operation of the library comes to when a call that it makes fails: the table behind every
// judgement, as the headers state it.
#pragma once

#include <string>
#include <vector>

#include "tests/support/platform.hh"

namespace faults {

enum class Op {
  kCreate,
  kMode,
  kOption,
  kConnect,
  kAccept,
  kWrite,
  kFinish,
  kRead,
  kBrowse,
  kWait,
  kClose,
  kAsk,
  kName
};

// What an operation came to: 1 or 0, the code it left (a wait's: the status word; else node->error or rec->error), and
// the one in the node's socket record.
struct Came {
  int result;
  int error;
  int sock = 0;
};

// The status word before a wait.
constexpr int kUntouched = 7777;

// Judges one operation by the calls it made, in order, and by whether memory was refused to it meanwhile. Returns what
// was promised instead, or an empty text.
std::string Judge(Op op, const std::vector<Call>& calls, bool refused, const Came& came);

// Whether the call failed, and with which code of calls.hh.
bool Failed(const Call& call, int* code);

std::string Text(Op op);

}  // namespace faults
