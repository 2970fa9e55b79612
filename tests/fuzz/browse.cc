// browse.cc - looks and reads of both framings in any order. A look changes nothing, and says what a read then finds.
#include <algorithm>
#include <cstring>

#include "tests/fuzz/message.hh"
#include "tests/fuzz/reader.hh"

namespace {

constexpr size_t kHeader = sizeof(MsgHeader);
constexpr size_t kMostCalls = 64;
enum Call : uint8_t { kBrowse, kRead, kSecureRead, kBrowseToo };  // two bits of a byte each, over and over

class Session {
 public:
  Session(const fuzz::Arrivals& arrivals, int failing) : arrivals_(arrivals), reader_(arrivals, failing) {}

  void Run(uint8_t calls) {
    for (size_t i = 0; i < kMostCalls && reader_.node() != nullptr; ++i) {
      const uint8_t call = calls >> i % 4 * 2 & 3;
      call == kRead || call == kSecureRead ? Read(call == kSecureRead) : Browse();
      if (reader_.AtEnd()) break;
    }
  }

 private:
  void Browse() {
    const MQNode before = *reader_.node();
    const size_t taken = reader_.wire().taken();
    const int result = reader_.Do(mnBrowse);
    const MQNode* const node = reader_.node();
    HOLDS(reader_.wire().taken() == taken && node->msgsRead == before.msgsRead);
    HOLDS(memcmp(&node->recvBuffer, &before.recvBuffer, sizeof before.recvBuffer) == 0);
    announced_ = 0;
    if (result) CheckSeen(taken);
  }

  // The header that stands at this place of the wire, in native form.
  void CheckSeen(size_t at) {
    const PcfRawData& raw = reader_.msg()->raw;
    const fuzz::Bytes came = arrivals_.bytes.subspan(at);
    HOLDS(came.size() >= kHeader);
    const std::vector<uint8_t> expected = fuzz::Native(came.first(kHeader));
    HOLDS(std::equal(expected.begin(), expected.end(), raw.data));
    MsgHeader header;
    memcpy(&header, raw.data, kHeader);
    HOLDS(header.hdrLength == kHeader);
    HOLDS(static_cast<int32_t>(header.bodyLength) <= static_cast<int32_t>(raw.capacity));
    const bool possible = header.bodyLength <= MQ_MAX_MESSAGE - kHeader;
    if (possible && reader_.node()->recvBuffer.received == 0) announced_ = kHeader + header.bodyLength;
  }

  void Read(bool secure) {
    MQNode* const node = reader_.node();
    const int result = reader_.Do([secure](auto* into, auto* from) { return mnSRead(into, from, secure, nullptr); });
    if (!secure && announced_ != 0 && (result != 0 || node->error == MQ_BAD_BODY)) {
      HOLDS(reader_.msg()->raw.length == announced_);
    }
    if (result && !secure) fuzz::CheckDelivered(reader_.msg());
    if (secure || node->error != MQ_AGAIN) announced_ = 0;
  }

  const fuzz::Arrivals& arrivals_;
  fuzz::Reader reader_;
  size_t announced_ = 0;  // length of the message that a look has announced and no read has ended
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const uint8_t calls = input.Byte();
  uint8_t options;
  int failing;
  fuzz::Arrivals arrivals = fuzz::TakeArrivals(input, &options, &failing);
  const std::vector<uint8_t> bytes = fuzz::Copy(arrivals.bytes);
  arrivals.bytes = bytes;
  arrivals.datagram = (options & fuzz::kOwnOption) != 0;
  Session(arrivals, failing).Run(calls);
  return 0;
}
