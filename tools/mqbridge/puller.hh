// puller.hh - fetches messages of a durable consumer of a stream, as many as there is space for.
//
// libnats only fetches in a blocking call, which a loop cannot make; this makes the same JetStream requests. One fetch
// is open at a time. It ends with its last message, when the cluster says so, or a second after its time-out.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "session.hh"

namespace mqbridge {

class Puller {
 public:
  Puller(const OutOptions& options, Session& session, Bus::OnMessage fn);

  // Finds the stream unless it is given, and creates the consumer if there is none. Retries until both exist.
  void Begin();

  // Called after a reconnect: the messages of an open fetch will not come.
  void Reconnected();

  // Asks for `space` messages unless a fetch is open. Called ten times a second, and when there is space.
  void Fetch(int64_t now, uint32_t space);

  // From the subject for acknowledgements: number of deliveries of the message; stream and sequence.
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
  uint32_t expected_ = 0;  // messages of it that have not arrived
  int64_t fetch_ends_ = 0, next_fetch_ = 0;
};

}  // namespace mqbridge
