// sockutil.cc - mappings by the C library's resolver. Its results are in static storage and are copied at once.
// Not here: the rules for resolving a socket address (socksin/resolve.cc).
// Invariant: an output buffer is never written beyond the size documented in sockutil.h.
#include "sockutil/sockutil.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>

#include "sockutil/text.hh"

namespace {

constexpr size_t kQuadSize = 16;
constexpr size_t kServiceSize = 33;
constexpr size_t kHostSize = 256;
constexpr in_addr_t kNoAddress = 0xFFFFFFFFu;

}  // namespace

int ResolveHostName(const char* hostName, char* out) {
  const hostent* const host = gethostbyname(hostName);
  if (host == nullptr || host->h_addr_list[0] == nullptr) return 0;
  sockaddr_in first = {};
  memcpy(&first.sin_addr, host->h_addr_list[0], sizeof first.sin_addr);
  return MapHostAddrToIP(out, &first);
}

int MapServPortToName(char* out, const sockaddr_in* in, const char* protocol) {
  const servent* const service = getservbyport(in->sin_port, protocol);
  mq::CopyText(out, kServiceSize, service != nullptr ? service->s_name : "unknown service");
  return service != nullptr;
}

int MapHostIPToAddr(const char* text, sockaddr_in* out) {
  if (strcmp(text, "0.0.0.0") == 0) {
    out->sin_addr.s_addr = kNoAddress;
    return 1;
  }
  out->sin_addr.s_addr = inet_addr(text);
  return out->sin_addr.s_addr != kNoAddress;
}

int MapHostAddrToIP(char* out, const sockaddr_in* in) {
  const char* const text = inet_ntoa(in->sin_addr);
  mq::CopyText(out, kQuadSize, text != nullptr ? text : "unknown ip");
  return text != nullptr;
}

int MapHostAddrToName(char* out, const sockaddr_in* in) {
  char quad[kQuadSize];
  const hostent* host = nullptr;
  if (MapHostAddrToIP(quad, in) == 1) host = gethostbyaddr(&in->sin_addr, sizeof in->sin_addr, in->sin_family);
  mq::CopyText(out, kHostSize, host != nullptr ? host->h_name : "unknown host");
  return host != nullptr;
}

int MapStrIpToAddr(const char* text, uint64_t* out) {
  *out = ntohl(inet_addr(text));
  return 1;
}
