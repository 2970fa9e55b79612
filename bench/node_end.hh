// node_end.hh - making and accepting nodes on the loopback address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "companion/host.h"
#include "mqnode/mqnode.h"

namespace bench {

SockAddrRec LoopbackName(uint16_t port);
MQNode* ListenNode();
MQNode* AcceptNode(MQNode* listener);

// A message with a body of this size, 20 bytes or more: one parameter. For mqc_message_free.
PcfMessage* NewMessage(size_t body);

// Makes a pair of keys for the user that nodes of this process carry, and has the ring accept it. Before the first
// fork, so that both processes have them. Further calls do nothing.
void ShareKeys();
MqcSigner* SharedSigner();

// A message as the signed write hands it to mqc_sign.
PcfMessage* MessageToSign(size_t body);
// What the secure read does before it asks for the check.
IoBuffer Receive(const IoBuffer& sent, PcfMessage* msg);

}  // namespace bench
