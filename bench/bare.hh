// bare.hh - helpers for bare sockets, used by the bare contestant and by the peers of a crowd.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

namespace bench {

// Sets the socket options that nodes have in the benchmarks: linger zero seconds, buffers of kSocketBuffer bytes,
// TCP_NODELAY.
void SetUpSocket(int fd);

sockaddr_in Loopback(uint16_t port);
uint16_t PortOf(int fd);
int ConnectBare(uint16_t port);

// A plain message that a node accepts.
std::vector<uint8_t> PlainMessage(size_t body);

}  // namespace bench
