// socket_test.cc - socket records: their life, names and addresses, connections, transfers, options.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/support/fixture.hh"

namespace {

// 2022-11-22 12:34:56 in the local time zone, whatever that is.
time_t Noon() {
  tm local = {};
  local.tm_year = 122;
  local.tm_mon = 10;
  local.tm_mday = 22;
  local.tm_hour = 12;
  local.tm_min = 34;
  local.tm_sec = 56;
  local.tm_isdst = -1;
  return mktime(&local);
}

// What an operation left in a record: "result error/errorResult connected".
std::string State(int result, const SockRec& rec) {
  return std::to_string(result) + " " + std::to_string(rec.error) + "/" + std::to_string(rec.errorResult) + " " +
         std::to_string(rec.connected);
}

class SocketTest : public Fixture {
 protected:
  SocketTest() {
    G_socket_trace = Trace::OnSocket;
    Platform::SetNodeName("testnode");
    InitSocket(&rec_);
  }
  ~SocketTest() override { DeleteSocket(&rec_); }

  // A new socket in rec_ with both callbacks; the recorders are empty afterwards.
  void Create(int type = SOCK_TYPE_STREAM) {
    DeleteSocket(&rec_);
    CreateAnySocket(&rec_, AF_INET, type);
    Watch();
  }
  void Adopt(Peer peer, int type = SOCK_TYPE_STREAM) {
    DeleteSocket(&rec_);
    CreateSocketFromExisting(&rec_, peer.Release());
    rec_.type = static_cast<uint32_t>(type);
    Watch();
  }
  void Watch() {
    OnSocketError(&rec_, Trace::OnError);
    Trace::error_result = 5;
    Trace::Take();
    Platform::Forget();
  }

  SockRec rec_;
};

// ---- The life of a record ----

TEST_F(SocketTest, CreationResetsTheRecordAndTakesTheDefaultTrace) {
  const struct {
    const char* trace;
    int (*create)(SockRec* rec);
    uint32_t type;
  } rows[] = {
      {"CreateAnySocket", CreateSocket, 1},
      {"CreateAnySocket", CreateUDPSocket, 2},
      {"CreateAnySocket", [](SockRec* rec) { return CreateAnySocket(rec, 2, 2); }, 2},
      {"CreateSocketFromExisting",
       [](SockRec* rec) { return CreateSocketFromExisting(rec, socket(AF_INET, SOCK_STREAM, 0)); }, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.trace << ", type " << row.type);
    SockRec rec;
    memset(&rec, 0x5a, sizeof rec);
    ASSERT_EQ(row.create(&rec), 1);
    EXPECT_EQ(Trace::Take(), Lines{row.trace});
    const SockTraceFn trace = rec.onTrace;
    EXPECT_EQ(trace, Trace::OnSocket);
    OnGSocketTrace(nullptr);
    EXPECT_EQ(rec.onTrace, trace) << "a record keeps the trace it was created with";
    OnGSocketTrace(Trace::OnSocket);

    int type = 0;
    socklen_t length = sizeof type;
    ASSERT_EQ(getsockopt(rec.fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
    EXPECT_EQ(type, static_cast<int>(row.type));
    EXPECT_EQ(fcntl(rec.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(rec.fd, F_GETFD), row.create == rows[3].create ? 0 : FD_CLOEXEC);

    SockRec expected;
    memset(&expected, 0, sizeof expected);
    expected.fd = rec.fd;
    expected.domain = 2;
    expected.type = row.type;
    expected.onTrace = trace;
    strcpy(expected.from.protocol, "tcp");
    EXPECT_EQ(memcmp(&rec, &expected, sizeof rec), 0);
    DeleteSocket(&rec);
    Trace::Take();
  }
}

TEST_F(SocketTest, DeleteClosesOnceAndOnlyWhatItHolds) {
  Platform::SetTime(Noon());
  const int open = socket(AF_INET, SOCK_STREAM, 0);
  const struct {
    int fd;
    size_t closes;
    const char* printed;
    int fd_after;
  } rows[] = {
      {-1, 0, "", -1},
      {0, 0, "", 0},
      {open, 1, "", -1},
      {64999, 1, "12:34:56 SOCKSIN::DeleteSocket close(64999) failed RC(-1) errno(9)\n", -1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fd);
    SockRec rec;
    memset(&rec, 0x5a, sizeof rec);
    rec.fd = row.fd;
    rec.onError = Trace::OnError;
    rec.onTrace = Trace::OnSocket;
    SockRec expected = rec;
    expected.fd = row.fd_after;
    Platform::Forget();
    EXPECT_EQ(Printed([&] {
                EXPECT_EQ(DeleteSocket(&rec), 1);
                EXPECT_EQ(DeleteSocket(&rec), 1);
              }),
              row.printed);
    EXPECT_EQ(Platform::Calls({"close"}).size(), row.closes);
    EXPECT_EQ(memcmp(&rec, &expected, sizeof rec), 0);
    EXPECT_EQ(Trace::Take(), (Lines{"DeleteSocket", "DeleteSocket"}));
  }
  Platform::SetTime(kNoDate);
  SockRec rec;
  CreateSocketFromExisting(&rec, 64999);
  EXPECT_EQ(Printed([&] { DeleteSocket(&rec); }),
            "??:??:?? SOCKSIN::DeleteSocket close(64999) failed RC(-1) errno(9)\n");
}

TEST_F(SocketTest, BlockingModeChangesNoOtherFlag) {
  Create();
  ASSERT_EQ(fcntl(rec_.fd, F_SETFL, O_RDWR | O_APPEND), 0);
  const int plain = fcntl(rec_.fd, F_GETFL);
  ASSERT_NE(plain & O_APPEND, 0);
  const struct {
    int (*change)(SockRec* rec);
    int flags;
    const char* trace;
  } rows[] = {
      {NoblockSocket, plain | O_NONBLOCK, "NoblockSocket"},
      {NoblockSocket, plain | O_NONBLOCK, "NoblockSocket"},
      {BlockSocket, plain, "BlockSocket"},
      {BlockSocket, plain, "BlockSocket"},
  };
  for (const auto& row : rows) {
    rec_.error = 77;
    EXPECT_EQ(State(row.change(&rec_), rec_), "1 0/0 0");
    EXPECT_EQ(fcntl(rec_.fd, F_GETFL), row.flags);
    EXPECT_EQ(Trace::Take(), Lines{row.trace});
  }
  for (const auto& row : rows) {
    Platform::Fail("fcntl", 2, EPERM);
    EXPECT_EQ(State(row.change(&rec_), rec_), "0 1/5 0");
    EXPECT_EQ(fcntl(rec_.fd, F_GETFL), plain);
    EXPECT_EQ(Trace::Take(), (Lines{"onError 1", row.trace}));
  }
}

TEST_F(SocketTest, ErrorResultIsTheCallbacksOrZero) {
  Create();
  const int fd = rec_.fd;
  rec_.fd = -1;
  EXPECT_EQ(State(ListenSocket(&rec_, 1), rec_), "0 9/5 0");
  OnSocketError(&rec_, nullptr);
  EXPECT_EQ(State(ListenSocket(&rec_, 1), rec_), "0 9/0 0");
  OnSocketTrace(&rec_, nullptr);
  Trace::Take();
  EXPECT_EQ(State(ListenSocket(&rec_, 1), rec_), "0 9/0 0");
  EXPECT_EQ(Trace::Take(), Lines{});
  rec_.fd = fd;
}

TEST_F(SocketTest, NamesAreCopiedWhole) {
  memset(&rec_.name, 0x41, sizeof rec_.name);
  memset(&rec_.from, 0x42, sizeof rec_.from);
  SockAddrRec out;
  EXPECT_EQ(GetSocketName(&rec_, &out), 1);
  EXPECT_EQ(memcmp(&out, &rec_.name, sizeof out), 0);
  EXPECT_EQ(GetFromAddr(&rec_, &out), 1);
  EXPECT_EQ(memcmp(&out, &rec_.from, sizeof out), 0);

  SockAddrRec address = AddressOf("h", "s", "p", "1.2.3.4");
  address.port = 7;
  EXPECT_EQ(GetHostIP(&address), 1);
  EXPECT_EQ(Text(address), "h 0.0.0.0 s p 7");
}

// ---- Names and addresses ----

std::string Text(const sockaddr_in& address) {
  char quad[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &address.sin_addr, quad, sizeof quad);
  return std::to_string(address.sin_family) + " " + quad + ":" + std::to_string(ntohs(address.sin_port));
}

TEST_F(SocketTest, AddrToIPDecidesInAFixedOrder) {
  Platform::AddHost("box.example", {"10.9.8.7", "10.9.8.8"});
  Platform::AddHost("9box", {"10.9.8.9"});
  Platform::AddHost("bare", {});
  Platform::AddService("echo", "tcp", 7);
  constexpr int kKept = 77;  // what error holds when it is left alone
  const struct {
    const char *host, *ip, *service;
    int pending;  // errno before the call
    int result, error;
    uint32_t port;
    const char* address;
    Lines calls;
  } rows[] = {
      // the any-address, whatever ip holds
      {"*", "", "8080", 0, 1, kKept, 8080, "2 0.0.0.0:8080", {}},
      {"*", "10.1.2.3", "8080", 0, 1, kKept, 8080, "2 0.0.0.0:8080", {}},
      {"**", "", "1", 0, 0, 9003, 1, "0 0.0.0.0:1", {"gethostbyname(**) = 0"}},
      // the local host
      {"@", "", "1", 0, 1, kKept, 1, "2 127.0.0.1:1", {"gethostbyname(localhost) = 1"}},
      {"@", "10.0.0.1", "1", 0, 1, kKept, 1, "2 10.0.0.1:1", {}},
      // a valid dotted quad in ip wins
      {"box.example", "192.168.1.7", "1", 0, 1, kKept, 1, "2 192.168.1.7:1", {}},
      {"box.example", "0.0.0.0", "1", 0, 1, kKept, 1, "2 255.255.255.255:1", {}},
      {"box.example", "300.1.1.1", "1", 0, 1, kKept, 1, "2 10.9.8.7:1", {"gethostbyname(box.example) = 1"}},
      {"box.example", "010.001.002.003", "1", 0, 1, kKept, 1, "2 8.1.2.3:1", {}},
      // numeric names are never looked up
      {"192.168.1.7", "", "1", 0, 1, kKept, 1, "2 192.168.1.7:1", {}},
      {"10.1", "", "1", 0, 1, kKept, 1, "2 10.0.0.1:1", {}},
      {"0.0.0.0", "", "1", 0, 1, kKept, 1, "2 255.255.255.255:1", {}},
      {"255.255.255.255", "10.1", "1", 0, 0, 9003, 1, nullptr, {}},
      {"9box", "10.1", "1", 0, 0, 9003, 1, nullptr, {}},
      {"9box", "", "1", ETIMEDOUT, 0, ETIMEDOUT, 1, nullptr, {}},
      // looked up; then the ip field in a short form
      {"box.example", "", "1", 0, 1, kKept, 1, "2 10.9.8.7:1", {"gethostbyname(box.example) = 1"}},
      {"nobody", "10.1", "1", 0, 1, kKept, 1, "2 10.0.0.1:1", {"gethostbyname(nobody) = 0"}},
      {"bare", "10.1", "1", 0, 1, kKept, 1, "2 10.0.0.1:1", {"gethostbyname(bare) = 1"}},
      {"nobody", "1.2.3.4.5", "1", 0, 0, 9003, 1, nullptr, {"gethostbyname(nobody) = 0"}},
      {"nobody", "x", "1", 0, 0, 9003, 1, nullptr, {"gethostbyname(nobody) = 0"}},
      {"nobody", "", "1", EAGAIN, 0, EAGAIN, 1, nullptr, {"gethostbyname(nobody) = 0"}},
      {"", "", "1", 0, 0, 9003, 1, nullptr, {"gethostbyname() = 0"}},
      // services
      {"*", "", "echo", 0, 1, kKept, 7, "2 0.0.0.0:7", {"getservbyname(echo, tcp) = 1"}},
      {"*", "", "80x", 0, 1, kKept, 80, "2 0.0.0.0:80", {}},
      {"*", "", "70000", 0, 1, kKept, 70000, "2 0.0.0.0:4464", {}},
      {"*", "", "", 0, 0, 9002, 99, "0 0.0.0.0:0", {"getservbyname(, tcp) = 0"}},
      {"*", "", "-1", 0, 0, 9002, 99, "0 0.0.0.0:0", {"getservbyname(-1, tcp) = 0"}},
      {"*", "", "nothing", EINTR, 0, EINTR, 99, "0 0.0.0.0:0", {"getservbyname(nothing, tcp) = 0"}},
  };
  Create();
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.host << " | " << row.ip << " | " << row.service);
    SockAddrRec name = AddressOf(row.host, row.service, "tcp", row.ip);
    name.port = 99;
    SockAddrRec expected = name;
    expected.port = row.port;
    sockaddr_in out;
    memset(&out, 0x5a, sizeof out);
    rec_.error = kKept;
    Platform::Forget();
    errno = row.pending;
    EXPECT_EQ(AddrToIP(&rec_, &name, &out), row.result);
    EXPECT_EQ(rec_.error, row.error);
    EXPECT_EQ(memcmp(&name, &expected, sizeof name), 0);
    if (row.address != nullptr) {
      EXPECT_EQ(Text(out), row.address);
    }
    const char zeros[sizeof out.sin_zero] = {};
    EXPECT_EQ(memcmp(out.sin_zero, zeros, sizeof zeros), 0);
    EXPECT_EQ(Platform::Calls(), row.calls);
    EXPECT_EQ(Trace::Take(), (Lines{"AddrToIP:Before", "AddrToIP:After"}));
  }
}

TEST_F(SocketTest, AddrToIPReadsNoFieldPastItsEnd) {
  Create();
  SockAddrRec name;
  memset(&name, 'h', sizeof name);
  sockaddr_in out;
  errno = 0;
  EXPECT_EQ(AddrToIP(&rec_, &name, &out), 0);
  EXPECT_EQ(Platform::Calls(), Lines{"getservbyname(" + std::string(33, 'h') + ", " + std::string(47, 'h') + ") = 0"});
  memset(name.service, '0', sizeof name.service);
  memset(name.protocol, '9', sizeof name.protocol);
  Platform::Forget();
  EXPECT_EQ(AddrToIP(&rec_, &name, &out), 0);
  EXPECT_EQ(name.port, 0u);
  EXPECT_EQ(Platform::Calls(), Lines{"gethostbyname(" + std::string(255, 'h') + ") = 0"});
}

TEST_F(SocketTest, IsValidIp) {
  for (const char* text : {"1.2.3.4", "255.255.255.255", "001.002.003.004", "0.0.0.0", "010.1.1.1"}) {
    EXPECT_EQ(IsValidIp(text), 1) << text;
  }
  for (const char* text :
       {"1.2.3", "1.2.3.4.5", "256.1.1.1", "1.1.1.256", "1234.1.1.1", "0001.1.1.1", "", ".", "1..2.3", ".1.2.3.4",
        "1.2.3.4.", "1.2.3.4 ", " 1.2.3.4", "+1.2.3.4", "-1.2.3.4", "1,2,3,4", "a.b.c.d", "1.2.3.", "1.2.3.4x"}) {
    EXPECT_EQ(IsValidIp(text), 0) << text;
  }
}

TEST_F(SocketTest, AddressesBecomeText) {
  sockaddr_in in = {};
  in.sin_family = AF_INET;
  in.sin_port = htons(513);
  in.sin_addr.s_addr = inet_addr("10.0.0.5");
  SockAddrRec name = AddressOf("host", "s", "proto", "1.1.1.1");
  EXPECT_EQ(IpAddrToSocketAddr(&name, &in, nullptr), 1);
  EXPECT_EQ(Text(name), "host 10.0.0.5 513 proto 513");
  in.sin_port = htons(65535);
  IpAddrToSocketAddr(&name, &in, "udp");
  EXPECT_EQ(Text(name), "host 10.0.0.5 65535 proto 65535");
}

TEST_F(SocketTest, TextBecomesAddresses) {
  const struct {
    const char* text;
    int result;
    uint32_t address;  // host order
    uint64_t number;   // of MapStrIpToAddr
  } rows[] = {
      {"1.2.3.4", 1, 0x01020304, 16909060},    {"10.1", 1, 0x0a000001, 0x0a000001},
      {"0.0.0.0", 1, 0xffffffff, 0},           {"255.255.255.255", 0, 0xffffffff, 0xffffffff},
      {"nonsense", 0, 0xffffffff, 0xffffffff},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    sockaddr_in out;
    memset(&out, 0x5a, sizeof out);
    sockaddr_in expected = out;
    expected.sin_addr.s_addr = htonl(row.address);
    EXPECT_EQ(MapHostIPToAddr(row.text, &out), row.result);
    EXPECT_EQ(memcmp(&out, &expected, sizeof out), 0);
    uint64_t number = ~uint64_t{0};
    EXPECT_EQ(MapStrIpToAddr(row.text, &number), 1);
    EXPECT_EQ(number, row.number);
  }
}

TEST_F(SocketTest, MappingsAskTheResolverAndKeepWithinTheirBuffers) {
  const std::string long_host(300, 'h');
  const std::string long_service(40, 's');
  Platform::AddHost("box.example", {"10.9.8.7", "10.9.8.8"});
  Platform::AddHost(long_host, {"255.255.255.254"});
  Platform::AddHost("bare", {});
  Platform::AddService("echo", "udp", 7);
  Platform::AddService(long_service, "tcp", 9);
  sockaddr_in in = {};
  in.sin_family = AF_INET;
  const auto host = [&](const char* quad) {
    return [&in, quad](char* out) { return in.sin_addr.s_addr = inet_addr(quad), MapHostAddrToName(out, &in); };
  };
  const auto service = [&](uint16_t port, const char* protocol) {
    return
        [&in, port, protocol](char* out) { return in.sin_port = htons(port), MapServPortToName(out, &in, protocol); };
  };
  const auto resolve = [](const char* name) { return [name](char* out) { return ResolveHostName(name, out); }; };
  const struct {
    std::function<int(char*)> map;
    size_t size;  // of the buffer that the header promises
    int result;
    std::string text;  // "????" when the buffer is untouched
    const char* call;
  } rows[] = {
      {host("10.9.8.7"), 256, 1, "box.example", "gethostbyaddr(10.9.8.7, 4, 2) = 1"},
      {host("255.255.255.254"), 256, 1, long_host.substr(0, 255), "gethostbyaddr(255.255.255.254, 4, 2) = 1"},
      {host("10.9.8.1"), 256, 0, "unknown host", "gethostbyaddr(10.9.8.1, 4, 2) = 0"},
      {service(7, "udp"), 33, 1, "echo", "getservbyport(7, udp) = 1"},
      {service(7, "tcp"), 33, 0, "unknown service", "getservbyport(7, tcp) = 0"},
      {service(9, "tcp"), 33, 1, long_service.substr(0, 32), "getservbyport(9, tcp) = 1"},
      {resolve("box.example"), 16, 1, "10.9.8.7", "gethostbyname(box.example) = 1"},
      {resolve("nobody"), 16, 0, "????", "gethostbyname(nobody) = 0"},
      {resolve("bare"), 16, 0, "????", "gethostbyname(bare) = 1"},
  };
  for (const auto& row : rows) {
    Platform::Forget();
    char out[400] = "????";
    memset(out + row.size, '!', 10);
    EXPECT_EQ(row.map(out), row.result) << row.call;
    EXPECT_EQ(out, row.text);
    EXPECT_EQ(std::string(out + row.size, 10), "!!!!!!!!!!") << row.call << ": written past the end";
    EXPECT_EQ(Platform::Calls(), Lines{row.call});
  }
  char quad[17] = "0123456789012345";
  in.sin_addr.s_addr = inet_addr("255.255.255.254");
  EXPECT_EQ(MapHostAddrToIP(quad, &in), 1);
  EXPECT_STREQ(quad, "255.255.255.254");
}

// ---- Connections ----

const Lines kConnectTrace = {"ConnectSocket:Before", "AddrToIP:Before", "AddrToIP:After", "ConnectSocket:After"};
const Lines kBindTrace = {"BindSocket:Before", "AddrToIP:Before", "AddrToIP:After", "BindSocket:After"};

// The trace of a failed operation: the report stands before the last point.
Lines Failed(Lines trace, int error) {
  trace.insert(trace.end() - 1, "onError " + std::to_string(error));
  return trace;
}

std::string Names(const SockRec& rec) { return Text(rec.name) + " | " + Text(rec.from); }

TEST_F(SocketTest, ConnectKeepsTheTargetAsNameAndFrom) {
  const Peer listener = Peer::Listen();
  const std::string port = std::to_string(listener.port());
  Create();
  SockAddrRec target = AddressOf("@", listener.port());
  EXPECT_EQ(State(ConnectSocket(&rec_, &target), rec_), "1 0/0 1");
  const std::string asked = "@ - " + port + " tcp " + port;
  const std::string resolved = "@ 127.0.0.1 " + port + " tcp " + port;
  EXPECT_EQ(Text(target), asked);
  EXPECT_EQ(Names(rec_), asked + " | " + resolved);
  EXPECT_EQ(Trace::Take(), kConnectTrace);
  EXPECT_EQ(Platform::Calls(),
            (Lines{"gethostbyname(localhost) = 1", "uname() = 0", "connect(127.0.0.1:" + port + ") = 0"}));

  // Once more: already connected counts as connected, and from is refreshed.
  target = AddressOf("127.0.0.1", listener.port());
  rec_.connected = 0;
  memset(&rec_.from, 0, sizeof rec_.from);
  EXPECT_EQ(State(ConnectSocket(&rec_, &target), rec_), "1 0/0 1");
  EXPECT_EQ(Text(rec_.from), "127.0.0.1 127.0.0.1 " + port + " tcp " + port);
  EXPECT_EQ(Platform::Calls({"connect"}).back(), "connect(127.0.0.1:" + port + ") = -1 EISCONN");
  EXPECT_EQ(Trace::Take(), kConnectTrace);
}

TEST_F(SocketTest, ConnectFailures) {
  constexpr int kReal = -1;  // nothing listens
  const ClosedPort closed;
  const std::string port = std::to_string(closed.port());
  const std::string target_text = "127.0.0.1 - " + port + " tcp " + port;
  const struct {
    int inject;
    const char* state;
    int reported;
  } rows[] = {{kReal, "0 111/5 0", 111},
              {EINPROGRESS, "0 11/5 0", 11},
              {EINTR, "0 4/5 0", 4},
              {EAGAIN, "0 11/5 0", 11},
              {0, "0 0/5 0", 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.inject);
    Create();
    rec_.connected = 1;
    errno = 0;
    if (row.inject != kReal) Platform::Fail("connect", 1, row.inject);
    SockAddrRec target = AddressOf("127.0.0.1", closed.port());
    EXPECT_EQ(State(ConnectSocket(&rec_, &target), rec_), row.state);
    EXPECT_EQ(Text(target), target_text);
    EXPECT_EQ(Names(rec_), target_text + " | " + target_text) << "from is not refreshed";
    EXPECT_EQ(Trace::Take(), Failed(kConnectTrace, row.reported));
  }
}

TEST_F(SocketTest, BindTakesTheNodeNameAndTheAddressAskedFor) {
  Create();
  SockAddrRec any = AddressOf("*", "0", "proto");
  EXPECT_EQ(State(BindSocketName(&rec_, &any), rec_), "1 0/0 1");
  EXPECT_EQ(Text(any), "testnode 0.0.0.0 0 proto 0");
  EXPECT_EQ(Names(rec_), "testnode 0.0.0.0 0 proto 0 | - - - tcp 0");
  EXPECT_EQ(Trace::Take(), kBindTrace);
  EXPECT_EQ(Platform::Calls(), (Lines{"uname() = 0", "bind(0.0.0.0:0) = 0"}));
}

TEST_F(SocketTest, BindFailureLeavesTheNodeNameBehind) {
  const Peer taken = Peer::Listen();
  Create();
  rec_.connected = 1;
  SockAddrRec name = AddressOf("127.0.0.1", std::to_string(taken.port()), "proto");
  EXPECT_EQ(State(BindSocketName(&rec_, &name), rec_), "0 98/5 0");
  EXPECT_EQ(Text(name), "testnode - - proto 0") << "the caller's record becomes the socket name";
  EXPECT_EQ(Names(rec_), "testnode - - proto 0 | - - - tcp 0");
  EXPECT_EQ(Trace::Take(), Failed(kBindTrace, 98));
  Platform::Fail("bind", 1, EINPROGRESS);
  name = AddressOf("127.0.0.1", "1", "proto");
  EXPECT_EQ(State(BindSocketName(&rec_, &name), rec_), "0 11/5 0");
  Platform::Fail("bind", 1, EISCONN);
  name = AddressOf("127.0.0.1", "1", "proto");
  EXPECT_EQ(State(BindSocketName(&rec_, &name), rec_), "1 106/5 1") << "already connected never fails";
}

TEST_F(SocketTest, UnresolvedNamesChangeNothingElse) {
  const struct {
    int (*act)(SockRec* rec, SockAddrRec* name);
    const Lines& trace;
  } acts[] = {{ConnectSocket, kConnectTrace}, {BindSocketName, kBindTrace}};
  const struct {
    const char *host, *service;
    int error;
    const char* name_after;
  } rows[] = {{"127.0.0.1", "nothing", 9002, "127.0.0.1 - nothing tcp 0"}, {"nobody", "7", 9003, "nobody - 7 tcp 7"}};
  for (const auto& act : acts) {
    for (const auto& row : rows) {
      SCOPED_TRACE(testing::Message() << act.trace[0] << " " << row.host << " " << row.service);
      Create();
      rec_.connected = 1;
      SockAddrRec name = AddressOf(row.host, row.service);
      errno = 0;
      EXPECT_EQ(State(act.act(&rec_, &name), rec_), "0 " + std::to_string(row.error) + "/5 0");
      EXPECT_EQ(Text(name), row.name_after);
      EXPECT_EQ(Names(rec_), "- - - - 0 | - - - tcp 0");
      EXPECT_EQ(Trace::Take(), Failed(act.trace, row.error));
      EXPECT_EQ(Platform::Calls({"connect", "bind", "uname"}), Lines{});
    }
  }
}

TEST_F(SocketTest, SockActionCutsTheCallersTextsAndKnowsOtherActions) {
  Create();
  SockAddrRec name = AddressOf("", "5", "proto");
  memset(name.host, 'h', sizeof name.host);
  memset(name.ip, 'i', sizeof name.ip);
  errno = 0;
  EXPECT_EQ(State(SockAction(&rec_, &name, SOCK_ACTION_BIND), rec_), "0 9003/0 0");
  EXPECT_EQ(Text(name), std::string(255, 'h') + " " + std::string(39, 'i') + " 5 proto 5");

  name = AddressOf("*", "5", "proto");
  rec_.error = 77;
  Platform::Forget();
  Trace::Take();
  EXPECT_EQ(State(SockAction(&rec_, &name, 2), rec_), "1 0/0 0");
  EXPECT_EQ(Text(name), "testnode - - proto 0");
  EXPECT_EQ(Text(rec_.name), Text(name));
  EXPECT_EQ(Platform::Calls(), Lines{"uname() = 0"});
  EXPECT_EQ(Trace::Take(), (Lines{"AddrToIP:Before", "AddrToIP:After"})) << "the callers report";

  Platform::Fail("uname", 1, EFAULT);
  name = AddressOf("*", "5", "proto");
  EXPECT_EQ(SockAction(&rec_, &name, 2), 1);
  EXPECT_EQ(Text(name), "- - - proto 0") << "no node name";
}

TEST_F(SocketTest, ListenAndAccept) {
  Create();
  SockAddrRec any = AddressOf("127.0.0.1", 0);
  ASSERT_EQ(BindSocketName(&rec_, &any), 1);
  Watch();
  rec_.error = 77;
  EXPECT_EQ(State(ListenSocket(&rec_, 3), rec_), "1 77/0 1") << "error is left alone";
  EXPECT_EQ(Trace::Take(), Lines{"ListenSocket"});
  EXPECT_EQ(Platform::Calls(), Lines{"listen(3) = 0"});

  sockaddr_in bound;
  socklen_t length = sizeof bound;
  getsockname(rec_.fd, reinterpret_cast<sockaddr*>(&bound), &length);
  const Peer client = Peer::Connect(ntohs(bound.sin_port));
  rec_.protocol = 6;
  SockRec child;
  memset(&child, 0x5a, sizeof child);
  Trace::Name(&child, "child");
  EXPECT_EQ(State(AcceptClient(&rec_, &child), rec_), "1 77/0 1");
  EXPECT_EQ(Trace::Take(), (Lines{"AcceptClient:Before", "AcceptClient:After"}));
  SockRec expected;
  InitSocket(&expected);
  expected.fd = child.fd;
  expected.domain = 2;
  expected.type = 1;
  expected.protocol = 6;
  expected.connected = 1;
  EXPECT_EQ(fcntl(child.fd, F_GETFD), FD_CLOEXEC);
  expected.name = AddressOf("", std::to_string(client.port()), "", "127.0.0.1");
  expected.name.port = static_cast<uint32_t>(client.port());
  EXPECT_EQ(memcmp(&child, &expected, sizeof child), 0);
  client.Send("hi");
  EXPECT_EQ(Peer::Adopt(child.fd).Read(2), "hi");
}

TEST_F(SocketTest, ListenAndAcceptFailures) {
  Create();
  Platform::Fail("listen", 1, EADDRINUSE);
  EXPECT_EQ(State(ListenSocket(&rec_, 3), rec_), "0 98/5 0");
  EXPECT_EQ(Trace::Take(), (Lines{"onError 98", "ListenSocket"}));

  SockAddrRec any = AddressOf("127.0.0.1", 0);
  ASSERT_TRUE(BindSocketName(&rec_, &any) && ListenSocket(&rec_, 1) && NoblockSocket(&rec_));
  SockRec child;
  memset(&child, 0x5a, sizeof child);
  const SockRec untouched = child;
  for (const int code : {0, EMFILE, ECONNABORTED, EINPROGRESS}) {
    SCOPED_TRACE(code);
    Watch();
    if (code != 0) Platform::Fail("accept", 1, code);
    const int error = code != 0 ? code : EAGAIN;
    EXPECT_EQ(State(AcceptClient(&rec_, &child), rec_), "0 " + std::to_string(error) + "/5 1");
    EXPECT_EQ(memcmp(&child, &untouched, sizeof child), 0);
    EXPECT_EQ(Trace::Take(), (Lines{"AcceptClient:Before", "onError " + std::to_string(error), "AcceptClient:After"}));
  }
}

// ---- Transfers ----

// A buffer over bytes of the test.
struct Bytes {
  explicit Bytes(size_t size) : bytes(size, '?') { Arm(); }
  explicit Bytes(std::string_view text) : bytes(text) { Arm(); }
  void Arm() {
    buffer = {};
    buffer.data = reinterpret_cast<uint8_t*>(bytes.data());
    buffer.length = buffer.capacity = static_cast<uint32_t>(bytes.size());
  }
  std::string bytes;
  IoBuffer buffer;
};

// "result error/errorResult connected received sent".
std::string State(int result, const SockRec& rec, const Bytes& bytes) {
  return State(result, rec) + " " + std::to_string(bytes.buffer.received) + " " + std::to_string(bytes.buffer.sent);
}

const Lines kReadTrace = {"ReadSocket:Before", "ReadSocket:After"};
const Lines kWriteTrace = {"WriteSocket:Before", "WriteSocket:After"};

class TransferTest : public SocketTest {
 protected:
  void Connect() {
    const Peer listener = Peer::Listen();
    Adopt(Peer::Connect(listener.port()));
    peer_ = listener.Accept();
  }
  void Bind() {
    Adopt(Peer::Datagram(), SOCK_TYPE_DATAGRAM);
    sockaddr_in bound;
    socklen_t length = sizeof bound;
    getsockname(rec_.fd, reinterpret_cast<sockaddr*>(&bound), &length);
    port_ = ntohs(bound.sin_port);
    peer_ = Peer::Datagram();
  }

  Peer peer_;
  int port_ = 0;
};

TEST_F(TransferTest, AReadGoesOnWhereTheLastOneStopped) {
  Connect();
  const std::string message = std::string(100, 'a') + std::string(36, 'b') + "next";
  peer_.Send(message);
  AwaitReadable(rec_.fd);
  Platform::Limit("recvfrom", {100});
  Bytes in(140);
  in.buffer.length = 136;
  rec_.error = 77;
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "1 0/0 0 100 0");
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "1 0/0 0 136 0");
  EXPECT_EQ(in.bytes, message.substr(0, 136) + "????");
  EXPECT_EQ(rec_.bytesReceived, 136u);
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "0 9004/5 0 136 0") << "nothing left to ask for";
  EXPECT_EQ(Platform::Calls(), (Lines{"recvfrom(136) = 100", "recvfrom(36) = 36", "recvfrom(0) = 0"}));
  EXPECT_EQ(rec_.bytesReceived, 136u);
  EXPECT_EQ(Text(rec_.from), "- - - tcp 0") << "a stream has no sender to note";
}

TEST_F(TransferTest, FailuresMoveAndCountNothing) {
  Connect();
  NoblockSocket(&rec_);
  Watch();
  for (const bool reading : {true, false}) {
    for (const auto& [code, kept] :
         {std::pair{EAGAIN, 11}, {EINPROGRESS, 11}, {EINTR, EINTR}, {ECONNRESET, ECONNRESET}}) {
      SCOPED_TRACE(testing::Message() << (reading ? "read " : "write ") << code);
      const bool real = reading && code == EAGAIN;
      if (!real) Platform::Fail(reading ? "recvfrom" : "send", 1, code);
      Bytes data("0123456789");
      data.buffer.received = data.buffer.sent = 3;
      const int result = reading ? ReadSocket(&rec_, &data.buffer) : WriteSocket(&rec_, &data.buffer, nullptr);
      EXPECT_EQ(State(result, rec_, data), "0 " + std::to_string(kept) + "/5 0 3 3");
      EXPECT_EQ(Trace::Take(), Failed(reading ? kReadTrace : kWriteTrace, code));
      EXPECT_EQ(data.bytes, "0123456789");
    }
  }
  EXPECT_EQ(rec_.bytesReceived + rec_.bytesSent, 0u);
}

TEST_F(TransferTest, PeekedBytesCountAndStay) {
  Connect();
  peer_.Send("hello");
  Bytes in(5);
  in.buffer.flags = MSG_PEEK;
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "1 0/0 0 5 0");
  in.Arm();
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "1 0/0 0 5 0");
  EXPECT_EQ(rec_.bytesReceived, 10u);
  EXPECT_EQ(Platform::Calls(), (Lines{"recvfrom(5, flags 2) = 5", "recvfrom(5) = 5"}));
}

TEST_F(TransferTest, AWriteGoesOnWhereTheLastOneStopped) {
  Connect();
  Bytes out("0123456789");
  out.buffer.length = 9;
  Platform::Limit("send", {4, 0});
  rec_.error = 77;
  EXPECT_EQ(State(WriteSocket(&rec_, &out.buffer, nullptr), rec_, out), "1 0/0 0 0 4");
  EXPECT_EQ(State(WriteSocket(&rec_, &out.buffer, nullptr), rec_, out), "1 0/0 0 0 4");
  EXPECT_EQ(State(WriteSocket(&rec_, &out.buffer, nullptr), rec_, out), "1 0/0 0 0 9");
  EXPECT_EQ(State(WriteSocket(&rec_, &out.buffer, nullptr), rec_, out), "1 0/0 0 0 9") << "nothing left is fine";
  EXPECT_EQ(rec_.bytesSent, 9u);
  EXPECT_EQ(Platform::Calls(), (Lines{"send(9) = 4", "send(5) = 0", "send(5) = 5", "send(0) = 0"}));
  EXPECT_EQ(peer_.Read(9), "012345678");
  EXPECT_EQ(Trace::Take().size(), 8u);
}

TEST_F(TransferTest, CallbacksSeeTheBufferAndTheErrorAsItIsThen) {
  Connect();
  Lines seen;
  const Bytes* bytes = nullptr;
  const auto note = [&](SockRec* rec) {
    seen.push_back(std::to_string(rec->error) + (rec->buffer == &bytes->buffer ? " with buffer" : " without"));
  };
  Trace::on_socket = [&](std::string_view, SockRec* rec) { note(rec); };
  Trace::on_error = note;
  for (const char* call : {"recvfrom", "send"}) {
    SCOPED_TRACE(call);
    Bytes data("data");
    bytes = &data;
    seen.clear();
    rec_.error = 77;
    Platform::Fail(call, 1, EINPROGRESS);
    if (call[0] == 'r') {
      ReadSocket(&rec_, &data.buffer);
    } else {
      WriteSocket(&rec_, &data.buffer, nullptr);
    }
    EXPECT_EQ(seen, (Lines{"77 with buffer", "115 with buffer", "11 with buffer"}));
    EXPECT_EQ(rec_.buffer, nullptr);
  }
}

TEST_F(TransferTest, DatagramsNoteTheirSender) {
  Bind();
  peer_.SendTo(port_, "hello");
  Bytes in(100);
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "1 0/0 0 5 0");
  const std::string sender = std::to_string(peer_.port());
  EXPECT_EQ(Text(rec_.from), "- 127.0.0.1 " + sender + " tcp " + sender);
  EXPECT_EQ(Text(rec_.name), "- - - - 0");
  EXPECT_EQ(Trace::Take(), kReadTrace);

  peer_.SendTo(port_, "");
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "0 9004/5 0 5 0") << "an empty datagram";

  // The type counts when something has arrived.
  rec_.from = {};
  rec_.type = SOCK_TYPE_STREAM;
  Trace::on_socket = [&](std::string_view, SockRec* rec) { rec->type = SOCK_TYPE_DATAGRAM; };
  peer_.SendTo(port_, "again");
  EXPECT_EQ(ReadSocket(&rec_, &in.buffer), 1);
  EXPECT_EQ(Text(rec_.from), "- 127.0.0.1 " + sender + " - " + sender);
  Trace::on_socket = nullptr;
  Trace::Take();

  rec_.type = 3;
  rec_.from = {};
  peer_.SendTo(port_, "other");
  EXPECT_EQ(State(ReadSocket(&rec_, &in.buffer), rec_, in), "1 0/5 0 15 0");
  EXPECT_EQ(Text(rec_.from), "- - - - 0") << "no type that notes senders";
}

TEST_F(TransferTest, DatagramsResolveTheirDestinationEachTime) {
  Bind();
  Platform::AddHost("box.example", {"127.0.0.1"});
  const std::string port = std::to_string(peer_.port());
  SockAddrRec to = AddressOf("box.example", peer_.port());
  for (const uint32_t type : {2u, 3u}) {
    rec_.type = type;
    Bytes out("0123456789");
    out.buffer.sent = 4;
    to.port = 0;
    Watch();
    EXPECT_EQ(State(WriteSocket(&rec_, &out.buffer, &to), rec_, out), "1 0/0 0 0 10");
    EXPECT_EQ(Text(to), "box.example - " + port + " tcp " + port);
    EXPECT_EQ(peer_.ReadDatagram(), "456789");
    EXPECT_EQ(Platform::Calls(), (Lines{"gethostbyname(box.example) = 1", "sendto(6, 127.0.0.1:" + port + ") = 6"}));
    EXPECT_EQ(Trace::Take(), (Lines{"WriteSocket:Before", "AddrToIP:Before", "AddrToIP:After", "WriteSocket:After"}));
  }
}

TEST_F(TransferTest, DatagramsWithoutADestination) {
  Bind();
  SockAddrRec nobody = AddressOf("nobody", 7);
  const struct {
    SockAddrRec* to;
    Lines trace;
  } rows[] = {{&nobody, {"WriteSocket:Before", "AddrToIP:Before", "AddrToIP:After", "onError 89", "WriteSocket:After"}},
              {nullptr, {"WriteSocket:Before", "onError 89", "WriteSocket:After"}}};
  for (const auto& row : rows) {
    Bytes out("0123456789");
    EXPECT_EQ(State(WriteSocket(&rec_, &out.buffer, row.to), rec_, out), "0 89/5 0 0 0");
    EXPECT_EQ(Trace::Take(), row.trace);
  }
  EXPECT_EQ(Platform::Calls({"sendto"}), Lines{});
}

// ---- Options ----

TEST_F(SocketTest, OptionsAreSetFromTheRightValue) {
  const struct {
    SockOption option;
    const char* call;
  } rows[] = {
      {{1, 1, 0}, "setsockopt(1:2, 0) = 0"},
      {{2, 0, 1}, "setsockopt(1:9, 1) = 0"},
      {{3, 0, 9}, "setsockopt(1:5, 9) = 0"},
      {{4, 0, 1}, "setsockopt(1:13, 1, 0) = 0"},
      {{4, 30, 0}, "setsockopt(1:13, 0, 30) = 0"},
      {{5, 0, 1}, "setsockopt(1:6, 1) = 0"},
      {{6, 0, 1}, "setsockopt(1:10, 1) = 0"},
      {{7, 65536, 3}, "setsockopt(1:7, 65536) = 0"},
      {{8, 32768, 3}, "setsockopt(1:8, 32768) = 0"},
      {{12, 0, 5}, "setsockopt(1:12, 5) = 0"},
      {{0, 1, 0}, "setsockopt(1:1, 0) = 0"},
      {{11, 1, 0}, "setsockopt(1:11, 0) = 0"},
      {{1 << 30, 1, 2}, "setsockopt(1:1073741824, 2) = -1 ENOPROTOOPT"},
      {{9, 1, 2}, "setsockopt(1:3, 2) = -1 ENOPROTOOPT"},
      {{10, 1, 2}, "setsockopt(1:4, 2) = -1 ENOPROTOOPT"},
      {{-3, 1, 2}, "setsockopt(1:-1, 2) = -1 ENOPROTOOPT"},
  };
  Create();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.call);
    SockOption option = row.option;
    rec_.error = 77;
    Watch();
    const bool fails = strstr(row.call, "-1 E") != nullptr;
    rec_.errorResult = 0;
    EXPECT_EQ(State(SetSocketOptions(&rec_, &option), rec_), fails ? "0 92/5 0" : "1 0/0 0");
    EXPECT_EQ(Platform::Calls(), Lines{row.call});
    EXPECT_EQ(Trace::Take(), fails ? Lines{"onError 92"} : Lines{}) << "options run no trace point";
  }
}

TEST_F(SocketTest, OptionsAreReadIntoTheFirstValue) {
  Create(SOCK_TYPE_DATAGRAM);
  SockOption broadcast = {5, 0, 1};
  SockOption linger = {4, 7, 1};
  ASSERT_TRUE(SetSocketOptions(&rec_, &broadcast) && SetSocketOptions(&rec_, &linger));
  const struct { int id, value; } rows[] = {{9, 2}, {5, 1}, {4, 1}, {10, 0}};
  for (const auto& row : rows) {
    SockOption option = {row.id, -5, 33};
    rec_.error = 77;
    EXPECT_EQ(State(GetSocketOptions(&rec_, &option), rec_), "1 0/0 0");
    EXPECT_EQ(option.value1, row.value) << row.id;
    EXPECT_EQ(option.value2, 33);
  }
  SockOption bad = {-3, -5, 33};
  Trace::Take();
  EXPECT_EQ(State(GetSocketOptions(&rec_, &bad), rec_), "0 92/5 0");
  EXPECT_EQ(bad.value1, -5);
  EXPECT_EQ(Trace::Take(), Lines{"onError 92"});
}

TEST_F(SocketTest, OptionShortcuts) {
  const struct {
    int (*set)(SockRec* rec, int value);
    int value;
    int failing;  // which call fails with EINPROGRESS, 0 none
    Lines calls;
  } rows[] = {
      {SetTcpNoDelay, 1, 0, {"setsockopt(6:1, 1) = 0"}},
      {SetTcpNoDelay, 4, 0, {"setsockopt(6:1, 4) = 0"}},
      {SetTcpNoDelay, 0, 0, {"setsockopt(6:1, 0) = 0"}},
      {SetTcpNoDelay, 1, 1, {"setsockopt(6:1, 1) = -1 EINPROGRESS"}},
      {SetTcpBuffer, 40000, 0, {"setsockopt(1:7, 40000) = 0", "setsockopt(1:8, 40000) = 0"}},
      {SetTcpBuffer, 40000, 1, {"setsockopt(1:7, 40000) = -1 EINPROGRESS"}},
      {SetTcpBuffer, 40000, 2, {"setsockopt(1:7, 40000) = 0", "setsockopt(1:8, 40000) = -1 EINPROGRESS"}},
      {ReuseSocket, 1, 0, {"setsockopt(1:2, 1) = 0"}},
      {ReuseSocket, 0, 0, {"setsockopt(1:2, 0) = 0"}},
      {ReuseSocket, 2, 0, {"setsockopt(1:2, 0) = 0"}},
      {ReuseSocket, -1, 0, {"setsockopt(1:2, 0) = 0"}},
      {ReuseSocket, 1, 1, {"setsockopt(1:2, 1) = -1 EINPROGRESS"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.calls.back());
    Create();
    rec_.error = 77;
    if (row.failing != 0) Platform::Fail("setsockopt", row.failing, EINPROGRESS);
    EXPECT_EQ(State(row.set(&rec_, row.value), rec_), row.failing != 0 ? "0 115/5 0" : "1 0/0 0");
    EXPECT_EQ(Platform::Calls(), row.calls);
    EXPECT_EQ(Trace::Take(), row.failing != 0 ? Lines{"onError 115"} : Lines{});
  }
}

}  // namespace
