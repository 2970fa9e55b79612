// replay.cc - the memory of accepted messages: users, each with its messages in the order of their times.
// Not here: whether a signature is right or a message too old (sign.cc); only those that passed come here.
// Invariant: see replay.hh. A user is in the list of its rank exactly while it holds a message. Nothing here visits
// more than a few paths under the lock, however much is held.

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

constexpr uint32_t kFewestMessages = 1024;
constexpr uint32_t kMostMessages = 16777216;
constexpr uint32_t kAtOnce = 256;  // messages that a lower limit drops between two releases of the lock

// How long messages stay after they have left the window, in milliseconds. A clock that is ahead for less than this
// makes nothing be forgotten whose time is still to come.
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

// Lives until the memory is reset: its floor is needed even when it holds nothing.
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

// A user that holds 1 message is of rank 1, 2 to 3 of rank 2, 4 to 7 of rank 3 and so on.
uint32_t RankOf(uint32_t count) { return static_cast<uint32_t>(std::bit_width(count)); }
constexpr uint32_t kRanks = std::bit_width(kMostMessages) + 1;

struct Memory {
  User* users;
  User* ranks[kRanks];
  uint32_t count;
  int64_t floor;  // of all users
};

Memory memory;
uint32_t limit = 262144;
uint64_t random_state;

// Only unpredictable enough that no signer can choose a shape for the trees.
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

// The user itself when nobody is of a higher rank, else one of the highest. Some user holds a message.
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

// Two for each message that comes, so that fewer are held when fewer come.
void ForgetExpired(User* user, int64_t before) {
  for (int i = 0; i < 2 && user->seen != nullptr && First(user->seen)->time < before; ++i) ForgetOldest(user);
}

// A user never raises its own floor beyond the present, nor to the message that it makes room for.
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

// Null without memory.
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

// False when no more is held than the limit allows.
bool ObeyLimit() {
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
  if (messages < kFewestMessages || messages > kMostMessages) return 0;
  pthread_mutex_lock(&locks[kLockReplay]);
  limit = messages;
  pthread_mutex_unlock(&locks[kLockReplay]);
  while (ObeyLimit()) {
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
