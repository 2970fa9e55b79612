// locks.hh - all locks of the companion, in one table so that fork can take them all.
//
// The child of a fork has a single thread. A lock that another thread of the parent held would stay locked in the child
// for ever. Therefore all locks are taken before a fork, and both processes release them after it: the child finds
// consistent tables and free locks.
#pragma once

#include <pthread.h>
#include <stdint.h>

namespace mqc {

// In locking order: a thread that holds one of them takes only later ones.
enum LockIndex : uint32_t {
  kLockOnce,    // initialisation on first use
  kLockOpener,  // the key that opens sealed messages
  kLockRing,    // users and their keys
  kLockReplay,  // accepted messages
  kLockTags,    // names of tags
  kLocks
};

extern pthread_mutex_t locks[kLocks];

class Locked {
 public:
  explicit Locked(LockIndex index) : lock_(&locks[index]) { pthread_mutex_lock(lock_); }
  ~Locked() { pthread_mutex_unlock(lock_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  pthread_mutex_t* lock_;
};

}  // namespace mqc
