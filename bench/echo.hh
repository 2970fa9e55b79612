// echo.hh - echo servers, each a process with one event loop, and the clients that measure them. To add a server, write
// a source file with a function like these and add a line to EchoServers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace bench {

// What a client sends: a greeting if the protocol has one, then requests, each answered with the same number of bytes.
struct Wire {
  size_t head;  // bytes at the start that the server may change
  std::vector<uint8_t> (*request)(size_t body);
  void (*greet)(int fd);  // null: none
};

struct EchoServer {
  const char* name;
  // Serves until the process ends. Calls listening with the port before it accepts the first connection.
  void (*serve)(const std::function<void(uint16_t)>& listening);
  Wire wire;
};

// The servers found at build time: an engine's server with nodes and the bare one, other servers alone.
std::vector<std::vector<EchoServer>> EchoServers();

EchoServer EchoNodesWait();  // the wait over many nodes of mqnode/server.h
// Only if the engine or the library was found at build time.
EchoServer EchoNodesUv();
EchoServer EchoBareUv();
EchoServer EchoNodesAsio();
EchoServer EchoBareAsio();
EchoServer EchoZmq();
EchoServer EchoNng();

constexpr int kEchoBacklog = 4096;

// The bytes exchanged with nodes, and with the bare sockets compared with them.
Wire PlainWire();

// Clients of one server, which runs in a process of its own, on another processor if there is one. Each active client
// sends one message, waits for the echo, and sends the next.
class EchoClients {
 public:
  EchoClients(const EchoServer& server, size_t connections, size_t body);
  ~EchoClients();
  EchoClients(const EchoClients&) = delete;
  EchoClients& operator=(const EchoClients&) = delete;

  struct Outcome {
    double rate;       // round trips per second
    double half;       // seconds: median of the round trips
    double most;       // seconds: 99th percentile of the round trips
    double processor;  // seconds of processor time that the server uses per message, user and system
  };
  Outcome Run(size_t active, double seconds);

  // Resident memory that the server's process uses per connection, in bytes.
  double ServerBytes() const { return server_bytes_; }

 private:
  void Start(const EchoServer& server);
  void Connect(const EchoServer& server, size_t connections);
  void Send(size_t client);
  bool Receive(size_t client);
  double ServerTime() const;
  double ServerMemory() const;

  struct Client {
    int fd;
    size_t received;  // bytes of the answer
    double sent;      // time of the last request
  };
  const std::vector<uint8_t> request_;
  const size_t head_;
  std::vector<Client> clients_;
  std::vector<double> times_;
  int epoll_ = -1;
  uint16_t port_ = 0;
  pid_t server_ = -1;
  double server_bytes_ = 0;
};

// Raises the limit of descriptors as far as permitted, at least to wanted connections and some other descriptors.
// Returns how many connections a process can then have, at most wanted.
size_t RaiseConnectionLimit(size_t wanted);

}  // namespace bench
