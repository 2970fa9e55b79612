// server.hh - the server under attack: a child process, what it uses, what it logs.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <span>
#include <string>
#include <vector>

namespace hostile {

// Which servers an attack is for: the plain examples, mqcat, mqcat with signed messages, the ones for datagrams.
enum Kind : unsigned { kExample = 1, kMqcat = 2, kSigned = 4, kDatagrams = 8 };

// A program under attack. It prints its port, or "listening on ...:PORT" in its log.
struct Target {
  const char* name;
  Kind kind;
  const char* program;                 // beside this one
  std::vector<const char*> arguments;  // kRing: the path of a file with the keys of both users
};
constexpr const char* kRing = "RING";

std::span<const Target> Targets();

struct Usage {
  long residentKb = 0;
  long peakKb = 0;  // most that was ever resident
  int descriptors = 0;
  double cpuSeconds = 0;
};

class Server {
 public:
  // Starts the program of the folder on a port that the kernel picks, with at most so many descriptors, 0 for as many
  // as there may be. The port is 0 when it did not start.
  Server(const std::string& folder, const Target& target, rlim_t descriptors);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int port() const { return port_; }
  Usage Look() const;
  std::string Log() const;

  // Asks it to end and waits. Empty when it did, in order; else what happened. The address sanitizer looks for leaks
  // then.
  std::string Stop();

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  int log_ = -1;      // a file without a name: what it prints
  std::string ring_;  // a file
};

}  // namespace hostile
