// message.cc - see message.hh.
#include "message.hh"

#include <array>
#include <set>

#include "failure.hh"
#include "fmt/format.h"
#include "input.hh"
#include "number.hh"
#include "text.hh"

namespace mqcat {
namespace {

constexpr size_t kMaxFile = MQ_MAX_MESSAGE;
constexpr std::array<const char*, 4> kTypes = {"int32", "int64", "text", "bytes"};

// Keys that mqcat listen writes beside the message: what it prints can be sent again.
const std::set<std::string> kKnownKeys = {"command", "parameters",  "time",   "peer",
                                          "user",    "application", "signed", "bytes"};

[[noreturn]] void Refuse(const std::string& where, const std::string& why) {
  throw Failure{kExitInput, fmt::format("{}: {}", where, why)};
}

void Check(int added, const PcfMessage* msg, const std::string& where) {
  if (!added) Refuse(where, mqc_message_error(msg));
}

void AddNumberParam(PcfMessage* msg, uint32_t id, bool wide, int64_t value, const std::string& where) {
  if (!wide && (value < INT32_MIN || value > INT32_MAX)) {
    Refuse(where, fmt::format("{} does not fit int32 ({} to {}); int64 does", value, INT32_MIN, INT32_MAX));
  }
  Check(wide ? mqc_add_int64(msg, id, value) : mqc_add_int32(msg, id, static_cast<int32_t>(value)), msg, where);
}

void AddTextParam(PcfMessage* msg, uint32_t id, const std::string& text, const std::string& where) {
  if (text.find('\0') != std::string::npos) Refuse(where, "a text holds a zero character; send it as bytes");
  Check(mqc_add_text(msg, id, text.c_str()), msg, where);
}

std::vector<uint8_t> HexOrRefuse(const std::string& digits, const std::string& where) {
  const auto bytes = FromHex(digits);
  if (!bytes) Refuse(where, fmt::format("{} is not an even number of hexadecimal digits", Quote(digits, 40)));
  return *bytes;
}

void AddBytesParam(PcfMessage* msg, uint32_t id, Bytes bytes, const std::string& where) {
  if (bytes.size() > MQ_MAX_MESSAGE) Refuse(where, fmt::format("{} bytes are too many", bytes.size()));
  Check(mqc_add_bytes(msg, id, bytes.data(), static_cast<uint32_t>(bytes.size())), msg, where);
}

// ---- From JSON ----

const Json& Need(const Json& object, const char* key, const std::string& where) {
  const auto place = object.find(key);
  if (place == object.end()) Refuse(where, fmt::format("\"{}\" is missing", key));
  return *place;
}

// Shown in failures. Arrays and objects may be nested to any depth: only their kind is shown.
std::string Shown(const Json& value) {
  if (value.is_structured()) return fmt::format("an {}", value.type_name());
  return Plain(value.dump(-1, ' ', true, Json::error_handler_t::replace).substr(0, 60));
}

uint32_t WordOf(const Json& value, const std::string& where) {
  if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
    Refuse(where, fmt::format("{} is not a whole number from 0 to {}", Shown(value), UINT32_MAX));
  }
  return value.get<uint32_t>();
}

int64_t IntegerOf(const Json& value, const std::string& where) {
  const bool beyond = value.is_number_unsigned() && value.get<uint64_t>() > INT64_MAX;
  if (!value.is_number_integer() || beyond) {
    Refuse(where, fmt::format("{} is not a whole number from {} to {}", Shown(value), INT64_MIN, INT64_MAX));
  }
  return value.get<int64_t>();
}

const std::string& StringOf(const Json& value, const std::string& where) {
  if (!value.is_string()) Refuse(where, fmt::format("{} is not a string", Shown(value)));
  return value.get_ref<const std::string&>();
}

std::string TypeOf(const Json& param, const std::string& where) {
  if (const auto type = param.find("type"); type != param.end()) return StringOf(*type, where + ", type");
  const Json& value = Need(param, "value", where);
  if (value.is_string()) return "text";
  const int64_t number = IntegerOf(value, where + ", value");
  return number >= INT32_MIN && number <= INT32_MAX ? "int32" : "int64";
}

// A text that is no UTF-8, in hexadecimal digits.
void AddHexText(PcfMessage* msg, uint32_t id, const std::string& digits, const std::string& where) {
  const std::vector<uint8_t> bytes = HexOrRefuse(digits, where);
  AddTextParam(msg, id, std::string(bytes.begin(), bytes.end()), where);
}

void AddJsonParam(PcfMessage* msg, const Json& param, const std::string& where) {
  if (!param.is_object()) Refuse(where, fmt::format("{} is not an object", Shown(param)));
  for (const auto& [key, unused] : param.items()) {
    if (key != "id" && key != "type" && key != "value" && key != "hex") {
      Refuse(where, fmt::format("key {} is none of id, type, value, hex", Quote(key, 40)));
    }
  }
  const uint32_t id = WordOf(Need(param, "id", where), where + ", id");
  const std::string type = TypeOf(param, where);
  if (type == "text" && param.contains("hex")) {
    return AddHexText(msg, id, StringOf(param["hex"], where + ", hex"), where);
  }
  const Json& value = Need(param, "value", where);
  if (type == "int32" || type == "int64") {
    AddNumberParam(msg, id, type == "int64", IntegerOf(value, where + ", value"), where);
  } else if (type == "text") {
    AddTextParam(msg, id, StringOf(value, where + ", value"), where);
  } else if (type == "bytes") {
    AddBytesParam(msg, id, HexOrRefuse(StringOf(value, where + ", value"), where), where);
  } else {
    Refuse(where, fmt::format("type {} is none of int32, int64, text, bytes", Quote(type, 40)));
  }
}

Json ParseJson(const std::string& text, const std::string& where) {
  try {
    return Json::parse(text);
  } catch (const Json::parse_error& error) {
    const std::string what = error.what();
    const size_t start = what.find("parse error");
    Refuse(where, "not JSON: " + Plain(start == std::string::npos ? what : what.substr(start)).substr(0, 200));
  }
}

Json ParamToJson(const MqcParam& param) {
  Json json = {{"id", param.id}, {"type", TypeName(param.type)}};
  if (param.type == MQC_TEXT) {
    const std::string text = param.text;
    IsUtf8(text) ? json["value"] = text : json["hex"] = Hex(BytesOf(text));
  } else if (param.type == MQC_BYTES) {
    json["value"] = Hex({param.bytes, param.length});
  } else {
    json["value"] = param.number;
  }
  return json;
}

}  // namespace

const char* TypeName(uint32_t type) { return type >= 1 && type <= kTypes.size() ? kTypes[type - 1] : "unknown"; }

ParamSpec ParseParam(const std::string& text) {
  const std::string where = fmt::format("parameter {}", Quote(text, 60));
  const size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw Failure{kExitUsage, where + ": expected ID=TEXT or ID:TYPE=VALUE, such as 1=hello or 2:int32=-5"};
  }
  const std::string head = text.substr(0, equals);
  const size_t colon = head.find(':');
  ParamSpec param;
  param.type = colon == std::string::npos ? "text" : head.substr(colon + 1);
  param.value = text.substr(equals + 1);
  const auto id = ParseNumber<uint32_t>(head.substr(0, colon), 0, UINT32_MAX);
  if (!id) {
    throw Failure{kExitUsage,
                  fmt::format("{}: {} is not an id from 0 to {}", where, Quote(head.substr(0, colon), 40), UINT32_MAX)};
  }
  param.id = *id;
  const bool known = std::find(kTypes.begin(), kTypes.end(), param.type) != kTypes.end() || param.type == "file";
  if (!known) {
    throw Failure{kExitUsage,
                  fmt::format("{}: type {} is none of int32, int64, text, bytes, file", where, Quote(param.type, 40))};
  }
  return param;
}

void AddParam(PcfMessage* msg, const ParamSpec& param) {
  const std::string where = fmt::format("parameter {} ({})", param.id, param.type);
  if (param.type == "text") return AddTextParam(msg, param.id, param.value, where);
  if (param.type == "bytes") return AddBytesParam(msg, param.id, HexOrRefuse(param.value, where), where);
  if (param.type == "file") return AddBytesParam(msg, param.id, BytesOf(ReadFile(param.value, kMaxFile)), where);
  const auto number = ParseNumber<int64_t>(param.value, INT64_MIN, INT64_MAX);
  if (!number) {
    Refuse(where, fmt::format("{} is not a whole number from {} to {}", Quote(param.value, 40), INT64_MIN, INT64_MAX));
  }
  AddNumberParam(msg, param.id, param.type == "int64", *number, where);
}

void BeginMessage(PcfMessage* msg, uint32_t command) {
  if (!mqc_begin(msg, command)) throw Failure{kExitResources, mqc_message_error(msg)};
}

void MessageFromJson(PcfMessage* msg, const std::string& text, const std::string& where) {
  const Json json = ParseJson(text, where);
  if (!json.is_object()) Refuse(where, fmt::format("{} is not an object", Shown(json)));
  for (const auto& [key, unused] : json.items()) {
    if (kKnownKeys.count(key) == 0) {
      Refuse(where, fmt::format("key {} is not one of a message: command, parameters", Quote(key, 40)));
    }
  }
  BeginMessage(msg, WordOf(Need(json, "command", where), where + ", command"));
  const auto params = json.find("parameters");
  if (params == json.end()) return;
  if (!params->is_array()) Refuse(where + ", parameters", fmt::format("{} is not an array", Shown(*params)));
  size_t index = 0;
  for (const Json& param : *params) AddJsonParam(msg, param, fmt::format("{}, parameter {}", where, index++));
}

Json MessageToJson(const PcfMessage* msg) {
  Json json = {{"command", mqc_command(msg)}, {"parameters", Json::array()}};
  MqcParam param;
  for (uint32_t i = 0; mqc_param(msg, i, &param); ++i) json["parameters"].push_back(ParamToJson(param));
  return json;
}

}  // namespace mqcat
