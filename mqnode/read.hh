// read.hh - the gather step that the plain and the secure reader share, and what differs between them, as data.
#pragma once

#include <cstdint>

#include "mqnode/node.h"

namespace mq {

struct Framing {
  uint32_t headerLength;  // what is gathered first, and the idle length of a stream node's buffer
  const char* gather;     // trace point of the gather step
  const char* read;       // trace point of the read
  bool resetBeforeTrace;  // order of reset and trace after a receive that failed
};

inline constexpr Framing kPlainFraming = {136, "mnReadMsg", "mnRead", true};
inline constexpr Framing kSecureFraming = {32, "mnSReadMsg", "mnSRead", false};

inline bool IsDatagram(const MQNode* node) { return node->sock.type == SOCK_TYPE_DATAGRAM; }

// Arms the receive buffer for the next message.
void ResetReceive(MQNode* node, const Framing& framing);

// Leaves a read with a failure: error, trace point, reset. Always 0.
int FailRead(MQNode* node, const Framing& framing, int code);

// Readies the buffer of a read that starts a message: idle for this framing, with an area that a header fits in. False
// when there is none.
bool StartRead(MQNode* node, const Framing& framing);

// Receives until the buffer holds what it asks for; a datagram node receives one datagram.
int Gather(MQNode* node, const Framing& framing);

// Whether a gather just completed a header, or brought a whole datagram.
bool HeaderCompleted(const MQNode* node, const Framing& framing);

// Makes the buffer ask for the whole message that a converted header announces. Returns 0, or the code with which the
// read has to fail.
int ExpectMessage(MQNode* node, const Framing& framing, uint32_t announced);

// Whether the buffer holds a whole message.
bool MessageCompleted(const MQNode* node, const Framing& framing);

}  // namespace mq
