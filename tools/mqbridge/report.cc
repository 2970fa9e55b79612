// report.cc - see report.hh. Failures are ignored: a bridge keeps running when its output cannot be written.
#include "report.hh"

#include <unistd.h>

#include <ctime>
#include <iterator>

#include "fmt/format.h"
#include "mqcat/show.hh"
#include "mqcat/text.hh"

namespace mqbridge {
namespace {

constexpr uint64_t kLinesPerSecond = 10;

struct About {
  const char* name;
  bool gauge;
  const char* help;
};

// In the order of Count.
constexpr About kAbout[] = {
    {"messages", false, "messages taken from nodes (in) or from the cluster (out)"},
    {"answers", false, "answers of workers given to clients (in) or of the peer (out)"},
    {"stored", false, "messages whose storage the cluster acknowledged"},
    {"duplicates", false, "stored messages that the cluster had already"},
    {"no_responder", false, "clients told that nobody answers on the subject"},
    {"time_over", false, "clients told that no answer came in time"},
    {"errors", false, "clients or requesters told of an error"},
    {"resent", false, "messages published once more"},
    {"acknowledged", false, "messages acknowledged to the cluster"},
    {"returned", false, "messages given back to the cluster for another delivery"},
    {"dead", false, "messages moved to the dead-letter subject"},
    {"lost", false, "messages of a queue group that there was no memory for"},
    {"reconnects", false, "connections to the cluster that followed the first one"},
    {"up", true, "1 while connected to the cluster"},
    {"peer_up", true, "1 while connected to the peer (out)"},
    {"nodes", true, "nodes that are connected"},
    {"in_flight", true, "messages that wait for an answer or an acknowledgement"},
    {"held_bytes", true, "bytes of these messages and of their answers"},
};
static_assert(std::size(kAbout) == static_cast<size_t>(Count::kEnd));

void WriteLine(int fd, const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const ssize_t put = write(fd, text.data() + at, text.size() - at);
    if (put <= 0) return;
    at += static_cast<size_t>(put);
  }
}

std::string Text(const Json& value) {
  return value.is_string() ? mqcat::Plain(value.get_ref<const std::string&>()) : value.dump();
}

}  // namespace

bool Report::MayPrint() {
  const int64_t now = time(nullptr);
  if (now != second_) lines_ = 0;
  second_ = now;
  if (++lines_ <= kLinesPerSecond) return true;
  ++left_out_;
  return false;
}

void Report::Print(const Json& line) {
  if (json_) {
    const std::string text = line.dump(-1, ' ', false, Json::error_handler_t::replace);
    return WriteLine(STDOUT_FILENO, mqcat::SafeJson(text) + "\n");
  }
  std::string text = "mqbridge: " + Text(line.at("event"));
  const char* between = ": ";
  for (const auto& [key, value] : line.items()) {
    if (key == "event" || key == "time") continue;
    text += fmt::format("{}{} {}", between, key, Text(value));
    between = ", ";
  }
  WriteLine(STDERR_FILENO, text + "\n");
}

void Report::Event(const std::string& name, const Json& fields) {
  if (!MayPrint()) return;
  Json line = {{"time", mqcat::UtcTime()}, {"event", name}};
  line.update(fields);
  if (left_out_ != 0) line["left_out"] = left_out_;
  left_out_ = 0;
  Print(line);
}

void Report::Status() {
  Json line = {{"time", mqcat::UtcTime()}, {"event", "status"}};
  for (size_t i = 0; i < counts_.size(); ++i) {
    if (json_ || counts_[i] != 0) line[kAbout[i].name] = counts_[i];
  }
  Print(line);
}

std::string Report::Metrics() const {
  std::string text;
  for (size_t i = 0; i < counts_.size(); ++i) {
    const About& about = kAbout[i];
    const std::string name = fmt::format("mqbridge_{}{}", about.name, about.gauge ? "" : "_total");
    text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{0} {3}\n", name, about.help,
                        about.gauge ? "gauge" : "counter", counts_[i]);
  }
  return text;
}

}  // namespace mqbridge
