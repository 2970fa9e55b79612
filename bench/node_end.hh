// node_end.hh - creates and accepts nodes on the loopback address.
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

// Creates a message with one parameter and a body of this size, at least 20 bytes. Release it with mqc_message_free.
PcfMessage* NewMessage(size_t body);

// Generates a key pair for the user of this process's nodes and adds it to the ring. Called before the first fork, so
// that both processes have the keys. Later calls do nothing.
void ShareKeys();
MqcSigner* SharedSigner();

// A message in the state in which a signed write passes it to mqc_sign.
PcfMessage* MessageToSign(size_t body);
// Brings a signed message into the state in which a signed read passes it to mqc_authenticate.
IoBuffer Receive(const IoBuffer& sent, PcfMessage* msg);

}  // namespace bench
