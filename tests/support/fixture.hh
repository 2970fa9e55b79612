// fixture.hh - what every test of the library stands on: a fixture that notices what a test left behind, recorders for
// callbacks, and plain peers to talk to. A case reads: script the platform, act, compare whole lists.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/support/platform.hh"

using Lines = std::vector<std::string>;

// Records what the callbacks of socket records and nodes saw, in one list, in the order in which it happened:
//   "ReadSocket:Before"      a trace point, of a socket or a node
//   "onError 9004"           an error callback, with the error it found in the record
// An object that Name named is put in front: "child mnRead".
class Trace {
 public:
  static void Reset();
  static Lines Take();  // the list so far, which is empty afterwards

  // Callbacks to install. OnError returns error_result.
  static void OnSocket(const char* point, SockRec* rec);
  static void OnNode(const char* point, MQNode* node);
  static int OnError(SockRec* rec);
  static int error_result;

  static void Name(const void* object, std::string name);

  // Runs inside the callbacks, after the event was recorded.
  static std::function<void(std::string_view point, SockRec* rec)> on_socket;
  static std::function<void(std::string_view point, MQNode* node)> on_node;
  static std::function<void(SockRec* rec)> on_error;
};

// A plain socket of the test, owned: everything with it goes past the recorder. Blocking; a call that would block for
// more than ten seconds fails the test instead.
class Peer {
 public:
  Peer() = default;
  explicit Peer(int fd);
  Peer(Peer&& other) noexcept;
  Peer& operator=(Peer&& other) noexcept;
  ~Peer();

  static Peer Listen(int backlog = 5);  // on 127.0.0.1, a port that the kernel picked
  static Peer Connect(int port);        // to 127.0.0.1
  static Peer Datagram();               // bound to 127.0.0.1, a port that the kernel picked
  static Peer Adopt(int fd) { return Peer(fd); }

  Peer Accept() const;
  void Send(std::string_view bytes) const;
  void SendUrgent(char byte) const;
  void SendTo(int port, std::string_view bytes) const;
  std::string Read(size_t size) const;  // exactly size bytes; fewer when the other side closed
  std::string ReadToEnd() const;
  std::string ReadDatagram() const;
  void Shutdown() const;  // no more sending
  void Close();
  void Reset();  // close so that the other side sees ECONNRESET

  int fd() const { return fd_; }
  int port() const;  // its own
  int Release();     // the descriptor, no longer owned

 private:
  int fd_ = -1;
};

// A port of 127.0.0.1 on which nobody listens. It stays bound, so that nobody comes to listen there.
class ClosedPort {
 public:
  ClosedPort();
  int port() const { return peer_.port(); }

 private:
  Peer peer_;
};

// Base of all tests. Before a test: platform, traces and globals as at the start of a process, SIGPIPE ignored, log
// into a file of the test. After it, once the members of derived fixtures are gone: the same descriptors open as
// before, no memory of the companion in use that was not before ("ring" and "replay", which live as long as the
// process, aside).
class Fixture : public ::testing::Test {
 protected:
  Fixture();
  ~Fixture() override;

  // Drops the hooks of Trace: they mostly refer to what lived in the test's body. Call it when overriding.
  void TearDown() override;

 private:
  Lines descriptors_;
  std::map<std::string, uint64_t> blocks_;
};

// Lines of the log since the test began, without their times; of every process of the test.
Lines LogLines();

// What the code prints on standard output while run runs.
std::string Printed(const std::function<void()>& run);

// A socket name: AddressOf("127.0.0.1", port), AddressOf("*", 0).
SockAddrRec AddressOf(std::string_view host, int port);
SockAddrRec AddressOf(std::string_view host, std::string_view service, std::string_view protocol = "tcp",
                      std::string_view ip = "");
// "host ip service protocol port", with "-" for what is empty.
std::string Text(const SockAddrRec& address);

// Waits, at most ten seconds, until the descriptor is readable, has urgent data, is writable.
void AwaitReadable(int fd);
void AwaitUrgent(int fd);
void AwaitWritable(int fd);

// Open descriptors as "number -> what".
Lines OpenDescriptors();
// Live blocks of the companion by tag.
std::map<std::string, uint64_t> LiveBlocks();
