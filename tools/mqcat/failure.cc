// failure.cc - see failure.hh.
#include "failure.hh"

#include <cstring>

#include "fmt/format.h"
#include "mqnode/errors.h"

namespace mqcat {

std::string CodeText(int code, unsigned place) {
  const MqErrorInfo* const entry = mq_error_find(code, place);
  if (entry == nullptr) return fmt::format("{} ({})", strerrordesc_np(code) ? strerrordesc_np(code) : "unknown", code);
  return fmt::format("{} ({}): {}", entry->name, code, entry->meaning);
}

std::string RemedyText(int code, unsigned place) {
  const MqErrorInfo* const entry = mq_error_find(code, place);
  return entry == nullptr ? "" : fmt::format("\n  {}", entry->remedy);
}

}  // namespace mqcat
