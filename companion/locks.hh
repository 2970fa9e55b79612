// locks.hh - every lock of the companion, in one table so that a fork can take them all.
//
// A child of fork has one thread. A lock that another thread of the parent held would stay taken in it for ever, so the
// fork takes all locks first and both processes release them: the child finds every table complete and every lock free.
#pragma once

#include <pthread.h>
#include <stdint.h>

namespace mqc {

// In the order in which they are taken: while a thread holds one, it takes only later ones.
enum LockIndex : uint32_t {
  kLockOnce,    // what is set up at its first use
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
