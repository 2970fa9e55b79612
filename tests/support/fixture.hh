// fixture.hh - the base of all tests: a fixture that detects what a test leaves behind, one list of all events, and
// plain peers. A case scripts the platform, acts, and compares the whole outcome.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/support/platform.hh"

using Lines = std::vector<std::string>;
using fmt::format;

// Callbacks that add events to the platform's records. Kinds: 's' a trace point of a socket, or "onError 9004"; 'n' a
// trace point of a node. The object's name, if it has one, comes first: "child mnRead".
struct Trace {
  static void OnSocket(const char* point, SockRec* rec);
  static void OnNode(const char* point, MQNode* node);
  static int OnError(SockRec* rec);  // returns 5

  std::map<const void*, std::string> names;
  std::string (*show)(const MQNode*) = nullptr;  // appended to each trace point of a node
  // Called inside socket callbacks, after the event was recorded. The point of an error is "onError".
  std::function<void(std::string_view point, SockRec* rec)> on_socket;

  static Trace& Now();
};

// Returns and forgets what happened since the last Take. "ReadSocket[recvfrom(4) = 4]; mnRead" is the trace point
// ReadSocket:Before, a call, and the points ReadSocket:After and mnRead. All events, or only those of these kinds: 'c'
// calls, 's', 'n' (see Trace), 'm' message functions of the companion.
std::string Take(std::string_view kinds = "csnm");

// Replaces a number that varies, such as a port, by name in all texts of this test.
void Alias(int number, const std::string& name);

// Owns a plain socket of the test, which the recorder ignores. Blocking; a call that blocks for more than ten seconds
// ends the program.
class Peer {
 public:
  Peer() = default;
  explicit Peer(int fd);
  Peer(Peer&& other) noexcept : fd_(other.Release()) {}
  Peer& operator=(Peer&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Peer() {
    if (fd_ >= 0) close(fd_);
  }

  // Sockets on 127.0.0.1, at a port chosen by the kernel.
  static Peer Bound(int type);  // a stream socket that is only bound reserves a port where nothing listens
  static Peer Listen();
  static Peer Connect(int port);
  static Peer Datagram();

  Peer Accept() const;
  void Send(std::string_view bytes, int flags = 0) const;
  void SendTo(int port, std::string_view bytes) const;
  std::string Read(size_t size = 65536) const;  // exactly size bytes, fewer if the other side has closed; or a datagram
  void Shutdown() const;                        // of the sending side
  int fd() const { return fd_; }
  int port() const;
  int Release() { return std::exchange(fd_, -1); }  // gives up ownership

 private:
  int fd_ = -1;
};

int PortOf(int fd);
// Waits for an event of poll, at most ten seconds.
void Await(int fd, short events = POLLIN);

// Base of all tests. Before a test: platform, traces and globals as at process start, SIGPIPE ignored, no log. After
// it, when the members of derived fixtures are gone, the open descriptors and the companion's memory in use must be as
// before, except "ring" and "replay", which live as long as the process.
class Fixture : public ::testing::Test {
 protected:
  Fixture();
  ~Fixture() override;
  void TearDown() override;  // drops the hooks, which may refer to local variables of the test

 private:
  Lines descriptors_;
  std::map<std::string, uint64_t> blocks_;
};

// What is printed on standard output while run runs.
std::string Printed(const std::function<void()>& run);

// A socket name.
SockAddrRec AddressOf(std::string_view host, std::string_view service, std::string_view protocol = "tcp",
                      std::string_view ip = "");
SockAddrRec AddressOf(std::string_view host, int port);
// "host ip service protocol port", with "-" for empty fields.
std::string Text(const SockAddrRec& address);

// Open descriptors as "number -> what"; live blocks of the companion by tag.
Lines OpenDescriptors();
std::map<std::string, uint64_t> LiveBlocks();
