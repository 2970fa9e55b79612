// service.hh - what the server of the demonstration does with questions, and the engines that wait for them. The answer
// to a question is its own content. Only peers that break the rules are dropped.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "demo/server.hh"

namespace demo {

// Makes the nodes, checks the questions of honest clients, builds the answers, and counts.
class Service {
 public:
  static constexpr int kLogLines = 100;  // per second

  Service(Shared* shared, uint64_t seed, const Keys& keys, uint32_t answersASecond);

  // The node of a port, which the clients are told.
  mqnode::Node MakeNode(Port port);
  // Adds a fault. Returns false.
  bool Fail(std::string_view why);
  // Updates the memory figures; resets what is counted per second.
  void Scan(double now);
  // Releases everything and counts the blocks that remain.
  void Close();

  // What an engine reports.
  void Accepted();
  //   why   null: the client left between two messages, or the server ended
  void Dropped(const MQNode* client, const char* why);
  void Refused(Port port, const SockAddrRec& from, const char* why);  // a datagram
  void Sent(mqnode::MessageRef answer);
  // Writes a line to the log.
  void Say(const char* what, const SockAddrRec& peer, const char* why);

  // Checks a question and builds its answer. False without memory.
  bool Answer(mqnode::MessageRef in, mqnode::MessageRef out, const MQNode* client);
  // The same for a datagram. False also if it is not to be answered.
  bool AnswerDatagram(mqnode::MessageRef in, mqnode::MessageRef out, const SockAddrRec& from);

  const mqnode::Signer& signer() const { return signer_; }
  uint32_t clients() const { return self_.connected; }

 private:
  // The sessions of an honest client.
  struct Record {
    // Whether this session has not begun before. A late one is known as long as it is among the last 64.
    bool Begins(uint32_t session);

    uint32_t latest = 0;
    uint64_t begun = 0;                 // bit i: session latest - i
    std::unordered_set<uint32_t> seen;  // of the latest one, the datagrams so far
  };

  void Check(mqnode::MessageRef in, const MQNode* client);
  static bool IsInOrder(const Place& place, Place* last, Record* record);
  static bool IsAgain(const Place& place, Record* record);
  static bool Build(mqnode::MessageRef in, mqnode::MessageRef out);

  Shared& shared_;
  Process& self_;
  std::unique_ptr<Author> author_;
  const uint32_t answersASecond_;                  // to datagrams of one address
  std::unordered_map<const MQNode*, Place> last_;  // question of each honest client's connection
  std::unordered_map<uint32_t, Record> records_;   // by client
  std::map<std::string, uint32_t> answered_;       // datagrams, by address, in this second
  mqnode::Signer signer_;
  int lines_ = 0;  // of the log, in this second
  long second_ = 0;
};

// An engine accepts connections, reads, writes, and drops the peers that exceed a limit.
class Engine {
 public:
  virtual ~Engine() = default;

  // Serves a node of the service.
  virtual mqnode::Result Add(mqnode::Node node, Port port) = 0;
  // Waits once, at most this long, and does what is due.
  virtual mqnode::Result Round(std::chrono::milliseconds time) = 0;
  // Sends what is queued, and closes everything within about a second. Only destroying may follow.
  virtual void End() = 0;
};

using MakeEngine = std::unique_ptr<Engine>(Service* service, const Limits& limits);
MakeEngine MakeNodeEngine, MakeUvEngine, MakeAsioEngine;

// The limits that all engines have, in the record of one of them.
template <typename Own>
Own LimitsIn(Own own, const Limits& limits) {
  own.midwayMsec = static_cast<int>(limits.patience * 1000);
  own.messageBytes = kLargest + (16 << 10);
  own.socketBytes = 32 << 10;  // so that large answers are queued
  return own;
}

}  // namespace demo
