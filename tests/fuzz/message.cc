// message.cc - a stream or a datagram for everything that looks into messages. The pieces that mqcat decode finds cover
// every byte in order. The companion delivers a plain message when decode finds no rule broken, and only then; it accepts
// a signed one once, when the fuzzer signed it and decode finds nothing wrong in front of and behind its body.
#include <cstring>

#include "tests/fuzz/oracle.hh"
#include "tools/mqcat/decode.hh"

namespace {

enum Option : uint8_t { kDatagram = 1, kFull = 2, kSealed = 4, kOtherBytes = 8 };
constexpr uint64_t kBase = 1000;
constexpr int kWindow = 300;

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

// What a step refuses it leaves alone and says why; what it accepts it leaves alone the second time.
template <typename Step, typename Why>
bool Convert(fuzz::Record& record, Step step, Why why) {
  const std::vector<uint8_t> before = fuzz::Copy(record.raw());
  const bool accepted = step();
  const std::vector<uint8_t> after = fuzz::Copy(record.raw());
  REQUIRE(accepted ? step() : before == after && *why() != '\0');
  REQUIRE(fuzz::Same(after, record.raw()));
  return accepted;
}

void CheckConverting(fuzz::Bytes bytes) {
  std::set<std::string> broken = fuzz::BrokenRules(bytes);
  broken.erase("zero-fill");                              // passed on
  const bool unclear = broken.erase("origin-word") != 0;  // the body may be read in another form
  const bool plain = bytes.size() > fuzz::kHeader && std::max(bytes[0], bytes[3]) == fuzz::kHeader;
  fuzz::Record record(bytes);
  const auto why = [&] { return mqc_message_error(record); };
  const bool delivered = Convert(
                             record, [&] { return AlienToNative(&record->raw); }, mqc_header_error) &&
                         Convert(
                             record, [&] { return AlienPcfToNative(record); }, why) &&
                         Convert(
                             record, [&] { return RawToPcf(record); }, why);
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

// What the verifier says of the part behind an envelope, as a reader asks it.
bool Authenticate(const SecureHeader& native, fuzz::Bytes part, bool other) {
  std::vector<uint8_t> bytes = fuzz::Copy(part);
  fuzz::Record record(part);
  if (other) record->raw.data[part.size() / 2] ^= 1;
  const auto length = static_cast<uint32_t>(part.size());
  IoBuffer view = {bytes.data(), length, length, 0, length, 0};
  record->secHeader = native;
  const bool accepted = mqc_authenticate(&record->secHeader, &view, record) != 0;
  REQUIRE(fuzz::Same(part, bytes) && mqc_count(record) == 0);
  REQUIRE(record->raw.length == length - (accepted ? fuzz::kTrailer : 0));
  REQUIRE(accepted ? !other : *mqc_authenticate_error() != '\0');
  return accepted;
}

// Nobody looks at the body before the signature was verified.
bool IsOfBody(const std::string& rule) {
  return rule.starts_with("parameter-") || rule == "body-head" || rule == "body-rest" || rule == "text-zero-byte" ||
         rule == "encoding-version" || rule == "origin-word";
}

void CheckVerifying(std::vector<uint8_t> bytes, uint8_t options) {
  SecureHeader native;
  if (bytes.size() <= fuzz::kEnvelope) return;
  fuzz::BeginSigned();
  const auto seconds = (options & kSealed) != 0 ? fuzz::Seal(bytes) : std::nullopt;
  memcpy(&native, bytes.data(), fuzz::kEnvelope);
  if (!AlienToNativeExt(&native)) return;
  std::set<std::string> broken = fuzz::BrokenRules(bytes);
  std::erase_if(broken, IsOfBody);
  const bool unclear = broken.erase("zero-fill") != 0;  // a fault in users, passed on in the program's name
  const bool alice = strncmp(native.userId, "alice", sizeof native.userId) == 0;
  const bool acceptable = broken.empty() && alice && seconds && std::abs(*seconds) <= kWindow;
  const bool other = (options & kOtherBytes) != 0;
  const fuzz::Bytes part = fuzz::Bytes(bytes).subspan(fuzz::kEnvelope);
  const bool accepted = Authenticate(native, part, other);
  REQUIRE(accepted ? acceptable : !acceptable || unclear || other);
  if (!accepted) return;
  REQUIRE(!Authenticate(native, part, false) && strncmp(mqc_authenticate_error(), "a replay", 8) == 0);
  CheckConverting(part.first(part.size() - fuzz::kTrailer));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  const std::vector<uint8_t> bytes = fuzz::Copy(input.Rest());
  const fuzz::Account account;
  mqcat::DecodeOptions how;
  how.datagram = (options & kDatagram) != 0;
  if ((options & kFull) != 0) how.text_limit = bytes.size();
  how.base = kBase;
  uint64_t next = kBase;
  mqcat::Decode(bytes, how, [&](const mqcat::Piece& piece) {
    REQUIRE(piece.offset == next && piece.size != 0);
    CheckPiece(piece, kBase + bytes.size());
    const fuzz::Bytes alone = fuzz::Bytes(bytes).subspan(next - kBase, piece.size);
    REQUIRE(!piece.faults.empty() || fuzz::BrokenRules(alone).empty());
    REQUIRE(!piece.faults.empty() || piece.kind != mqcat::PieceKind::kStray);
    CheckConverting(alone);
    CheckVerifying(fuzz::Copy(alone), options);
    next += piece.size;
  });
  REQUIRE(next == kBase + bytes.size());
  return 0;
}
