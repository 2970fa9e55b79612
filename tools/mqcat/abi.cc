// abi.cc - mqcat abi: size and offset of every record that hosts share with the library, as compiled into this program.
#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "options.hh"
#include "output.hh"

namespace mqcat {
namespace {

struct Member {
  const char* name;
  size_t offset;
  size_t size;
};

struct Record {
  const char* name;
  const char* header;
  size_t size;
  std::vector<Member> members;
};

#define MEMBER(record, name) \
  { #name, offsetof(record, name), sizeof(record::name) }

Record NodeRecord() {
  using R = MQNode;
  return {"MQNode",
          "mqnode/node.h",
          sizeof(R),
          {MEMBER(R, nodeType),
           MEMBER(R, role),
           MEMBER(R, host),
           MEMBER(R, platform),
           MEMBER(R, user),
           MEMBER(R, applName),
           MEMBER(R, sock),
           MEMBER(R, child),
           MEMBER(R, writeLimit),
           MEMBER(R, writesOutstanding),
           MEMBER(R, writesCompleted),
           MEMBER(R, msgsRead),
           MEMBER(R, error),
           MEMBER(R, openState),
           MEMBER(R, opOpen),
           MEMBER(R, opClose),
           MEMBER(R, opRead),
           MEMBER(R, opBrowse),
           MEMBER(R, opWrite),
           MEMBER(R, opPost),
           MEMBER(R, onTrace),
           MEMBER(R, addr),
           MEMBER(R, pending),
           MEMBER(R, pendingLimit),
           MEMBER(R, recvBuffer)}};
}

std::vector<Record> SocketRecords() {
  using S = SockRec;
  using A = SockAddrRec;
  using O = SockOption;
  using P = SockPostData;
  using T = PostTimeout;
  return {{"SockRec",
           "socksin/record.h",
           sizeof(S),
           {MEMBER(S, fd), MEMBER(S, domain), MEMBER(S, type), MEMBER(S, protocol), MEMBER(S, bytesSent),
            MEMBER(S, bytesReceived), MEMBER(S, error), MEMBER(S, errorResult), MEMBER(S, onError), MEMBER(S, onTrace),
            MEMBER(S, connected), MEMBER(S, name), MEMBER(S, from), MEMBER(S, buffer), MEMBER(S, owner)}},
          {"SockAddrRec",
           "socksin/record.h",
           sizeof(A),
           {MEMBER(A, host), MEMBER(A, ip), MEMBER(A, service), MEMBER(A, protocol), MEMBER(A, port)}},
          {"SockOption", "socksin/options.h", sizeof(O), {MEMBER(O, id), MEMBER(O, value1), MEMBER(O, value2)}},
          {"SockPostData",
           "socksin/wait.h",
           sizeof(P),
           {MEMBER(P, size), MEMBER(P, sockets), MEMBER(P, readable), MEMBER(P, writable), MEMBER(P, exceptional),
            MEMBER(P, readSet), MEMBER(P, writeSet), MEMBER(P, exceptSet)}},
          {"PostTimeout", "socksin/wait.h", sizeof(T), {MEMBER(T, msec), MEMBER(T, sec)}}};
}

std::vector<Record> MessageRecords() {
  using M = PcfMessage;
  using R = PcfRawData;
  using H = MsgHeader;
  using E = SecureHeader;
  return {
      {"PcfMessage",
       "runtime/message.h",
       sizeof(M),
       {MEMBER(M, library0), MEMBER(M, secHeader), MEMBER(M, libraryData), MEMBER(M, raw)}},
      {"PcfRawData",
       "runtime/message.h",
       sizeof(R),
       {MEMBER(R, library0), MEMBER(R, data), MEMBER(R, aux), MEMBER(R, capacity), MEMBER(R, length)}},
      {"MsgHeader",
       "runtime/message.h",
       sizeof(H),
       {MEMBER(H, hdrLength), MEMBER(H, library4), MEMBER(H, bigEndian), MEMBER(H, asciiText), MEMBER(H, library16),
        MEMBER(H, bodyLength), MEMBER(H, library68), MEMBER(H, userId), MEMBER(H, applName), MEMBER(H, library132)}},
      {"SecureHeader",
       "runtime/message.h",
       sizeof(E),
       {MEMBER(E, hdrLength), MEMBER(E, version), MEMBER(E, bigEndian), MEMBER(E, asciiText), MEMBER(E, msgLength),
        MEMBER(E, userId)}}};
}

std::vector<Record> OtherRecords() {
  using B = IoBuffer;
  using Q = Queue;
  using E = QueueEntry;
  using P = MqcParam;
  using Y = MqcMemory;
  return {{"IoBuffer",
           "runtime/runtime.h",
           sizeof(B),
           {MEMBER(B, data), MEMBER(B, length), MEMBER(B, capacity), MEMBER(B, flags), MEMBER(B, received),
            MEMBER(B, sent)}},
          {"Queue",
           "queue/queue.h",
           sizeof(Q),
           {MEMBER(Q, head), MEMBER(Q, tail), MEMBER(Q, cursor), MEMBER(Q, count), MEMBER(Q, limit)}},
          {"QueueEntry", "queue/queue.h", sizeof(E), {MEMBER(E, next), MEMBER(E, item)}},
          {"MqcParam",
           "companion/host.h",
           sizeof(P),
           {MEMBER(P, id), MEMBER(P, type), MEMBER(P, length), MEMBER(P, number), MEMBER(P, text), MEMBER(P, bytes)}},
          {"MqcMemory",
           "companion/host.h",
           sizeof(Y),
           {MEMBER(Y, live_blocks), MEMBER(Y, total_blocks), MEMBER(Y, peak_blocks), MEMBER(Y, live_bytes)}}};
}

std::vector<Record> AllRecords() {
  std::vector<Record> records = {NodeRecord()};
  for (const auto& more : {SocketRecords(), MessageRecords(), OtherRecords()}) {
    records.insert(records.end(), more.begin(), more.end());
  }
  return records;
}

void PrintText(const Record& record) {
  Print(fmt::format("{} ({}) {} bytes\n", record.name, record.header, record.size));
  for (const Member& member : record.members) {
    Print(fmt::format("  {:>6} {:>6}  {}\n", member.offset, member.size, member.name));
  }
}

void PrintJson(const Record& record) {
  nlohmann::ordered_json json = {{"record", record.name}, {"header", record.header}, {"size", record.size}};
  for (const Member& member : record.members) {
    json["members"].push_back({{"name", member.name}, {"offset", member.offset}, {"size", member.size}});
  }
  Print(json.dump() + "\n");
}

void RunAbi(const std::vector<std::string>& names, bool json) {
  std::vector<Record> records;
  for (Record& record : AllRecords()) {
    if (names.empty() || std::find(names.begin(), names.end(), record.name) != names.end()) records.push_back(record);
  }
  if (records.empty()) {
    std::string all;
    for (const Record& record : AllRecords()) all += fmt::format(" {}", record.name);
    throw Failure{kExitUsage, fmt::format("abi {}: no such record; there are{}", names.front(), all)};
  }
  if (!json) Print("  offset   size  member\n");
  for (const Record& record : records) json ? PrintJson(record) : PrintText(record);
}

}  // namespace

void AddAbi(CLI::App& app, ExitCode&) {
  struct Options {
    std::vector<std::string> names;
    bool json = false;
  };
  auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("abi", "Print size and offset of every shared record");
  command->add_option("RECORD", options->names, "Only these, such as MQNode; all when none is named");
  command->add_flag("--json", options->json, "One object a line");
  command->footer("Example:\n  mqcat abi MQNode SockRec");
  command->callback([options] { RunAbi(options->names, options->json); });
}

}  // namespace mqcat
