// node.hh - what the rooms of the node layer share about a node.
#pragma once

#include <algorithm>

#include "mqnode/node.h"
#include "runtime/runtime.h"

namespace mq {

// A receive buffer starts at this size and never shrinks; a datagram must fit in it.
constexpr uint32_t kReceiveCapacity = 16520;

// Inlined where messages pass; RunTraceMethod is the same for hosts.
inline void Trace(const char* point, MQNode* node) {
  if (node->onTrace != nullptr) node->onTrace(point, node);
}

// Gives buf a new area, whatever it had before, armed for length bytes. Without memory it has none: a read asks again.
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
