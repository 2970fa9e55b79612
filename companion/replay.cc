// replay.cc - the memory of accepted messages: users, each with its messages in the order of their times.
// Not here: checks of signature and age (sign.cc), which a message has passed before it comes here.
// Invariant: see replay.hh. A user is in the list of its rank exactly while it has messages. While the lock is held,
// only a few paths of the trees are visited, however many messages there are.

#include "companion/replay.hh"

#include <sodium.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "companion/host.h"
#include "companion/locks.hh"
#include "companion/memory.hh"
#include "companion/treap.hh"

namespace mqc {
namespace {

constexpr uint32_t kMinLimit = 1024;
constexpr uint32_t kMaxLimit = 16777216;
constexpr uint32_t kAtOnce = 256;  // messages to forget before the lock is released, when the limit is lowered

// How long messages are remembered after they have left the window, in milliseconds. While the clock is ahead by less
// than this, no message in the true window is forgotten.
constexpr int64_t kStay = 3600000;

struct Seen {
  Seen* left;
  Seen* right;
  int64_t time;
  uint8_t nonce[16];
  uint32_t priority;
};

bool Precedes(const Seen& a, const Seen& b) {
  return a.time != b.time ? a.time < b.time : memcmp(a.nonce, b.nonce, sizeof(a.nonce)) < 0;
}

// Exists until the memory is reset: its floor is needed even while it has no messages.
struct User {
  User* left;
  User* right;
  uint32_t priority;
  char name[12];
  Seen* seen;
  uint32_t count;
  int64_t floor;
  User* next;  // in the list of its rank
  User* previous;
};

bool Precedes(const User& a, const User& b) { return memcmp(a.name, b.name, sizeof(a.name)) < 0; }

// Rank of a user with count messages: 1 for 1 message, 2 for 2 to 3, 3 for 4 to 7 and so on.
uint32_t RankOf(uint32_t count) { return static_cast<uint32_t>(std::bit_width(count)); }
constexpr uint32_t kRanks = std::bit_width(kMaxLimit) + 1;

struct Memory {
  User* users;
  User* ranks[kRanks];
  uint32_t count;
  int64_t floor;  // for all users
};

Memory memory;
uint32_t limit = 262144;
uint64_t random_state;

// Random enough that no signer can control the shape of the trees.
uint32_t NewPriority() {
  if (random_state == 0) randombytes_buf(&random_state, sizeof(random_state));
  random_state = random_state * 6364136223846793005u + 1442695040888963407u;
  return static_cast<uint32_t>(random_state >> 32);
}

void Unlink(User* user) {
  (user->previous != nullptr ? user->previous->next : memory.ranks[RankOf(user->count)]) = user->next;
  if (user->next != nullptr) user->next->previous = user->previous;
}

void Link(User* user) {
  User*& first = memory.ranks[RankOf(user->count)];
  user->previous = nullptr;
  user->next = first;
  if (first != nullptr) first->previous = user;
  first = user;
}

void SetCount(User* user, uint32_t count) {
  memory.count += count - user->count;
  const bool moves = RankOf(count) != RankOf(user->count);
  if (moves && user->count != 0) Unlink(user);
  user->count = count;
  if (moves && count != 0) Link(user);
}

// Returns this user if none has a higher rank, else one of the highest rank. At least one user must have messages.
User* Largest(User* user) {
  uint32_t rank = kRanks - 1;
  while (memory.ranks[rank] == nullptr) --rank;
  return user != nullptr && RankOf(user->count) == rank ? user : memory.ranks[rank];
}

void ForgetOldest(User* user) {
  Seen* oldest = TakeFirst(&user->seen);
  user->floor = std::max(user->floor, oldest->time);
  SetCount(user, user->count - 1);
  Release<Kind::kRecord>(oldest);
}

// Called for each new message. Forgets at most two, so that their number can fall while the work stays bounded.
void ForgetExpired(User* user, int64_t before) {
  for (int i = 0; i < 2 && user->seen != nullptr && First(user->seen)->time < before; ++i) ForgetOldest(user);
}

// Forgets a message for a new one of this user, signed at time. Returns false if that would raise the user's floor to
// the present or later, or to time.
bool MakeRoom(User* user, int64_t time, int64_t now) {
  User* largest = Largest(user);
  if (largest == user && First(user->seen)->time >= std::min(time, now)) return false;
  ForgetOldest(largest);
  return true;
}

template <typename Node>
Node* NewNode(const Node& content) {
  auto* node = static_cast<Node*>(Allocate<Kind::kRecord>(sizeof(Node), tags[kTagReplay]));
  if (node == nullptr) return nullptr;
  *node = content;
  node->priority = NewPriority();
  return node;
}

// Finds or creates a user. Null if there is no memory.
User* FindUser(const char name[12]) {
  User key = {};
  memcpy(key.name, name, sizeof(key.name));
  User* user = Find(memory.users, key);
  if (user != nullptr) return user;
  user = NewNode(key);
  if (user != nullptr) Insert(&memory.users, user);
  return user;
}

Replay Remember(User* user, const Seen& message, Moment moment) {
  if (message.time <= std::max(user->floor, memory.floor)) return Replay::kBelowFloor;
  if (Find(user->seen, message) != nullptr) return Replay::kSeen;
  ForgetExpired(user, moment.now - moment.window - kStay);
  Seen* fresh = NewNode(message);
  if (fresh == nullptr) return Replay::kNoMemory;
  if (memory.count >= limit && !MakeRoom(user, message.time, moment.now)) {
    Release<Kind::kRecord>(fresh);
    return Replay::kFull;
  }
  Insert(&user->seen, fresh);
  SetCount(user, user->count + 1);
  return Replay::kNew;
}

// Forgets up to kAtOnce of the messages beyond the limit. Returns true if there are still too many.
bool EnforceLimit() {
  const Locked locked(kLockReplay);
  for (uint32_t i = 0; i < kAtOnce && memory.count > limit; ++i) ForgetOldest(Largest(nullptr));
  return memory.count > limit;
}

void ReleaseUsers(User* users) {
  while (users != nullptr) {
    User* user = TakeFirst(&users);
    while (user->seen != nullptr) Release<Kind::kRecord>(TakeFirst(&user->seen));
    Release<Kind::kRecord>(user);
  }
}

}  // namespace

Replay RememberMessage(const char user[12], const uint8_t nonce[16], int64_t time, Moment moment) {
  Seen message = {nullptr, nullptr, time, {}, 0};
  memcpy(message.nonce, nonce, sizeof(message.nonce));
  const Locked locked(kLockReplay);
  User* found = FindUser(user);
  return found == nullptr ? Replay::kNoMemory : Remember(found, message, moment);
}

}  // namespace mqc

using namespace mqc;

int mqc_set_replay_limit(uint32_t messages) {
  if (messages < kMinLimit || messages > kMaxLimit) return 0;
  pthread_mutex_lock(&locks[kLockReplay]);
  limit = messages;
  pthread_mutex_unlock(&locks[kLockReplay]);
  while (EnforceLimit()) {
  }
  return 1;
}

void mqc_refuse_before(int64_t time) {
  const Locked locked(kLockReplay);
  memory.floor = std::max(memory.floor, time);
}

void mqc_reset_replay(int64_t refuse_before) {
  Memory old = {};
  old.floor = refuse_before;
  {
    const Locked locked(kLockReplay);
    std::swap(memory, old);
  }
  ReleaseUsers(old.users);
}
