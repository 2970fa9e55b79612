// charset.cc - the conversion table from EBCDIC, taken from the system's iconv.
// The target is ISO-8859-1, whose lower half is ASCII: every byte maps to exactly one byte, so lengths never change.

#include "companion/charset.hh"

#include <iconv.h>
#include <pthread.h>

#include "companion/locks.hh"

namespace mqc {
namespace {

pthread_once_t once = PTHREAD_ONCE_INIT;
uint8_t table[256];
bool usable;

bool ConvertAllBytes(iconv_t converter) {
  char all[256];
  for (int i = 0; i < 256; ++i) all[i] = static_cast<char>(i);
  char* in = all;
  char* out = reinterpret_cast<char*>(table);
  size_t in_left = sizeof(all);
  size_t out_left = sizeof(table);
  return iconv(converter, &in, &in_left, &out, &out_left) == 0 && in_left == 0 && out_left == 0;
}

void BuildTable() {
  const Locked locked(kLockOnce);
  const iconv_t converter = iconv_open("ISO-8859-1", "IBM1047");
  if (converter == reinterpret_cast<iconv_t>(-1)) return;
  usable = ConvertAllBytes(converter) && table[0] == 0;            // GCOVR_EXCL_BR_LINE: a table that is not libc's
  for (int i = 1; i < 256; ++i) usable = usable && table[i] != 0;  // GCOVR_EXCL_BR_LINE: a table that is not libc's
  iconv_close(converter);
}

}  // namespace

const uint8_t* EbcdicTable() {
  pthread_once(&once, BuildTable);
  return usable ? table : nullptr;
}

}  // namespace mqc
