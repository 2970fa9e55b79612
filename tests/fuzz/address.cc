// address.cc - the texts of addresses: fields as a host may fill them, terminated or not, and what a person types.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "mqnode/mqnode.h"
#include "tests/fuzz/wire.hh"
#include "tools/mqcat/address.hh"
#include "tools/mqcat/failure.hh"

namespace {

template <size_t N>
void Fill(char (&field)[N], fuzz::Bytes bytes) {
  std::copy_n(bytes.begin(), std::min(N, bytes.size()), field);
}

// The next field: its length, then its bytes.
fuzz::Bytes TakeField(fuzz::Input& input) { return input.Take(input.Byte()); }

void CheckQuad(const std::string& text) {
  in_addr strict;
  sockaddr_in mapped = {};
  const bool valid = IsValidIp(text.c_str()) != 0;
  if (inet_pton(AF_INET, text.c_str(), &strict) == 1) {
    HOLDS(valid);
    const bool known = MapHostIPToAddr(text.c_str(), &mapped) == 1;
    HOLDS(known == (strict.s_addr != INADDR_NONE));
    HOLDS(!known || mapped.sin_addr.s_addr == (strict.s_addr == 0 ? INADDR_NONE : strict.s_addr));
  }
  HOLDS(!valid || (std::count(text.begin(), text.end(), '.') == 3 && text.size() <= 15));
  uint64_t number;
  HOLDS(MapStrIpToAddr(text.c_str(), &number) == 1 && number <= UINT32_MAX);
}

// An address that resolved names itself: written as text and resolved again it is the same.
void CheckResolving(const SockAddrRec& given) {
  SockRec rec = {};
  rec.domain = AF_INET;
  SockAddrRec name = given;
  sockaddr_in address, again;
  errno = 0;
  if (!AddrToIP(&rec, &name, &address)) {
    // A port of many digits leaves ERANGE behind.
    HOLDS(rec.error == SOCK_SERVICE_UNKNOWN || rec.error == SOCK_HOST_UNKNOWN || rec.error == ERANGE);
    return;
  }
  HOLDS(address.sin_family == AF_INET && ntohs(address.sin_port) == (name.port & 0xffff));
  SockAddrRec self = {};
  HOLDS(IpAddrToSocketAddr(&self, &address, "tcp") == 1);
  HOLDS(IsValidIp(self.ip) && self.port == ntohs(address.sin_port));
  if (address.sin_addr.s_addr == INADDR_NONE || address.sin_addr.s_addr == INADDR_ANY) return;
  HOLDS(AddrToIP(&rec, &self, &again) && memcmp(&address, &again, sizeof address) == 0);
}

// What mqcat accepts resolves to the same without a look-up.
void CheckCommandLine(const std::string& host, const std::string& service) {
  try {
    SockAddrRec address = mqcat::MakeAddress(host, service, mqcat::Transport::kTcp);
    SockRec rec = {};
    sockaddr_in out;
    rec.domain = AF_INET;
    HOLDS(!mqcat::AddressText(address).empty());
    HOLDS(address.port <= 65535);
    const uint32_t port = address.port;
    if (AddrToIP(&rec, &address, &out)) HOLDS(ntohs(out.sin_port) == port);
  } catch (const mqcat::Failure& failure) {
    HOLDS(!failure.text.empty() && failure.code != 0);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  SockAddrRec name = {};
  const fuzz::Bytes host = TakeField(input), ip = TakeField(input), service = TakeField(input);
  Fill(name.host, host);
  Fill(name.ip, ip);
  Fill(name.service, service);
  Fill(name.protocol, input.Rest());
  CheckResolving(name);
  CheckQuad(std::string(fuzz::TextOf(ip)).c_str());
  CheckCommandLine(std::string(fuzz::TextOf(host)), std::string(fuzz::TextOf(service)));
  return 0;
}
