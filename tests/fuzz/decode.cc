// decode.cc - what mqcat decode makes of a stream or a datagram: pieces that cover every byte in order, fields that are
// there, inside their piece unless it is broken. A message without a fault has none when it is decoded alone.
#include "tools/mqcat/decode.hh"

#include "tests/fuzz/fuzz.hh"

namespace {

enum Option : uint8_t { kDatagram = 1, kFull = 2 };
constexpr uint64_t kBase = 1000;

// A broken message may announce more than the piece that was made of it; end is that of the stream.
void CheckPiece(const mqcat::Piece& piece, uint64_t end) {
  if (piece.faults.empty()) end = piece.offset + piece.size;
  for (const mqcat::Field& field : piece.fields) {
    HOLDS(field.offset >= piece.offset && field.offset <= end && field.size <= end - field.offset);
    HOLDS(!field.name.empty());
  }
  for (const mqcat::Fault& fault : piece.faults) {
    HOLDS(fault.offset >= piece.offset && fault.offset <= end);
    HOLDS(!fault.rule.empty() && !fault.text.empty());
  }
  HOLDS(piece.kind != mqcat::PieceKind::kStray || !piece.faults.empty());
}

void CheckAlone(fuzz::Bytes message, const mqcat::Piece& piece) {
  size_t count = 0;
  mqcat::DecodeOptions how;
  how.datagram = true;
  mqcat::Decode(message, how, [&](const mqcat::Piece& alone) {
    HOLDS(alone.faults.empty() && alone.fields.size() == piece.fields.size() && alone.kind == piece.kind);
    ++count;
  });
  HOLDS(count == 1);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  const std::vector<uint8_t> bytes = fuzz::Copy(input.Rest());
  mqcat::DecodeOptions how;
  how.datagram = (options & kDatagram) != 0;
  if ((options & kFull) != 0) how.text_limit = bytes.size();
  how.base = kBase;
  uint64_t next = kBase;
  size_t pieces = 0;
  mqcat::Decode(bytes, how, [&](const mqcat::Piece& piece) {
    HOLDS(piece.offset == next && piece.size != 0);
    CheckPiece(piece, kBase + bytes.size());
    if (piece.faults.empty()) CheckAlone(fuzz::Bytes(bytes).subspan(piece.offset - kBase, piece.size), piece);
    next += piece.size;
    ++pieces;
  });
  HOLDS(next == kBase + bytes.size());
  HOLDS(!how.datagram || pieces == (bytes.empty() ? 0 : 1));
  return 0;
}
