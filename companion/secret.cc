// secret.cc - see secret.hh. libsodium gives the pages, with a guard page on either side.
// Invariant: a head in front of the bytes names the tag that the block is counted under.

#include "companion/secret.hh"

#include <sodium.h>
#include <string.h>

#include "companion/keys.hh"

namespace mqc {
namespace {

struct Head {
  Tag* tag;
  uint64_t size;
};
static_assert(sizeof(Head) == 16);

}  // namespace

void* AllocateSecret(uint32_t size, Tag& tag) {
  if (__atomic_load_n(&fail_countdown, __ATOMIC_RELAXED) != 0 && MustFail()) return CountFailure();
  if (!HaveSodium()) return CountFailure();  // GCOVR_EXCL_BR_LINE: libsodium aborts
  // sodium_malloc ends a block at the end of a page: a size in whole heads keeps its start aligned.
  const size_t bytes = (size_t{size} + 2 * sizeof(Head) - 1) & ~(sizeof(Head) - 1);
  auto* head = static_cast<Head*>(sodium_malloc(bytes));
  if (head == nullptr) return CountFailure();
  *head = {&tag, size};
  CountIn(tag, size);
  return memset(head + 1, 0, size);
}

void ReleaseSecret(void* place) {
  if (place == nullptr) return;
  Head* head = static_cast<Head*>(place) - 1;
  CountOut(*head->tag, head->size);
  sodium_free(head);
}

}  // namespace mqc
