// memory.hh - where every block of the companion comes from, and the account of them.
//
// A block is a malloc block with a 16-byte head in front of the bytes handed out. Blocks of records start 16 bytes into
// the malloc block; areas start at the next multiple of 64, so that no area begins a few bytes behind a page boundary:
// a copy from a page's start to such a place runs many times slower on common processors.
// Counting takes no lock. A tag's counters only ever grow, but for live_bytes.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <sys/single_threaded.h>

#include <atomic>

namespace mqc {

struct alignas(64) Tag {
  char name[32] = {};  // empty while the tag is not in use
  std::atomic<uint64_t> total = 0;
  std::atomic<uint64_t> released = 0;
  std::atomic<uint64_t> peak = 0;
  std::atomic<uint64_t> live_bytes = 0;
};

// The companion's own tags come first in the table.
enum TagIndex : uint32_t {
  kTagBuffer,
  kTagMessage,
  kTagRecord,
  kTagSigner,
  kTagRing,
  kTagReplay,
  kTagFile,
  kTagNone,
  kTagOther,
  kTagFirstFree
};
constexpr uint32_t kTags = 64;

extern Tag tags[kTags];
extern std::atomic<uint64_t> fail_countdown;  // 0: no allocation is to fail

struct BlockHead {
  Tag* tag;
  uint32_t size;    // as asked for
  uint32_t offset;  // from the malloc block to the bytes handed out
};
static_assert(sizeof(BlockHead) == 16);

constexpr size_t kAreaAlignment = 64;

[[gnu::cold]] bool MustFail();  // counts down; true for the allocation that has to fail
[[gnu::cold]] void* CountFailure();
[[gnu::cold]] void RaisePeak(Tag& tag, int64_t live);

// Adds one block and its bytes; returns the number of blocks. A process with one thread needs no locked instruction.
inline uint64_t Add(std::atomic<uint64_t>& blocks, std::atomic<uint64_t>& bytes, uint64_t size) {
  constexpr auto relaxed = std::memory_order_relaxed;
  if (__libc_single_threaded) [[likely]] {
    const uint64_t sum = blocks.load(relaxed) + 1;
    blocks.store(sum, relaxed);
    bytes.store(bytes.load(relaxed) + size, relaxed);
    return sum;
  }
  bytes.fetch_add(size, relaxed);
  return blocks.fetch_add(1, relaxed) + 1;
}

inline void* CountBlock(char* block, uint32_t offset, uint32_t size, Tag& tag) {
  char* place = block + offset;
  *(reinterpret_cast<BlockHead*>(place) - 1) = {&tag, size, offset};
  const uint64_t total = Add(tag.total, tag.live_bytes, size);
  // Other threads may have released more meanwhile than this one had seen allocated: the difference is signed.
  const int64_t live = static_cast<int64_t>(total - tag.released.load(std::memory_order_relaxed));
  if (live > static_cast<int64_t>(tag.peak.load(std::memory_order_relaxed))) [[unlikely]]
    RaisePeak(tag, live);
  return place;
}

// Bytes for a record, 16-byte aligned, not cleared. Null without memory.
inline void* Allocate(uint32_t size, Tag& tag) {
  if (fail_countdown.load(std::memory_order_relaxed) != 0 && MustFail()) [[unlikely]]
    return CountFailure();
  char* block = static_cast<char*>(malloc(size + sizeof(BlockHead)));
  if (block == nullptr) [[unlikely]]
    return CountFailure();
  return CountBlock(block, sizeof(BlockHead), size, tag);
}

// Bytes for data, at a multiple of 64, not cleared. Null without memory.
[[gnu::always_inline]] inline void* AllocateArea(uint32_t size, Tag& tag) {
  if (fail_countdown.load(std::memory_order_relaxed) != 0 && MustFail()) [[unlikely]]
    return CountFailure();
  // malloc's 16-byte alignment leaves at most 48 bytes to skip behind the head.
  char* block = static_cast<char*>(malloc(size + kAreaAlignment));
  if (block == nullptr) [[unlikely]]
    return CountFailure();
  const uintptr_t start = reinterpret_cast<uintptr_t>(block);
  const uintptr_t area = (start + sizeof(BlockHead) + kAreaAlignment - 1) & ~(kAreaAlignment - 1);
  return CountBlock(block, static_cast<uint32_t>(area - start), size, tag);
}

// Releases a block of either kind; place may be null.
inline void Release(void* place) {
  if (place == nullptr) return;
  const BlockHead head = *(static_cast<BlockHead*>(place) - 1);
  Add(head.tag->released, head.tag->live_bytes, -static_cast<uint64_t>(head.size));
  free(static_cast<char*>(place) - head.offset);
}

}  // namespace mqc
