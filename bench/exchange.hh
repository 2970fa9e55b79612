// exchange.hh - exchanges of messages between two processes, for any list of contestants.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/end.hh"
#include "bench/measure.hh"

namespace bench {

constexpr size_t kBodies[] = {64, 1024, 16 * 1024, 64 * 1024, 1024 * 1024};

std::string SizeText(size_t bytes);

struct Exchanges {
  Samples elapsed;
  Samples processor;
};

// The speed of copies depends on the addresses of a connection's buffers: each row is measured with this many layouts.
constexpr unsigned kLayouts = 12;

// Measures seconds per message, by contestant, over one connection each. The last contestant determines the number of
// messages in a slice.
Exchanges ExchangeOnce(const std::vector<Contestant>& contestants, Pattern pattern, size_t body, const Effort& effort,
                       unsigned layout);

void Append(Samples* all, const Samples& more);

}  // namespace bench
