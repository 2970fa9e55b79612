// secret.hh - memory for secrets: kept out of core dumps and, as far as RLIMIT_MEMLOCK allows, out of swap; wiped when
// it is released.
#pragma once

#include <stdint.h>

#include "companion/memory.hh"

namespace mqc {

// Zeroed bytes at a multiple of 16, counted under the tag. Null without memory.
void* AllocateSecret(uint32_t size, Tag& tag);

// place may be null.
void ReleaseSecret(void* place);

// A T without constructor in such memory; tests false without memory.
template <typename T>
class Secret {
 public:
  explicit Secret(Tag& tag) : place_(static_cast<T*>(AllocateSecret(sizeof(T), tag))) {}
  ~Secret() { ReleaseSecret(place_); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  explicit operator bool() const { return place_ != nullptr; }
  T* operator->() const { return place_; }
  T& operator*() const { return *place_; }

 private:
  T* place_;
};

}  // namespace mqc
