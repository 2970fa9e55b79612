// message.hh - messages from the command line and from JSON, and back to JSON.
//
//   {"command": 7,
//    "parameters": [{"id": 1, "type": "text", "value": "hello"}, {"id": 2, "type": "int32", "value": -5}]}
// Types are int32, int64, text and bytes; bytes are hexadecimal digits. Without a type a string is text and a number
// int32 if it fits, else int64. For a text that is not UTF-8, "hex" has its bytes and counts; "value", which is always
// written, has U+FFFD in place of the others.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "companion/host.h"

namespace mqcat {

using Json = nlohmann::ordered_json;

// One parameter: "ID=TEXT", "ID:TYPE=VALUE"; type file takes the content of a file as bytes.
struct ParamSpec {
  uint32_t id = 0;
  std::string type;
  std::string value;
};

// Throws a Failure that names the part that is wrong.
ParamSpec ParseParam(const std::string& text);

// Adds the parameter to a message that was begun.
void AddParam(PcfMessage* msg, const ParamSpec& param);

// Starts a message; throws a Failure without memory.
void BeginMessage(PcfMessage* msg, uint32_t command);

// Where a text comes from, for failures.
struct Source {
  std::string name;
  size_t line = 0;  // number of its first line; 0 means 1
};

// Builds a message. Throws a Failure with line and column if the text is not JSON, has a key twice, or is not a
// message.
void MessageFromJson(PcfMessage* msg, const std::string& text, const Source& source);

// {"command": ..., "parameters": [...]}
Json MessageToJson(const PcfMessage* msg);

// The name of a parameter's type.
const char* TypeName(uint32_t type);

}  // namespace mqcat
