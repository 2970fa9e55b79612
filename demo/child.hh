// child.hh - a child process: started, watched and stopped. It never outlives this process.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "demo/tally.hh"

namespace demo {

class Child {
 public:
  // Runs work in a new process and returns its exit code there.
  //   logs         keep what the child prints
  //   descriptors  its limit of file descriptors; 0 leaves it as it is
  Child(std::string name, const std::function<int()>& work, bool logs = false, rlim_t descriptors = 0);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  pid_t pid() const { return pid_; }
  bool HasEnded();
  // Describes how a child that has ended failed; empty if its exit code was 0.
  std::string Failure() const;
  // Asks it to end, waits, and returns Failure(). The address sanitizer looks for leaks when the child exits.
  std::string Stop();

  std::string Log() const;

 private:
  std::string name_;
  int log_;
  pid_t pid_;
  bool ended_ = false;
  int status_ = 0;
};

// The companion's memory in use, without the blocks that remember accepted messages, whose number grows up to a limit.
MqcMemory MemoryInUse();

// Memory, descriptors and processor time of a process.
Usage UsageOf(pid_t pid);

// Calls done, with pauses, until it returns true. False after this many seconds, which are ample even for a busy
// machine, and when the program is interrupted.
bool Await(const std::function<bool()>& done, double seconds = 30);

// SIGINT and SIGTERM ask the program to end. A second one ends it at once, and its children with it.
void CatchInterrupts();
int Interrupt();  // the signal; 0 without one
inline bool IsInterrupted() { return Interrupt() != 0; }

void Sleep(double seconds);

}  // namespace demo
