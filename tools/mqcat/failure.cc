// failure.cc - see failure.hh. errors.h advises programmers of the library; the advice here is for the user at the shell.
#include "failure.hh"

#include <cerrno>
#include <cstring>

#include "fmt/format.h"
#include "mqnode/errors.h"

namespace mqcat {
namespace {

struct Advice {
  int code;
  const char* meaning;  // null: as in errors.h
  const char* text;
};

constexpr Advice kAdvice[] = {
    {MQ_BAD_MESSAGE, nullptr,
     "the peer may speak another protocol, or one side signs and the other does not (--sign, --ring)"},
    {MQ_BAD_BODY, nullptr, "the next message is read; the sender uses another version of the encoding, or is faulty"},
    {SOCK_SERVICE_UNKNOWN, nullptr, "use a port number, or a name from /etc/services"},
    {SOCK_HOST_UNKNOWN, nullptr, "check the spelling: getent ahostsv4 HOST must print an address"},
    {SOCK_PEER_CLOSED, "the peer closed the connection",
     "the peer ended, or refused what it read: its own messages may say why"},
    {ECONNRESET, nullptr, "the peer ended, or refused what it read: its own messages may say why"},
    {EPIPE, "the peer has closed the connection",
     "the peer ended, or refused what it read: its own messages may say why"},
    {ECONNREFUSED, "no program listens on that port", "start the server, or check host and port"},
    {ETIMEDOUT, nullptr, "check host and port; a firewall may discard the packets; --timeout waits longer"},
    {EHOSTUNREACH, nullptr, "check the host, and the route to it: ip route get ADDRESS"},
    {ENETUNREACH, nullptr, "check the host, and the route to it: ip route get ADDRESS"},
    {EADDRINUSE, nullptr, "choose another port, or find the program that has it: ss -ltnup"},
    {EADDRNOTAVAIL, "this host does not have that address, or no port is free",
     "use an address that ip address shows, or '*' for all of them"},
    {EACCES, "permission denied",
     "ports below 1024 are for root and for programs with CAP_NET_BIND_SERVICE: choose a port from 1024 on"},
    {EPERM, nullptr, "check the firewall of this host"},
    {EMFILE, nullptr, "raise the limit: ulimit -n 4096"},
    {ENFILE, nullptr, "close other programs, or raise the limit: sysctl fs.file-max"},
};

const Advice* Find(int code) {
  for (const Advice& advice : kAdvice) {
    if (advice.code == code) return &advice;
  }
  return nullptr;
}

}  // namespace

std::string CodeText(int code, unsigned place) {
  const MqErrorInfo* const entry = mq_error_find(code, place);
  if (entry == nullptr) return fmt::format("{} ({})", strerrordesc_np(code) ? strerrordesc_np(code) : "unknown", code);
  const Advice* const advice = Find(code);
  const bool own = advice != nullptr && advice->meaning != nullptr;
  return fmt::format("{} ({}): {}", entry->name, code, own ? advice->meaning : entry->meaning);
}

std::string AdviceText(int code) {
  const Advice* const advice = Find(code);
  return advice == nullptr ? "" : fmt::format("\n  {}", advice->text);
}

}  // namespace mqcat
