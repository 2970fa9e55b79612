// resolve.cc - resolves the name in a socket address to an IPv4 address and port, in a fixed order of steps.
// Not here: simple mappings (sockutil/sockutil.cc), uses of the address (connect.cc, transfer.cc).
// Invariant: every exit of AddrToIP runs "AddrToIP:After" once.
#include "socksin/resolve.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "socksin/record.hh"
#include "sockutil/sockutil.h"
#include "sockutil/text.hh"

namespace {

constexpr int kGroups = 4;
constexpr int kGroupDigits = 3;
constexpr int kGroupMax = 255;

bool StartsWithDigit(const char* text) { return isdigit(static_cast<unsigned char>(text[0])) != 0; }

// Sets the error of a failed lookup: errno if it is not 0, else code. errno is not cleared before a lookup, so it may
// stem from an earlier call.
bool FailLookup(SockRec* rec, int code) {
  rec->error = errno != 0 ? errno : code;
  return false;
}

bool ResolveService(SockRec* rec, SockAddrRec* addrRec, sockaddr_in* out) {
  char service[sizeof addrRec->service + 1];
  mq::CopyPadded(service, sizeof service, addrRec->service, sizeof addrRec->service);
  if (StartsWithDigit(service)) {
    addrRec->port = static_cast<uint32_t>(atol(service));
  } else {
    char protocol[sizeof addrRec->protocol + 1];
    mq::CopyPadded(protocol, sizeof protocol, addrRec->protocol, sizeof addrRec->protocol);
    const servent* const entry = getservbyname(service, protocol);
    if (entry == nullptr) return FailLookup(rec, SOCK_SERVICE_UNKNOWN);
    addrRec->port = ntohs(static_cast<uint16_t>(entry->s_port));
  }
  out->sin_port = htons(static_cast<uint16_t>(addrRec->port));
  return true;
}

bool ConvertNumeric(SockRec* rec, const char* text, sockaddr_in* out) {
  if (!MapHostIPToAddr(text, out)) return FailLookup(rec, SOCK_HOST_UNKNOWN);
  out->sin_family = static_cast<sa_family_t>(rec->domain);
  return true;
}

bool LookUpHost(SockRec* rec, const char* host, const char* ip, sockaddr_in* out) {
  const hostent* const entry = gethostbyname(host);
  if (entry != nullptr && entry->h_addr_list[0] != nullptr) {
    out->sin_family = static_cast<sa_family_t>(entry->h_addrtype);
    memcpy(&out->sin_addr, entry->h_addr_list[0], sizeof out->sin_addr);
    return true;
  }
  if (StartsWithDigit(ip)) return ConvertNumeric(rec, ip, out);
  return FailLookup(rec, SOCK_HOST_UNKNOWN);
}

bool ResolveHost(SockRec* rec, const SockAddrRec* addrRec, sockaddr_in* out) {
  char host[sizeof addrRec->host];
  char ip[sizeof addrRec->ip + 1];
  mq::CopyField(host, addrRec->host);
  mq::CopyPadded(ip, sizeof ip, addrRec->ip, sizeof addrRec->ip);
  const bool anyAddress = strcmp(host, "*") == 0;
  if (IsValidIp(ip)) mq::CopyField(host, ip);
  if (anyAddress) {
    out->sin_family = static_cast<sa_family_t>(rec->domain);
    out->sin_addr.s_addr = INADDR_ANY;
    return true;
  }
  if (strcmp(host, "@") == 0) mq::CopyText(host, "localhost");
  if (StartsWithDigit(host)) return ConvertNumeric(rec, host, out);
  return LookUpHost(rec, host, ip, out);
}

}  // namespace

int AddrToIP(SockRec* rec, SockAddrRec* addrRec, sockaddr_in* out) {
  mq::RunSocketTrace("AddrToIP:Before", rec);
  memset(out, 0, sizeof *out);
  const bool resolved = ResolveService(rec, addrRec, out) && ResolveHost(rec, addrRec, out);
  mq::RunSocketTrace("AddrToIP:After", rec);
  return resolved;
}

int IsValidIp(const char* text) {
  for (int group = 1; group <= kGroups; ++group) {
    int value = 0;
    int digits = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
      if (++digits > kGroupDigits) return 0;
      value = value * 10 + (*text - '0');
    }
    if (digits == 0 || value > kGroupMax) return 0;
    if (group < kGroups && *text++ != '.') return 0;
  }
  return *text == '\0';
}

int IpAddrToSocketAddr(SockAddrRec* addrRec, const sockaddr_in* in, const char*) {
  MapHostAddrToIP(addrRec->ip, in);
  snprintf(addrRec->service, sizeof addrRec->service, "%d", ntohs(in->sin_port));
  addrRec->port = static_cast<uint32_t>(atol(addrRec->service));
  return 1;
}
