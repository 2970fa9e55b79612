// address.cc - see address.hh. Names are looked up here, so that a failure names the host or the service: a node only
// reports a code.
#include "address.hh"

#include <arpa/inet.h>
#include <netdb.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "failure.hh"
#include "fmt/format.h"
#include "mqnode/errors.h"
#include "number.hh"
#include "socksin/resolve.h"
#include "sockutil/sockutil.h"
#include "text.hh"

namespace mqcat {
namespace {

bool StartsWithDigit(const std::string& text) { return isdigit(static_cast<unsigned char>(text[0])) != 0; }

template <size_t N>
void Copy(char (&field)[N], const std::string& text) {
  snprintf(field, N, "%s", text.c_str());
}

void SetHost(SockAddrRec& address, const std::string& host) {
  if (host.empty() || host.size() >= sizeof address.host) {
    throw Failure{kExitUsage,
                  fmt::format("host {}: a host name has 1 to {} characters", Quote(host, 40), sizeof address.host - 1)};
  }
  Copy(address.host, host);
  if (host == "*") return;
  if (IsValidIp(host.c_str())) return Copy(address.ip, host);
  if (StartsWithDigit(host) && host.find_first_not_of("0123456789.") == std::string::npos) {
    throw Failure{kExitUsage, fmt::format("host {}: not an IPv4 address (four numbers from 0 to 255)", Quote(host))};
  }
  char ip[16] = "";
  if (!ResolveHostName(host == "@" ? "localhost" : host.c_str(), ip)) {
    throw Failure{kExitConnection, fmt::format("host {}: {}{}", Quote(host), CodeText(SOCK_HOST_UNKNOWN, MQ_IN_SOCKET),
                                               AdviceText(SOCK_HOST_UNKNOWN))};
  }
  Copy(address.ip, ip);
}

void SetService(SockAddrRec& address, const std::string& service) {
  if (service.empty() || service.size() >= sizeof address.service) {
    throw Failure{kExitUsage, fmt::format("service {}: a service name has 1 to {} characters", Quote(service, 40),
                                          sizeof address.service - 1)};
  }
  if (const auto port = ParseNumber<uint32_t>(service, 0, 65535)) {
    address.port = *port;
  } else if (StartsWithDigit(service) || service[0] == '-') {
    throw Failure{kExitUsage, fmt::format("service {}: not a port from 0 to 65535", Quote(service))};
  } else if (const servent* entry = getservbyname(service.c_str(), address.protocol)) {
    address.port = ntohs(static_cast<uint16_t>(entry->s_port));
  } else {
    throw Failure{kExitConnection,
                  fmt::format("service {} ({}): {}{}", Quote(service), address.protocol,
                              CodeText(SOCK_SERVICE_UNKNOWN, MQ_IN_SOCKET), AdviceText(SOCK_SERVICE_UNKNOWN))};
  }
  Copy(address.service, std::to_string(address.port));
}

}  // namespace

Place ParsePlace(const std::vector<std::string>& words, bool needs_host) {
  if (words.size() == 2) return {words[0], words[1]};
  const std::string& word = words.front();
  const size_t colon = word.rfind(':');
  if (colon != std::string::npos) {
    if (colon != 0 || !needs_host) return {word.substr(0, colon), word.substr(colon + 1)};
  } else if (!needs_host) {
    return {"", word};
  }
  throw Failure{kExitUsage, fmt::format("{}: expected HOST:PORT, such as 127.0.0.1:5000", Quote(word, 40))};
}

SockAddrRec MakeAddress(const std::string& host, const std::string& service, Transport transport) {
  SockAddrRec address = {};
  Copy(address.protocol, transport == Transport::kTcp ? "tcp" : "udp");
  SetService(address, service);
  SetHost(address, host);
  return address;
}

std::string AddressText(const SockAddrRec& address) {
  return fmt::format("{}:{}", address.ip[0] != '\0' ? address.ip : address.host, address.port);
}

}  // namespace mqcat
