// address.hh - host and service from the command line, checked and resolved before a node sees them.
#pragma once

#include <string>
#include <vector>

#include "socksin/record.h"

namespace mqcat {

enum class Transport { kTcp, kUdp };

struct Place {
  std::string host;  // empty: not given
  std::string service;
};

// HOST:PORT, or HOST SERVICE in two words; ":PORT" and "SERVICE" have no host. Throws a Failure for one word without a
// service, unless the host may be left out.
Place ParsePlace(const std::vector<std::string>& words, bool needs_host);

// The record for a node. The host is a name, a dotted quad, "@" (this host) or "*" (any address); the service is a name
// or a port from 0 to 65535. Throws a Failure that names what does not resolve.
SockAddrRec MakeAddress(const std::string& host, const std::string& service, Transport transport);

// "127.0.0.1:5000" of a record whose ip and port are set; the host where there is no ip.
std::string AddressText(const SockAddrRec& address);

}  // namespace mqcat
