// ring.cc - the users whose signatures are accepted, and their public keys.
// Not here: key files (keys.cc).
// Invariant: members stand in the order of their user ids, each user once. All of it under the lock.

#include "companion/ring.hh"

#include <sodium.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "companion/keys.hh"
#include "companion/locks.hh"
#include "companion/memory.hh"

namespace mqc {
namespace {

constexpr size_t kRingFileMax = 16777216;

KeyLine* members;  // number is not used
uint32_t count;
uint32_t room;

KeyLine* NewMembers(uint32_t number) {
  if (number > UINT32_MAX / sizeof(KeyLine)) return nullptr;
  return static_cast<KeyLine*>(
      Allocate<Kind::kRecord>(static_cast<uint32_t>(number * sizeof(KeyLine)), tags[kTagRing]));
}

// The first member whose user is not below this one.
uint32_t PlaceOf(const char* user) {
  const KeyLine* place = std::lower_bound(members, members + count, user, [](const KeyLine& member, const char* name) {
    return strcmp(member.user, name) < 0;
  });
  return static_cast<uint32_t>(place - members);
}

bool IsAt(uint32_t place, const char* user) { return place < count && strcmp(members[place].user, user) == 0; }

bool Grow(uint32_t number) {
  KeyLine* larger = NewMembers(number);
  if (larger == nullptr) return false;
  if (count != 0) memcpy(larger, members, count * sizeof(KeyLine));
  Release(members);
  members = larger;
  room = number;
  return true;
}

// There is room.
void Put(const KeyLine& line) {
  const uint32_t place = PlaceOf(line.user);
  if (!IsAt(place, line.user)) {
    memmove(members + place + 1, members + place, (count - place) * sizeof(KeyLine));
    ++count;
  }
  members[place] = line;
}

bool IsPublicKey(const uint8_t key[MQC_KEY_BYTES]) {
  return HaveSodium() && crypto_core_ed25519_is_valid_point(key) == 1;
}

int CompareLines(const void* left, const void* right) {
  const auto* a = static_cast<const KeyLine*>(left);
  const auto* b = static_cast<const KeyLine*>(right);
  const int order = strcmp(a->user, b->user);
  return order != 0 ? order : (a->number < b->number ? -1 : 1);
}

bool CheckLines(const char* path, KeyLine* lines, uint32_t number, ErrorText error) {
  qsort(lines, number, sizeof(KeyLine), CompareLines);
  for (uint32_t i = 0; i < number; ++i) {
    if (!IsPublicKey(lines[i].key)) return Fail(error, "%s:%u: this is no public key", path, lines[i].number);
    if (i != 0 && strcmp(lines[i].user, lines[i - 1].user) == 0) {
      return Fail(error, "%s:%u: user %s stands in line %u already", path, lines[i].number, lines[i].user,
                  lines[i - 1].number);
    }
  }
  return true;
}

// Merges the sorted lines into the ring. They win over members of the same user.
bool Merge(const KeyLine* lines, uint32_t number) {
  const Locked locked(kLockRing);
  KeyLine* merged = NewMembers(count + number);
  if (merged == nullptr) return false;
  uint32_t from_ring = 0;
  uint32_t put = 0;
  for (uint32_t i = 0; i < number; ++i) {
    int order = 1;
    while (from_ring < count && (order = strcmp(members[from_ring].user, lines[i].user)) < 0) {
      merged[put++] = members[from_ring++];
    }
    if (from_ring < count && order == 0) ++from_ring;
    merged[put++] = lines[i];
  }
  while (from_ring < count) merged[put++] = members[from_ring++];
  Release(members);
  members = merged;
  room = count + number;
  count = put;
  return true;
}

bool LoadLines(const char* path, KeyFile& file, KeyLine* lines, uint32_t* number, ErrorText error) {
  *number = 0;
  while (file.Next(&lines[*number], error)) ++*number;
  return !file.bad() && CheckLines(path, lines, *number, error);
}

}  // namespace

bool FindPublicKey(const char* user, uint8_t key[MQC_KEY_BYTES]) {
  const Locked locked(kLockRing);
  const uint32_t place = PlaceOf(user);
  if (!IsAt(place, user)) return false;
  memcpy(key, members[place].key, MQC_KEY_BYTES);
  return true;
}

}  // namespace mqc

using namespace mqc;

int mqc_ring_add(const char* user, const uint8_t public_key[MQC_KEY_BYTES], char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  if (!IsUser(user)) return Fail(text, kNotUser, user);
  if (!IsPublicKey(public_key)) return Fail(text, "the key of user %s is no public key", user);
  KeyLine line = {};
  memcpy(line.user, user, strlen(user) + 1);
  memcpy(line.key, public_key, MQC_KEY_BYTES);
  const Locked locked(kLockRing);
  if (count == room && !Grow(std::max(8u, room * 2))) return Fail(text, "no memory for user %s", user);
  Put(line);
  return 1;
}

int mqc_ring_load(const char* path, char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  KeyFile file;
  if (!file.Open(path, false, kRingFileMax, text)) return 0;
  // One place more than keys can be there: Next may begin to fill it before it fails.
  KeyLine* lines = NewMembers(static_cast<uint32_t>(file.MaxKeys()) + 1);
  if (lines == nullptr) return Fail(text, "%s: no memory for its keys", path);
  uint32_t number;
  bool loaded = LoadLines(path, file, lines, &number, text);
  if (loaded && !Merge(lines, number)) loaded = Fail(text, "%s: no memory for its keys", path);
  Release(lines);
  return loaded;
}

int mqc_ring_remove(const char* user) {
  const Locked locked(kLockRing);
  const uint32_t place = PlaceOf(user);
  if (!IsAt(place, user)) return 0;
  --count;
  memmove(members + place, members + place + 1, (count - place) * sizeof(KeyLine));
  return 1;
}

void mqc_ring_clear(void) {
  const Locked locked(kLockRing);
  Release(members);
  members = nullptr;
  count = 0;
  room = 0;
}

uint32_t mqc_ring_count(void) {
  const Locked locked(kLockRing);
  return count;
}
