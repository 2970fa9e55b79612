// echo.hh - servers that send back what they get, one process with one event loop each, and the clients that measure
// them. A further server is one source file with a function like these and one line in EchoServers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace bench {

// What a client of a server sends: bytes of which as many come back, after a greeting, if the protocol has one.
struct Wire {
  size_t head;  // bytes at the start that the server may change
  std::vector<uint8_t> (*request)(size_t body);
  void (*greet)(int fd);  // null: none
};

struct EchoServer {
  const char* name;
  // Serves until the process ends; passes the port on before the first connection is accepted.
  void (*serve)(const std::function<void(uint16_t)>& listening);
  Wire wire;
};

// All that the build has found. The bare server of an engine follows the nodes on that engine.
std::vector<EchoServer> EchoServers();

EchoServer EchoNodesWait();  // the wait over many nodes of mqnode/server.h
// Where the build has found the engine or the library.
EchoServer EchoNodesUv();
EchoServer EchoBareUv();
EchoServer EchoNodesAsio();
EchoServer EchoBareAsio();
EchoServer EchoZmq();
EchoServer EchoNng();

constexpr int kEchoBacklog = 4096;

// The wire of nodes, and of bare sockets that stand in for them.
Wire PlainWire();

// Clients of one server, which is started for them in a process of its own, on another processor if there is one. Each
// active client sends one message, waits for it to come back, and sends the next.
class EchoClients {
 public:
  EchoClients(const EchoServer& server, size_t connections, size_t body);
  ~EchoClients();
  EchoClients(const EchoClients&) = delete;
  EchoClients& operator=(const EchoClients&) = delete;

  struct Outcome {
    double rate;       // messages a second, there and back
    double half;       // seconds: half of all round trips took no longer
    double most;       // seconds: 99 of 100 did not
    double processor;  // seconds that the server ran for a message, the system's work included
  };
  Outcome Run(size_t active, double seconds);

  // Bytes of memory that the server's process has taken for each connection.
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
    double sent;      // when
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

// Raises the limit of descriptors as far as it goes; the connections that one process can have then, at most wanted.
size_t RaiseConnectionLimit(size_t wanted);

}  // namespace bench
