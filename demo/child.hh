// child.hh - a child process: started, watched and ended. It never outlives this process.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "demo/tally.hh"

namespace demo {

class Child {
 public:
  // Runs work in a new process, whose exit code it returns. What the child prints is kept as its log when it is to be;
  // descriptors: how many it may have, 0 for as many as there may be.
  Child(std::string name, const std::function<int()>& work, bool logs = false, rlim_t descriptors = 0);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  pid_t pid() const { return pid_; }
  bool HasEnded();
  // Of one that has ended: empty when it did in order, else how.
  std::string Failure() const;
  // Asks it to end and waits. As Failure; the address sanitizer looks for leaks then.
  std::string Stop();

  std::string Log() const;

 private:
  std::string name_;
  int log_;
  pid_t pid_;
  bool ended_ = false;
  int status_ = 0;
};

// The companion's account of this process without the blocks that remember accepted messages: those grow with what was
// accepted, up to their limit.
MqcMemory MemoryInUse();

// What a process uses.
Usage UsageOf(pid_t pid);

// Repeats done, with pauses, until it says true. False when it does not in any time that a machine needs, however
// busy, or after a signal has asked this program to end.
bool Await(const std::function<bool()>& done, double seconds = 30);

// A signal has asked this program to end. SIGINT and SIGTERM set it once it is caught.
void CatchInterrupts();
bool IsInterrupted();

void Sleep(double seconds);

}  // namespace demo
