// message.hh - what has to be true of a message, whoever delivered it.
#pragma once

#include <set>

#include "companion/host.h"
#include "tests/fuzz/fuzz.hh"

namespace fuzz {

// A record over an area of exactly the size of its message and the spare bytes behind it.
class Record {
 public:
  explicit Record(Bytes raw, size_t spare = 0);
  ~Record() { mqc_message_free(msg_); }
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  PcfMessage* operator->() { return msg_; }
  operator PcfMessage*() { return msg_; }
  Bytes raw() const { return {msg_->raw.data, msg_->raw.length}; }

 private:
  std::vector<uint8_t> area_;
  PcfMessage* msg_;
};

// A delivered message: its header is native and says its length, its parameters lie inside it, and a record that is
// composed of the same parameters has the same body.
void CheckDelivered(const PcfMessage* msg);

// The bytes that a reader has to hand out for a plain message that came as these: header and body in native form, the
// body as it came when it is broken.
std::vector<uint8_t> Native(Bytes plain);

// The rules that mqcat decode finds broken in a message that is whole, or in a datagram.
std::set<std::string> BrokenRules(Bytes message);

}  // namespace fuzz
