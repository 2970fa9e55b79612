// secret.cc - see secret.hh. libsodium provides the pages, with a guard page on either side.
// Invariant: a head before the caller's bytes names the tag that the block is counted under.

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
  // sodium_malloc places a block at the end of a page: its start is aligned if its size is a multiple of 16.
  const size_t bytes = (size_t{size} + 2 * sizeof(Head) - 1) & ~(sizeof(Head) - 1);
  auto* head = static_cast<Head*>(sodium_malloc(bytes));
  if (head == nullptr) return CountFailure();
  *head = {&tag, size};
  CountIn(tag, size);
  return memset(head + 1, 0, size);
}

void ReleaseSecret(void* data) {
  if (data == nullptr) return;
  Head* head = static_cast<Head*>(data) - 1;
  CountOut(*head->tag, head->size);
  sodium_free(head);
}

}  // namespace mqc
