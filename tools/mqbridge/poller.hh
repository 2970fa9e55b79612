// poller.hh - the socket of a connection of libnats in a libuv loop (natsOptions_SetEventLoop).
//
// libnats closes its socket on any of several threads, while the loop may still wait for it, or may have a pending
// change for its number: libuv then aborts the process, or mistakes another socket with the same number for it. The
// adapter shipped with libnats has this fault. This one waits for a duplicate of the descriptor, which only the loop
// closes.
#pragma once

#include <nats/nats.h>
#include <uv.h>

#include <deque>
#include <mutex>
#include <thread>

namespace mqbridge {

class Poller {
 public:
  explicit Poller(uv_loop_t* loop);
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  // Called before the connection is made.
  void Use(natsOptions* options);

  // Ends the handles in the loop. Called after the connection was closed.
  void Close();

 private:
  struct Watch;
  struct Command {
    enum Kind { kAttach, kRead, kWrite, kDetach } kind;
    int value;  // a descriptor, or whether to wait
    natsConnection* connection;
  };

  static natsStatus OnAttach(void** self, void* poller, natsConnection* connection, natsSock socket);
  static natsStatus OnRead(void* self, bool add);
  static natsStatus OnWrite(void* self, bool add);
  static natsStatus OnDetach(void* self);
  static void OnReady(uv_poll_t* handle, int status, int events);

  natsStatus Put(Command command);
  void RunQueued();
  void Run(const Command& command);
  void Attach(int fd, natsConnection* connection);
  void Wait(int event, bool add);
  void Drop();

  uv_loop_t* loop_;
  std::thread::id thread_ = std::this_thread::get_id();
  uv_async_t wake_ = {};
  Watch* watch_ = nullptr;

  std::mutex lock_;  // protects the members below
  std::deque<Command> queued_;
  bool closed_ = false;
};

}  // namespace mqbridge
