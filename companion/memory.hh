// memory.hh - allocation of all blocks of the companion, and their accounting.
//
// A block is a malloc block with a 16-byte head before the bytes that the caller gets. Records start 16 bytes into the
// malloc block. Areas start at a multiple of 64, so that no area begins a few bytes after a page boundary: on common
// processors, a copy from the start of a page to such an address is many times slower.
// Accounting takes no lock.
//
// While the process has a single thread, the last small block of each kind that was released is kept for the next
// allocation of its size: a write of a short message needs no call of malloc for its descriptor and data. The address
// sanitizer reports accesses to a kept block.
#pragma once

#include <sanitizer/asan_interface.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/single_threaded.h>

namespace mqc {

// Not std::atomic: a process with a single thread counts with plain instructions, others with atomic built-ins.
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
extern uint64_t fail_countdown;  // the allocation that has to fail, counted from 1 for the next one; 0: none

enum Kind : uint32_t { kRecord, kArea };

struct BlockHead {
  Tag* tag;
  uint32_t size;    // requested by the caller
  uint16_t offset;  // from the malloc block to the caller's bytes
  uint16_t bytes;   // size of the malloc block; 0 if it is too large to be kept
};
static_assert(sizeof(BlockHead) == 16);

constexpr size_t kAreaAlignment = 64;
constexpr uint32_t kMaxKept[] = {64, 2048};  // by kind, size of the malloc block; 64: descriptors and queue entries

struct Kept {
  void* data;      // the caller's bytes
  uint32_t bytes;  // size of the malloc block; 0 if no block is kept
};
extern Kept kept[2];  // by kind

inline BlockHead& HeadOf(void* data) { return *(static_cast<BlockHead*>(data) - 1); }

[[gnu::cold]] bool MustFail();  // counts down; true for the allocation that has to fail
[[gnu::cold]] void* CountFailure();
void CountIn(Tag& tag, uint64_t size);
void CountOut(Tag& tag, uint64_t size);

// Alone: in a process with a single thread.
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

// Size of the malloc block for size bytes, a multiple of 64. Because malloc aligns blocks to 16 bytes, at most 48 bytes
// are skipped before the head of an area.
template <Kind kKind>
constexpr uint64_t BlockBytes(uint32_t size) {
  const uint64_t before = kKind == kArea ? kAreaAlignment : sizeof(BlockHead);
  return (size + before + 63) & ~uint64_t{63};
}

void DropKept(Kind kind);

// Allocates a block with malloc. Null if there is no memory.
template <Kind kKind>
[[gnu::noinline]] void* AllocateNew(uint32_t size, Tag& tag) {
  if (__atomic_load_n(&fail_countdown, __ATOMIC_RELAXED) != 0 && MustFail()) return CountFailure();
  const uint64_t bytes = BlockBytes<kKind>(size);
  const bool is_small = bytes <= kMaxKept[kKind];
  if (is_small) DropKept(kKind);  // only one is kept, and the new block is likelier to be needed again
  auto* const block = static_cast<char*>(malloc(bytes));
  if (block == nullptr) return CountFailure();
  const uintptr_t past = reinterpret_cast<uintptr_t>(block) % kAreaAlignment;
  const auto offset = static_cast<uint16_t>(kKind == kArea ? kAreaAlignment - past : sizeof(BlockHead));
  char* const data = block + offset;
  HeadOf(data) = {&tag, size, offset, static_cast<uint16_t>(is_small ? bytes : 0)};
  ASAN_POISON_MEMORY_REGION(data + size, bytes - offset - size);
  CountIn(tag, size);
  return data;
}

// Returns the kept block of this kind if it has the right size. Null otherwise, and also if the process has several
// threads or an allocation has to fail.
template <Kind kKind>
inline void* TakeKept(uint32_t size, Tag& tag) {
  Kept& last = kept[kKind];
  if (last.bytes != BlockBytes<kKind>(size) || !__libc_single_threaded || fail_countdown != 0) [[unlikely]]
    return nullptr;
  last.bytes = 0;
  HeadOf(last.data).tag = &tag;
  HeadOf(last.data).size = size;
  ASAN_UNPOISON_MEMORY_REGION(last.data, size);
  CountInAlone(tag, size);
  return last.data;
}

// Allocates size bytes, not cleared, aligned to 16 for a record and to 64 for an area. Null if there is no memory.
template <Kind kKind>
inline void* Allocate(uint32_t size, Tag& tag) {
  void* data = TakeKept<kKind>(size, tag);
  return data != nullptr ? data : AllocateNew<kKind>(size, tag);
}

void Free(void* data);

// Releases a block of this kind; data may be null.
template <Kind kKind>
inline void Release(void* data) {
  if (data == nullptr) return;
  const BlockHead& head = HeadOf(data);
  Kept& last = kept[kKind];
  if (head.bytes == 0 || last.bytes != 0 || !__libc_single_threaded) [[unlikely]]
    return Free(data);
  last = {data, head.bytes};
  CountOutAlone(*head.tag, head.size);
  ASAN_POISON_MEMORY_REGION(data, head.size);
}

}  // namespace mqc
