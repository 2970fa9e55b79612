#include "demo/report.hh"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "mqnode/errors.h"

namespace demo {
namespace {

constexpr uint64_t kKib = 1024;

// 1234567 as 1,234,567.
std::string Grouped(uint64_t number) {
  const std::string digits = fmt::to_string(number);
  std::string text;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i != 0 && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return text;
}

std::string Size(uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  for (; value >= kKib && unit + 1 < std::size(kUnits); ++unit) value /= kKib;
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string Duration(uint64_t microseconds) {
  if (microseconds < 1000) return fmt::format("{} us", microseconds);
  if (microseconds < 1000000) return fmt::format("{:.1f} ms", static_cast<double>(microseconds) / 1e3);
  return fmt::format("{:.2f} s", static_cast<double>(microseconds) / 1e6);
}

std::string Rate(uint64_t count, double seconds) {
  return seconds > 0 ? Grouped(static_cast<uint64_t>(static_cast<double>(count) / seconds)) + "/s" : "-";
}

std::string Code(int code) { return fmt::format("{} {}", code, mq_error_name(code)); }

const char* Plural(uint64_t count) { return count == 1 ? "" : "s"; }

// Builds the table, line by line.
class Table {
 public:
  Table(const Shared& shared, const Options& options, const Course& course, const Verdict& verdict, bool colors)
      : server_(shared.server), options_(options), course_(course), verdict_(verdict), colors_(colors) {}

  std::string Text() {
    Head();
    Clients();
    Server();
    Misbehaving();
    Errors();
    Outcome();
    return fmt::to_string(out_);
  }

 private:
  template <typename... Args>
  void Line(fmt::format_string<Args...> form, Args&&... args) {
    fmt::format_to(std::back_inserter(out_), form, std::forward<Args>(args)...);
    out_.push_back('\n');
  }

  std::string Styled(const char* style, std::string text) const {
    return colors_ ? fmt::format("\x1b[{}m{}\x1b[0m", style, text) : text;
  }
  std::string Bold(std::string text) const { return Styled("1", std::move(text)); }

  void Head();
  void Clients();
  void ClientLine(const char* name, const KindTally& tally);
  void Server();
  void Misbehaving();
  void Errors();
  void Outcome();

  const ServerTally& server_;
  const Options& options_;
  const Course& course_;
  const Verdict& verdict_;
  const bool colors_;
  fmt::memory_buffer out_;
};

void Table::Head() {
  Line("");
  Line("{}", Bold("mqdemo: one server with one thread, and everybody at once, on 127.0.0.1"));
  Line(
      "{} honest client{} in {} process{}, {} misbehaving; connected in {:.1f} s, then {:.1f} s of questions and "
      "answers",
      options_.clients, Plural(static_cast<uint64_t>(options_.clients)), options_.processes,
      options_.processes == 1 ? "" : "es",
      std::count_if(verdict_.rogues.begin(), verdict_.rogues.end(),
                    [](const RogueResult& result) { return result.rogue->code != MQ_OK; }),
      course_.connecting, verdict_.asking);
}

void Table::ClientLine(const char* name, const KindTally& tally) {
  Line("  {:<25}{:>6}{:>11}{:>11}{:>12}{:>10}{:>10}{:>10}", name, Grouped(tally.clients), Grouped(tally.answers),
       Size(tally.bytesSent + tally.bytesReceived), Rate(tally.answers, verdict_.asking),
       Duration(tally.latency.Percentile(0.5)), Duration(tally.latency.Percentile(0.99)),
       Duration(tally.latency.longest));
}

void Table::Clients() {
  Line("");
  Line("{}", Bold(fmt::format("{:<27}{:>6}{:>11}{:>11}{:>12}{:>10}{:>10}{:>10}", "clients", "", "answers", "bytes",
                              "rate", "p50", "p99", "longest")));
  for (int kind = 0; kind < kKinds; ++kind)
    ClientLine(kKindTraits[kind].name, verdict_.kinds[static_cast<size_t>(kind)]);
  ClientLine("all", verdict_.all);
  Line("  datagrams: {} sent again because no answer came in time, {} answer{} came twice",
       Grouped(verdict_.all.resends), Grouped(verdict_.all.repeats), Plural(verdict_.all.repeats));
}

void Table::Server() {
  Line("");
  Line("{}", Bold("server"));
  Line("  connections     {} at once, {} accepted, {} ended in order, {} dropped", Grouped(server_.peakConnections),
       Grouped(server_.accepted), Grouped(server_.farewells), Grouped(server_.dropped));
  Line("  messages        {} read and written, {}, {} in all", Grouped(server_.messages),
       Rate(server_.messages, verdict_.asking), Size(server_.bytes));
  Line("  pending writes  {} answers did not fit into their sockets at once; at most {} waiting, on {} connection{}",
       Grouped(server_.queued), server_.peakWrites, server_.peakNodes, Plural(server_.peakNodes));
  Line("  waits           {}, with {:.1f} messages each", Grouped(server_.waits),
       static_cast<double>(server_.messages) / static_cast<double>(std::max<uint64_t>(server_.waits, 1)));
  Line("  memory          at most {} in buffers, {} block{} left at the end", Size(server_.peakBuffers),
       server_.leftBlocks, Plural(server_.leftBlocks));
  Line("  processor       {:.1f} s", server_.cpuSeconds);
}

// 11 alone says only that there is more to come.
const char* ReasonOf(const Event& event) {
  switch (event.end) {
    case End::kUnfinished:
      return ", unfinished";
    case End::kUnread:
      return ", unread";
    default:
      return "";
  }
}

std::string Fate(const RogueResult& result) {
  if (kPortTraits[result.rogue->port].isDatagram) return "no answer";
  if (result.rogue->code == MQ_OK) return result.tally->answers == 0 ? "no answer" : "answered like everybody";
  return result.tally->cutOff ? fmt::format("cut off after {:.1f} s", result.tally->seconds) : "not cut off";
}

void Table::Misbehaving() {
  if (verdict_.rogues.empty()) return;
  Line("");
  Line("{}", Bold(fmt::format("{:<50}{:<28}{}", "a client that ...", "error at the server", "what it saw")));
  for (const RogueResult& result : verdict_.rogues) {
    const std::string error = result.event == nullptr ? "none" : Code(result.event->code) + ReasonOf(*result.event);
    Line("  {:<48}{:<28}{}{}", result.rogue->name, error, Fate(result),
         result.right ? "" : Styled("31", "   <- not as it should be"));
  }
}

void Table::Errors() {
  Line("");
  Line("{}", Bold("errors by name"));
  if (server_.errorCount == 0) Line("  none");
  for (const ErrorTally& error : std::span(server_.errors, server_.errorCount)) {
    Line("  {:>3}  {:<24}{}", error.count, Code(error.code), mq_error_meaning(error.code));
  }
}

void Table::Outcome() {
  Line("");
  if (verdict_.problems.empty()) {
    Line("{} {} question{}, {} answer{}, every one compared byte for byte; nobody honest noticed anything.",
         Styled("1;32", "All right:"), Grouped(verdict_.all.questions), Plural(verdict_.all.questions),
         Grouped(verdict_.all.answers), Plural(verdict_.all.answers));
    return;
  }
  Line("{}", Styled("1;31", "Not right:"));
  for (const std::string& problem : verdict_.problems) Line("  {}", problem);
}

using Json = nlohmann::ordered_json;

Json KindJson(const KindTally& tally, double seconds) {
  return {{"clients", tally.clients},
          {"questions", tally.questions},
          {"answers", tally.answers},
          {"bytes_sent", tally.bytesSent},
          {"bytes_received", tally.bytesReceived},
          {"answers_per_second", seconds > 0 ? static_cast<double>(tally.answers) / seconds : 0.0},
          {"resends", tally.resends},
          {"repeated_answers", tally.repeats},
          {"queued_writes", tally.queued},
          {"latency_us",
           {{"p50", tally.latency.Percentile(0.5)},
            {"p99", tally.latency.Percentile(0.99)},
            {"longest", tally.latency.longest}}}};
}

Json ServerJson(const ServerTally& server) {
  return {{"connections_at_once", server.peakConnections},
          {"accepted", server.accepted},
          {"ended_in_order", server.farewells},
          {"dropped", server.dropped.load()},
          {"messages", server.messages.load()},
          {"bytes", server.bytes.load()},
          {"waits", server.waits},
          {"queued_writes", server.queued},
          {"finish_calls", server.finished},
          {"peak_pending_writes", server.peakWrites},
          {"peak_pending_connections", server.peakNodes},
          {"peak_buffer_bytes", server.peakBuffers},
          {"blocks_left", server.leftBlocks},
          {"cpu_seconds", server.cpuSeconds}};
}

Json RogueJson(const RogueResult& result) {
  const int code = result.event == nullptr ? MQ_OK : result.event->code;
  return {{"name", result.rogue->key},
          {"does", result.rogue->name},
          {"port", kPortTraits[result.rogue->port].name},
          {"code", code},
          {"error", mq_error_name(code)},
          {"given_up",
           result.event != nullptr && (result.event->end == End::kUnfinished || result.event->end == End::kUnread)},
          {"cut_off", result.tally->cutOff},
          {"seconds", result.tally->seconds},
          {"answers", result.tally->answers},
          {"as_expected", result.right}};
}

int Columns() {
  constexpr int kUsual = 80;
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : kUsual;
}

}  // namespace

Progress::Progress(const Shared& shared, const Options& options)
    : shared_(shared), options_(options), isTerminal_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (isTerminal_) fmt::print(stderr, "\r\x1b[K");
}

void Progress::Show(double seconds) {
  if (!isTerminal_) return;
  const ServerTally& server = shared_.server;
  uint64_t connected = 0;
  for (const WorkerTally& worker : shared_.workers) connected += worker.connected;
  const uint64_t messages = server.messages;
  const std::string rate = Rate(messages - shownMessages_, seconds - shownAt_);
  shownAt_ = seconds;
  shownMessages_ = messages;
  const std::string line =
      fmt::format("{:5.1f} s   {}/{} clients   {} messages   {}   {}   {} dropped", seconds, connected,
                  options_.clients, Grouped(messages), rate, Size(server.bytes), server.dropped.load());
  fmt::print(stderr, "\r{:.{}}\x1b[K", line, Columns() - 1);
}

std::string TableOf(const Shared& shared, const Options& options, const Course& course, const Verdict& verdict,
                    bool colors) {
  return Table(shared, options, course, verdict, colors).Text();
}

std::string JsonOf(const Shared& shared, const Options& options, const Course& course, const Verdict& verdict) {
  Json kinds = Json::object();
  for (size_t kind = 0; kind < kKinds; ++kind)
    kinds[kKindTraits[kind].key] = KindJson(verdict.kinds[kind], verdict.asking);
  Json rogues = Json::array();
  for (const RogueResult& result : verdict.rogues) rogues.push_back(RogueJson(result));
  Json errors = Json::object();
  for (const ErrorTally& error : std::span(shared.server.errors, shared.server.errorCount)) {
    errors[mq_error_name(error.code)] = error.count;
  }
  const Json report = {{"ok", verdict.problems.empty()},
                       {"problems", verdict.problems},
                       {"clients", options.clients},
                       {"processes", options.processes},
                       {"connecting_seconds", course.connecting},
                       {"asking_seconds", verdict.asking},
                       {"all", KindJson(verdict.all, verdict.asking)},
                       {"kinds", kinds},
                       {"server", ServerJson(shared.server)},
                       {"misbehaving", rogues},
                       {"errors", errors}};
  return report.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace demo
