// message.cc - mqcat decode and the companion, given a stream or a datagram. The pieces that decode finds cover every
// byte in order. A plain message is delivered if and only if decode finds no broken rule.
#include <tuple>

#include "tests/fuzz/oracle.hh"

namespace {

const mqcat::MessageOpener kAlice = {"alice", fuzz::OpenZeroTag};

// A broken message may announce more bytes than its piece has; end is the end of the stream.
void CheckPiece(const mqcat::Piece& piece, uint64_t end) {
  if (piece.faults.empty()) end = piece.offset + piece.size;
  for (const mqcat::Field& field : piece.fields) {
    REQUIRE(field.offset >= piece.offset && field.offset <= end && field.size <= end - field.offset);
    REQUIRE(fuzz::Copy(field.bytes).size() == field.bytes.size());  // all of them can be read
  }
  for (const mqcat::Fault& fault : piece.faults) REQUIRE(fault.offset >= piece.offset && fault.offset <= end);
}

// A step changes nothing if it refuses the message, or if it is repeated.
bool Convert(fuzz::Record& record, int (*step)(PcfMessage*)) {
  const std::vector<uint8_t> before = record.raw();
  const bool accepted = step(record) != 0;
  const std::vector<uint8_t> after = record.raw();
  REQUIRE(accepted ? step(record) && record.raw() == after : before == after);
  return accepted;
}

void CheckConverting(fuzz::Bytes bytes) {
  std::set<std::string> broken = fuzz::BrokenRules(bytes);
  broken.erase("zero-fill");                              // not refused by readers
  const bool unclear = broken.erase("origin-word") != 0;  // the body may be read in another form
  const bool plain = bytes.size() > fuzz::kHeader && std::max(bytes[0], bytes[3]) == fuzz::kHeader;
  fuzz::Record record(bytes);
  const bool delivered = Convert(record, [](PcfMessage* msg) { return AlienToNative(&msg->raw); }) &&
                         Convert(record, AlienPcfToNative) && Convert(record, RawToPcf);
  REQUIRE(unclear || delivered == (broken.empty() && plain));
  REQUIRE(delivered || (mqc_count(record) == 0 && mqc_command(record) == 0));
  DumpPcfMessage(record);
  if (!delivered) return;
  fuzz::CheckDelivered(record);
  if (mqc_add_text(record, 1, "more")) fuzz::CheckDelivered(record);
}

// Without the key nothing is opened, and nothing is written beyond the message.
void CheckOpening(fuzz::Bytes bytes) {
  static const uint8_t secret[MQC_KEY_BYTES] = {1};
  static const MqcSigner* const alice = mqc_signer_new("alice", secret, nullptr, 0);
  std::vector<uint8_t> copy = fuzz::Copy(bytes);
  REQUIRE(!mqc_open_captured(alice, copy.data(), static_cast<uint32_t>(copy.size()), nullptr, 0));
}

using Piece = std::tuple<uint64_t, size_t, size_t>;  // its offset, and how many fields and faults it has

// The pieces must not depend on how the stream is split.
std::vector<Piece> DecodedInPieces(fuzz::Bytes bytes, size_t size) {
  std::vector<Piece> pieces;
  const auto add = [&](const mqcat::Piece& piece) {
    pieces.emplace_back(piece.offset, piece.fields.size(), piece.faults.size());
  };
  mqcat::Decoder decoder(add, 64, kAlice);
  for (; !bytes.empty(); bytes = bytes.subspan(std::min(size, bytes.size()))) {
    decoder.Take(bytes.first(std::min(size, bytes.size())));
  }
  decoder.Finish();
  return pieces;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  const std::vector<uint8_t> bytes = fuzz::Copy(input.Rest());
  uint64_t next = 0;
  std::vector<Piece> whole;
  const auto check = [&](const mqcat::Piece& piece) {
    REQUIRE(piece.offset == next && piece.size != 0);
    CheckPiece(piece, bytes.size());
    const fuzz::Bytes alone = fuzz::Bytes(bytes).subspan(next, piece.size);
    REQUIRE(!piece.faults.empty() ||
            (piece.kind != mqcat::PieceKind::kStray && fuzz::BrokenRules(alone, kAlice).empty()));
    CheckOpening(alone);
    CheckConverting(alone);
    next += piece.size;
    whole.emplace_back(piece.offset, piece.fields.size(), piece.faults.size());
  };
  if (options % 2 != 0) {
    mqcat::DecodeDatagram(bytes, check, kAlice);
  } else {
    mqcat::Decoder decoder(check, 64, kAlice);
    decoder.Take(bytes);
    decoder.Finish();
    REQUIRE(DecodedInPieces(bytes, 1 + options / 2) == whole);
  }
  REQUIRE(next == bytes.size());
  return 0;
}
