// memory.hh - where every block of the companion comes from, and the account of them.
//
// A block is a malloc block with a 16-byte head in front of the bytes handed out. Blocks of records start 16 bytes into
// the malloc block; areas start at the next multiple of 64, so that no area begins a few bytes behind a page boundary:
// a copy from a page's start to such a place runs many times slower on common processors.
// Counting takes no lock.
//
// A released block of up to 2 KiB stays on a shelf for the next allocation that rounds up to the same multiple of 64:
// the descriptor and the data of a short message cost no visit to malloc. A shelf holds one block; shelves are used
// while the process has one thread, and in release builds only, so that what looks for misuse of memory sees it all.
//
// Records of 1 to 2 KiB, nodes above all, lie side by side in chunks (pool.cc), also in release builds only: a wait
// looks into every node, and nodes that lie among their 16 KiB receive areas cost it a page each.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <sys/single_threaded.h>

namespace mqc {

// Plain words: a process with one thread adds to them without a locked instruction, others with atomic ones.
struct alignas(64) Tag {
  char name[32] = {};  // empty while the tag is not in use
  uint64_t total = 0;  // blocks allocated so far
  uint64_t live = 0;   // blocks not released yet
  uint64_t live_bytes = 0;
  uint64_t peak = 0;  // of live
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
extern uint64_t fail_countdown;  // 0: no allocation is to fail

struct BlockHead {
  Tag* tag;
  uint32_t size;    // as asked for
  uint16_t offset;  // from the malloc block to the bytes handed out; more than kAreaAlignment in a chunk
  uint16_t shelf;   // where the block may stay when it is released; 0 for none
};
static_assert(sizeof(BlockHead) == 16);

constexpr size_t kAreaAlignment = 64;

// Shelves for malloc blocks of up to kShelfStep, twice that and so on: first those of records, then those of areas.
#ifdef MQC_SHELVES
constexpr uint32_t kShelvesOfAKind = 32;
#else
constexpr uint32_t kShelvesOfAKind = 0;
#endif
constexpr size_t kShelfStep = 64;
extern void* shelves[1 + 2 * kShelvesOfAKind];  // what was handed out; the first is always null

inline BlockHead& HeadOf(void* place) { return *(static_cast<BlockHead*>(place) - 1); }

[[gnu::cold]] bool MustFail();  // counts down; true for the allocation that has to fail
[[gnu::cold]] void* CountFailure();
// Alone: in a process with one thread.
inline void CountInAlone(Tag& tag, uint64_t size) {
  tag.total += 1;
  tag.live_bytes += size;
  tag.live += 1;
  if (tag.live > tag.peak) [[unlikely]]
    tag.peak = tag.live;
}

inline void CountOutAlone(Tag& tag, uint64_t size) {
  tag.live_bytes -= size;
  tag.live -= 1;
}

void CountIn(Tag& tag, uint64_t size);
void CountOut(Tag& tag, uint64_t size);

enum class Kind : uint32_t { kRecord, kArea };

// What a malloc block for size bytes takes. malloc's 16-byte alignment leaves at most 48 bytes to skip behind the head
// of an area.
template <Kind kKind>
constexpr size_t BlockBytes(uint32_t size) {
  return size_t{size} + (kKind == Kind::kArea ? kAreaAlignment : sizeof(BlockHead));
}

template <Kind kKind>
inline uint16_t ShelfFor(uint32_t size) {
  const size_t step = (BlockBytes<kKind>(size) - 1) / kShelfStep;
  const uint32_t first = kKind == Kind::kArea ? 1 + kShelvesOfAKind : 1;
  return step < kShelvesOfAKind ? static_cast<uint16_t>(first + step) : 0;
}

constexpr uint16_t kFirstPooled = 17;  // shelf of the smallest records that lie in chunks

inline bool IsPooled(Kind kind, uint16_t shelf) {
  return kind == Kind::kRecord && shelf >= kFirstPooled && shelf <= kShelvesOfAKind;
}

// A block of that shelf's size in a chunk, offset bytes from its start. Null without memory.
char* TakeFromPool(uint16_t shelf, uint32_t* offset);
void GiveToPool(char* block, uint32_t offset);

// A block that is to be kept on that shelf later. Null without memory.
template <Kind kKind>
[[gnu::noinline]] void* AllocateNew(uint32_t size, Tag& tag, uint16_t shelf) {
  if (__atomic_load_n(&fail_countdown, __ATOMIC_RELAXED) != 0 && MustFail()) return CountFailure();
  const size_t bytes =
      shelf != 0 ? (BlockBytes<kKind>(size) + kShelfStep - 1) & ~(kShelfStep - 1) : BlockBytes<kKind>(size);
  uint32_t before = 0;  // bytes of a chunk before the block
  const bool pooled = IsPooled(kKind, shelf);
  char* block = pooled ? TakeFromPool(shelf, &before) : static_cast<char*>(malloc(bytes));
  if (block == nullptr) return CountFailure();
  const uintptr_t start = reinterpret_cast<uintptr_t>(block);
  const uintptr_t area = (start + sizeof(BlockHead) + kAreaAlignment - 1) & ~(kAreaAlignment - 1);
  char* place = block + (kKind == Kind::kArea ? area - start : sizeof(BlockHead));
  HeadOf(place) = {&tag, size, static_cast<uint16_t>(before + (place - block)), shelf};
  CountIn(tag, size);
  return place;
}

// The block on that shelf; null when there is none, or when threads or a failure that is asked for stand in the way.
inline void* TakeKept(uint32_t size, Tag& tag, uint16_t shelf) {
  void* place = shelves[shelf];
  if (place == nullptr || !__libc_single_threaded || fail_countdown != 0) [[unlikely]]
    return nullptr;
  shelves[shelf] = nullptr;
  HeadOf(place).tag = &tag;
  HeadOf(place).size = size;
  CountInAlone(tag, size);
  return place;
}

// Bytes, not cleared: for a record at a multiple of 16, for an area at a multiple of 64. Null without memory.
template <Kind kKind>
inline void* Allocate(uint32_t size, Tag& tag) {
  const uint16_t shelf = ShelfFor<kKind>(size);
  void* place = TakeKept(size, tag, shelf);
  return place != nullptr ? place : AllocateNew<kKind>(size, tag, shelf);
}

[[gnu::noinline]] void ReleaseOther(void* place);  // one that no shelf takes, or that threads share

// Releases a block of either kind; place may be null.
[[gnu::always_inline]] inline void Release(void* place) {
  if (place == nullptr) return;
  const BlockHead& head = HeadOf(place);
  if (kShelvesOfAKind == 0 || !__libc_single_threaded || head.shelf == 0 || shelves[head.shelf] != nullptr) [[unlikely]]
    return ReleaseOther(place);
  shelves[head.shelf] = place;
  CountOutAlone(*head.tag, head.size);
}

}  // namespace mqc
