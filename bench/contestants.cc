// contestants.cc - the list of contestants. Comparisons with other systems join it when the build has found them.
#include "bench/end.hh"

namespace bench {

std::vector<Contestant> Contestants() { return {Nodes(), BareSockets()}; }

std::vector<uint8_t> SomeBytes(size_t size) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
  return bytes;
}

}  // namespace bench
