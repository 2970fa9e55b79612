// server.hpp - the server of server.h as a C++17 class. Derive from it, and override message(). Header-only.
//
//   class Echo : public mqnode::Server {
//     const char* message(ServerClient client, MessageRef msg) noexcept override {
//       return sent(client.node().write(msg));
//     }
//   };
//
//   Echo server;
//   if (!server.add(listener)) ...
//   while (!stop && server.round(1s)) continue;
//   server.end(2s);
//
// server.h documents the rules and the limits. Each operation calls the C function that its comment names, and is
// noexcept. The nodes that are added belong to the application, and must live until the last round has returned.
#ifndef MQNODE_MQNODE_SERVER_HPP
#define MQNODE_MQNODE_SERVER_HPP

#include <chrono>

#include "mqnode/mqnode.hpp"
#include "mqnode/server.h"

namespace mqnode {

// ServerClient - a connected client, valid until dropped() has returned.
class ServerClient {
 public:
  explicit ServerClient(MqServerClient* client) noexcept : pointer_(client) {}

  MqServerClient* get() const noexcept { return pointer_; }
  MqServerClient& record() const noexcept { return *pointer_; }
  // Its node, to which the application may write but from which it must not read; the listening node that accepted it.
  NodeRef node() const noexcept { return pointer_->node; }
  const MQNode* origin() const noexcept { return pointer_->origin; }
  // A pointer for the application; null at first.
  void set_data(void* data) const noexcept { pointer_->data = data; }
  template <class Type>
  Type* data() const noexcept {
    return static_cast<Type*>(pointer_->data);
  }

 private:
  MqServerClient* pointer_;
};

// Server - accepts clients, reads their messages and drops those that exceed a limit.
class Server {
 public:
  // mq_server_open.
  explicit Server(const MqServerLimits& limits = mq_server_limits()) noexcept {
    static const MqServerEvents events = {on_message, on_accepted, on_dropped, on_ready, on_failed};
    failed_ = mq_server_open(&server_, &limits, &events, this) == 0;
    server_.log = on_log;
  }
  // Releases remaining clients without calling dropped() and log(), because the derived class is already destroyed. To
  // have them called, call close() before.
  virtual ~Server() {
    server_.events.dropped = nullptr;
    server_.log = mq_server_print;
    mq_server_close(&server_);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // True if there was no memory for the server: it can only be destroyed then.
  bool failed() const noexcept { return failed_; }
  MqServer& record() noexcept { return server_; }
  int size() const noexcept { return server_.count; }

  // mq_server_add.
  Result add(NodeRef node, bool is_signed = false) noexcept {
    const int added = !failed_ && mq_server_add(&server_, node.get(), is_signed ? 1 : 0);
    if (added != 0) return {1, MQ_OK, MQ_IN_NODE};
    return failed_ || !node.failed() ? Result(0, ENOMEM, MQ_IN_SOCKET) : node.status();
  }
  // mq_server_round.
  Result round(std::chrono::milliseconds time) noexcept {
    const int waited = mq_server_round(&server_, detail::to_int(time));
    return {waited, waited != 0 ? MQ_OK : server_.status, MQ_IN_STATUS};
  }
  // mq_server_end. True if all answers were sent and each client then closed its connection.
  bool end(std::chrono::milliseconds time) noexcept { return mq_server_end(&server_, detail::to_int(time)) != 0; }
  // mq_server_close. Only destruction or another close() may follow.
  void close() noexcept { mq_server_close(&server_); }
  // mq_server_drop, mq_server_say.
  void drop(ServerClient client, const char* why) noexcept { mq_server_drop(&server_, client.get(), why); }
  void say(const char* what, const SockAddrRec& peer, const char* why) noexcept {
    mq_server_say(&server_, what, &peer, why);
  }

 protected:
  // The events of MqServerEvents.
  virtual const char* message(ServerClient client, MessageRef msg) noexcept = 0;
  virtual const char* accepted(ServerClient) noexcept { return nullptr; }
  virtual void dropped(ServerClient, const char*) noexcept {}
  virtual void ready(NodeRef) noexcept {}
  virtual const char* failed(ServerClient, const char* why) noexcept { return why; }
  // Receives a line of the log, without a newline.
  virtual void log(const char* line) noexcept { mq_server_print(&server_, line); }

  // Converts the result of a write to the result of message().
  static const char* sent(const Result& result) noexcept { return result ? nullptr : result.name(); }

 private:
  static Server& self(const MqServer* server) noexcept { return *static_cast<Server*>(server->data); }
  static const char* on_message(MqServer* server, MqServerClient* client, PcfMessage* msg) {
    return self(server).message(ServerClient(client), msg);
  }
  static const char* on_accepted(MqServer* server, MqServerClient* client) {
    return self(server).accepted(ServerClient(client));
  }
  static void on_dropped(MqServer* server, MqServerClient* client, const char* why) {
    self(server).dropped(ServerClient(client), why);
  }
  static void on_ready(MqServer* server, MQNode* node) { self(server).ready(node); }
  static const char* on_failed(MqServer* server, MqServerClient* client, const char* why) {
    return self(server).failed(ServerClient(client), why);
  }
  static void on_log(MqServer* server, const char* line) { self(server).log(line); }

  MqServer server_;
  bool failed_;
};

}  // namespace mqnode

#endif
