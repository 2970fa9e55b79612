// children.hh - runs jobs in children of this process, some at a time, each for a bounded time, so that a job that
// crashes or hangs is one job that fell.
#pragma once

#include <functional>
#include <string>

namespace faults {

// A build that counts branches: its libraries call more than their own code does, and write the counts in exit.
inline constexpr bool kCountsBranches = MQNODE_COVERAGE;

// Runs job(0) ... job(count - 1), each in a child of its own, at most jobs of them at a time. What a job returns, and
// what it or the sanitizers write to standard error, is handed to done in the parent. ended is empty, or says how the
// child ended: by a signal, by an exit of its own, or because it took longer than seconds.
void RunInChildren(size_t count, unsigned jobs, unsigned seconds, const std::function<std::string(size_t)>& job,
                   const std::function<void(size_t, const std::string& said, const std::string& ended)>& done);

}  // namespace faults
