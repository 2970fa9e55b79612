// authenticate.cc - the verifier. Bytes that were signed for the fuzzer are accepted once, when decode finds nothing
// wrong with envelope and trailer; bytes that were not, never.
#include <algorithm>
#include <cstring>

#include "tests/fuzz/message.hh"
#include "tests/fuzz/sealing.hh"

namespace {

enum Option : uint8_t { kSealed = 1, kOtherBytes = 4, kSign = 8 };
constexpr size_t kEnvelope = sizeof(SecureHeader);
constexpr size_t kTrailer = 96;
constexpr int kWindow = 300;

// Rules whose breaking a verifier does not see, or lets pass: what is in the body is looked at later.
const char* const kPassed[] = {"encoding-version", "origin-word",      "body-head",      "parameter-count",
                               "parameter-head",   "parameter-length", "parameter-type", "parameter-padding",
                               "text-zero-byte",   "body-rest"};

// What the verifier says about these bytes, as a reader asks it. Other bytes in the record are never accepted.
bool Authenticate(const SecureHeader& native, fuzz::Bytes part, bool other) {
  std::vector<uint8_t> bytes = fuzz::Copy(part);
  fuzz::Record record(part);
  if (other && !part.empty()) record->raw.data[part.size() / 2] ^= 1;
  const auto length = static_cast<uint32_t>(part.size());
  IoBuffer view = {bytes.data(), length, length, 0, length, 0};
  record->secHeader = native;
  const int result = mqc_authenticate(&record->secHeader, &view, record);
  HOLDS(fuzz::Same(part, bytes));
  HOLDS(mqc_count(record) == 0);
  HOLDS(record->raw.length == part.size() - (result ? kTrailer : 0));
  HOLDS(result || *mqc_authenticate_error() != '\0');
  HOLDS(!result || !other);
  return result != 0;
}

void Check(fuzz::Bytes message, std::optional<int> sealed, bool other) {
  SecureHeader native = {};
  memcpy(&native, message.data(), kEnvelope);
  if (!AlienToNativeExt(&native)) {
    HOLDS(*mqc_header_error() != '\0');
    return;
  }
  std::set<std::string> broken = fuzz::BrokenRules(message);
  const bool user_only = broken.erase("zero-fill") != 0;  // of the users it is seen, of the program it is not
  for (const char* rule : kPassed) broken.erase(rule);
  const bool fresh = sealed && std::abs(*sealed) <= kWindow;
  const bool alice = strncmp(native.userId, "alice", sizeof native.userId) == 0;
  const bool acceptable = fresh && alice && broken.empty();

  const fuzz::Bytes part = message.subspan(kEnvelope);
  const bool accepted = Authenticate(native, part, other);
  HOLDS(!accepted || acceptable);
  HOLDS(accepted || !acceptable || user_only || other);
  if (!accepted) return;
  HOLDS(!Authenticate(native, part, false));
  HOLDS(strncmp(mqc_authenticate_error(), "a replay", 8) == 0);
}

// The companion's own signature: what it signs for alice is accepted, unless the header is in another form than this
// host's, which a signer does not look at.
void CheckSigning(fuzz::Bytes message, uint64_t failing) {
  fuzz::Record record(message.subspan(kEnvelope));
  record->secHeader = {kEnvelope, 1, 0, 1, record->raw.length, {}};
  memcpy(record->secHeader.userId, message.data() + offsetof(SecureHeader, userId), sizeof SecureHeader::userId);
  const bool native = VerifyMessage(&record->raw) != 0;
  MqcSigner* const signer = fuzz::NewSigner();
  IoBuffer out = {};
  mqc_fail_allocation(failing, 0);
  const int result = mqc_sign(signer, record, &out);
  mqc_fail_allocation(0, 0);
  mqc_signer_free(signer);
  HOLDS(result || *mqc_sign_error() != '\0');
  if (result) {
    SecureHeader envelope;
    memcpy(&envelope, out.data, kEnvelope);
    const fuzz::Bytes part(out.data + kEnvelope, out.length - kEnvelope);
    HOLDS(envelope.msgLength == part.size());
    HOLDS(Authenticate(envelope, part, false) || !native);
  }
  DeleteBuffer(&out);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  std::vector<uint8_t> message = fuzz::Copy(input.Rest());
  if (message.size() < kEnvelope) return 0;
  fuzz::BeginSigned();
  const fuzz::Account account;
  if ((options & kSign) != 0) {
    CheckSigning(message, options >> 4 & 1);
    return 0;
  }
  std::optional<int> sealed;
  if ((options & kSealed) != 0) sealed = fuzz::Seal(message);
  Check(message, sealed, (options & kOtherBytes) != 0);
  return 0;
}
