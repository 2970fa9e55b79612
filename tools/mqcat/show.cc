// show.cc - see show.hh.
#include "show.hh"

#include <ctime>

#include "fmt/chrono.h"
#include "message.hh"
#include "output.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr size_t kTextLimit = 400;
constexpr size_t kBytesLimit = 200;

std::string TimeText(bool utc) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const long milliseconds = now.tv_nsec / 1000000;
  return utc ? fmt::format("{:%FT%T}.{:03}Z", fmt::gmtime(now.tv_sec), milliseconds)
             : fmt::format("{:%F %T}.{:03}", fmt::localtime(now.tv_sec), milliseconds);
}

std::string Application(const PcfMessage* msg) {
  char name[49];
  mqc_application(msg, name);
  return name;
}

std::string Sender(const PcfMessage* msg) {
  char user[13];
  mqc_sender(msg, user);
  return user;
}

std::string Headline(const PcfMessage* msg, const std::string& peer, bool is_signed) {
  const char* const how = mqc_sealed(msg) ? "sealed by" : is_signed ? "signed by" : "from";
  return fmt::format("{} {} {} {} with {}, command {}, {}, {} bytes", LocalTime(), peer, how, Quote(Sender(msg)),
                     Quote(Application(msg)), mqc_command(msg), Count(mqc_count(msg), "parameter"), msg->raw.length);
}

std::string ParamText(const MqcParam& param) {
  switch (param.type) {
    case MQC_TEXT:
      return Quote({param.text, param.length}, kTextLimit);
    case MQC_BYTES:
      return Hex({param.bytes, param.length}, kBytesLimit);
    default:
      return std::to_string(param.number);
  }
}

std::string ToText(const PcfMessage* msg, const std::string& peer, bool is_signed) {
  std::string text = Headline(msg, peer, is_signed) + "\n";
  MqcParam param;
  for (uint32_t i = 0; mqc_param(msg, i, &param); ++i) {
    text += fmt::format("  {} {:<5}  {}\n", param.id, TypeName(param.type), ParamText(param));
  }
  return text;
}

Json ToJson(const PcfMessage* msg, const std::string& peer, bool is_signed) {
  const std::string application = Application(msg);
  Json json = {{"time", UtcTime()},          {"peer", peer},
               {"user", Plain(Sender(msg))}, {"application", Plain(application)},
               {"signed", is_signed},        {"sealed", mqc_sealed(msg) != 0},
               {"bytes", msg->raw.length}};
  json.update(MessageToJson(msg));
  return json;
}

Bytes RawOf(const PcfMessage* msg) { return {msg->raw.data, msg->raw.length}; }

}  // namespace

std::string LocalTime() { return TimeText(false); }
std::string UtcTime() { return TimeText(true); }

ShowFormat ShowFormatOf(const std::string& name) {
  for (size_t i = 0; i < std::size(kShowFormats); ++i) {
    if (name == kShowFormats[i]) return static_cast<ShowFormat>(i);
  }
  return ShowFormat::kText;
}

void ShowMessage(const PcfMessage* msg, const std::string& peer, bool is_signed, ShowFormat format) {
  switch (format) {
    case ShowFormat::kText:
      return Print(OutputIsTerminal() ? Wrap(ToText(msg, peer, is_signed), OutputWidth())
                                      : ToText(msg, peer, is_signed));
    case ShowFormat::kJson:
      return PrintJson(ToJson(msg, peer, is_signed));
    case ShowFormat::kHex:
      return Print("# " + Headline(msg, peer, is_signed) + "\n" + HexDump(RawOf(msg)));
    case ShowFormat::kRaw:
      return Print({reinterpret_cast<const char*>(msg->raw.data), msg->raw.length});
    case ShowFormat::kQuiet:
      return;
  }
}

}  // namespace mqcat
