// address.cc - texts of addresses: fields of a record, terminated or not, and what a person types. Names are never looked
// up outside.
#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>

#include "mqnode/mqnode.h"
#include "tests/fuzz/fuzz.hh"
#include "tools/mqcat/address.hh"
#include "tools/mqcat/failure.hh"

namespace {

// An address that resolved names itself: written as text and resolved again it is the same.
void CheckResolving(SockAddrRec name) {
  SockRec rec = {};
  rec.domain = AF_INET;
  SockAddrRec self = {};
  sockaddr_in address, again;
  if (!AddrToIP(&rec, &name, &address)) return;
  REQUIRE(address.sin_family == AF_INET && ntohs(address.sin_port) == (name.port & 0xffff));
  REQUIRE(IpAddrToSocketAddr(&self, &address, "tcp") == 1);
  REQUIRE(IsValidIp(self.ip) && self.port == ntohs(address.sin_port));
  if (address.sin_addr.s_addr == INADDR_NONE || address.sin_addr.s_addr == INADDR_ANY) return;
  REQUIRE(AddrToIP(&rec, &self, &again) && memcmp(&address, &again, sizeof address) == 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SockAddrRec name = {};
  memcpy(&name, data, std::min(size, sizeof name));
  CheckResolving(name);
  const std::string text = fuzz::TextOf({data, size}), host = text.substr(0, text.find('\0'));
  const std::string service = text.substr(std::min(host.size() + 1, text.size()));
  in_addr strict;
  REQUIRE(inet_pton(AF_INET, host.c_str(), &strict) == 0 || IsValidIp(host.c_str()));
  try {
    CheckResolving(mqcat::MakeAddress(host, service, mqcat::Transport::kTcp));
  } catch (const mqcat::Failure& failure) {
    REQUIRE(!failure.text.empty() && failure.code != 0);
  }
  return 0;
}

hostent* gethostbyname(const char*) { return nullptr; }
servent* getservbyname(const char*, const char*) { return nullptr; }
