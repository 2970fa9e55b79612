// message.hh - messages from the command line and from JSON, and back to JSON.
//
//   {"command": 7,
//    "parameters": [{"id": 1, "type": "text", "value": "hello"}, {"id": 2, "type": "int32", "value": -5}]}
// Types are int32, int64, text and bytes; bytes are hexadecimal digits. Without a type a string is text and a number
// int32 when it fits, else int64. A text that is no UTF-8 travels as "hex" in place of "value".
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

// Adds it to a message that was begun.
void AddParam(PcfMessage* msg, const ParamSpec& param);

// Starts a message; throws a Failure without memory.
void BeginMessage(PcfMessage* msg, uint32_t command);

// Where a text comes from, for failures.
struct Source {
  std::string name;
  size_t line = 0;  // the line that the text is; 0 when it has lines of its own
};

// Builds a message. Throws a Failure for what is not JSON, with line and column, for keys that are there twice, and for
// what is not a message.
void MessageFromJson(PcfMessage* msg, const std::string& text, const Source& source);

// {"command": ..., "parameters": [...]}
Json MessageToJson(const PcfMessage* msg);

// The name of a parameter's type.
const char* TypeName(uint32_t type);

}  // namespace mqcat
