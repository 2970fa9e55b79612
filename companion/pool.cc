// pool.cc - chunks of records of one size, side by side.
// Not here: which records lie in chunks, and their heads (memory.hh).
// Invariant: a chunk is in its pool's list exactly while it has room; one without records is released.

#include "companion/locks.hh"
#include "companion/memory.hh"

namespace mqc {
namespace {

constexpr uint32_t kBlocks = 31;
constexpr uint32_t kChunkHead = 64;

struct Chunk {
  Chunk* next;
  Chunk* previous;
  void** released;  // blocks given back, each pointing to the next
  uint32_t used;
  uint32_t fresh;  // blocks never used begin here
  uint16_t shelf;
};
static_assert(sizeof(Chunk) <= kChunkHead);
static_assert(kChunkHead + kBlocks * kShelvesOfAKind * kShelfStep <= UINT16_MAX, "offsets are 16 bits");

Chunk* pools[kShelvesOfAKind + 1];  // by shelf

void Link(Chunk* chunk) {
  Chunk*& first = pools[chunk->shelf];
  chunk->previous = nullptr;
  chunk->next = first;
  if (first != nullptr) first->previous = chunk;
  first = chunk;
}

void Unlink(Chunk* chunk) {
  (chunk->previous != nullptr ? chunk->previous->next : pools[chunk->shelf]) = chunk->next;
  if (chunk->next != nullptr) chunk->next->previous = chunk->previous;
}

// Null without memory.
Chunk* NewChunk(uint16_t shelf) {
  auto* chunk = static_cast<Chunk*>(malloc(kChunkHead + kBlocks * shelf * kShelfStep));
  if (chunk == nullptr) return nullptr;
  *chunk = {nullptr, nullptr, nullptr, 0, 0, shelf};
  Link(chunk);
  return chunk;
}

char* TakeFrom(Chunk* chunk) {
  void** block = chunk->released;
  if (block != nullptr) {
    chunk->released = static_cast<void**>(*block);
  } else {
    block = reinterpret_cast<void**>(reinterpret_cast<char*>(chunk) + kChunkHead +
                                     chunk->fresh * chunk->shelf * kShelfStep);
    chunk->fresh += 1;
  }
  chunk->used += 1;
  if (chunk->used == kBlocks) Unlink(chunk);
  return reinterpret_cast<char*>(block);
}

}  // namespace

char* TakeFromPool(uint16_t shelf, uint32_t* offset) {
  const Locked locked(kLockPool);
  Chunk* chunk = pools[shelf] != nullptr ? pools[shelf] : NewChunk(shelf);
  char* block = chunk != nullptr ? TakeFrom(chunk) : nullptr;
  if (block != nullptr) *offset = static_cast<uint32_t>(block - reinterpret_cast<char*>(chunk));
  return block;
}

void GiveToPool(char* block, uint32_t offset) {
  auto* chunk = reinterpret_cast<Chunk*>(block - offset);
  const Locked locked(kLockPool);
  if (chunk->used == kBlocks) Link(chunk);
  auto** released = reinterpret_cast<void**>(block);
  *released = chunk->released;
  chunk->released = released;
  chunk->used -= 1;
  if (chunk->used != 0) return;
  Unlink(chunk);
  free(chunk);
}

}  // namespace mqc
