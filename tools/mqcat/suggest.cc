// suggest.cc - see suggest.hh.
#include "suggest.hh"

#include <algorithm>
#include <numeric>

namespace mqcat {
namespace {

// Insertions, deletions, replacements and swaps of neighbours that turn one word into the other.
size_t Distance(std::string_view a, std::string_view b) {
  std::vector<size_t> before(b.size() + 1), last(b.size() + 1), row(b.size() + 1);
  std::iota(last.begin(), last.end(), 0);
  for (size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before.swap(last);
    last.swap(row);
  }
  return last[b.size()];
}

}  // namespace

std::string Nearest(std::string_view word, const std::vector<std::string>& known) {
  std::string nearest;
  size_t least = 1 + word.size() / 3;  // a third of the letters may be wrong
  for (const std::string& candidate : known) {
    const bool begins = word.size() > 2 && candidate.starts_with(word);
    const size_t distance = begins ? 0 : Distance(word.substr(0, 40), candidate);
    if (distance > least || (distance == least && !nearest.empty())) continue;
    least = distance;
    nearest = candidate;
  }
  return nearest;
}

}  // namespace mqcat
