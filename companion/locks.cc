// locks.cc - the locks, and the handlers that make them safe across fork.

#include "companion/locks.hh"

namespace mqc {

pthread_mutex_t locks[kLocks] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                                 PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};

namespace {

void TakeAll() {
  for (pthread_mutex_t& lock : locks) pthread_mutex_lock(&lock);
}

void ReleaseAll() {
  for (uint32_t i = kLocks; i > 0; --i) pthread_mutex_unlock(&locks[i - 1]);
}

// If there is no memory for the handlers, the companion works, but forking a process with several threads is not safe.
__attribute__((constructor)) void WatchForks() { pthread_atfork(TakeAll, ReleaseAll, ReleaseAll); }

}  // namespace
}  // namespace mqc
