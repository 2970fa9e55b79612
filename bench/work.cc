// work.cc - does a known amount of work, for measurements of instructions and memory.
//   mqbench_work message CONTESTANT BODY COUNT   writes and reads messages with two ends in this process
//   mqbench_work wait KIND NODES COUNT           waits on idle nodes and a ready one
//   mqbench_work held NODES                      prints per node: resident bytes, idle and after a message; allocated
//                                                bytes; allocations
// Instructions are counted inside mqbench_pass.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "bench/crowd.hh"
#include "bench/end.hh"
#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "bench/waits.hh"

namespace {

using namespace bench;
using Pass = std::function<void()>;

constexpr int kWarmUp = 20;

}  // namespace

extern "C" [[gnu::noinline, gnu::used]] void mqbench_pass(const Pass& pass) { pass(); }

namespace {

void Repeat(size_t count, const Pass& pass) {
  for (int i = 0; i < kWarmUp; ++i) pass();
  for (size_t i = 0; i < count; ++i) mqbench_pass(pass);
}

void Messages(const std::string& name, size_t body, size_t count) {
  for (const Contestant& contestant : Contestants()) {
    if (name != contestant.name) continue;
    const auto far = contestant.make(Pattern::kOneWay);
    const auto near = contestant.make(Pattern::kOneWay);
    near->Connect(far->Listen());
    far->Accept();
    near->Prepare(body);
    far->Prepare(body);
    return Repeat(count, [&] {
      near->Write();
      far->Read();
    });
  }
  Die("no contestant is named " + name);
}

void Waits(const std::string& name, size_t nodes, size_t count) {
  for (const WaitKind& kind : WaitKinds()) {
    if (name != kind.name) continue;
    Crowd crowd;
    crowd.Grow(nodes);
    crowd.Send(nodes / 2, 1);
    const auto waiter = kind.make(crowd.nodes());
    return Repeat(count, [&] { Check(waiter->Wait() == 1, "one node is ready"); });
  }
  Die("no wait is named " + name);
}

double Resident() {
  std::ifstream file("/proc/self/smaps_rollup");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("Rss:", 0) == 0) return std::strtod(line.c_str() + 4, nullptr) * 1024;
  }
  Die("no Rss in /proc/self/smaps_rollup");
}

void Held(size_t nodes) {
  Crowd crowd;
  crowd.Grow(1);
  PcfMessage* const msg = NewMessage(64);
  MqcMemory before;
  MqcMemory after;
  mqc_memory(nullptr, &before);
  const double start = Resident();
  crowd.Grow(nodes + 1);
  const double idle = Resident();
  mqc_memory(nullptr, &after);
  crowd.Send(1, nodes);
  for (size_t i = 1; i <= nodes; ++i) Check(mnRead(msg, crowd.nodes()[i]), "mnRead");
  const double read = Resident();
  const auto count = static_cast<double>(nodes);
  printf("%.0f %.0f %.0f %.2f\n", (idle - start) / count, (read - start) / count,
         double(after.live_bytes - before.live_bytes) / count, double(after.live_blocks - before.live_blocks) / count);
  mqc_message_free(msg);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  const auto number = [&](int i) { return static_cast<size_t>(std::strtoul(argv[i], nullptr, 10)); };
  if (what == "message" && argc == 5) {
    Messages(argv[2], number(3), number(4));
  } else if (what == "wait" && argc == 5) {
    Waits(argv[2], number(3), number(4));
  } else if (what == "held" && argc == 3) {
    Held(number(2));
  } else {
    fprintf(stderr, "mqbench_work: called by mqbench\n");
    return 2;
  }
  return 0;
}
