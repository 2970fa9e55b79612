// situation.cc - arms the failure, runs the scenario, compares what is left with what was there.
#include "tests/faults/situation.hh"

#include <map>

#include "tests/faults/calls.hh"
#include "tests/support/fixture.hh"

namespace faults {

namespace {

constexpr int kCleanRuns = 64;  // of a scenario of which the calls are counted: what is lost now and then is seen too

void Arm(const Situation& situation) {
  const size_t send = situation.cut_send != 0 ? situation.cut_send : situation.scenario->cut;
  const size_t receive = situation.cut_receive != 0 ? situation.cut_receive : situation.scenario->cut;
  if (send != 0) Platform::LimitAll("send", send);
  if (receive != 0) Platform::LimitAll("recvfrom", receive);
  if (situation.call.empty()) return;
  if (situation.call == kAllocation) {
    mqc_fail_allocation(situation.nth, situation.onwards);
  } else {
    Platform::Fail(situation.call, static_cast<int>(situation.nth), situation.code,
                   situation.onwards ? Platform::kOnwards : 1);
  }
}

// What must be as it was when a scenario is over.
struct Left {
  std::map<std::string, uint64_t> blocks = LiveBlocks();
  Lines descriptors = OpenDescriptors();
  long library = Platform::LibraryBlocks();

  std::string Difference(const Left& before) const {
    std::string text;
    if (blocks != before.blocks) {
      text += "memory of the companion is still in use:";
      for (const auto& [tag, count] : blocks) text += " " + tag + " " + std::to_string(count);
      text += "\n";
    }
    if (library != before.library) {
      text += "blocks of the library: " + std::to_string(library) + ", before " + std::to_string(before.library) + "\n";
    }
    if (descriptors != before.descriptors) {
      text += "descriptors were left open, or closed:";
      for (const std::string& descriptor : descriptors) text += " " + descriptor;
      text += "\n";
    }
    return text;
  }
};

std::string RunOnce(const Situation& situation, Host::Run run, const std::string& when, Counts* counts) {
  const Left before;
  std::string fell;
  {
    Host host(run);
    const uint64_t allocations = mqc_allocations();
    Platform::StartCounting();
    Arm(situation);
    situation.scenario->run(&host);
    Platform::Mend();
    mqc_fail_allocation(0, 0);
    if (counts != nullptr) {
      for (const auto& [name, count] : Platform::Counts()) (*counts)[name] = count;
      (*counts)[std::string(kAllocation)] = mqc_allocations() - allocations;
    }
    for (const std::string& verdict : host.verdicts()) fell += when + verdict + "\n";
  }
  return fell + Left().Difference(before);
}

}  // namespace

std::string Situation::Text() const {
  std::string text = "--scenario " + std::string(scenario->name);
  if (!call.empty()) {
    text += " --call '" + call + "' --nth " + std::to_string(nth) + " --errno " + CodeName(code) +
            (onwards ? " --onwards" : " --once");
  }
  if (cut_send != 0) text += " --cut-send " + std::to_string(cut_send);
  if (cut_receive != 0) text += " --cut-receive " + std::to_string(cut_receive);
  return text;
}

std::string Try(const Situation& situation, Counts* counts) {
  const Host::Run run = situation.call.empty() ? Host::Run::kClean
                        : situation.onwards    ? Host::Run::kOnwards
                                               : Host::Run::kOnce;
  const std::string fell = RunOnce(situation, run, "", counts);
  MqcMemory all;
  mqc_memory(nullptr, &all);
  const bool failed = Platform::Injections() != 0 || mqc_allocations() != all.total_blocks;
  Situation clean;
  clean.scenario = situation.scenario;
  std::string after;
  for (int i = 0; i < (counts != nullptr ? kCleanRuns : 1) && after.empty(); ++i) {
    after = RunOnce(clean, Host::Run::kClean, "in the clean run after it: ", nullptr);
  }
  const bool reached = failed || situation.call.empty();
  return fell + after + (reached || !(fell + after).empty() ? "" : kNotReached);
}

}  // namespace faults
