// failure.cc - see failure.hh. The advice in errors.h is for programmers, the advice here for the user at the shell.
#include "failure.hh"

#include <cerrno>
#include <cstring>

#include "fmt/format.h"
#include "mqnode/errors.h"

namespace mqcat {
namespace {

struct Advice {
  int code;
  const char* text;
};

constexpr Advice kAdvice[] = {
    {MQ_BAD_MESSAGE, "the peer may speak another protocol, or one side signs and the other does not (--sign, --ring)"},
    {MQ_BAD_BODY, "the sender is faulty, or encodes messages in another version"},
    {SOCK_SERVICE_UNKNOWN, "use a port number, or a name from /etc/services"},
    {SOCK_HOST_UNKNOWN, "check the spelling: getent ahostsv4 HOST must print an address"},
    {SOCK_PEER_CLOSED, "the peer ended, or refused what it read: its own messages may say why"},
    {ECONNRESET, "the peer ended, or refused what it read: its own messages may say why"},
    {EPIPE, "the peer ended, or refused what it read: its own messages may say why"},
    {ECONNREFUSED, "start the server, or check host and port"},
    {ETIMEDOUT, "check host and port; a firewall may discard the packets; --timeout waits longer"},
    {EHOSTUNREACH, "check the host, and the route to it: ip route get ADDRESS"},
    {ENETUNREACH, "check the host, and the route to it: ip route get ADDRESS"},
    {EADDRINUSE, "choose another port, or find the program that has it: ss -ltnup"},
    {EADDRNOTAVAIL, "use an address that ip address shows, or '*' for all of them"},
    {EACCES, "ports below 1024 are for root and for programs with CAP_NET_BIND_SERVICE: choose a port from 1024 on"},
    {EPERM, "check the firewall of this host"},
    {EMFILE, "raise the limit: ulimit -n 4096"},
    {ENFILE, "close other programs, or raise the limit: sysctl fs.file-max"},
};

}  // namespace

std::string CodeText(int code, unsigned place) {
  const MqErrorInfo* const entry = mq_error_find(code, place);
  if (entry == nullptr) return fmt::format("{} ({})", strerrordesc_np(code) ? strerrordesc_np(code) : "unknown", code);
  return fmt::format("{} ({}): {}", entry->name, code, entry->meaning);
}

std::string AdviceText(int code) {
  for (const Advice& advice : kAdvice) {
    if (advice.code == code) return fmt::format("\n  {}", advice.text);
  }
  return "";
}

}  // namespace mqcat
