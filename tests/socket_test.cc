// socket_test.cc - socket records: their life, names and addresses, connections, transfers, options.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fixture.hh"

namespace {

constexpr int kKept = 77;  // what error holds when it is left alone

class SocketTest : public Fixture {
 protected:
  SocketTest() {
    Platform::SetNodeName("testnode");
    InitSocket(&rec_);
  }
  ~SocketTest() override { DeleteSocket(&rec_); }

  void Create(int type = SOCK_TYPE_STREAM) {
    DeleteSocket(&rec_);
    CreateAnySocket(&rec_, AF_INET, type);
    Watch();
  }
  void Watch() {
    EXPECT_EQ(OnSocketTrace(&rec_, Trace::OnSocket), 1);
    EXPECT_EQ(OnSocketError(&rec_, Trace::OnError), 1);
    Trace::Now().error_result = 5;
    rec_.error = kKept;
    Take();
  }
  // "result error/errorResult connected | what happened".
  std::string Outcome(int result) {
    return format("{} {}/{} {} | {}", result, rec_.error, rec_.errorResult, rec_.connected, Take());
  }

  SockRec rec_;
};

template <typename Record>
std::string Bytes(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

// ---- The life of a record ----

TEST_F(SocketTest, CreationResetsTheRecordAndTakesTheDefaultTrace) {
  const struct {
    const char* happens;
    int (*create)(SockRec* rec);
    uint32_t type;
    int flags;
  } rows[] = {
      {"socket(2, 1, 0) = fd; CreateAnySocket", CreateSocket, 1, FD_CLOEXEC},
      {"socket(2, 2, 0) = fd; CreateAnySocket", CreateUDPSocket, 2, FD_CLOEXEC},
      {"CreateSocketFromExisting", [](SockRec* rec) { return CreateSocketFromExisting(rec, Peer::Listen().Release()); },
       1, 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(OnGSocketTrace(Trace::OnSocket), 1);
    SockRec rec;
    memset(&rec, 0x5a, sizeof rec);
    ASSERT_EQ(row.create(&rec), 1);
    EXPECT_EQ(Take(), row.happens);
    OnGSocketTrace(nullptr);
    EXPECT_EQ(fcntl(rec.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(rec.fd, F_GETFD), row.flags) << row.happens;
    SockRec expected;
    memset(&expected, 0, sizeof expected);
    expected.fd = rec.fd;
    expected.domain = 2;
    expected.type = row.type;
    expected.onTrace = Trace::OnSocket;
    expected.from = AddressOf("", "");
    EXPECT_EQ(Bytes(rec), Bytes(expected));
    DeleteSocket(&rec);
    Take();
  }
  EXPECT_EQ(CreateAnySocket(&rec_, AF_INET, 99), 0);
  EXPECT_EQ(rec_.error, EINVAL);
}

TEST_F(SocketTest, DeleteClosesOnceAndOnlyWhatItHolds) {
  const std::string failure = ":34:56 SOCKSIN::DeleteSocket close(64999) failed RC(-1) errno(9)\n";
  const struct {
    int fd;
    time_t now;
    std::string happens, printed;  // the hour is that of the time zone
    int fd_after = -1;
  } rows[] = {
      {-1, 0, "DeleteSocket; DeleteSocket", ""},
      {0, 0, "DeleteSocket; DeleteSocket", "", 0},
      {Peer::Listen().Release(), 0, "DeleteSocket; close() = 0; DeleteSocket", ""},
      {64999, 1669116896, "DeleteSocket; close() = -1 EBADF; DeleteSocket", failure},
      {64999, kNoDate, "DeleteSocket; close() = -1 EBADF; DeleteSocket", ":??:??" + failure.substr(6)},
  };
  for (const auto& row : rows) {
    SockRec rec;
    memset(&rec, 0x5a, sizeof rec);
    rec.fd = row.fd;
    rec.onTrace = Trace::OnSocket;
    SockRec expected = rec;
    expected.fd = row.fd_after;
    Platform::SetTime(row.now);
    const std::string printed = Printed([&] { EXPECT_EQ(DeleteSocket(&rec) + DeleteSocket(&rec), 2); });
    EXPECT_EQ(printed.substr(printed.empty() ? 0 : 2), row.printed);
    EXPECT_EQ(Bytes(rec), Bytes(expected));
    EXPECT_EQ(Take(), row.happens);
  }
}

TEST_F(SocketTest, BlockingModeChangesNoOtherFlag) {
  Create();
  ASSERT_EQ(fcntl(rec_.fd, F_SETFL, O_RDWR | O_APPEND), 0);
  const int plain = fcntl(rec_.fd, F_GETFL);
  const struct {
    int (*change)(SockRec* rec);
    int flags, code;
    const char* outcome;
  } rows[] = {
      {NoblockSocket, plain | O_NONBLOCK, 0, "1 0/0 0 | = 0; NoblockSocket"},
      {BlockSocket, plain, 0, "1 0/0 0 | = 0; BlockSocket"},
      {NoblockSocket, plain, EPERM, "0 1/5 0 | = -1 EPERM; onError 1; NoblockSocket"},
      {BlockSocket, plain, EPERM, "0 1/5 0 | = -1 EPERM; onError 1; BlockSocket"},
  };
  for (const auto& row : rows) {
    Watch();
    if (row.code != 0) Platform::Fail("fcntl", 2, row.code);
    std::string outcome = Outcome(row.change(&rec_));
    EXPECT_EQ(outcome.replace(outcome.find('f'), outcome.rfind('=') - outcome.find('f'), ""), row.outcome);
    EXPECT_EQ(fcntl(rec_.fd, F_GETFL), row.flags) << row.outcome;
  }
}

TEST_F(SocketTest, SmallCalls) {
  SockRec rec;
  EXPECT_EQ(format("{} {}", InitSocket(&rec), OSInitSocket(&rec)), "1 1");
  // The error callback's result, or 0 without one; no trace without a callback.
  Watch();
  EXPECT_EQ(Outcome(ListenSocket(&rec_, 1)), "0 9/5 0 | listen(1) = -1 EBADF; onError 9; ListenSocket");
  OnSocketError(&rec_, nullptr);
  OnSocketTrace(&rec_, nullptr);
  EXPECT_EQ(Outcome(ListenSocket(&rec_, 1)), "0 9/0 0 | listen(1) = -1 EBADF");

  memset(&rec_.name, 0x41, sizeof rec_.name);
  memset(&rec_.from, 0x42, sizeof rec_.from);
  SockAddrRec name, from, address = AddressOf("h", "s", "p", "1.2.3.4");
  EXPECT_EQ(format("{} {} {}", GetSocketName(&rec_, &name), GetFromAddr(&rec_, &from), GetHostIP(&address)), "1 1 1");
  EXPECT_EQ(Bytes(name) + Bytes(from), Bytes(rec_.name) + Bytes(rec_.from));
  EXPECT_EQ(Text(address), "h 0.0.0.0 s p 0");
}

// ---- Names and addresses ----

TEST_F(SocketTest, AddrToIPDecidesInAFixedOrder) {
  Platform::AddHost("box.example", {"10.9.8.7", "10.9.8.8"});
  Platform::AddHost("9box", {"10.9.8.9"});
  Platform::AddHost("bare", {});
  Platform::AddService("echo", "tcp", 7);
  const std::string box = "gethostbyname(box.example) = 1";
  const std::string nobody = "gethostbyname(nobody) = 0";
  const struct {
    std::string host, ip, service;
    int pending;          // errno before the call
    std::string outcome;  // result, error, family, address
    std::string calls = "";
    uint32_t port = 1;
  } rows[] = {
      // the any-address, whatever ip holds
      {"*", "", "8080", 0, "1 77 2 0.0.0.0:8080", "", 8080},
      {"*", "10.1.2.3", "1", 0, "1 77 2 0.0.0.0:1"},
      {"**", "", "1", 0, "0 9003 0 0.0.0.0:1", "gethostbyname(**) = 0"},
      // the local host
      {"@", "", "1", 0, "1 77 2 127.0.0.1:1", "gethostbyname(localhost) = 1"},
      {"@", "10.0.0.1", "1", 0, "1 77 2 10.0.0.1:1"},
      // a valid dotted quad in ip wins
      {"box.example", "192.168.1.7", "1", 0, "1 77 2 192.168.1.7:1"},
      {"box.example", "0.0.0.0", "1", 0, "1 77 2 255.255.255.255:1"},
      {"box.example", "300.1.1.1", "1", 0, "1 77 2 10.9.8.7:1", box},
      {"box.example", "010.001.002.003", "1", 0, "1 77 2 8.1.2.3:1"},
      // numeric names are never looked up
      {"10.1", "", "1", 0, "1 77 2 10.0.0.1:1"},
      {"0.0.0.0", "", "1", 0, "1 77 2 255.255.255.255:1"},
      {"255.255.255.255", "10.1", "1", 0, "0 9003 0 255.255.255.255:1"},
      {"9box", "10.1", "1", 0, "0 9003 0 255.255.255.255:1"},
      {"9box", "", "1", ETIMEDOUT, "0 110 0 255.255.255.255:1"},
      // looked up; then the ip field in a short form
      {"box.example", "", "1", 0, "1 77 2 10.9.8.7:1", box},
      {"nobody", "10.1", "1", 0, "1 77 2 10.0.0.1:1", nobody},
      {"bare", "10.1", "1", 0, "1 77 2 10.0.0.1:1", "gethostbyname(bare) = 1"},
      {"nobody", "1.2.3.4.5", "1", 0, "0 9003 0 255.255.255.255:1", nobody},
      {"nobody", "x", "1", 0, "0 9003 0 0.0.0.0:1", nobody},
      {"nobody", "", "1", EAGAIN, "0 11 0 0.0.0.0:1", nobody},
      {"", "", "1", 0, "0 9003 0 0.0.0.0:1", "gethostbyname() = 0"},
      // services
      {"*", "", "echo", 0, "1 77 2 0.0.0.0:7", "getservbyname(echo, tcp) = 1", 7},
      {"*", "", "80x", 0, "1 77 2 0.0.0.0:80", "", 80},
      {"*", "", "70000", 0, "1 77 2 0.0.0.0:4464", "", 70000},
      {"*", "", "", 0, "0 9002 0 0.0.0.0:0", "getservbyname(, tcp) = 0", 99},
      {"*", "", "-1", 0, "0 9002 0 0.0.0.0:0", "getservbyname(-1, tcp) = 0", 99},
      {"*", "", "nothing", EINTR, "0 4 0 0.0.0.0:0", "getservbyname(nothing, tcp) = 0", 99},
  };
  Create();
  for (const auto& row : rows) {
    SockAddrRec name = AddressOf(row.host, row.service, "tcp", row.ip);
    name.port = 99;
    SockAddrRec expected = name;
    expected.port = row.port;
    sockaddr_in out;
    memset(&out, 0x5a, sizeof out);
    Watch();
    errno = row.pending;
    const int result = AddrToIP(&rec_, &name, &out);
    EXPECT_EQ(
        format("{} {} {} {}:{}", result, rec_.error, out.sin_family, inet_ntoa(out.sin_addr), ntohs(out.sin_port)),
        row.outcome)
        << row.host << " | " << row.ip << " | " << row.service;
    EXPECT_EQ(Take(), "AddrToIP:Before; " + row.calls + (row.calls.empty() ? "" : "; ") + "AddrToIP:After");
    EXPECT_EQ(Bytes(name), Bytes(expected));
    EXPECT_EQ(Bytes(out.sin_zero), std::string(8, '\0'));
  }
  // No field is read past its end.
  SockAddrRec name;
  memset(&name, 'h', sizeof name);
  sockaddr_in out;
  errno = 0;
  EXPECT_EQ(AddrToIP(&rec_, &name, &out), 0);
  EXPECT_EQ(Take("c"), format("getservbyname({:h<33}, {:h<47}) = 0", "", ""));
  memset(name.service, '0', sizeof name.service);
  memset(name.protocol, '9', sizeof name.protocol);
  EXPECT_EQ(AddrToIP(&rec_, &name, &out), 0);
  EXPECT_EQ(name.port, 0u);
  EXPECT_EQ(Take("c"), format("gethostbyname({:h<255}) = 0", ""));
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

TEST_F(SocketTest, AddressesAndText) {
  sockaddr_in in = {};
  in.sin_port = htons(65535);
  in.sin_addr.s_addr = inet_addr("10.0.0.5");
  for (const char* const protocol : {static_cast<const char*>(nullptr), "udp"}) {
    SockAddrRec name = AddressOf("host", "s", "proto", "1.1.1.1");
    EXPECT_EQ(IpAddrToSocketAddr(&name, &in, protocol), 1);
    EXPECT_EQ(Text(name), "host 10.0.0.5 65535 proto 65535");
  }
  const struct {
    const char* text;
    int result;
    uint32_t address;  // host order
    uint64_t number;   // of MapStrIpToAddr
  } rows[] = {{"1.2.3.4", 1, 0x01020304, 16909060},
              {"10.1", 1, 0x0a000001, 0x0a000001},
              {"0.0.0.0", 1, 0xffffffff, 0},
              {"nonsense", 0, 0xffffffff, 0xffffffff}};
  for (const auto& row : rows) {
    sockaddr_in out = in;
    in.sin_addr.s_addr = htonl(row.address);
    EXPECT_EQ(MapHostIPToAddr(row.text, &out), row.result);
    EXPECT_EQ(Bytes(out), Bytes(in)) << row.text;
    uint64_t number = ~uint64_t{0};
    EXPECT_EQ(MapStrIpToAddr(row.text, &number), 1);
    EXPECT_EQ(number, row.number);
  }
}

TEST_F(SocketTest, MappingsAskTheResolverAndKeepWithinTheirBuffers) {
  const std::string long_host(300, 'h'), long_service(40, 's');
  Platform::AddHost("box.example", {"10.9.8.7", "10.9.8.8"});
  Platform::AddHost(long_host, {"255.255.255.254"});
  Platform::AddHost("bare", {});
  Platform::AddService("echo", "udp", 7);
  Platform::AddService(long_service, "tcp", 9);
  const struct {
    char kind;  // h host of an address, s service of a port, i address of a host, q address as a dotted quad
    std::string input;
    size_t size;  // of the buffer that the header promises
    int result;
    std::string text;  // "????" when the buffer is untouched
    std::string call;
  } rows[] = {
      {'h', "10.9.8.7", 256, 1, "box.example", "gethostbyaddr(10.9.8.7, 4, 2) = 1"},
      {'h', "255.255.255.254", 256, 1, long_host.substr(0, 255), "gethostbyaddr(255.255.255.254, 4, 2) = 1"},
      {'h', "10.9.8.1", 256, 0, "unknown host", "gethostbyaddr(10.9.8.1, 4, 2) = 0"},
      {'s', "7udp", 33, 1, "echo", "getservbyport(7, udp) = 1"},
      {'s', "7tcp", 33, 0, "unknown service", "getservbyport(7, tcp) = 0"},
      {'s', "9tcp", 33, 1, long_service.substr(0, 32), "getservbyport(9, tcp) = 1"},
      {'i', "box.example", 16, 1, "10.9.8.7", "gethostbyname(box.example) = 1"},
      {'i', "nobody", 16, 0, "????", "gethostbyname(nobody) = 0"},
      {'i', "bare", 16, 0, "????", "gethostbyname(bare) = 1"},
      {'q', "255.255.255.254", 16, 1, "255.255.255.254", ""},
  };
  for (const auto& row : rows) {
    char out[400] = "????";
    memset(out + row.size, '!', 10);
    sockaddr_in in = {};
    in.sin_family = AF_INET;
    in.sin_port = htons(static_cast<uint16_t>(atoi(row.input.c_str())));
    in.sin_addr.s_addr = inet_addr(row.input.c_str());
    EXPECT_EQ(row.kind == 'h'   ? MapHostAddrToName(out, &in)
              : row.kind == 's' ? MapServPortToName(out, &in, row.input.c_str() + 1)
              : row.kind == 'i' ? ResolveHostName(row.input.c_str(), out)
                                : MapHostAddrToIP(out, &in),
              row.result)
        << row.call;
    EXPECT_EQ(out, row.text);
    EXPECT_EQ(std::string(out + row.size, 10), "!!!!!!!!!!") << row.call << ": written past the end";
    EXPECT_EQ(Take(), row.call);
  }
}

// ---- Connections ----

// Each attempt with its outcome, what it leaves in the caller's record, and the names that the socket has then.
TEST_F(SocketTest, ConnectAndBind) {
  const Peer listener = Peer::Listen();
  const Peer nobody = Peer::Bound(SOCK_STREAM);
  Alias(listener.port(), "P");
  Alias(nobody.port(), "Q");
  const std::string resolve = "AddrToIP:Before; AddrToIP:After; ";
  const std::string at_p = "127.0.0.1 - P tcp P", at_q = "127.0.0.1 - Q tcp Q", none = "- - - - 0",
                    fresh = "- - - tcp 0", bound = "testnode - - proto 0";
  const auto connect = [](const std::string& steps) {
    return "ConnectSocket:Before; " + steps + "ConnectSocket:After";
  };
  const auto bind = [](const std::string& steps) { return "BindSocket:Before; " + steps + "BindSocket:After"; };
  const auto to = [](const char* host, int port) { return AddressOf(host, std::to_string(port), "tcp"); };
  const struct {
    int (*act)(SockRec* rec, SockAddrRec* name);
    SockAddrRec name;
    int code;  // that the call fails with; -1 the system's own
    std::string state, happens, after, own, from;
  } rows[] = {
      {ConnectSocket, to("@", listener.port()), -1, "1 0/0 1",
       connect("AddrToIP:Before; gethostbyname(localhost) = 1; AddrToIP:After; uname() = 0; "
               "connect(127.0.0.1:P) = 0; "),
       "@ - P tcp P", "@ - P tcp P", "@ 127.0.0.1 P tcp P"},
      {ConnectSocket, to("127.0.0.1", listener.port()), EISCONN, "1 0/0 1",
       connect(resolve + "uname() = 0; connect(127.0.0.1:P) = -1 EISCONN; "), at_p, at_p,
       "127.0.0.1 127.0.0.1 P tcp P"},
      {ConnectSocket, to("127.0.0.1", nobody.port()), -1, "0 111/5 0",
       connect(resolve + "uname() = 0; connect(127.0.0.1:Q) = -1 ECONNREFUSED; onError 111; "), at_q, at_q, at_q},
      {ConnectSocket, to("127.0.0.1", nobody.port()), EINPROGRESS, "0 11/5 0",
       connect(resolve + "uname() = 0; connect(127.0.0.1:Q) = -1 EINPROGRESS; onError 11; "), at_q, at_q, at_q},
      {ConnectSocket, to("127.0.0.1", nobody.port()), EINTR, "0 4/5 0",
       connect(resolve + "uname() = 0; connect(127.0.0.1:Q) = -1 EINTR; onError 4; "), at_q, at_q, at_q},
      {ConnectSocket, to("127.0.0.1", nobody.port()), 0, "0 0/5 0",
       connect(resolve + "uname() = 0; connect(127.0.0.1:Q) = -1; onError 0; "), at_q, at_q, at_q},
      {ConnectSocket, AddressOf("127.0.0.1", "nothing"), -1, "0 9002/5 0",
       connect("AddrToIP:Before; getservbyname(nothing, tcp) = 0; AddrToIP:After; onError 9002; "),
       "127.0.0.1 - nothing tcp 0", none, fresh},
      {ConnectSocket, AddressOf("nobody", "7"), -1, "0 9003/5 0",
       connect("AddrToIP:Before; gethostbyname(nobody) = 0; AddrToIP:After; onError 9003; "), "nobody - 7 tcp 7", none,
       fresh},
      {BindSocketName, AddressOf("*", "0", "proto"), -1, "1 0/0 1",
       bind(resolve + "uname() = 0; bind(0.0.0.0:0) = 0; "), "testnode 0.0.0.0 0 proto 0", "testnode 0.0.0.0 0 proto 0",
       fresh},
      {BindSocketName, AddressOf("127.0.0.1", std::to_string(listener.port()), "proto"), -1, "0 98/5 0",
       bind(resolve + "uname() = 0; bind(127.0.0.1:P) = -1 EADDRINUSE; onError 98; "), bound, bound, fresh},
      {BindSocketName, AddressOf("127.0.0.1", "1", "proto"), EINPROGRESS, "0 11/5 0",
       bind(resolve + "uname() = 0; bind(127.0.0.1:1) = -1 EINPROGRESS; onError 11; "), bound, bound, fresh},
      {BindSocketName, AddressOf("127.0.0.1", "1", "proto"), EISCONN, "1 106/0 1",
       bind(resolve + "uname() = 0; bind(127.0.0.1:1) = -1 EISCONN; "), bound, bound, fresh},
      {BindSocketName, AddressOf("nobody", "7"), -1, "0 9003/5 0",
       bind("AddrToIP:Before; gethostbyname(nobody) = 0; AddrToIP:After; onError 9003; "), "nobody - 7 tcp 7", none,
       fresh},
      {[](SockRec* rec, SockAddrRec* name) { return SockAction(rec, name, 2); }, AddressOf("*", "5", "proto"), -1,
       "1 0/0 7", resolve + "uname() = 0", bound, bound, fresh},
  };
  for (const auto& row : rows) {
    Create();
    rec_.connected = 7;
    errno = 0;
    for (const char* call : {"connect", "bind"}) {
      if (row.code >= 0) Platform::Fail(call, 1, row.code);
    }
    SockAddrRec name = row.name;
    EXPECT_EQ(Outcome(row.act(&rec_, &name)), row.state + " | " + row.happens);
    EXPECT_EQ(Text(name), row.after) << row.happens;
    EXPECT_EQ(Text(rec_.name), row.own) << row.happens;
    EXPECT_EQ(Text(rec_.from), row.from) << row.happens;
    Platform::Mend();
  }
  // The caller's texts are cut; without a node name there is none.
  SockAddrRec name = AddressOf("", "5", "proto");
  memset(name.host, 'h', sizeof name.host);
  memset(name.ip, 'i', sizeof name.ip);
  errno = 0;
  EXPECT_EQ(SockAction(&rec_, &name, SOCK_ACTION_BIND), 0);
  EXPECT_EQ(Text(name), format("{:h<255} {:i<39} 5 proto 5", "", ""));
  Platform::Fail("uname", 1, EFAULT);
  name = AddressOf("*", "5", "proto");
  EXPECT_EQ(SockAction(&rec_, &name, 2), 1);
  EXPECT_EQ(Text(name), "- - - proto 0");
}

TEST_F(SocketTest, ListenAndAccept) {
  Create();
  SockAddrRec any = AddressOf("127.0.0.1", 0);
  ASSERT_EQ(BindSocketName(&rec_, &any), 1);
  Watch();
  EXPECT_EQ(Outcome(ListenSocket(&rec_, 3)), "1 77/0 1 | listen(3) = 0; ListenSocket") << "error is left alone";
  Platform::Fail("listen", 1, EADDRINUSE);
  EXPECT_EQ(Outcome(ListenSocket(&rec_, 3)), "0 98/5 1 | listen(3) = -1 EADDRINUSE; onError 98; ListenSocket");

  const Peer client = Peer::Connect(PortOf(rec_.fd));
  NoblockSocket(&rec_);
  Watch();
  rec_.protocol = 6;
  SockRec child;
  memset(&child, 0x5a, sizeof child);
  EXPECT_EQ(Outcome(AcceptClient(&rec_, &child)), "1 77/5 1 | AcceptClient:Before; accept() = fd; AcceptClient:After");
  SockRec expected;
  InitSocket(&expected);
  expected.fd = child.fd;
  expected.domain = 2;
  expected.type = 1;
  expected.protocol = 6;
  expected.connected = 1;
  expected.name = AddressOf("", std::to_string(client.port()), "", "127.0.0.1");
  expected.name.port = static_cast<uint32_t>(client.port());
  EXPECT_EQ(Bytes(child), Bytes(expected));
  EXPECT_EQ(fcntl(child.fd, F_GETFD), FD_CLOEXEC);
  client.Send("hi");
  EXPECT_EQ(Peer(child.fd).Read(2), "hi");

  for (const int code : {EAGAIN, EMFILE, EINPROGRESS}) {
    if (code != EAGAIN) Platform::Fail("accept", 1, code);
    EXPECT_EQ(Outcome(AcceptClient(&rec_, &child)),
              format("0 {0}/5 1 | AcceptClient:Before; accept() = -1 {1}; onError {0}; AcceptClient:After", code,
                     strerrorname_np(code)));
    EXPECT_EQ(Bytes(child), Bytes(expected));
  }
}

// ---- Transfers ----

class TransferTest : public SocketTest {
 protected:
  void Use(Peer peer, int type) {
    DeleteSocket(&rec_);
    CreateSocketFromExisting(&rec_, peer.Release());
    rec_.type = static_cast<uint32_t>(type);
    Watch();
  }
  void Connect() {
    const Peer listener = Peer::Listen();
    Use(Peer::Connect(listener.port()), SOCK_TYPE_STREAM);
    peer_ = listener.Accept();
  }
  void Bind(int type = SOCK_TYPE_DATAGRAM) {
    Use(Peer::Datagram(), type);
    peer_ = Peer::Datagram();
    Alias(peer_.port(), "P");
  }
  void Arm(std::string_view bytes) {
    bytes_ = bytes;
    buffer_ = {reinterpret_cast<uint8_t*>(bytes_.data()), 0, 0, 0, 0, 0};
    buffer_.length = buffer_.capacity = static_cast<uint32_t>(bytes.size());
  }
  // "result error/errorResult, received, sent, totals | what happened".
  std::string Ended(int result) {
    return format("{} {}/{}, {} {}, {} {} | {}", result, rec_.error, rec_.errorResult, buffer_.received, buffer_.sent,
                  rec_.bytesReceived, rec_.bytesSent, Take());
  }
  std::string Read() { return Ended(ReadSocket(&rec_, &buffer_)); }
  std::string Write(SockAddrRec* to = nullptr) { return Ended(WriteSocket(&rec_, &buffer_, to)); }

  Peer peer_;
  std::string bytes_;
  IoBuffer buffer_;
};

TEST_F(TransferTest, StreamsGoOnWhereTheyStopped) {
  Connect();
  const std::string message = std::string(100, 'a') + std::string(36, 'b') + "next";
  peer_.Send(message);
  Platform::Limit("recvfrom", {100});
  Arm(std::string(140, '?'));
  buffer_.length = 136;
  EXPECT_EQ(Read(), "1 0/0, 100 0, 100 0 | ReadSocket:Before; recvfrom(136) = 100; ReadSocket:After");
  EXPECT_EQ(Read(), "1 0/0, 136 0, 136 0 | ReadSocket:Before; recvfrom(36) = 36; ReadSocket:After");
  EXPECT_EQ(bytes_, message.substr(0, 136) + "????");
  EXPECT_EQ(Read(), "0 9004/5, 136 0, 136 0 | ReadSocket:Before; recvfrom(0) = 0; onError 9004; ReadSocket:After");
  EXPECT_EQ(Text(rec_.from), "- - - tcp 0") << "a stream has no sender to note";
  // Bytes looked at count and stay.
  for (const uint32_t flags : {2, 0}) {
    Arm("????");
    buffer_.flags = flags;
    EXPECT_EQ(Read().substr(0, 12), "1 0/5, 4 0, ");
    EXPECT_EQ(bytes_, "next");
  }
  EXPECT_EQ(rec_.bytesReceived, 144u);

  Watch();
  Arm("0123456789");
  buffer_.length = 9;
  Platform::Limit("send", {4, 0});
  EXPECT_EQ(Write(), "1 0/5, 0 4, 144 4 | WriteSocket:Before; send(9) = 4; WriteSocket:After");
  EXPECT_EQ(Write(), "1 0/5, 0 4, 144 4 | WriteSocket:Before; send(5) = 0; WriteSocket:After");
  EXPECT_EQ(Write(), "1 0/5, 0 9, 144 9 | WriteSocket:Before; send(5) = 5; WriteSocket:After");
  EXPECT_EQ(Write(), "1 0/5, 0 9, 144 9 | WriteSocket:Before; send(0) = 0; WriteSocket:After");
  EXPECT_EQ(peer_.Read(9), "012345678");
}

// Failures move and count nothing; callbacks see the buffer and the error as it is then.
TEST_F(TransferTest, Failures) {
  Connect();
  Trace::Now().on_socket = [&](std::string_view, SockRec* rec) {
    Platform::Note('s', format("({}{})", rec->error, rec->buffer == &buffer_ ? " with buffer" : ""));
  };
  for (const bool reading : {true, false}) {
    for (const auto& [code, kept] :
         {std::pair{EAGAIN, 11}, {EINPROGRESS, 11}, {EINTR, EINTR}, {ECONNRESET, ECONNRESET}}) {
      Platform::Fail(reading ? "recvfrom" : "send", 1, code);
      Watch();
      Arm("0123456789");
      buffer_.received = buffer_.sent = 3;
      EXPECT_EQ(reading ? Read() : Write(),
                format("0 {2}/5, 3 3, 0 0 | {0}Socket:Before; (77 with buffer); {1}(7) = -1 {4}; onError {3}; "
                       "({3} with buffer); {0}Socket:After; ({2} with buffer)",
                       reading ? "Read" : "Write", reading ? "recvfrom" : "send", kept, code, strerrorname_np(code)));
      EXPECT_EQ(bytes_, "0123456789");
      EXPECT_EQ(rec_.buffer, nullptr);
    }
  }
}

TEST_F(TransferTest, DatagramsNoteTheirSender) {
  Bind();
  const int port = PortOf(rec_.fd);
  const struct {
    const char* bytes;
    uint32_t before, later;  // types
    std::string outcome, from;
  } rows[] = {
      {"hello", 2, 2, "1 0/0, 5 0, 5 0 | ReadSocket:Before; recvfrom(100) = 5; ReadSocket:After",
       "- 127.0.0.1 P tcp P"},
      {"", 2, 2, "0 9004/5, 0 0, 5 0 | ReadSocket:Before; recvfrom(100) = 0; onError 9004; ReadSocket:After",
       "- - - tcp 0"},
      // the type counts when something has arrived
      {"again", 1, 2, "1 0/5, 5 0, 10 0 | ReadSocket:Before; recvfrom(100) = 5; ReadSocket:After",
       "- 127.0.0.1 P tcp P"},
      {"other", 3, 3, "1 0/5, 5 0, 15 0 | ReadSocket:Before; recvfrom(100) = 5; ReadSocket:After", "- - - tcp 0"},
  };
  for (const auto& row : rows) {
    rec_.type = row.before;
    rec_.from = AddressOf("", "");
    Trace::Now().on_socket = [&](std::string_view, SockRec* rec) { rec->type = row.later; };
    peer_.SendTo(port, row.bytes);
    Arm(std::string(100, '?'));
    EXPECT_EQ(Read(), row.outcome);
    EXPECT_EQ(Text(rec_.from), row.from);
    EXPECT_EQ(Text(rec_.name), "- - - - 0");
  }
}

TEST_F(TransferTest, DatagramsResolveTheirDestinationEachTime) {
  Platform::AddHost("box.example", {"127.0.0.1"});
  SockAddrRec nobody = AddressOf("nobody", 7);
  const std::string failed = "0 89/5, 0 4, 0 0 | WriteSocket:Before; ";
  for (const int type : {2, 3}) {
    Bind(type);
    SockAddrRec to = AddressOf("box.example", peer_.port());
    Arm("0123456789");
    buffer_.sent = 4;
    EXPECT_EQ(Write(), failed + "onError 89; WriteSocket:After");
    EXPECT_EQ(Write(&nobody),
              failed + "AddrToIP:Before; gethostbyname(nobody) = 0; AddrToIP:After; onError 89; WriteSocket:After");
    EXPECT_EQ(Write(&to),
              "1 0/5, 0 10, 0 6 | WriteSocket:Before; AddrToIP:Before; gethostbyname(box.example) = 1; "
              "AddrToIP:After; sendto(6, 127.0.0.1:P) = 6; WriteSocket:After");
    EXPECT_EQ(Text(to), "box.example - P tcp P");
    EXPECT_EQ(peer_.Read(), "456789");
  }
}

// ---- Options ----

TEST_F(SocketTest, OptionsAreSetFromTheRightValue) {
  const struct {
    SockOption option;
    const char* call;
  } rows[] = {{{1, 1, 0}, "1:2, 0"},
              {{2, 0, 1}, "1:9, 1"},
              {{3, 0, 9}, "1:5, 9"},
              {{4, 0, 1}, "1:13, 1, 0"},
              {{4, 30, 0}, "1:13, 0, 30"},
              {{5, 0, 1}, "1:6, 1"},
              {{6, 0, 1}, "1:10, 1"},
              {{7, 65536, 3}, "1:7, 65536"},
              {{8, 32768, 3}, "1:8, 32768"},
              {{12, 0, 5}, "1:12, 5"},
              {{0, 1, 0}, "1:1, 0"},
              {{11, 1, 0}, "1:11, 0"},
              {{1 << 30, 1, 2}, "1:1073741824, 2!"},
              {{9, 1, 2}, "1:3, 2!"},
              {{10, 1, 2}, "1:4, 2!"},
              {{-3, 1, 2}, "1:-1, 2!"}};
  Create();
  for (const auto& row : rows) {
    SockOption option = row.option;
    std::string call = row.call;
    const bool fails = call.back() == '!';  // the system knows no such option
    if (fails) call.pop_back();
    Watch();
    rec_.errorResult = 0;
    EXPECT_EQ(Outcome(SetSocketOptions(&rec_, &option)),
              format(fmt::runtime(fails ? "0 92/5 0 | setsockopt({}) = -1 ENOPROTOOPT; onError 92"
                                        : "1 0/0 0 | setsockopt({}) = 0"),
                     call));
  }
}

TEST_F(SocketTest, OptionsAreReadIntoTheFirstValue) {
  Create(SOCK_TYPE_DATAGRAM);
  SockOption broadcast = {5, 0, 1}, linger = {4, 7, 1};
  ASSERT_TRUE(SetSocketOptions(&rec_, &broadcast) && SetSocketOptions(&rec_, &linger));
  for (const auto& [id, value, outcome] : {std::tuple{9, 2, "1 0/0 0 | getsockopt(1:3) = 0"},
                                           {5, 1, "1 0/0 0 | getsockopt(1:6) = 0"},
                                           {4, 1, "1 0/0 0 | getsockopt(1:13) = 0"},
                                           {10, 0, "1 0/0 0 | getsockopt(1:4) = 0"},
                                           {-3, -5, "0 92/5 0 | getsockopt(1:-1) = -1 ENOPROTOOPT; onError 92"}}) {
    SockOption option = {id, -5, 33};
    Watch();
    EXPECT_EQ(Outcome(GetSocketOptions(&rec_, &option)), outcome);
    EXPECT_EQ(std::pair(option.value1, option.value2), std::pair(value, 33));
  }
}

TEST_F(SocketTest, OptionShortcuts) {
  const struct {
    int (*set)(SockRec* rec, int value);
    int value;
    int failing;  // which call fails with EINPROGRESS, 0 none
    const char* outcome;
  } rows[] = {
      {SetTcpNoDelay, 4, 0, "1 0/0 0 | setsockopt(6:1, 4) = 0"},
      {SetTcpNoDelay, 0, 0, "1 0/0 0 | setsockopt(6:1, 0) = 0"},
      {SetTcpNoDelay, 1, 1, "0 115/5 0 | setsockopt(6:1, 1) = -1 EINPROGRESS; onError 115"},
      {SetTcpBuffer, 40000, 0, "1 0/0 0 | setsockopt(1:7, 40000) = 0; setsockopt(1:8, 40000) = 0"},
      {SetTcpBuffer, 40000, 1, "0 115/5 0 | setsockopt(1:7, 40000) = -1 EINPROGRESS; onError 115"},
      {SetTcpBuffer, 40000, 2,
       "0 115/5 0 | setsockopt(1:7, 40000) = 0; setsockopt(1:8, 40000) = -1 EINPROGRESS; onError 115"},
      {ReuseSocket, 1, 0, "1 0/0 0 | setsockopt(1:2, 1) = 0"},
      {ReuseSocket, 0, 0, "1 0/0 0 | setsockopt(1:2, 0) = 0"},
      {ReuseSocket, 2, 0, "1 0/0 0 | setsockopt(1:2, 0) = 0"},
      {ReuseSocket, 1, 1, "0 115/5 0 | setsockopt(1:2, 1) = -1 EINPROGRESS; onError 115"},
  };
  for (const auto& row : rows) {
    Create();
    if (row.failing != 0) Platform::Fail("setsockopt", row.failing, EINPROGRESS);
    EXPECT_EQ(Outcome(row.set(&rec_, row.value)), row.outcome);
  }
}

}  // namespace
