// client.cc - see client.hh.
#include "client.hh"

#include <cstring>

namespace mqcat {
namespace {

// A word of a header that has not been converted: the first word, which is the header's length, shows the byte order.
uint32_t Word(const uint8_t* header, size_t offset, uint32_t header_length) {
  uint32_t first, word;
  memcpy(&first, header, sizeof first);
  memcpy(&word, header + offset, sizeof word);
  return first == header_length ? word : bwlong(word);
}

}  // namespace

Client::Client(NodePtr node, bool is_signed)
    : node_(std::move(node)),
      peer_(AddressText(node_->sock.name)),
      header_(is_signed ? sizeof(SecureHeader) : sizeof(MsgHeader)) {
  Arm();
}

Clock::duration Client::Quiet(Clock::time_point now) {
  const uint32_t finished = node_->msgsRead + node_->writesCompleted;
  if (finished != finished_ || Owes() != owed_) since_ = now;
  finished_ = finished;
  owed_ = Owes();
  return now - since_;
}

uint64_t Client::Waiting() const {
  uint64_t bytes = 0;
  Qstart(node_->pending);
  while (const void* const item = Qnext(node_->pending)) {
    const auto* const write = static_cast<const IoBuffer*>(item);
    bytes += write->length - write->sent;
  }
  return bytes;
}

uint64_t Client::Announced() const {
  const IoBuffer& buf = node_->recvBuffer;
  if (buf.received != header_ || buf.length != header_) return 0;
  const size_t offset =
      header_ == sizeof(SecureHeader) ? offsetof(SecureHeader, msgLength) : offsetof(MsgHeader, bodyLength);
  return uint64_t{header_} + Word(buf.data, offset, header_);
}

void Client::GiveBack() {
  IoBuffer* const buf = &node_->recvBuffer;
  if (buf->capacity <= kKeptArea || buf->received != 0) return;
  DeleteBuffer(buf);
  CreateBuffer(buf, kMaxDatagram);
  Arm();
}

// Makes an idle receive buffer ask for a header alone, so that the length can be judged before the rest is gathered.
void Client::Arm() { ResetBuffer(&node_->recvBuffer, header_); }

}  // namespace mqcat
