// replay.cc - the memory of accepted messages: an open-addressed table of fingerprints and times.
// Not here: whether a signature is right or a message too old (sign.cc); only those that passed come here.
// Invariant: see replay.hh. At most half of the slots are in use.

#include "companion/replay.hh"

#include <pthread.h>
#include <sodium.h>
#include <string.h>

#include <algorithm>

#include "companion/host.h"
#include "companion/memory.hh"

namespace mqc {
namespace {

constexpr uint32_t kFewestMessages = 1024;
constexpr uint32_t kMostMessages = 16777216;
constexpr uint32_t kSteps = 1024;  // of the search for the oldest quarter

struct Seen {
  uint64_t print[2];
  int64_t time;  // above 0; 0 marks a free slot
};

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
Seen* table;
uint32_t slots;  // a power of two, or 0
uint32_t used;
uint32_t limit = 262144;
int64_t floor_time;
uint8_t print_key[crypto_shorthash_siphashx24_KEYBYTES];
bool have_key;

// The fingerprint is keyed with a secret of this process, so that no signer can aim at another one's slot.
void Fingerprint(const char user[12], const uint8_t nonce[16], uint64_t print[2]) {
  if (!have_key) randombytes_buf(print_key, sizeof(print_key));
  have_key = true;
  uint8_t text[12 + 16];
  memcpy(text, user, 12);
  memcpy(text + 12, nonce, 16);
  crypto_shorthash_siphashx24(reinterpret_cast<uint8_t*>(print), text, sizeof(text), print_key);
}

// The slot that holds the fingerprint, or the free one where it belongs. The table has a free slot.
Seen* SlotFor(Seen* in, uint32_t size, const uint64_t print[2]) {
  uint32_t at = static_cast<uint32_t>(print[0]) & (size - 1);
  while (in[at].time != 0 && (in[at].print[0] != print[0] || in[at].print[1] != print[1])) at = (at + 1) & (size - 1);
  return &in[at];
}

uint32_t CountAbove(int64_t time) {
  uint32_t above = 0;
  for (uint32_t i = 0; i < slots; ++i) above += table[i].time > time ? 1 : 0;
  return above;
}

// A time such that at least drop entries above from lie at or below it: the end of the step that reaches that many.
int64_t TimeToDrop(int64_t from, uint32_t drop) {
  int64_t newest = from + 1;
  for (uint32_t i = 0; i < slots; ++i) newest = std::max(newest, table[i].time);
  const int64_t step = (newest - from) / kSteps + 1;
  uint32_t in_step[kSteps] = {};
  for (uint32_t i = 0; i < slots; ++i) {
    if (table[i].time > from) ++in_step[(table[i].time - from - 1) / step];
  }
  uint32_t dropped = 0;
  for (uint32_t i = 0; i < kSteps; ++i) {
    dropped += in_step[i];
    if (dropped >= drop) return from + (i + 1) * step;
  }
  return newest;
}

// Moves the entries above the new floor into a table of this size.
bool Rebuild(uint32_t size, int64_t new_floor) {
  auto* fresh =
      static_cast<Seen*>(Allocate<Kind::kRecord>(static_cast<uint32_t>(size * sizeof(Seen)), tags[kTagReplay]));
  if (fresh == nullptr) return false;
  memset(fresh, 0, size * sizeof(Seen));
  uint32_t moved = 0;
  for (uint32_t i = 0; i < slots; ++i) {
    if (table[i].time <= new_floor) continue;
    *SlotFor(fresh, size, table[i].print) = table[i];
    ++moved;
  }
  Release(table);
  table = fresh;
  slots = size;
  used = moved;
  floor_time = new_floor;
  return true;
}

uint32_t SlotsFor(uint32_t messages) {
  uint32_t size = kFewestMessages * 2;
  while (size < messages * 2) size *= 2;
  return size;
}

// Makes a quarter of the table free: drops what has expired, then grows, then drops the oldest.
Replay MakeRoom(Moment moment) {
  // A free slot is no entry, so nothing is lost below 0.
  int64_t new_floor = std::max(floor_time, moment.now - moment.window - 1);
  uint32_t keep = CountAbove(new_floor);
  const uint32_t most = limit - limit / 4;
  if (keep > most) {
    const int64_t higher = TimeToDrop(new_floor, keep - most);
    if (higher < moment.now) {
      new_floor = higher;
      keep = CountAbove(new_floor);
    }
  }
  if (keep >= limit) return Replay::kFull;
  const uint32_t wanted = std::min(limit, std::max(keep + keep / 2, kFewestMessages));
  return Rebuild(SlotsFor(wanted), new_floor) ? Replay::kNew : Replay::kNoMemory;
}

Replay Remember(const uint64_t print[2], int64_t time, Moment moment) {
  if (time <= floor_time) return Replay::kBelowFloor;
  if (slots != 0 && SlotFor(table, slots, print)->time != 0) return Replay::kSeen;
  if (used >= slots / 2 || used >= limit) {
    const Replay made = MakeRoom(moment);
    if (made != Replay::kNew) return made;
    if (time <= floor_time) return Replay::kBelowFloor;
  }
  *SlotFor(table, slots, print) = {{print[0], print[1]}, time};
  ++used;
  return Replay::kNew;
}

}  // namespace

Replay RememberMessage(const char user[12], const uint8_t nonce[16], int64_t time, Moment moment) {
  pthread_mutex_lock(&lock);
  uint64_t print[2];
  Fingerprint(user, nonce, print);
  const Replay result = Remember(print, time, moment);
  pthread_mutex_unlock(&lock);
  return result;
}

}  // namespace mqc

int mqc_set_replay_limit(uint32_t messages) {
  if (messages < mqc::kFewestMessages || messages > mqc::kMostMessages) return 0;
  pthread_mutex_lock(&mqc::lock);
  mqc::limit = messages;
  pthread_mutex_unlock(&mqc::lock);
  return 1;
}

void mqc_refuse_before(int64_t time) {
  pthread_mutex_lock(&mqc::lock);
  mqc::floor_time = std::max(mqc::floor_time, time);
  pthread_mutex_unlock(&mqc::lock);
}
