// trace.cc - see trace.hh.
#include "trace.hh"

#include <cerrno>
#include <cstring>

#include "address.hh"
#include "fmt/format.h"
#include "mqnode/errors.h"
#include "output.hh"
#include "show.hh"
#include "text.hh"

namespace mqcat {
namespace {

bool is_on = false;
uint64_t moved = 0;  // bytes that the socket had moved before the transfer in progress

uint64_t Moved(const SockRec& rec) { return rec.bytesSent + rec.bytesReceived; }

// The peer of a datagram; else the socket's name, which for an accepted socket is its peer's.
std::string Peer(const SockRec& rec) {
  const bool has_sender = rec.type == SOCK_TYPE_DATAGRAM && rec.from.ip[0] != '\0';
  const SockAddrRec& address = has_sender ? rec.from : rec.name;
  return address.ip[0] != '\0' || address.host[0] != '\0' ? fmt::format(" {}", AddressText(address)) : "";
}

void Tell(const SockRec& rec, const std::string& peer, const std::string& text) {
  Note(fmt::format("trace {} fd {}{} {}", LocalTime().substr(11), rec.fd, peer, text));
}

std::string Error(int code, unsigned place) {
  const MqErrorInfo* const entry = mq_error_find(code, place);
  return code == 0 ? "" : fmt::format(": {} ({})", entry != nullptr ? entry->name : "error", code);
}

void TraceNode(const char* point, MQNode* node) {
  unsigned place = MQ_IN_NODE;
  if (node->error != MQ_AGAIN) mq_node_cause(node, &place);
  Tell(node->sock, Peer(node->sock), point + Error(node->error, place));
}

void TraceSocket(const char* point, SockRec* rec) {
  const bool transfer = strncmp(point, "ReadSocket", 10) == 0 || strncmp(point, "WriteSocket", 11) == 0;
  const bool after = transfer && strstr(point, ":After") != nullptr;
  const std::string bytes = after ? fmt::format(" {}", Count(Moved(*rec) - moved, "byte")) : "";
  moved = Moved(*rec);
  Tell(*rec, Peer(*rec), point + bytes + Error(rec->error, MQ_IN_SOCKET));
}

}  // namespace

void StartTrace() {
  is_on = true;
  mnGSetTraceCallBack(TraceNode);
  OnGSocketTrace(TraceSocket);
}

void TraceAccepted(MQNode* node) {
  if (is_on) OnSocketTrace(&node->sock, TraceSocket);
}

void TraceMessage(const MQNode* node, const char* what, const std::string& peer, const PcfMessage* msg) {
  if (!is_on) return;
  Tell(node->sock, "",
       fmt::format("{} {}: command {}, {}, {}", what, peer, mqc_command(msg), Count(mqc_count(msg), "parameter"),
                   Count(msg->raw.length, "byte")));
}

}  // namespace mqcat
