// verdict.hh - puts together what both ends counted, and says whether all was right.
#ifndef MQNODE_DEMO_VERDICT_HH
#define MQNODE_DEMO_VERDICT_HH

#include <optional>
#include <string>
#include <vector>

#include "demo/rogues.hh"
#include "demo/shared.hh"
#include "demo/supervise.hh"

namespace demo {

// A misbehaving client beside what the server made of it. event: null when the server had nothing to say against it.
struct RogueResult {
  const Rogue* rogue;
  const RogueTally* tally;
  const Event* event;
  bool right;
};

struct Verdict {
  std::vector<KindTally> kinds;  // over all processes, in the order of kKindTraits
  KindTally all;
  double asking;  // seconds from the signal to go to the last answer of an honest client
  std::vector<RogueResult> rogues;
  std::vector<std::string> problems;  // empty: all was right
};

Verdict Judge(const Shared& shared, const Options& options, const Course& course);

}  // namespace demo

#endif
