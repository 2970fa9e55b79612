// secret.hh - secret memory: excluded from core dumps and, as far as RLIMIT_MEMLOCK allows, from swap; wiped on
// release.
#pragma once

#include <stdint.h>

#include "companion/memory.hh"

namespace mqc {

// Allocates zeroed bytes, aligned to 16 and counted under the tag. Null if there is no memory.
void* AllocateSecret(uint32_t size, Tag& tag);

// data may be null.
void ReleaseSecret(void* data);

// Owns a T in secret memory, zeroed and without a constructor call. Converts to false if there is no memory.
template <typename T>
class Secret {
 public:
  explicit Secret(Tag& tag) : secret_(static_cast<T*>(AllocateSecret(sizeof(T), tag))) {}
  ~Secret() { ReleaseSecret(secret_); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  explicit operator bool() const { return secret_ != nullptr; }
  T* operator->() const { return secret_; }
  T& operator*() const { return *secret_; }

 private:
  T* secret_;
};

}  // namespace mqc
