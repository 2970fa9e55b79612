// message.cc - see message.hh.
#include "message.hh"

#include <algorithm>
#include <array>
#include <cctype>
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

// Keys of a message, and those that mqcat listen adds, so that its output can be sent again.
const std::set<std::string> kKnownKeys = {"command",     "parameters", "time",   "peer", "user",
                                          "application", "signed",     "sealed", "bytes"};

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
  if (text.find('\0') != std::string::npos) Refuse(where, "a text cannot contain a zero character; send it as bytes");
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

// A value, with the bytes of the text at which it and its key begin.
struct Position {
  size_t value;
  size_t key;
};

// A parsed text. Positions are in the order of the text: that of the values when the tree is walked from the root.
struct Document {
  Json root;
  std::vector<Position> positions;
};

bool IsWordCharacter(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.'; }

// Where the token begins whose last character is before end.
size_t TokenBegin(std::string_view text, size_t end) {
  size_t at = end - 1;
  if (text[at] != '"') {
    while (IsWordCharacter(text[at]) && at > 0 && IsWordCharacter(text[at - 1])) --at;
    return at;
  }
  // Inside a string a quote follows an odd number of backslashes; outside there are none.
  for (size_t slashes = 1; slashes % 2 != 0;) {
    at = text.rfind('"', at - 1);
    for (slashes = 0; slashes < at && text[at - 1 - slashes] == '\\';) ++slashes;
  }
  return at;
}

// The same for a number or a literal, whose end the parser finds only at the next character.
size_t WordBegin(std::string_view text, size_t end) {
  while (end > 1 && !IsWordCharacter(text[end - 1])) --end;
  return TokenBegin(text, end);
}

// "--json, line 2, column 7" of a byte of the text. Columns are characters.
std::string PlaceOf(const Source& source, std::string_view text, size_t at) {
  const std::string_view before = text.substr(0, at);
  const std::string_view line = before.substr(before.rfind('\n') + 1);
  const auto lines = std::count(before.begin(), before.end(), '\n');
  const auto column = 1 + std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xc0) != 0x80; });
  return fmt::format("{}, line {}, column {}", source.name,
                     std::max<size_t>(source.line, 1) + static_cast<size_t>(lines), column);
}

// Iterates over a text; counts the characters that the parser has read.
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

// Builds a value. Values that no message contains are refused where they begin, which keeps the tree small relative to
// the text.
class JsonBuilder : public nlohmann::json_sax<Json> {
 public:
  JsonBuilder(const std::string& text, const Source& source) : text_(text), source_(source) {}

  Document Build() {
    const CountingIterator begin(text_.data(), &taken_), end(text_.data() + text_.size(), &taken_);
    Json::sax_parse(begin, end, this);
    return {std::move(root_), std::move(positions_)};
  }

  bool null() override { return PutWord(nullptr); }
  bool boolean(bool value) override { return PutWord(value); }
  bool number_integer(number_integer_t value) override { return PutWord(value); }
  bool number_unsigned(number_unsigned_t value) override { return PutWord(value); }
  bool number_float(number_float_t value, const string_t&) override { return PutWord(value); }
  bool string(string_t& value) override { return Put(std::move(value), TokenBegin(text_, taken_)) != nullptr; }
  bool binary(binary_t&) override { return false; }
  bool start_object(size_t) override { return Open(Json::object()); }
  bool start_array(size_t) override { return Open(Json::array()); }
  bool end_object() override { return Close(); }
  bool end_array() override { return Close(); }

  bool key(string_t& name) override {
    key_at_ = TokenBegin(text_, taken_);
    const Json& object = *open_.back();
    if (object.contains(name)) RefuseAt(key_at_, fmt::format("key {} appears twice", Quote(name, 40)));
    if (object.size() == kMostKeys) RefuseAt(key_at_, fmt::format("more than {} keys", kMostKeys));
    key_ = std::move(name);
    return true;
  }

  // position: of the last character that was read, from 1; beyond the text at its end.
  bool parse_error(size_t position, const std::string&, const nlohmann::detail::exception& error) override {
    // "[json.exception...] parse error at line 1, column 12: syntax error while parsing value - ...": only the last
    // part.
    std::string_view what = error.what();
    for (const auto& [begin, end] : {std::pair{"[", "] "}, {"parse error", ": "}, {"syntax error", " - "}}) {
      const size_t cut = what.starts_with(begin) ? what.find(end) : std::string_view::npos;
      if (cut != std::string_view::npos) what.remove_prefix(cut + std::string_view(end).size());
    }
    size_t at = position == 0 ? 0 : position - 1;
    const bool is_word = error.id == kNumberOverflow || what.starts_with("invalid literal");
    if (position != 0 && position <= text_.size() && (is_word || what.starts_with("unexpected "))) {
      at = is_word ? WordBegin(text_, position) : TokenBegin(text_, position);
    }
    RefuseAt(at, fmt::format("not JSON: {}", Plain(what.substr(0, what.find("; last read")).substr(0, 200))));
  }

 private:
  static constexpr int kNumberOverflow = 406;  // of the parser's failures
  static constexpr size_t kDeepest = 8;
  static constexpr size_t kMostKeys = 64;
  static constexpr size_t kMostElements = MQC_MAX_PARAMS;

  [[noreturn]] void RefuseAt(size_t at, const std::string& why) const { Refuse(PlaceOf(source_, text_, at), why); }

  Json* Put(Json value, size_t at) {
    positions_.push_back({at, open_.empty() ? at : key_at_});
    if (open_.empty()) return &(root_ = std::move(value));
    Json& parent = *open_.back();
    if (parent.is_object()) return &(parent[key_] = std::move(value));
    if (parent.size() == kMostElements) RefuseAt(at, fmt::format("more than {} elements", kMostElements));
    parent.push_back(std::move(value));
    return &parent.back();
  }

  bool PutWord(Json value) { return Put(std::move(value), WordBegin(text_, taken_)) != nullptr; }

  bool Open(Json value) {
    if (open_.size() == kDeepest) RefuseAt(taken_ - 1, fmt::format("nested deeper than {} levels", kDeepest));
    open_.push_back(Put(std::move(value), taken_ - 1));
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
  std::vector<Position> positions_;
  std::vector<Json*> open_;  // the values that contain the next one, outermost first
  std::string key_;          // of the next value, and where it begins
  size_t key_at_ = 0;
};

// Reads a message from a document. at_ is the value that a failure is about.
class MessageReader {
 public:
  explicit MessageReader(PcfMessage* msg) : msg_(msg) {}

  void Read(const Json& root) {
    at_ = &root;
    if (!root.is_object())
      throw Failure{kExitInput, fmt::format("{} is not a message, which is an object", Shown(root))};
    RefuseOtherKeys(root, kKnownKeys, "a message has command and parameters");
    BeginMessage(msg_, WordOf(Need(root, "command", "message"), "command"));
    const auto params = root.find("parameters");
    if (params == root.end()) return;
    at_ = &*params;
    if (!params->is_array()) Refuse("parameters", fmt::format("{} is not an array", Shown(*params)));
    size_t index = 0;
    for (const Json& param : *params) Add(param, fmt::format("parameter {}", index++));
  }

  // Where the failure is in the text.
  size_t Locate(const Document& document) const {
    size_t index = 0;
    if (at_ == nullptr || !Find(document.root, index)) return 0;
    return at_key_ ? document.positions[index].key : document.positions[index].value;
  }

 private:
  // Counts the values before the one that the failure is about.
  bool Find(const Json& value, size_t& index) const {
    if (&value == at_) return true;
    if (!value.is_structured()) return false;
    for (const Json& element : value) {
      if (Find(element, ++index)) return true;
    }
    return false;
  }

  void RefuseOtherKeys(const Json& object, const std::set<std::string>& known, const char* which) {
    for (const auto& [key, value] : object.items()) {
      if (known.count(key) != 0) continue;
      at_ = &value;
      at_key_ = true;
      throw Failure{kExitInput, fmt::format("unknown key {}; {}", Quote(key, 40), which)};
    }
  }

  const Json& Need(const Json& object, const char* key, const std::string& where) {
    const auto place = object.find(key);
    at_ = &object;
    if (place == object.end()) throw Failure{kExitInput, fmt::format("{} without \"{}\"", where, key)};
    return *(at_ = &*place);
  }

  // Shown in failures.
  static std::string Shown(const Json& value) {
    if (value.is_structured()) return fmt::format("an {}", value.type_name());
    return Plain(value.dump(-1, ' ', true, Json::error_handler_t::replace).substr(0, 60));
  }

  uint32_t WordOf(const Json& value, const std::string& where) {
    at_ = &value;
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
      Refuse(where, fmt::format("{} is not a whole number from 0 to {}", Shown(value), UINT32_MAX));
    }
    return value.get<uint32_t>();
  }

  int64_t IntegerOf(const Json& value, const std::string& where) {
    at_ = &value;
    const bool beyond = value.is_number_unsigned() && value.get<uint64_t>() > INT64_MAX;
    if (!value.is_number_integer() || beyond) {
      Refuse(where, fmt::format("{} is not a whole number from {} to {}", Shown(value), INT64_MIN, INT64_MAX));
    }
    return value.get<int64_t>();
  }

  const std::string& StringOf(const Json& value, const std::string& where) {
    at_ = &value;
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

  void Add(const Json& param, const std::string& where) {
    static const std::set<std::string> kKeys = {"id", "type", "value", "hex"};
    at_ = &param;
    if (!param.is_object()) Refuse(where, fmt::format("{} is not an object", Shown(param)));
    RefuseOtherKeys(param, kKeys, "a parameter has id, type, value, hex");
    const uint32_t id = WordOf(Need(param, "id", where), where + ", id");
    const std::string type = TypeOf(param, where);
    if (std::find(kTypes.begin(), kTypes.end(), type) == kTypes.end()) {
      Refuse(where, fmt::format("type {} is none of int32, int64, text, bytes", Quote(type, 40)));
    }
    if (type == "text" && param.contains("hex")) return AddHexText(id, param["hex"], where + ", hex");
    const Json& value = Need(param, "value", where);
    const std::string value_where = where + ", value";
    if (type == "text") return AddTextParam(msg_, id, StringOf(value, value_where), value_where);
    if (type == "bytes") {
      return AddBytesParam(msg_, id, HexOrRefuse(StringOf(value, value_where), value_where), value_where);
    }
    AddNumberParam(msg_, id, type == "int64", IntegerOf(value, value_where), value_where);
  }

  // A text that is not UTF-8, in hexadecimal digits.
  void AddHexText(uint32_t id, const Json& value, const std::string& where) {
    const std::vector<uint8_t> bytes = HexOrRefuse(StringOf(value, where), where);
    AddTextParam(msg_, id, std::string(bytes.begin(), bytes.end()), where);
  }

  PcfMessage* msg_;
  const Json* at_ = nullptr;
  bool at_key_ = false;
};

Json ParamToJson(const MqcParam& param) {
  Json json = {{"id", param.id}, {"type", TypeName(param.type)}};
  if (param.type == MQC_TEXT) {
    const std::string text = param.text;
    json["value"] = text;
    if (!IsUtf8(text)) json["hex"] = Hex(BytesOf(text));
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
  const Document document = JsonBuilder(text, source).Build();
  MessageReader reader(msg);
  try {
    reader.Read(document.root);
  } catch (const Failure& failure) {
    throw Failure{failure.code, fmt::format("{}: {}", PlaceOf(source, text, reader.Locate(document)), failure.text)};
  }
}

Json MessageToJson(const PcfMessage* msg) {
  Json json = {{"command", mqc_command(msg)}, {"parameters", Json::array()}};
  MqcParam param;
  for (uint32_t i = 0; mqc_param(msg, i, &param); ++i) json["parameters"].push_back(ParamToJson(param));
  return json;
}

}  // namespace mqcat
