// fixture.hh - the base of all tests: a fixture that notices what a test left behind, one list of everything that
// happened, and plain peers to talk to. A case reads: script the platform, act, compare the whole outcome.
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

// Callbacks that note what they see among the platform's records. Kinds: 's' a trace point of a socket or
// "onError 9004", 'n' a trace point of a node. An object that has a name is put in front: "child mnRead".
struct Trace {
  static void OnSocket(const char* point, SockRec* rec);
  static void OnNode(const char* point, MQNode* node);
  static int OnError(SockRec* rec);  // returns 5

  std::map<const void*, std::string> names;
  std::string (*show)(const MQNode*) = nullptr;  // behind each trace point of a node
  // Run inside the callbacks of sockets, after the event was noted. The point of an error is "onError".
  std::function<void(std::string_view point, SockRec* rec)> on_socket;

  static Trace& Now();
};

// What happened since the last Take, forgotten afterwards. "ReadSocket[recvfrom(4) = 4]; mnRead" is the trace point
// ReadSocket:Before, a call, and the points ReadSocket:After and mnRead. All of it, or events of these kinds: 'c'
// calls, 's', 'n' (see Trace), 'm' message functions of the companion.
std::string Take(std::string_view kinds = "csnm");

// A number that differs from run to run, such as a port, reads as name in all texts of this test.
void Alias(int number, const std::string& name);

// A plain socket of the test, owned: everything with it goes past the recorder. Blocking; a call that would block for
// more than ten seconds ends the program.
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

  // Sockets on 127.0.0.1, at a port that the kernel picked.
  static Peer Bound(int type);  // a stream socket that is only bound keeps everybody from listening there
  static Peer Listen();
  static Peer Connect(int port);
  static Peer Datagram();

  Peer Accept() const;
  void Send(std::string_view bytes, int flags = 0) const;
  void SendTo(int port, std::string_view bytes) const;
  std::string Read(size_t size = 65536) const;  // exactly size bytes, fewer when the other side closed; a datagram
  void Shutdown() const;                        // no more sending
  int fd() const { return fd_; }
  int port() const;
  int Release() { return std::exchange(fd_, -1); }  // no longer owned

 private:
  int fd_ = -1;
};

int PortOf(int fd);
// Waits, at most ten seconds, for an event of poll.
void Await(int fd, short events = POLLIN);

// Base of all tests. Before a test: platform, traces and globals as at the start of a process, SIGPIPE ignored, no log.
// After it, once the members of derived fixtures are gone: the same descriptors open as before, no memory of the
// companion in use that was not before ("ring" and "replay", which live as long as the process, aside).
class Fixture : public ::testing::Test {
 protected:
  Fixture();
  ~Fixture() override;
  void TearDown() override;  // drops the hooks, which may refer to what lived in the test's body

 private:
  Lines descriptors_;
  std::map<std::string, uint64_t> blocks_;
};

// What the code prints on standard output while run runs.
std::string Printed(const std::function<void()>& run);

// A socket name.
SockAddrRec AddressOf(std::string_view host, std::string_view service, std::string_view protocol = "tcp",
                      std::string_view ip = "");
SockAddrRec AddressOf(std::string_view host, int port);
// "host ip service protocol port", with "-" for what is empty.
std::string Text(const SockAddrRec& address);

// Open descriptors as "number -> what"; live blocks of the companion by tag.
Lines OpenDescriptors();
std::map<std::string, uint64_t> LiveBlocks();
