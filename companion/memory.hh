// memory.hh - where every block of the companion comes from, and the account of them.
//
// A block is a malloc block with a 16-byte head in front of the bytes handed out. Blocks of records start 16 bytes into
// the malloc block; areas start at the next multiple of 64, so that no area begins a few bytes behind a page boundary:
// a copy from a page's start to such a place runs many times slower on common processors.
// Counting takes no lock.
//
// The descriptor and the data of a short message cost no visit to malloc: of either kind one small block that was
// released waits for the next of its size, while the process has one thread. The address sanitizer is told that nobody
// may touch it meanwhile.
#pragma once

#include <sanitizer/asan_interface.h>
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

enum Kind : uint32_t { kRecord, kArea };

struct BlockHead {
  Tag* tag;
  uint32_t size;    // as asked for
  uint16_t offset;  // from the malloc block to the bytes handed out
  uint16_t bytes;   // of the malloc block; 0 for one that is not kept
};
static_assert(sizeof(BlockHead) == 16);

constexpr size_t kAreaAlignment = 64;
constexpr uint32_t kMostKept[] = {64, 2048};  // bytes of a malloc block; records are descriptors and queue entries

struct Kept {
  void* place;     // what was handed out
  uint32_t bytes;  // of the malloc block, 0 when none is kept
};
extern Kept kept[2];  // by kind

inline BlockHead& HeadOf(void* place) { return *(static_cast<BlockHead*>(place) - 1); }

[[gnu::cold]] bool MustFail();  // counts down; true for the allocation that has to fail
[[gnu::cold]] void* CountFailure();
void CountIn(Tag& tag, uint64_t size);
void CountOut(Tag& tag, uint64_t size);

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

// What a malloc block for size bytes takes, in steps of 64. malloc's 16-byte alignment leaves at most 48 bytes to skip
// before the head of an area.
template <Kind kKind>
constexpr uint64_t BlockBytes(uint32_t size) {
  const uint64_t before = kKind == kArea ? kAreaAlignment : sizeof(BlockHead);
  return (size + before + 63) & ~uint64_t{63};
}

void DropKept(Kind kind);

// A block from malloc. Null without memory.
template <Kind kKind>
[[gnu::noinline]] void* AllocateNew(uint32_t size, Tag& tag) {
  if (__atomic_load_n(&fail_countdown, __ATOMIC_RELAXED) != 0 && MustFail()) return CountFailure();
  const uint64_t bytes = BlockBytes<kKind>(size);
  const bool is_small = bytes <= kMostKept[kKind];
  if (is_small) DropKept(kKind);  // one of another size
  auto* const block = static_cast<char*>(malloc(bytes));
  if (block == nullptr) return CountFailure();
  const uintptr_t past = reinterpret_cast<uintptr_t>(block) % kAreaAlignment;
  const auto offset = static_cast<uint16_t>(kKind == kArea ? kAreaAlignment - past : sizeof(BlockHead));
  char* const place = block + offset;
  HeadOf(place) = {&tag, size, offset, static_cast<uint16_t>(is_small ? bytes : 0)};
  ASAN_POISON_MEMORY_REGION(place + size, bytes - offset - size);
  CountIn(tag, size);
  return place;
}

// The block of this kind that was kept, if it is of that size. Null also when threads, or a failure that was asked for,
// forbid it.
template <Kind kKind>
inline void* TakeKept(uint32_t size, Tag& tag) {
  Kept& last = kept[kKind];
  if (last.bytes != BlockBytes<kKind>(size) || !__libc_single_threaded || fail_countdown != 0) [[unlikely]]
    return nullptr;
  last.bytes = 0;
  HeadOf(last.place).tag = &tag;
  HeadOf(last.place).size = size;
  ASAN_UNPOISON_MEMORY_REGION(last.place, size);
  CountInAlone(tag, size);
  return last.place;
}

// Bytes, not cleared: for a record at a multiple of 16, for an area at a multiple of 64. Null without memory.
template <Kind kKind>
inline void* Allocate(uint32_t size, Tag& tag) {
  void* place = TakeKept<kKind>(size, tag);
  return place != nullptr ? place : AllocateNew<kKind>(size, tag);
}

void Free(void* place);

// Releases a block of this kind; place may be null.
template <Kind kKind>
inline void Release(void* place) {
  if (place == nullptr) return;
  const BlockHead& head = HeadOf(place);
  Kept& last = kept[kKind];
  if (head.bytes == 0 || last.bytes != 0 || !__libc_single_threaded) [[unlikely]]
    return Free(place);
  last = {place, head.bytes};
  CountOutAlone(*head.tag, head.size);
  ASAN_POISON_MEMORY_REGION(place, head.size);
}

}  // namespace mqc
