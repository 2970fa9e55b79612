// convert.cc - the companion's conversion and parser, against themselves and against what mqcat decode makes of the
// same bytes: a message is delivered when decode finds no rule broken, and only then.
#include <cstring>

#include "tests/fuzz/message.hh"

namespace {

enum Option : uint8_t { kDump = 2, kSpare = 4 };  // from kSpare on: the spare bytes
constexpr size_t kHeader = sizeof(MsgHeader);
constexpr uint64_t kMostFailing = 4;

// One step: what it refuses it leaves alone and says why, what it accepts it leaves alone the second time.
template <typename Step, typename Why>
bool Convert(fuzz::Record& record, Step step, Why why) {
  const std::vector<uint8_t> before = fuzz::Copy(record.raw());
  if (!step()) {
    HOLDS(fuzz::Same(before, record.raw()));
    HOLDS(*why() != '\0');
    return false;
  }
  const std::vector<uint8_t> after = fuzz::Copy(record.raw());
  HOLDS(step());
  HOLDS(fuzz::Same(after, record.raw()));
  return true;
}

bool Deliver(fuzz::Record& record) {
  const auto why = [&] { return mqc_message_error(record); };
  return Convert(
             record, [&] { return AlienToNative(&record->raw); }, mqc_header_error) &&
         Convert(
             record, [&] { return AlienPcfToNative(record); }, why) &&
         Convert(
             record, [&] { return RawToPcf(record); }, why);
}

// Adding to a delivered message keeps it one, also when there is no memory for more.
void CheckAdding(PcfMessage* msg, uint64_t failing) {
  const uint32_t count = mqc_count(msg);
  mqc_fail_allocation(failing, 0);
  const int added = mqc_add_text(msg, 1, "more");
  mqc_fail_allocation(0, 0);
  HOLDS(mqc_count(msg) == count + (added ? 1 : 0));
  HOLDS(added || *mqc_message_error(msg) != '\0');
  fuzz::CheckDelivered(msg);
  HOLDS(VerifyMessage(&msg->raw));
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint8_t options = input.Byte();
  const uint64_t failing = input.Byte() % kMostFailing;
  const fuzz::Bytes bytes = input.Rest();

  const fuzz::Account account;
  std::set<std::string> broken = fuzz::BrokenRules(bytes);
  broken.erase("zero-fill");                              // passed on
  const bool unclear = broken.erase("origin-word") != 0;  // the body may be read in another form
  fuzz::Record record(bytes, options / kSpare);
  const bool delivered = Deliver(record);
  HOLDS(unclear || delivered == (broken.empty() && bytes.size() > kHeader));
  if (delivered) {
    fuzz::CheckDelivered(record);
    CheckAdding(record, failing);
  } else {
    HOLDS(mqc_count(record) == 0 && mqc_command(record) == 0);
    if ((options & kDump) != 0) DumpPcfMessage(record);
  }
  return 0;
}
