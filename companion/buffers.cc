// buffers.cc - data areas of IoBuffers.
// Not here: raw areas of messages (record.cc), accounting (memory.cc).
// Invariant: data is null exactly when the record owns no area.

#include <string.h>

#include "companion/memory.hh"
#include "runtime/runtime.h"

using mqc::Kind;

namespace {

mqc::Tag& tag = mqc::tags[mqc::kTagBuffer];

inline void Fill(IoBuffer* buf, void* area, uint32_t size) {
  *buf = {static_cast<uint8_t*>(area), size, size, 0, 0, 0};
}

[[gnu::noinline]] void CreateNew(IoBuffer* buf, uint32_t size) {
  void* area = mqc::AllocateNew<Kind::kArea>(size, tag);
  Fill(buf, area, area == nullptr ? 0 : size);
}

}  // namespace

void CreateBuffer(IoBuffer* buf, uint32_t size) {
  void* area = mqc::TakeKept<Kind::kArea>(size, tag);
  if (area == nullptr) [[unlikely]]
    return CreateNew(buf, size);
  Fill(buf, area, size);
}

void ResetBuffer(IoBuffer* buf, uint32_t length) {
  buf->length = length;
  buf->received = 0;
  buf->sent = 0;
}

// Preserves the received bytes and, in a buffer that is being sent, the first length bytes.
void SizeBuffer(IoBuffer* buf, uint32_t size) {
  if (buf->data != nullptr && size <= buf->capacity) return;
  auto* area = static_cast<uint8_t*>(mqc::Allocate<Kind::kArea>(size, tag));
  if (area == nullptr) return;
  if (buf->data != nullptr) {
    const uint32_t used = buf->received > buf->length ? buf->received : buf->length;
    memcpy(area, buf->data, used < buf->capacity ? used : buf->capacity);
    mqc::Release<Kind::kArea>(buf->data);
  }
  buf->data = area;
  buf->capacity = size;
}

void DeleteBuffer(IoBuffer* buf) {
  mqc::Release<Kind::kArea>(buf->data);
  buf->data = nullptr;
  buf->length = 0;
  buf->capacity = 0;
  buf->received = 0;
  buf->sent = 0;
}
