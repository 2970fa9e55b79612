// client.hh - a connection of mqcat listen: what it owes, how long it has been quiet, what it costs.
#pragma once

#include <string>

#include "link.hh"

namespace mqcat {

constexpr uint32_t kKeptArea = 65536;  // bytes; an area that a message made grow beyond this is given back

// What a client may cost. Bytes and seconds.
struct Bounds {
  uint32_t message = 1 << 20;  // of one message, headers included
  uint32_t waiting = 1 << 20;  // answers that wait for a client; it is not read from while more do
  double idle = 3600;          // without a message
  double midway = 30;          // in the middle of a message, or without taking an answer
};

class Client {
 public:
  // The node is made ready for plain or signed messages.
  Client(NodePtr node, bool is_signed);

  MQNode* node() const { return node_.get(); }
  const std::string& peer() const { return peer_; }

  // Nothing more is expected of it: its node is to be deleted.
  bool done() const { return done_; }
  void End() { done_ = true; }

  // Whether part of a message is here, or answers wait to be taken.
  bool Owes() const { return node_->recvBuffer.received != 0 || node_->pending != nullptr; }

  // Time since it last finished something: a message read, an answer sent whole, all that it owed. A part of a message
  // is no progress. Looks at the node: exact to the interval between two calls.
  Clock::duration Quiet(Clock::time_point now);

  // Bytes that wait to be sent.
  uint64_t Waiting() const;

  // Length of the message whose header alone is here, headers included; 0 when there is none.
  uint64_t Announced() const;

  // Gives a receive area back that a large message made grow, unless it holds part of the next one.
  void GiveBack();

 private:
  void Arm();

  NodePtr node_;
  std::string peer_;
  uint32_t header_;        // bytes
  uint32_t finished_ = 0;  // messages read and answers sent, at the last look
  bool owed_ = false;      // at the last look
  Clock::time_point since_ = Clock::now();
  bool done_ = false;
};

}  // namespace mqcat
