// body.cc - see body.hh.
#include "body.hh"

#include <cstring>

#include "fmt/format.h"
#include "mqcat/message.hh"

namespace mqbridge {
namespace {

[[noreturn]] void Refuse(const std::string& why) { throw mqcat::Failure{mqcat::kExitBadMessage, why}; }

// Checks what the companion's functions rely on, before they use it.
void FromRaw(std::string_view body, PcfMessage* msg) {
  if (body.size() <= sizeof(MsgHeader) || body.size() > MQ_MAX_MESSAGE) {
    Refuse(fmt::format("a raw message of {} bytes", body.size()));
  }
  const uint32_t length = static_cast<uint32_t>(body.size());
  if (!SizePcfMessage(msg, length)) throw mqcat::Failure{mqcat::kExitResources, mqc_message_error(msg)};
  memcpy(msg->raw.data, body.data(), length);
  msg->raw.length = length;
  if (!AlienToNative(&msg->raw)) Refuse(mqc_header_error());
  uint32_t announced;
  memcpy(&announced, msg->raw.data + offsetof(MsgHeader, bodyLength), sizeof announced);
  if (announced != length - sizeof(MsgHeader)) {
    Refuse(fmt::format("the header says {} bytes of body, there are {}", announced, length - sizeof(MsgHeader)));
  }
  if (!AlienPcfToNative(msg) || !RawToPcf(msg)) Refuse(mqc_message_error(msg));
}

}  // namespace

Form FormOf(const std::string& name) { return name == "raw" ? Form::kRaw : Form::kJson; }

std::string ToBody(Form form, const PcfMessage* msg) {
  if (form == Form::kRaw) return {reinterpret_cast<const char*>(msg->raw.data), msg->raw.length};
  return mqcat::MessageToJson(msg).dump(-1, ' ', false, mqcat::Json::error_handler_t::replace);
}

void FromBody(Form form, std::string_view body, PcfMessage* msg) {
  if (form == Form::kRaw) return FromRaw(body, msg);
  mqcat::MessageFromJson(msg, std::string(body), {"body", 0});
}

}  // namespace mqbridge
