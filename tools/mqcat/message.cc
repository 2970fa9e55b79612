// message.cc - see message.hh.
#include "message.hh"

#include <algorithm>
#include <array>
#include <iterator>
#include <set>
#include <string_view>

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

// Shown in failures.
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

// A text as the parser reads it; says how many characters it has taken.
class CountingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator(const char* at, size_t* taken) : at_(at), taken_(taken) {}
  reference operator*() const { return *at_; }
  CountingIterator& operator++() {
    ++at_;
    ++*taken_;
    return *this;
  }
  CountingIterator operator++(int) {
    const CountingIterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const CountingIterator& other) const { return at_ == other.at_; }
  bool operator!=(const CountingIterator& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  size_t* taken_;
};

// Builds a value, which is small beside the text: what no message has is refused where it begins.
class JsonBuilder : public nlohmann::json_sax<Json> {
 public:
  JsonBuilder(const std::string& text, const Source& source) : text_(text), source_(source) {}

  Json Build() {
    const CountingIterator begin(text_.data(), &taken_), end(text_.data() + text_.size(), &taken_);
    Json::sax_parse(begin, end, this);
    return std::move(root_);
  }

  bool null() override { return Put(nullptr) != nullptr; }
  bool boolean(bool value) override { return Put(value) != nullptr; }
  bool number_integer(number_integer_t value) override { return Put(value) != nullptr; }
  bool number_unsigned(number_unsigned_t value) override { return Put(value) != nullptr; }
  bool number_float(number_float_t value, const string_t&) override { return Put(value) != nullptr; }
  bool string(string_t& value) override { return Put(std::move(value)) != nullptr; }
  bool binary(binary_t&) override { return false; }
  bool start_object(size_t) override { return Open(Json::object()); }
  bool start_array(size_t) override { return Open(Json::array()); }
  bool end_object() override { return Close(); }
  bool end_array() override { return Close(); }

  bool key(string_t& name) override {
    const Json& object = *open_.back();
    if (object.contains(name)) RefuseAt(taken_, fmt::format("key {} is there twice", Quote(name, 40)));
    if (object.size() == kMostKeys) RefuseAt(taken_, fmt::format("more than {} keys", kMostKeys));
    key_ = std::move(name);
    return true;
  }

  bool parse_error(size_t position, const std::string& token, const nlohmann::detail::exception& error) override {
    // "[json.exception...] parse error at line 1, column 12: syntax error ...": where it is said here.
    std::string_view what = error.what();
    for (const std::string_view start : {std::string_view("] "), std::string_view(": ")}) {
      const size_t at = what.find(start);
      const bool has_place = start != ": " || what.starts_with("parse error at ");
      if (at != std::string_view::npos && has_place) what.remove_prefix(at + start.size());
    }
    const bool is_overflow = error.id == kNumberOverflow && token.size() <= position;
    RefuseAt(is_overflow ? position - token.size() + 1 : position,
             fmt::format("not JSON: {}", Plain(what.substr(0, 200))));
  }

 private:
  static constexpr int kNumberOverflow = 406;  // of the parser's failures
  static constexpr size_t kDeepest = 8;
  static constexpr size_t kMostKeys = 64;
  static constexpr size_t kMostElements = MQC_MAX_PARAMS;

  // position: of the last character that was read, from 1.
  [[noreturn]] void RefuseAt(size_t position, const std::string& why) const {
    const std::string_view before = std::string_view(text_).substr(0, position == 0 ? 0 : position - 1);
    const size_t newline = before.rfind('\n');
    const size_t column = newline == std::string_view::npos ? before.size() + 1 : before.size() - newline;
    const auto line =
        std::max<size_t>(source_.line, 1) + static_cast<size_t>(std::count(before.begin(), before.end(), '\n'));
    Refuse(fmt::format("{}, line {}, column {}", source_.name, line, column), why);
  }

  Json* Put(Json value) {
    if (open_.empty()) return &(root_ = std::move(value));
    Json& parent = *open_.back();
    if (parent.is_object()) return &(parent[key_] = std::move(value));
    if (parent.size() == kMostElements) RefuseAt(taken_, fmt::format("more than {} elements", kMostElements));
    parent.push_back(std::move(value));
    return &parent.back();
  }

  bool Open(Json value) {
    if (open_.size() == kDeepest) RefuseAt(taken_, fmt::format("nested deeper than {} levels", kDeepest));
    open_.push_back(Put(std::move(value)));
    return true;
  }

  bool Close() {
    open_.pop_back();
    return true;
  }

  const std::string& text_;
  const Source& source_;
  size_t taken_ = 0;
  Json root_;
  std::vector<Json*> open_;  // the values that the next one is part of, outermost first
  std::string key_;
};

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

void MessageFromJson(PcfMessage* msg, const std::string& text, const Source& source) {
  const Json json = JsonBuilder(text, source).Build();
  const std::string where = source.line == 0 ? source.name : fmt::format("{}, line {}", source.name, source.line);
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
