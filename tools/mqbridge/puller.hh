// puller.hh - messages of a durable consumer of a stream, fetched as many as there is space for.
//
// libnats fetches in a call that waits, which a loop cannot; these are the same requests of JetStream. One fetch is
// open at a time. It ends when all its messages have come, when the cluster says so, or a second after its time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "session.hh"

namespace mqbridge {

class Puller {
 public:
  Puller(const OutOptions& options, Session& session, Bus::OnMessage fn);

  // Finds the stream if it is not given, and creates the consumer if there is none; again and again until both are
  // there.
  void Begin();

  // What was asked for before is not to be expected.
  void Reconnected();

  // Asks for so many messages, if no fetch is open. Ten times a second, and when there is space.
  void Fetch(int64_t now, uint32_t space);

  // From the subject for acknowledgements: how often the message was delivered, and stream and sequence.
  static uint64_t DeliveriesOf(const natsMsg* msg);
  static std::string NameOf(const natsMsg* msg);

 private:
  void FindStream();
  void CreateConsumer();
  void OnPrepared(const std::string& what, const std::string& why);
  void OnMessage(NatsMsg msg);

  const OutOptions& options_;
  Session& session_;
  Bus::OnMessage fn_;
  std::string inbox_, stream_;
  bool is_preparing_ = false, is_ready_ = false;
  int64_t next_prepare_ = 0;
  std::string last_failure_;
  uint64_t fetch_ = 0;     // number of the last fetch, the end of its subject for answers
  uint32_t expected_ = 0;  // messages that are still to come of it
  int64_t fetch_ends_ = 0, next_fetch_ = 0;
};

}  // namespace mqbridge
