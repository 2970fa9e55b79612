// message.cc - what mqcat decode and the companion make of a stream or a datagram. The pieces that decode finds cover
// every byte in order. A plain message is delivered when decode finds no rule broken, and only then.
#include "tests/fuzz/oracle.hh"

namespace {

enum Option : uint8_t { kDatagram = 1, kFull = 2 };
constexpr uint64_t kBase = 1000;

// A broken message may announce more than the piece that was made of it; end is that of the stream.
void CheckPiece(const mqcat::Piece& piece, uint64_t end) {
  if (piece.faults.empty()) end = piece.offset + piece.size;
  for (const mqcat::Field& field : piece.fields) {
    REQUIRE(field.offset >= piece.offset && field.offset <= end && field.size <= end - field.offset);
    REQUIRE(!field.name.empty());
  }
  for (const mqcat::Fault& fault : piece.faults) {
    REQUIRE(fault.offset >= piece.offset && fault.offset <= end && !fault.rule.empty() && !fault.text.empty());
  }
}

// What a step refuses it leaves alone, and what it accepts it leaves alone the second time.
bool Convert(fuzz::Record& record, int (*step)(PcfMessage*)) {
  const std::vector<uint8_t> before = fuzz::Copy(record.raw());
  const bool accepted = step(record) != 0;
  const std::vector<uint8_t> after = fuzz::Copy(record.raw());
  REQUIRE(accepted ? step(record) != 0 : before == after);
  REQUIRE(fuzz::Same(after, record.raw()));
  return accepted;
}

void CheckConverting(fuzz::Bytes bytes) {
  std::set<std::string> broken = fuzz::BrokenRules(bytes);
  broken.erase("zero-fill");                              // passed on
  const bool unclear = broken.erase("origin-word") != 0;  // the body may be read in another form
  const bool plain = bytes.size() > fuzz::kHeader && std::max(bytes[0], bytes[3]) == fuzz::kHeader;
  fuzz::Record record(bytes);
  const auto convert_header = [](PcfMessage* msg) { return AlienToNative(&msg->raw); };
  const bool delivered =
      Convert(record, convert_header) && Convert(record, AlienPcfToNative) && Convert(record, RawToPcf);
  REQUIRE(unclear || delivered == (broken.empty() && plain));
  if (!delivered) {
    REQUIRE(mqc_count(record) == 0 && mqc_command(record) == 0);
    DumpPcfMessage(record);
    return;
  }
  fuzz::CheckDelivered(record);
  if (mqc_add_text(record, 1, "more")) fuzz::CheckDelivered(record);
  REQUIRE(VerifyMessage(&record->raw));
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
  mqcat::Decode(bytes, how, [&](const mqcat::Piece& piece) {
    REQUIRE(piece.offset == next && piece.size != 0);
    CheckPiece(piece, kBase + bytes.size());
    const fuzz::Bytes alone = fuzz::Bytes(bytes).subspan(next - kBase, piece.size);
    REQUIRE(!piece.faults.empty() || (piece.kind != mqcat::PieceKind::kStray && fuzz::BrokenRules(alone).empty()));
    CheckConverting(alone);
    if (piece.kind == mqcat::PieceKind::kSecure && piece.size > fuzz::kEnvelope + fuzz::kTrailer) {
      CheckConverting(alone.subspan(fuzz::kEnvelope, piece.size - fuzz::kEnvelope - fuzz::kTrailer));
    }
    next += piece.size;
  });
  REQUIRE(next == kBase + bytes.size());
  return 0;
}
