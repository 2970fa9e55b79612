// exchange.hh - messages between two processes, by any list of contestants.
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

// Where the areas of a connection lie in memory decides how fast copies are: every row is taken over so many layouts.
constexpr unsigned kLayouts = 12;

// Seconds a message, by contestant, over one connection each. The last contestant sets the length of a slice.
Exchanges ExchangeOnce(const std::vector<Contestant>& contestants, Pattern pattern, size_t body, const Effort& effort,
                       unsigned layout);

void Append(Samples* all, const Samples& more);

}  // namespace bench
