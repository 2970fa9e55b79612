// ring.cc - the users whose signatures are accepted, and their public keys.
// Not here: key files (keys.cc).
// Invariant, under the lock: members are sorted by CompareLines. A user has at most one key that is not revoked, and it
// comes first.

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

KeyLine* members;  // with number 0
uint32_t count;
uint32_t capacity;

KeyLine* NewMembers(uint32_t number) {
  if (number > UINT32_MAX / sizeof(KeyLine)) return nullptr;
  return static_cast<KeyLine*>(
      Allocate<Kind::kRecord>(static_cast<uint32_t>(number * sizeof(KeyLine)), tags[kTagRing]));
}

// Index of the user's first member, or of where it would be inserted.
uint32_t IndexOf(const char* user) {
  const KeyLine* found = std::lower_bound(members, members + count, user, [](const KeyLine& member, const char* name) {
    return strcmp(member.user, name) < 0;
  });
  return static_cast<uint32_t>(found - members);
}

bool IsAt(uint32_t index, const char* user) { return index < count && strcmp(members[index].user, user) == 0; }

bool Grow(uint32_t number) {
  KeyLine* larger = NewMembers(number);
  if (larger == nullptr) return false;
  if (count != 0) memcpy(larger, members, count * sizeof(KeyLine));
  Release<Kind::kRecord>(members);
  members = larger;
  capacity = number;
  return true;
}

// Sets the user's key. The capacity must be greater than count.
void Put(const KeyLine& line) {
  const uint32_t index = IndexOf(line.user);
  if (!IsAt(index, line.user) || members[index].revoked != 0) {
    memmove(members + index + 1, members + index, (count - index) * sizeof(KeyLine));
    ++count;
  }
  members[index] = line;
}

bool IsRevoked(const char* user, const uint8_t key[MQC_KEY_BYTES]) {
  for (uint32_t index = IndexOf(user); IsAt(index, user); ++index) {
    if (members[index].revoked != 0 && memcmp(members[index].key, key, MQC_KEY_BYTES) == 0) return true;
  }
  return false;
}

// Orders by user; within a user, keys that are not revoked come first, by line number, then revoked ones, by key.
int CompareLines(const void* left, const void* right) {
  const auto* a = static_cast<const KeyLine*>(left);
  const auto* b = static_cast<const KeyLine*>(right);
  if (const int order = strcmp(a->user, b->user); order != 0) return order;
  if (a->revoked != b->revoked) return a->revoked - b->revoked;
  if (a->revoked != 0) return memcmp(a->key, b->key, MQC_KEY_BYTES);
  return a->number < b->number ? -1 : 1;
}

bool CheckLines(const char* path, KeyLine* lines, uint32_t number, ErrorText error) {
  qsort(lines, number, sizeof(KeyLine), CompareLines);
  for (uint32_t i = 0; i < number; ++i) {
    const KeyLine& line = lines[i];
    if (line.kind == MQC_KEY_SECRET) return Fail(error, "%s:%u: a secret key in a ring", path, line.number);
    if (!mqc_is_public_key(line.key)) return Fail(error, "%s:%u: not a valid public key", path, line.number);
    if (i != 0 && line.revoked == 0 && strcmp(line.user, lines[i - 1].user) == 0) {
      return Fail(error, "%s:%u: user %s has a key in line %u already", path, line.number, line.user,
                  lines[i - 1].number);
    }
  }
  return true;
}

bool HasKey(const KeyLine* begin, const KeyLine* end, const uint8_t key[MQC_KEY_BYTES]) {
  return std::any_of(begin, end, [key](const KeyLine& line) { return memcmp(line.key, key, MQC_KEY_BYTES) == 0; });
}

// Copies from the sorted lines of one user the last key that no line revokes, then each revoked key once. Returns the
// number of keys copied.
uint32_t SettleUser(const KeyLine* begin, const KeyLine* end, KeyLine* out) {
  uint32_t put = 0;
  const KeyLine* revoked = std::find_if(begin, end, [](const KeyLine& line) { return line.revoked != 0; });
  for (const KeyLine* line = begin; line < revoked; ++line) {
    if (HasKey(revoked, end, line->key)) continue;
    out[0] = *line;
    put = 1;
  }
  for (const KeyLine* line = revoked; line < end; ++line) {
    if (line == revoked || !HasKey(line - 1, line, line->key)) out[put++] = *line;
  }
  return put;
}

uint32_t Settle(const KeyLine* lines, uint32_t number, KeyLine* out) {
  uint32_t put = 0;
  for (uint32_t first = 0, end; first < number; first = end) {
    end = first + 1;
    while (end < number && strcmp(lines[end].user, lines[first].user) == 0) ++end;
    put += SettleUser(lines + first, lines + end, out + put);
  }
  for (uint32_t i = 0; i < put; ++i) out[i].number = 0;
  return put;
}

// Merges the lines into the ring. They take precedence over members of the same user.
bool Merge(const KeyLine* lines, uint32_t number) {
  const Locked locked(kLockRing);
  const uint32_t all = count + number;
  if (all == 0) return true;
  KeyLine* sorted = NewMembers(all);
  if (sorted == nullptr) return false;
  KeyLine* merged = NewMembers(all);
  if (merged != nullptr) {
    if (count != 0) memcpy(sorted, members, count * sizeof(KeyLine));
    memcpy(sorted + count, lines, number * sizeof(KeyLine));
    qsort(sorted, all, sizeof(KeyLine), CompareLines);
    Release<Kind::kRecord>(members);
    members = merged;
    capacity = all;
    count = Settle(sorted, all, merged);
  }
  Release<Kind::kRecord>(sorted);
  return merged != nullptr;
}

bool LoadLines(const char* path, KeyFile& file, KeyLine* lines, uint32_t* number, ErrorText error) {
  *number = 0;
  while (file.Next(&lines[*number], error)) ++*number;
  return !file.bad() && CheckLines(path, lines, *number, error);
}

}  // namespace

bool FindPublicKey(const char* user, int64_t now, uint8_t key[MQC_KEY_BYTES], ErrorText error) {
  const Locked locked(kLockRing);
  const uint32_t index = IndexOf(user);
  if (!IsAt(index, user)) return Fail(error, "user %s is not in the ring", user);
  const KeyLine& member = members[index];
  if (member.revoked != 0) return Fail(error, "the key of user %s is revoked", user);
  if (now > member.until) return Fail(error, "the key of user %s ended on %s", user, DateOf(member.until).text);
  memcpy(key, member.key, MQC_KEY_BYTES);
  return true;
}

}  // namespace mqc

using namespace mqc;

int mqc_ring_add(const char* user, const uint8_t public_key[MQC_KEY_BYTES], char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  if (!IsUser(user)) return Fail(text, kNotUser, user);
  if (!mqc_is_public_key(public_key)) return Fail(text, "the key of user %s is not a valid public key", user);
  KeyLine line = {};
  memcpy(line.user, user, strlen(user) + 1);
  memcpy(line.key, public_key, MQC_KEY_BYTES);
  line.until = MQC_NO_END;
  const Locked locked(kLockRing);
  if (IsRevoked(user, public_key)) return Fail(text, "the key of user %s is revoked", user);
  if (count == capacity && !Grow(std::max(8u, capacity * 2))) return Fail(text, "no memory for user %s", user);
  Put(line);
  return 1;
}

int mqc_ring_load(const char* path, char* error, size_t size) {
  const ErrorText text = {error, size};
  Clear(text);
  KeyFile file;
  if (!file.Open(path, false, kRingFileMax, text)) return 0;
  // One more than the greatest possible number of keys: Next may start to fill an entry before it fails.
  KeyLine* lines = NewMembers(static_cast<uint32_t>(file.MaxKeys()) + 1);
  if (lines == nullptr) return Fail(text, "%s: no memory for its keys", path);
  uint32_t number;
  bool loaded = LoadLines(path, file, lines, &number, text);
  if (loaded && !Merge(lines, number)) loaded = Fail(text, "%s: no memory for its keys", path);
  Release<Kind::kRecord>(lines);
  return loaded;
}

int mqc_ring_remove(const char* user) {
  const Locked locked(kLockRing);
  const uint32_t index = IndexOf(user);
  if (!IsAt(index, user) || members[index].revoked != 0) return 0;
  --count;
  memmove(members + index, members + index + 1, (count - index) * sizeof(KeyLine));
  return 1;
}

void mqc_ring_clear(void) {
  const Locked locked(kLockRing);
  Release<Kind::kRecord>(members);
  members = nullptr;
  count = 0;
  capacity = 0;
}

uint32_t mqc_ring_count(void) {
  const Locked locked(kLockRing);
  return static_cast<uint32_t>(
      std::count_if(members, members + count, [](const KeyLine& member) { return member.revoked == 0; }));
}
