// report.hh - the output of mqbridge: events, and a status line every few seconds, as JSON on standard output or as
// text on standard error. Also the counters behind both, which the metrics port shows as well.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace mqbridge {

using Json = nlohmann::ordered_json;

enum class Count : size_t {
  kMessages,
  kAnswers,
  kStored,
  kDuplicates,
  kNoResponder,
  kTimeOver,
  kErrors,
  kResent,
  kAcknowledged,
  kReturned,
  kDead,
  kLost,
  kReconnects,
  kUp,
  kPeerUp,
  kNodes,
  kInFlight,
  kHeldBytes,
  kEnd
};

class Report {
 public:
  explicit Report(bool json) : json_(json) {}

  uint64_t& operator[](Count which) { return counts_[static_cast<size_t>(which)]; }

  // An event with its fields. Text: "mqbridge: event: key value, key value". At most ten lines a second are printed;
  // the next one says how many were left out.
  void Event(const std::string& name, const Json& fields = Json::object());

  // Prints all counters; as text, only those that are not zero.
  void Status();

  // The counters in the text format of Prometheus.
  std::string Metrics() const;

 private:
  bool MayPrint();
  void Print(const Json& line);

  bool json_;
  std::array<uint64_t, static_cast<size_t>(Count::kEnd)> counts_{};
  int64_t second_ = 0;
  uint64_t lines_ = 0, left_out_ = 0;
};

}  // namespace mqbridge
