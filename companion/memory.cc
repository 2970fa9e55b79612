// memory.cc - tags and their accounting, injected allocation failures, and fNewMemory.
// Not here: the layout of blocks (memory.hh), data areas of buffers (buffers.cc).
// Invariant: the name of a tag is set once, under the lock, before any block refers to the tag.

#include "companion/memory.hh"

#include <string.h>

#include <atomic>

#include "companion/host.h"
#include "companion/locks.hh"
#include "runtime/runtime.h"

namespace mqc {

Tag tags[kTags] = {{.name = "buffer"}, {.name = "message"}, {.name = "PcfMessage"},
                   {.name = "signer"}, {.name = "ring"},    {.name = "replay"},
                   {.name = "file"},   {.name = "(none)"},  {.name = "(other)"}};
uint64_t fail_countdown;
Kept kept[2];

namespace {

std::atomic<uint64_t> failures;
std::atomic<bool> fail_onwards;
std::atomic<uint32_t> tags_in_use = kTagFirstFree;

// Hash table from the address of a name to its tag; names are constant text. A slot is written once, first tag, then
// key, so that it can be read without the lock.
struct TagSlot {
  std::atomic<const char*> key;
  Tag* tag;
};
constexpr uint32_t kSlots = 256;
TagSlot tag_slots[kSlots];

inline uint32_t SlotOf(const char* name) {
  return static_cast<uint32_t>((reinterpret_cast<uintptr_t>(name) * 0x9E3779B97F4A7C15u) >> 56);
}

bool SameName(const Tag& tag, const char* name) { return strncmp(tag.name, name, sizeof(tag.name) - 1) == 0; }

Tag* TagByName(const char* name) {
  const uint32_t used = tags_in_use.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < used; ++i) {
    if (SameName(tags[i], name)) return &tags[i];
  }
  return nullptr;
}

// The caller holds kLockTags.
Tag* NewTag(const char* name) {
  const uint32_t used = tags_in_use.load(std::memory_order_relaxed);
  if (used == kTags) return &tags[kTagOther];
  Tag& tag = tags[used];
  memcpy(tag.name, name, strnlen(name, sizeof(tag.name) - 1));
  tags_in_use.store(used + 1, std::memory_order_release);
  return &tag;
}

// Finds the tag of a name by linear probing, and enters the name if it is new. If the table is full, each call finds
// the tag by comparing texts.
[[gnu::noinline]] Tag& LearnTag(const char* name) {
  if (name == nullptr) return tags[kTagNone];
  for (uint32_t i = 0; i < kSlots; ++i) {
    const TagSlot& slot = tag_slots[(SlotOf(name) + i) % kSlots];
    const char* key = slot.key.load(std::memory_order_acquire);
    if (key == name) return *slot.tag;
    if (key == nullptr) break;
  }
  const Locked locked(kLockTags);
  Tag* tag = TagByName(name);
  if (tag == nullptr) tag = NewTag(name);
  for (uint32_t i = 0; i < kSlots; ++i) {
    TagSlot& slot = tag_slots[(SlotOf(name) + i) % kSlots];
    const char* key = slot.key.load(std::memory_order_relaxed);
    if (key == name) break;
    if (key == nullptr) {
      slot.tag = tag;
      slot.key.store(name, std::memory_order_release);
      break;
    }
  }
  return *tag;
}

inline Tag& FindTag(const char* name) {
  const TagSlot& slot = tag_slots[SlotOf(name)];
  if (slot.key.load(std::memory_order_acquire) != name || name == nullptr) [[unlikely]]
    return LearnTag(name);
  return *slot.tag;
}

[[gnu::noinline]] int NewMemory(void** out, uint32_t size, const char* tag) {
  void* block = Allocate<kRecord>(size, FindTag(tag));
  *out = block;
  if (block == nullptr) return 0;
  memset(block, 0, size);
  return 1;
}

void AddAccount(const Tag& tag, MqcMemory* sum) {
  sum->live_blocks += __atomic_load_n(&tag.live, __ATOMIC_RELAXED);
  sum->total_blocks += __atomic_load_n(&tag.total, __ATOMIC_RELAXED);
  sum->peak_blocks += __atomic_load_n(&tag.peak, __ATOMIC_RELAXED);
  sum->live_bytes += __atomic_load_n(&tag.live_bytes, __ATOMIC_RELAXED);
}

}  // namespace

bool MustFail() {
  uint64_t left = __atomic_load_n(&fail_countdown, __ATOMIC_RELAXED);
  while (left != 0) {
    const bool last = left == 1;
    if (last && fail_onwards.load(std::memory_order_relaxed)) return true;
    if (__atomic_compare_exchange_n(&fail_countdown, &left, left - 1, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
      return last;
    }
  }
  return false;
}

void* CountFailure() {
  failures.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

void CountIn(Tag& tag, uint64_t size) {
  if (__libc_single_threaded) return CountInAlone(tag, size);
  __atomic_fetch_add(&tag.total, 1, __ATOMIC_RELAXED);
  __atomic_fetch_add(&tag.live_bytes, size, __ATOMIC_RELAXED);
  const uint64_t live = __atomic_add_fetch(&tag.live, 1, __ATOMIC_RELAXED);
  uint64_t peak = __atomic_load_n(&tag.peak, __ATOMIC_RELAXED);
  while (live > peak &&
         !__atomic_compare_exchange_n(&tag.peak, &peak, live, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
  }
}

void CountOut(Tag& tag, uint64_t size) {
  if (__libc_single_threaded) return CountOutAlone(tag, size);
  __atomic_fetch_sub(&tag.live_bytes, size, __ATOMIC_RELAXED);
  __atomic_fetch_sub(&tag.live, 1, __ATOMIC_RELAXED);
}

void Free(void* data) {
  const BlockHead& head = HeadOf(data);
  CountOut(*head.tag, head.size);
  free(static_cast<char*>(data) - head.offset);
}

void DropKept(Kind kind) {
  Kept& last = kept[kind];
  if (last.bytes == 0 || !__libc_single_threaded) return;
  free(static_cast<char*>(last.data) - HeadOf(last.data).offset);
  last.bytes = 0;
}

}  // namespace mqc

// Fast path: a kept block, cleared without a call. Most records are write descriptors.
int fNewMemory(void** out, uint32_t size, const char* tag) {
  void* block = size == sizeof(IoBuffer) ? mqc::TakeKept<mqc::kRecord>(sizeof(IoBuffer), mqc::FindTag(tag)) : nullptr;
  if (block == nullptr) return mqc::NewMemory(out, size, tag);
  memset(block, 0, sizeof(IoBuffer));
  *out = block;
  return 1;
}

void FreeMemory(void* p) { mqc::Release<mqc::kRecord>(p); }

int mqc_memory(const char* tag, MqcMemory* out) {
  *out = {};
  if (tag != nullptr) {
    const mqc::Tag* found = mqc::TagByName(tag);
    if (found != nullptr) mqc::AddAccount(*found, out);
    return found != nullptr && out->total_blocks != 0;
  }
  const uint32_t used = mqc::tags_in_use.load(std::memory_order_acquire);
  for (uint32_t i = 0; i < used; ++i) mqc::AddAccount(mqc::tags[i], out);
  return 1;
}

const char* mqc_memory_tag(uint32_t index) {
  const uint32_t used = mqc::tags_in_use.load(std::memory_order_acquire);
  return index < used ? mqc::tags[index].name : nullptr;
}

uint64_t mqc_allocations(void) {
  MqcMemory all;
  mqc_memory(nullptr, &all);
  return all.total_blocks + mqc::failures.load(std::memory_order_relaxed);
}

void mqc_fail_allocation(uint64_t nth, int onwards) {
  mqc::fail_onwards.store(onwards != 0, std::memory_order_relaxed);
  __atomic_store_n(&mqc::fail_countdown, nth, __ATOMIC_RELAXED);
}
