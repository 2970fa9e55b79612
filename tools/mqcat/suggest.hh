// suggest.hh - the word that was probably meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mqcat {

// The known word that is nearest to a mistyped one, or begins with it; empty when none is near.
std::string Nearest(std::string_view word, const std::vector<std::string>& known);

}  // namespace mqcat
