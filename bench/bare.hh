// bare.hh - plain sockets: what the bare contestant and the crowd of idle peers are made of.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

namespace bench {

// Options as the contestants' nodes have them: linger zero seconds, buffers of kSocketBuffer, no delay.
void SetUpSocket(int fd);

sockaddr_in Loopback(uint16_t port);
uint16_t PortOf(int fd);
int ConnectBare(uint16_t port);

// The bytes of a plain message that a node accepts.
std::vector<uint8_t> PlainMessage(size_t body);

}  // namespace bench
