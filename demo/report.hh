// report.hh - tells a person, or a program, how a run went.
#ifndef MQNODE_DEMO_REPORT_HH
#define MQNODE_DEMO_REPORT_HH

#include <string>

#include "demo/verdict.hh"

namespace demo {

// Overwrites the line of a terminal with how far the run is; nothing when standard error is none.
class Progress {
 public:
  Progress(const Shared& shared, const Options& options);
  ~Progress();
  void Show(double seconds);

 private:
  const Shared& shared_;
  const Options& options_;
  const bool isTerminal_;
  double shownAt_ = 0;
  uint64_t shownMessages_ = 0;
};

std::string TableOf(const Shared& shared, const Options& options, const Course& course, const Verdict& verdict,
                    bool colors);

std::string JsonOf(const Shared& shared, const Options& options, const Course& course, const Verdict& verdict);

}  // namespace demo

#endif
