// decode.hh - splits a byte stream, or one datagram, into messages and says where it breaks a rule.
//
// It trusts nothing: every length is checked before it is used, time and memory grow only with the number of bytes, and
// neither library nor companion is needed. After a broken rule it goes on: at the announced end of the message if a
// message can begin there, else at the next bytes that can begin one.
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
  kSigned,  // envelope, header, body, trailer
  kSealed,  // the same, with header and body encrypted and a seal before the trailer
  kStray    // bytes that belong to no message
};

enum class ValueKind {
  kUnsigned,
  kSigned,
  kText,
  kEbcdic,  // text in the sender's EBCDIC
  kBytes,
  kReserved  // bytes that receivers ignore
};

// One value on the wire. Offsets count from the start of the stream. Names and meanings are constant texts: a stream of
// 64 MiB has millions of fields.
struct Field {
  uint64_t offset;
  uint64_t size;
  std::string_view name;
  ValueKind kind;
  uint64_t number;           // of kUnsigned; of kSigned as int64_t
  Bytes bytes;               // of the other kinds; of a long run of stray bytes only the beginning
  std::string_view meaning;  // may be empty
  std::string detail;        // follows the meaning
  int64_t parameter;         // index of the parameter that the field belongs to; -1 for none

  bool is_number() const { return kind == ValueKind::kUnsigned || kind == ValueKind::kSigned; }
};

// A broken rule. docs/wire-format.md lists the rules by these names.
struct Fault {
  uint64_t offset;
  std::string_view rule;
  std::string text;
};

// Valid, with the bytes of its fields, until the sink returns.
struct Piece {
  PieceKind kind;
  uint64_t offset;
  uint64_t size;
  bool big_endian;
  bool ebcdic;
  std::vector<Field> fields;
  std::vector<Fault> faults;
  std::vector<uint8_t> opened;  // of a sealed message: its bytes with header and body decrypted; else empty
};

using PieceSink = std::function<void(const Piece&)>;

// Opens the messages that are sealed for a user.
struct MessageOpener {
  std::string user;
  // Decrypts a whole message in place. Returns an empty text, or the reason why it cannot.
  std::function<std::string(std::span<uint8_t> message)> open;
};

// Decodes a stream as it arrives. Each piece goes to the sink, in order, as soon as its end is known; together the
// pieces cover every byte. How the stream is cut into calls of Take makes no difference. The end of a message with a
// broken body, and of stray bytes, is known 68 bytes later, when it is certain that a message begins there.
class Decoder {
 public:
  // keep: bytes kept of each run of stray bytes, to be shown. Messages that are not sealed for the opener's user
  // remain encrypted.
  explicit Decoder(PieceSink sink, size_t keep = 64, MessageOpener opener = {});

  void Take(Bytes bytes);
  void Finish();  // ends the stream: decodes the bytes that are held

  uint64_t size() const { return base_ + held_.size(); }  // bytes of the stream so far
  size_t held() const { return held_.capacity() + stray_.capacity(); }

 private:
  size_t Walk(Bytes bytes);
  bool IsWhole() const;
  bool Message();
  bool Stray();
  uint64_t EndOfBroken(uint64_t start, uint64_t inner, uint64_t end);

  PieceSink sink_;
  size_t keep_;
  MessageOpener opener_;
  bool ended_ = false;
  uint64_t base_ = 0;           // offset of bytes_[0], between two calls of held_[0]
  std::vector<uint8_t> held_;   // the bytes of the piece that is not complete
  std::vector<uint8_t> stray_;  // the beginning of a run of stray bytes
  uint64_t stray_size_ = 0;     // of the run so far; 0 outside of one
  uint64_t wait_ = 0;           // offset up to which bytes are needed to find the end of a broken message
  uint64_t looked_through_ = 0;
  Bytes bytes_;        // during a walk
  uint64_t next_ = 0;  // where the next piece begins in bytes_
  Piece piece_ = {};   // its lists keep their memory
};

// One datagram is one message.
void DecodeDatagram(Bytes bytes, const PieceSink& sink, const MessageOpener& opener = {});

// Whether bytes begin with the first word of a message, which is all that a receiver looks at.
bool BeginsMessage(Bytes bytes);

// Whether bytes begin with a header or an envelope, judged by more than the first word.
bool LooksLikeMessage(Bytes bytes);

}  // namespace mqcat
