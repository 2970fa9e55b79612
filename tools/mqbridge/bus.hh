// bus.hh - the connection to a NATS cluster, in a libuv loop.
//
// Sockets: the loop reads and writes them (poller.hh). Otherwise libnats would write within a publish, and block the
// loop when the socket is full. The loop must not make a call that waits for an answer from the cluster, because only
// the loop reads answers: calls.hh makes all requests, with subjects for the answers.
// Messages: libnats delivers them on its own threads. They pass through a bounded queue, which wakes the loop; a full
// queue blocks libnats. A synchronous subscription would need no thread, but hides which request had no responder.
// Reconnects: libnats connects to any member of the cluster that it has heard of.
#pragma once

#include <nats/nats.h>
#include <uv.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mqcat/failure.hh"
#include "options.hh"
#include "poller.hh"

namespace mqbridge {

struct NatsMsgDeleter {
  void operator()(natsMsg* msg) const { natsMsg_Destroy(msg); }
};
using NatsMsg = std::unique_ptr<natsMsg, NatsMsgDeleter>;

using Headers = std::vector<std::pair<const char*, std::string>>;

// Throws std::bad_alloc. reply may be empty.
NatsMsg MakeMsg(const std::string& subject, const std::string& reply, std::string_view body,
                const Headers& headers = {});
std::string_view BodyOf(const natsMsg* msg);
// Empty if there is none.
std::string HeaderOf(const natsMsg* msg, const char* name);

// The end of a bridge that the cluster does not want, or that does not trust the cluster.
mqcat::Failure RefusalOf(const std::string& why);

class Bus {
 public:
  using OnMessage = std::function<void(NatsMsg)>;

  // changed: the connection was lost or is there again. failed: something else went wrong, such as a message that the
  // cluster does not permit. Both run in the loop.
  Bus(uv_loop_t* loop, const BusOptions& options, std::function<void()> changed,
      std::function<void(const std::string& why)> failed);
  ~Bus();

  // Throws a Failure for options that cannot be right.
  static void Check(const BusOptions& options);
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  // The first connection. Blocks for up to two seconds for each server. Result: empty, or why it failed and may succeed
  // later. Throws a Failure if the cluster refuses the bridge.
  std::string Connect();

  bool up() const { return connection_ != nullptr && natsConnection_Status(connection_) == NATS_CONN_STATUS_CONNECTED; }
  // libnats has given up: the cluster refuses the bridge.
  bool is_over() const { return connection_ != nullptr && natsConnection_IsClosed(connection_); }
  std::string last_error() const;
  uint64_t reconnects() const { return reconnects_; }
  std::string server() const;

  // Subscribes to a subject, in a queue group unless that is empty. Throws a Failure.
  void Subscribe(const std::string& subject, const std::string& queue, OnMessage fn);

  // Returns NATS_OK once the message is in the buffer that the loop writes.
  natsStatus Publish(natsMsg* msg) { return natsConnection_PublishMsg(connection_, msg); }
  natsStatus Publish(const std::string& subject, std::string_view body);

  // Bytes not yet passed to the system.
  int buffered() const { return connection_ == nullptr ? 0 : natsConnection_Buffered(connection_); }

  // A new subject for answers.
  static std::string Inbox();

  // Ends the connection and the handles in the loop. Nothing is called afterwards.
  void Close();

 private:
  struct Listener {
    Bus* bus;
    OnMessage fn;
    natsSubscription* subscription;
  };
  struct Arrived {
    Listener* listener;
    NatsMsg msg;
  };

  static void OnArrival(natsConnection*, natsSubscription*, natsMsg* msg, void* listener);
  static void OnChange(natsConnection*, void* bus);
  static void OnError(natsConnection*, natsSubscription*, natsStatus status, void* bus);
  static void OnReconnect(natsConnection*, void* bus);
  static void OnWake(uv_async_t* handle);
  void Deliver();

  BusOptions options_;
  std::function<void()> changed_;
  std::function<void(const std::string&)> failed_;
  Poller poller_;
  natsConnection* connection_ = nullptr;
  uv_async_t wake_ = {};
  std::vector<std::unique_ptr<Listener>> listeners_;
  std::atomic<bool> has_changed_ = false;
  std::atomic<uint64_t> reconnects_ = 0;

  std::mutex lock_;  // protects the members below
  std::condition_variable has_space_;
  std::deque<Arrived> arrived_;
  std::string failure_;  // the last one that was not told yet
  bool closed_ = false;
};

}  // namespace mqbridge
