// memory.cc - the tags, their account, the allocation that has to fail, and fNewMemory.
// Not here: the blocks themselves (memory.hh), data areas of buffers (buffers.cc).
// Invariant: a tag's name is set once, under the lock, before any block names the tag.

#include "companion/memory.hh"

#include <pthread.h>
#include <string.h>

#include "companion/host.h"
#include "runtime/runtime.h"

namespace mqc {

Tag tags[kTags] = {{.name = "buffer"}, {.name = "message"}, {.name = "PcfMessage"},
                   {.name = "signer"}, {.name = "ring"},    {.name = "replay"},
                   {.name = "file"},   {.name = "(none)"},  {.name = "(other)"}};
std::atomic<uint64_t> fail_countdown;

namespace {

std::atomic<uint64_t> failures;
std::atomic<bool> fail_onwards;
std::atomic<uint32_t> tags_in_use = kTagFirstFree;
pthread_mutex_t tag_lock = PTHREAD_MUTEX_INITIALIZER;

// Tags are constant text, so the address of a name tells its tag. A slot is written once: first tag, then key.
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

// Holds the lock.
Tag* NewTag(const char* name) {
  const uint32_t used = tags_in_use.load(std::memory_order_relaxed);
  if (used == kTags) return &tags[kTagOther];
  Tag& tag = tags[used];
  memcpy(tag.name, name, strnlen(name, sizeof(tag.name) - 1));
  tags_in_use.store(used + 1, std::memory_order_release);
  return &tag;
}

// Slots are probed from the name's own one; a table full of other names leaves the search by text.
[[gnu::noinline]] Tag& LearnTag(const char* name) {
  if (name == nullptr) return tags[kTagNone];
  for (uint32_t i = 0; i < kSlots; ++i) {
    const TagSlot& slot = tag_slots[(SlotOf(name) + i) % kSlots];
    const char* key = slot.key.load(std::memory_order_acquire);
    if (key == name) return *slot.tag;
    if (key == nullptr) break;
  }
  pthread_mutex_lock(&tag_lock);
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
  pthread_mutex_unlock(&tag_lock);
  return *tag;
}

inline Tag& FindTag(const char* name) {
  const TagSlot& slot = tag_slots[SlotOf(name)];
  if (name != nullptr && slot.key.load(std::memory_order_acquire) == name) return *slot.tag;
  return LearnTag(name);
}

void AddAccount(const Tag& tag, MqcMemory* sum) {
  // Released first: a block is counted as allocated before it can be counted as released.
  const uint64_t released = tag.released.load(std::memory_order_acquire);
  const uint64_t total = tag.total.load(std::memory_order_relaxed);
  sum->live_blocks += total - released;
  sum->total_blocks += total;
  sum->peak_blocks += tag.peak.load(std::memory_order_relaxed);
  sum->live_bytes += tag.live_bytes.load(std::memory_order_relaxed);
}

}  // namespace

bool MustFail() {
  uint64_t left = fail_countdown.load(std::memory_order_relaxed);
  while (left != 0) {
    const bool last = left == 1;
    if (last && fail_onwards.load(std::memory_order_relaxed)) return true;
    if (fail_countdown.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) return last;
  }
  return false;
}

void* CountFailure() {
  failures.fetch_add(1, std::memory_order_relaxed);
  return nullptr;
}

void RaisePeak(Tag& tag, int64_t live) {
  const auto wanted = static_cast<uint64_t>(live);
  uint64_t peak = tag.peak.load(std::memory_order_relaxed);
  while (wanted > peak && !tag.peak.compare_exchange_weak(peak, wanted, std::memory_order_relaxed)) {
  }
}

}  // namespace mqc

int fNewMemory(void** out, uint32_t size, const char* tag) {
  void* block = mqc::Allocate(size, mqc::FindTag(tag));
  *out = block;
  if (block == nullptr) [[unlikely]]
    return 0;
  memset(block, 0, size);
  return 1;
}

void FreeMemory(void* p) { mqc::Release(p); }

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
  mqc::fail_countdown.store(nth, std::memory_order_relaxed);
}
