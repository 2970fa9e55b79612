// node.hh - helpers shared by the node layer.
#pragma once

#include <algorithm>

#include "mqnode/node.h"
#include "runtime/runtime.h"

namespace mq {

// Initial capacity of a receive buffer in bytes. It never shrinks, and a datagram must fit in it.
constexpr uint32_t kReceiveCapacity = 16520;

// RunTraceMethod, inline for the fast paths.
inline void Trace(const char* point, MQNode* node) {
  if (node->onTrace != nullptr) node->onTrace(point, node);
}

// Gives buf a new data area, without releasing a previous one, and prepares it to receive length bytes. If there is no
// memory, buf has no area, and the next read tries to allocate one.
inline void CreateReceiveBuffer(IoBuffer* buf, uint32_t length) {
  CreateBuffer(buf, kReceiveCapacity);
  ResetBuffer(buf, std::min(length, buf->capacity));
}

// Releases a write descriptor.
inline void Release(IoBuffer* desc) {
  DeleteBuffer(desc);
  FreeMemory(desc);
}

inline void CopySocketError(MQNode* node) { node->error = node->sock.error; }

}  // namespace mq
