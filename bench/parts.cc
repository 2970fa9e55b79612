// parts.cc - times single calls of the libraries that make no system calls, with Google Benchmark, to try out changes
// to them.
#include <benchmark/benchmark.h>

#include "bench/measure.hh"
#include "bench/node_end.hh"
#include "queue/queue.h"

namespace {

using namespace bench;

void Descriptor(benchmark::State& state) {
  const auto size = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    void* block = nullptr;
    Check(fNewMemory(&block, sizeof(IoBuffer), "MQNODE"), "fNewMemory");
    auto* const desc = static_cast<IoBuffer*>(block);
    CreateBuffer(desc, size);
    benchmark::DoNotOptimize(desc->data);
    DeleteBuffer(desc);
    FreeMemory(desc);
  }
}
BENCHMARK(Descriptor)->Arg(200)->Arg(65672)->Arg(1048712);

void Build(benchmark::State& state) {
  PcfMessage* const msg = NewMessage(64);
  for (auto _ : state) {
    mqc_begin(msg, 7);
    mqc_add_int32(msg, 1, 42);
    mqc_add_text(msg, 2, "a text of some length");
    benchmark::DoNotOptimize(mqc_add_int64(msg, 3, 1));
  }
  mqc_message_free(msg);
}
BENCHMARK(Build);

void Parse(benchmark::State& state) {
  PcfMessage* const msg = NewMessage(64);
  for (auto _ : state) benchmark::DoNotOptimize(AlienPcfToNative(msg) && RawToPcf(msg));
  mqc_message_free(msg);
}
BENCHMARK(Parse);

void PutAndGet(benchmark::State& state) {
  Queue* queue = Qalloc();
  Check(queue != nullptr, "Qalloc");
  for (auto _ : state) {
    Qput(queue, queue);
    benchmark::DoNotOptimize(Qget(queue));
  }
  Qfree(&queue);
}
BENCHMARK(PutAndGet);

}  // namespace

BENCHMARK_MAIN();
