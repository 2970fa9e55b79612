// reader.hh - reads what arrives on a wire to its end, message by message, and sees after each call that everything
// agrees: result, error and counters, what was taken off the wire, what was delivered, where the next message begins.
#pragma once

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/fuzz/wire.hh"

namespace fuzz {

// A node over a wire, and a message to read into. Of the allocations that the library makes, number failing fails; 0
// for none.
class Reader {
 public:
  Reader(const Arrivals& arrivals, int failing);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  MQNode* node() { return node_; }  // null when there was no memory for one
  PcfMessage* msg() { return msg_; }
  Wire& wire() { return wire_; }

  // Whether the last call found the end of what arrives.
  bool AtEnd() const;
  // A call on the node, and what is true after every one. Result: the call's.
  template <typename Call>
  int Do(Call call) {
    int result = 0;
    Failing([&] { result = call(msg_, node_); });
    CheckState(result);
    return result;
  }

 private:
  template <typename Run>
  void Failing(Run run) {
    const uint64_t before = mqc_allocations();
    mqc_fail_allocation(failing_, 0);
    run();
    mqc_fail_allocation(0, 0);
    failing_ -= std::min(failing_, mqc_allocations() - before);
  }
  void CheckState(int result) const;

  Account account_;
  Wire wire_;
  PcfMessage* msg_;
  uint64_t failing_;
  MQNode* node_;
};

// What a reader made of one message. The message is empty when it was not counted.
struct Outcome {
  int result;
  int error;
  std::vector<uint8_t> message;
  bool operator==(const Outcome&) const = default;
};

// Every outcome to the end, but for calls that have to be made again.
std::vector<Outcome> ReadAll(const Arrivals& arrivals, bool secure, int failing);

// Options, the failing allocation, the cuts: the first bytes of the inputs of all readers. Bits of the options:
//   0     the socket blocks
//   1, 2  what comes behind the last byte
//   3     messages are signed, for the readers of signed ones
//   4     for the targets' own use
Arrivals TakeArrivals(Input& input, uint8_t* options, int* failing);
constexpr uint8_t kSealed = 1 << 3;
constexpr uint8_t kOwnOption = 1 << 4;

// A whole target: a stream is read as it is cut and once more in one piece, and the outcomes have to be the same;
// datagrams are read one after another and each by a node of its own.
void ReadTwice(const uint8_t* data, size_t size, bool secure, bool datagram);

}  // namespace fuzz
