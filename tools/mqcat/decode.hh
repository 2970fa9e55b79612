// decode.hh - takes a byte stream, or one datagram, apart into messages and says where it breaks a rule.
//
// It trusts nothing: every length is checked before it is used, whatever the bytes are it ends after a time that grows
// with their number only, and it needs neither library nor companion. Where a rule is broken it goes on: behind the
// message when its length holds, else at the next bytes that can begin a message.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "text.hh"

namespace mqcat {

enum class PieceKind {
  kPlain,   // header and body
  kSecure,  // envelope, header, body, trailer
  kStray    // bytes that belong to no message
};

// One value on the wire. Offsets count from the start of the stream. Names and meanings are constant texts: a stream of
// 64 MiB has millions of fields.
struct Field {
  uint64_t offset;
  uint64_t size;
  std::string_view name;  // of a parameter's field without "parameter N"
  std::string value;
  std::string_view meaning;  // may be empty
  std::string detail;        // what follows the meaning
  int64_t parameter;         // number of the parameter that the field is of; -1 for none
};

// A broken rule. docs/wire-format.md lists the rules by these names.
struct Fault {
  uint64_t offset;
  std::string_view rule;
  std::string text;
};

struct Piece {
  PieceKind kind;
  uint64_t offset;
  uint64_t size;
  bool big_endian;
  bool ebcdic;
  std::vector<Field> fields;
  std::vector<Fault> faults;
};

struct DecodeOptions {
  bool datagram = false;   // the bytes are one datagram, and so exactly one message
  size_t text_limit = 64;  // characters of a text, bytes of a byte string, that a value shows
  uint64_t base = 0;       // offset of the first byte
};

// Calls sink for each piece, in the order of the stream; together the pieces cover every byte.
void Decode(Bytes bytes, const DecodeOptions& options, const std::function<void(const Piece&)>& sink);

// Whether bytes begin as a message does: the first word alone, as a reader judges.
bool BeginsMessage(Bytes bytes);

// Whether bytes begin with something that is a header or an envelope beyond the first word.
bool LooksLikeMessage(Bytes bytes);

}  // namespace mqcat
