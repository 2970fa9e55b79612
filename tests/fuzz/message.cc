// message.cc - see message.hh.
#include "tests/fuzz/message.hh"

#include <algorithm>
#include <cstring>

#include "tools/mqcat/decode.hh"

namespace fuzz {
namespace {

constexpr size_t kHeader = sizeof(MsgHeader);

void CheckHeader(const PcfMessage* msg) {
  MsgHeader header;
  HOLDS(msg->raw.length > kHeader && msg->raw.length <= MQ_MAX_MESSAGE && msg->raw.length <= msg->raw.capacity);
  memcpy(&header, msg->raw.data, kHeader);
  HOLDS(header.hdrLength == kHeader && header.bigEndian == 0 && header.asciiText == 1);
  HOLDS(header.bodyLength == msg->raw.length - kHeader);
}

// Appends a parameter to copy as it is in a message.
bool Add(PcfMessage* copy, const MqcParam& param) {
  switch (param.type) {
    case MQC_INT32:
      return mqc_add_int32(copy, param.id, static_cast<int32_t>(param.number)) != 0;
    case MQC_INT64:
      return mqc_add_int64(copy, param.id, param.number) != 0;
    case MQC_TEXT:
      HOLDS(strlen(param.text) == param.length);
      return mqc_add_text(copy, param.id, param.text) != 0;
    default:
      HOLDS(param.type == MQC_BYTES);
      return mqc_add_bytes(copy, param.id, param.bytes, param.length) != 0;
  }
}

}  // namespace

Record::Record(Bytes raw, size_t spare) : area_(raw.size() + spare), msg_(mqc_message_new(0)) {
  std::copy(raw.begin(), raw.end(), area_.begin());
  mqc_message_release(msg_);
  msg_->raw.data = area_.data();
  msg_->raw.capacity = static_cast<uint32_t>(area_.size());
  msg_->raw.length = static_cast<uint32_t>(raw.size());
}

void CheckDelivered(const PcfMessage* msg) {
  CheckHeader(msg);
  MqcParam param;
  PcfMessage* const copy = mqc_message_new(0);
  HOLDS(mqc_begin(copy, mqc_command(msg)));
  for (uint32_t i = 0; mqc_param(msg, i, &param); ++i) HOLDS(Add(copy, param));
  HOLDS(mqc_count(copy) == mqc_count(msg));
  HOLDS(copy->raw.length == msg->raw.length);
  HOLDS(memcmp(copy->raw.data + kHeader, msg->raw.data + kHeader, copy->raw.length - kHeader) == 0);
  mqc_message_free(copy);
}

std::vector<uint8_t> Native(Bytes plain) {
  Record record(plain);
  if (AlienToNative(&record->raw)) AlienPcfToNative(record);
  return Copy(record.raw());
}

std::set<std::string> BrokenRules(Bytes message) {
  std::set<std::string> rules;
  mqcat::DecodeOptions how;
  how.datagram = true;
  mqcat::Decode(message, how, [&rules](const mqcat::Piece& piece) {
    for (const mqcat::Fault& fault : piece.faults) rules.insert(std::string(fault.rule));
  });
  return rules;
}

}  // namespace fuzz
