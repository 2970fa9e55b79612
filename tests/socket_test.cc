// socket_test.cc - socket records: life cycle, names and addresses, connections, transfers, options.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/fixture.hh"

namespace {

template <typename Record>
std::string Bytes(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

class SocketTest : public Fixture {
 protected:
  SocketTest() {
    Platform::SetNodeName("testnode");
    InitSocket(&rec_);
  }
  ~SocketTest() override { DeleteSocket(&rec_); }

  void Use(int fd, int type = SOCK_TYPE_STREAM) {
    DeleteSocket(&rec_);
    CreateSocketFromExisting(&rec_, fd);
    rec_.type = static_cast<uint32_t>(type);
  }
  // The outcome of an operation: "result error/errorResult connected | what happened". The error was 77 before.
  template <typename... Formal, typename... Actual>
  std::string Do(int (*operation)(SockRec*, Formal...), Actual... arguments) {
    EXPECT_EQ(OnSocketTrace(&rec_, Trace::OnSocket) + OnSocketError(&rec_, Trace::OnError), 2);
    rec_.error = 77;
    rec_.errorResult = 0;
    Take();
    const int result = operation(&rec_, arguments...);
    return format("{} {}/{} {} | {}", result, rec_.error, rec_.errorResult, rec_.connected, Take());
  }

  void Connect() {
    const Peer listener = Peer::Listen();
    Use(Peer::Connect(listener.port()).Release());
    peer_ = listener.Accept();
  }
  void Arm(std::string_view bytes) {
    bytes_ = bytes;
    const auto size = static_cast<uint32_t>(bytes.size());
    buffer_ = {reinterpret_cast<uint8_t*>(bytes_.data()), size, size, 0, 0, 0};
  }
  // A transfer: "received sent, totals | " and the result of Do.
  template <typename... Arguments>
  std::string Move(Arguments... arguments) {
    const std::string outcome = Do(arguments...);
    return format("{} {}, {} {} | {}", buffer_.received, buffer_.sent, rec_.bytesReceived, rec_.bytesSent, outcome);
  }
  std::string Read() { return Move(ReadSocket, &buffer_); }
  std::string Write(SockAddrRec* to = nullptr) { return Move(WriteSocket, &buffer_, to); }

  SockRec rec_;
  Peer peer_;
  std::string bytes_;
  IoBuffer buffer_;
};

// ---- The life of a record ----

TEST_F(SocketTest, CreationResetsTheRecordAndTakesTheDefaultTrace) {
  const auto create = [](int (*creator)(SockRec*), int type, int flags) {
    EXPECT_EQ(OnGSocketTrace(Trace::OnSocket), 1);
    SockRec rec, expected;
    memset(&rec, 0x5a, sizeof rec);
    memset(&expected, 0, sizeof expected);
    Take();
    EXPECT_EQ(creator(&rec), 1);
    const std::string happened = Take();
    OnGSocketTrace(nullptr);
    EXPECT_EQ(fcntl(rec.fd, F_GETFD), flags);
    expected.fd = rec.fd;
    expected.domain = AF_INET;
    expected.type = static_cast<uint32_t>(type);
    expected.onTrace = Trace::OnSocket;
    expected.from = AddressOf("", "");
    EXPECT_EQ(Bytes(rec), Bytes(expected));
    DeleteSocket(&rec);
    return happened;
  };
  const auto adopt = [](SockRec* rec) { return CreateSocketFromExisting(rec, Peer::Listen().Release()); };
  EXPECT_EQ(create(CreateSocket, 1, FD_CLOEXEC), "socket(2, 1, 0) = fd; CreateAnySocket");
  EXPECT_EQ(create(CreateUDPSocket, 2, FD_CLOEXEC), "socket(2, 2, 0) = fd; CreateAnySocket");
  EXPECT_EQ(create(adopt, 1, 0), "CreateSocketFromExisting");
  EXPECT_TRUE(CreateAnySocket(&rec_, AF_INET, 99) == 0 && rec_.error == EINVAL);
}

TEST_F(SocketTest, DeleteClosesOnceAndOnlyWhatItHolds) {
  const auto twice = [this](int fd, time_t now = 0) {
    Use(fd);
    rec_.onTrace = Trace::OnSocket;
    Platform::SetTime(now);
    Take();
    const std::string printed = Printed([&] { EXPECT_EQ(DeleteSocket(&rec_) + DeleteSocket(&rec_), 2); });
    // The hour depends on the time zone.
    return format("{} {} {}", rec_.fd, Take(), printed.empty() ? "" : printed.substr(2));
  };
  EXPECT_EQ(twice(0), "0 DeleteSocket; DeleteSocket ");
  EXPECT_EQ(twice(Peer::Listen().Release()), "-1 DeleteSocket; close() = 0; DeleteSocket ");
  const std::string failed = "-1 DeleteSocket; close() = -1 EBADF; DeleteSocket ";
  const std::string why = " SOCKSIN::DeleteSocket close(64999) failed RC(-1) errno(9)\n";
  EXPECT_EQ(twice(64999, 1669116896), failed + ":34:56" + why);
  EXPECT_EQ(twice(64999, kNoDate), failed + ":??:??" + why);
}

TEST_F(SocketTest, CallbacksAndNames) {
  EXPECT_EQ(Do(ListenSocket, 1), "0 9/5 0 | listen(1) = -1 EBADF; onError 9; ListenSocket");
  OnSocketError(&rec_, nullptr);
  OnSocketTrace(&rec_, nullptr);
  EXPECT_EQ(ListenSocket(&rec_, 1) + rec_.errorResult, 0) << "no callback, no result of it";
  EXPECT_EQ(Take(), "listen(1) = -1 EBADF");
  rec_.name = AddressOf("name", 1);
  rec_.from = AddressOf("from", 2);
  SockAddrRec name, from;
  EXPECT_EQ(GetSocketName(&rec_, &name) + GetFromAddr(&rec_, &from), 2);
  EXPECT_EQ(GetHostIP(&from), 1);
  EXPECT_EQ(Text(name) + " | " + Text(from), "name - 1 tcp 0 | from 0.0.0.0 2 tcp 0");
}

// ---- Names and addresses ----

TEST_F(SocketTest, AddrToIPDecidesInAFixedOrder) {
  Platform::AddHost("box", {"10.9.8.7", "10.9.8.8"});
  Platform::AddHost("bare", {});
  Platform::AddService("echo", "tcp", 7);
  // "result error family address:port, port in the record | calls", with errno as given before the call.
  const auto resolve = [this](const char* host, const char* ip, const char* service = "1", int pending = 0) {
    SockAddrRec name = AddressOf(host, service, "tcp", ip);
    name.port = 99;
    sockaddr_in out = {7, 8, {9}, {}};
    rec_.error = 77;
    rec_.domain = AF_INET;
    errno = pending;
    const int result = AddrToIP(&rec_, &name, &out);
    return format("{} {} {} {}:{} {} | {}", result, rec_.error, out.sin_family, inet_ntoa(out.sin_addr),
                  ntohs(out.sin_port), name.port, Take());
  };
  // the any-address, whatever ip says; the local host
  EXPECT_EQ(resolve("*", "10.1.2.3", "8080"), "1 77 2 0.0.0.0:8080 8080 | ");
  EXPECT_EQ(resolve("@", ""), "1 77 2 127.0.0.1:1 1 | gethostbyname(localhost) = 1");
  // a valid dotted quad in ip wins
  EXPECT_EQ(resolve("box", "192.168.1.7"), "1 77 2 192.168.1.7:1 1 | ");
  EXPECT_EQ(resolve("box", "300.1.1.1"), "1 77 2 10.9.8.7:1 1 | gethostbyname(box) = 1");
  // numeric names are never looked up
  EXPECT_EQ(resolve("10.1", ""), "1 77 2 10.0.0.1:1 1 | ");
  EXPECT_EQ(resolve("9box", "10.1"), "0 9003 0 255.255.255.255:1 1 | ");
  EXPECT_EQ(resolve("9box", "", "1", ETIMEDOUT), "0 110 0 255.255.255.255:1 1 | ");
  // looked up; then the ip field in a short form
  EXPECT_EQ(resolve("bare", "10.1"), "1 77 2 10.0.0.1:1 1 | gethostbyname(bare) = 1");
  EXPECT_EQ(resolve("nobody", "x"), "0 9003 0 0.0.0.0:1 1 | gethostbyname(nobody) = 0");
  // services
  EXPECT_EQ(resolve("*", "", "echo"), "1 77 2 0.0.0.0:7 7 | getservbyname(echo, tcp) = 1");
  EXPECT_EQ(resolve("*", "", "70000x"), "1 77 2 0.0.0.0:4464 70000 | ");
  EXPECT_EQ(resolve("*", "", "-1"), "0 9002 0 0.0.0.0:0 99 | getservbyname(-1, tcp) = 0");
  // no field is read past its end
  SockAddrRec name;
  memset(&name, 'h', sizeof name);
  sockaddr_in out;
  EXPECT_EQ(AddrToIP(&rec_, &name, &out), 0);
  memset(name.service, '0', sizeof name.service);
  memset(name.protocol, '9', sizeof name.protocol);
  EXPECT_EQ(AddrToIP(&rec_, &name, &out), 0);
  EXPECT_EQ(name.port, 0u);
  EXPECT_EQ(Take(), format("getservbyname({:h<33}, {:h<47}) = 0; gethostbyname({:h<255}) = 0", "", "", ""));
}

TEST_F(SocketTest, IsValidIp) {
  for (const char* text : {"255.255.255.255", "001.002.003.000"}) EXPECT_EQ(IsValidIp(text), 1) << text;
  for (const char* text : {"1.2.3", "1.2.3.4.5", "256.1.1.1", "1.1.1.256", "0001.1.1.1", "1.1.1.0001", "", "1..2.3",
                           ".1.2.3.4", "1.2.3.4.", "+1.2.3.4", "1,2,3,4", "1.2.3.", "1.2.3.4x"}) {
    EXPECT_EQ(IsValidIp(text), 0) << text;
  }
}

// The plain mappings: their calls, and that they stay within buffers of the sizes documented in the header.
TEST_F(SocketTest, Mappings) {
  const std::string host300(300, 'h'), service40(40, 's');
  Platform::AddHost(host300, {"9.9.9.9", "10.9.8.8"});
  Platform::AddHost("bare", {});
  Platform::AddService(service40, "tcp", 9);
  // "result text | calls"; the text is "????" if the buffer is unchanged.
  const auto mapped = [](size_t size, auto* map, auto... from) {
    char out[400] = "????";
    out[size] = '!';
    const int result = map(out, from...);
    EXPECT_EQ(out[size], '!') << "written past the end";
    return format("{} {} | {}", result, out, Take());
  };
  const sockaddr_in known = {AF_INET, htons(9), {inet_addr("9.9.9.9")}, {}}, unknown = {AF_INET, 0, {}, {}};
  EXPECT_EQ(mapped(256, MapHostAddrToName, &known), "1 " + host300.substr(45) + " | gethostbyaddr(9.9.9.9, 4, 2) = 1");
  EXPECT_EQ(mapped(256, MapHostAddrToName, &unknown), "0 unknown host | gethostbyaddr(0.0.0.0, 4, 2) = 0");
  EXPECT_EQ(mapped(33, MapServPortToName, &known, "tcp"), "1 " + service40.substr(8) + " | getservbyport(9, tcp) = 1");
  EXPECT_EQ(mapped(33, MapServPortToName, &known, "udp"), "0 unknown service | getservbyport(9, udp) = 0");
  int (*const resolve)(char*, const char*) = [](char* out, const char* name) { return ResolveHostName(name, out); };
  EXPECT_EQ(mapped(16, resolve, host300.c_str()), "1 9.9.9.9 | gethostbyname(" + host300 + ") = 1");
  EXPECT_EQ(mapped(16, resolve, "nobody"), "0 ???? | gethostbyname(nobody) = 0");
  EXPECT_EQ(mapped(16, resolve, "bare"), "0 ???? | gethostbyname(bare) = 1");

  for (const auto& [text, result, address, number] :
       {std::tuple{"10.1", 1, 0xa000001u, 0xa000001u}, {"0.0.0.0", 1, ~0u, 0u}, {"nonsense", 0, ~0u, ~0u}}) {
    sockaddr_in out = {7, 8, {}, {}};
    uint64_t host_order = ~uint64_t{0};
    EXPECT_EQ(MapHostIPToAddr(text, &out), result);
    EXPECT_EQ(MapStrIpToAddr(text, &host_order), 1);
    EXPECT_TRUE(ntohl(out.sin_addr.s_addr) == address && host_order == number && out.sin_family == 7) << text;
  }
}

// ---- Connections ----

// Each attempt: its outcome, the caller's record, the socket's name and its from address ("=": same as before).
TEST_F(SocketTest, ConnectAndBind) {
  const Peer listener = Peer::Listen(), nobody = Peer::Bound(SOCK_STREAM);
  const int p = listener.port(), q = nobody.port();
  Alias(p, "P");
  Alias(q, "Q");
  const auto attempt = [this](auto* act, const char* host, int port, int code = -1) {
    Use(socket(AF_INET, SOCK_STREAM, 0));
    rec_.connected = 7;
    errno = 0;
    SockAddrRec name = AddressOf(host, port >= 0 ? std::to_string(port) : "none", "pro");
    Platform::Mend();
    if (code >= 0) Platform::Fail(act == ConnectSocket ? "connect" : "bind", 1, code);
    const std::string outcome = Do(act, &name), asked = Text(name), own = Text(rec_.name), from = Text(rec_.from);
    return format("{} | {} | {} | {}", outcome, asked, own == asked ? "=" : own, from == own ? "=" : from);
  };
  const std::string at = "ConnectSocket[AddrToIP[]; uname() = 0; connect(127.0.0.1:";
  const std::string bind = "BindSocket[AddrToIP[]; uname() = 0; bind(", to_q = "] | 127.0.0.1 - Q pro Q | = | =";
  const std::string unbound = "] | testnode - - pro 0 | = | - - - tcp 0";
  EXPECT_EQ(attempt(ConnectSocket, "127.0.0.1", p),
            "1 0/0 1 | " + at + "P) = 0] | 127.0.0.1 - P pro P | = | 127.0.0.1 127.0.0.1 P pro P");
  EXPECT_EQ(attempt(ConnectSocket, "127.0.0.1", p, EISCONN),
            "1 0/0 1 | " + at + "P) = -1 EISCONN] | 127.0.0.1 - P pro P | = | 127.0.0.1 127.0.0.1 P pro P");
  EXPECT_EQ(attempt(ConnectSocket, "127.0.0.1", q), "0 111/5 0 | " + at + "Q) = -1 ECONNREFUSED; onError 111" + to_q);
  EXPECT_EQ(attempt(ConnectSocket, "127.0.0.1", q, 115), "0 11/5 0 | " + at + "Q) = -1 EINPROGRESS; onError 11" + to_q);
  EXPECT_EQ(attempt(ConnectSocket, "*", -1),
            "0 9002/5 0 | ConnectSocket[AddrToIP[getservbyname(none, pro) = 0]; onError 9002] | * - none pro 0 | "
            "- - - - 0 | - - - tcp 0");
  EXPECT_EQ(attempt(BindSocketName, "*", 0),
            "1 0/0 1 | " + bind + "0.0.0.0:0) = 0] | testnode 0.0.0.0 0 pro 0 | = | - - - tcp 0");
  EXPECT_EQ(attempt(BindSocketName, "127.0.0.1", p),
            "0 98/5 0 | " + bind + "127.0.0.1:P) = -1 EADDRINUSE; onError 98" + unbound);
  EXPECT_EQ(attempt(BindSocketName, "127.0.0.1", 1, EISCONN),
            "1 106/0 1 | " + bind + "127.0.0.1:1) = -1 EISCONN" + unbound);
  // Any other action neither connects nor binds. Without a node name the field is empty; the caller's texts are cut.
  Platform::Fail("uname", 1, EFAULT);
  SockAddrRec name = AddressOf("*", "5", "proto");
  EXPECT_EQ(Do(SockAction, &name, 2), "1 0/0 1 | AddrToIP[]; uname() = -1 EFAULT");
  EXPECT_EQ(Text(rec_.name), "- - - proto 0");
  memset(name.host, 'h', sizeof name.host);
  memset(name.ip, 'i', sizeof name.ip);
  EXPECT_EQ(SockAction(&rec_, &name, SOCK_ACTION_BIND), 0);
  EXPECT_EQ(Text(name), format("{:h<255} {:i<39} - proto 0", "", ""));
}

TEST_F(SocketTest, ListenAndAccept) {
  Use(Peer::Bound(SOCK_STREAM).Release());
  EXPECT_EQ(Do(ListenSocket, 3), "1 77/0 0 | listen(3) = 0; ListenSocket") << "error is left alone";
  ASSERT_EQ(fcntl(rec_.fd, F_SETFL, O_APPEND), 0);
  NoblockSocket(&rec_);
  EXPECT_EQ(fcntl(rec_.fd, F_GETFL), O_RDWR | O_APPEND | O_NONBLOCK) << "no other flag is changed";
  rec_.protocol = 6;
  const Peer client = Peer::Connect(PortOf(rec_.fd));
  SockRec child, expected = {};
  memset(&child, 0x5a, sizeof child);
  EXPECT_EQ(Do(AcceptClient, &child), "1 77/0 0 | AcceptClient[accept() = fd]");
  expected.fd = child.fd;
  expected.domain = 2;
  expected.type = 1;
  expected.protocol = 6;
  expected.connected = 1;
  expected.name = AddressOf("", std::to_string(client.port()), "", "127.0.0.1");
  expected.name.port = static_cast<uint32_t>(client.port());
  const std::string accepted = Bytes(child);
  EXPECT_EQ(accepted, Bytes(expected));
  EXPECT_EQ(fcntl(child.fd, F_GETFD), FD_CLOEXEC);
  close(child.fd);
  EXPECT_EQ(Do(AcceptClient, &child), "0 11/5 0 | AcceptClient[accept() = -1 EAGAIN; onError 11]");
  EXPECT_EQ(Bytes(child), accepted);
}

// ---- Transfers ----

TEST_F(SocketTest, StreamsGoOnWhereTheyStopped) {
  Connect();
  peer_.Send("0123456789");
  Platform::Limit("recvfrom", {4});
  Arm("??????????");
  buffer_.length = 6;
  EXPECT_EQ(Read(), "4 0, 4 0 | 1 0/0 0 | ReadSocket[recvfrom(6) = 4]");
  EXPECT_EQ(Read(), "6 0, 6 0 | 1 0/0 0 | ReadSocket[recvfrom(2) = 2]");
  EXPECT_EQ(bytes_, "012345????");
  EXPECT_EQ(Read(), "6 0, 6 0 | 0 9004/5 0 | ReadSocket[recvfrom(0) = 0; onError 9004]");
  EXPECT_EQ(Text(rec_.from), "- - - tcp 0") << "a stream has no sender to store";
  Arm("????");
  buffer_.flags = MSG_PEEK;
  EXPECT_EQ(Read(), "4 0, 10 0 | 1 0/0 0 | ReadSocket[recvfrom(4, flags 2) = 4]") << "peeked bytes are counted";

  Arm("0123456789");
  buffer_.length = 9;
  Platform::Limit("send", {4, 0});
  EXPECT_EQ(Write(), "0 4, 10 4 | 1 0/0 0 | WriteSocket[send(9) = 4]");
  EXPECT_EQ(Write(), "0 4, 10 4 | 1 0/0 0 | WriteSocket[send(5) = 0]");
  EXPECT_EQ(Write(), "0 9, 10 9 | 1 0/0 0 | WriteSocket[send(5) = 5]");
  EXPECT_EQ(peer_.Read(9), "012345678");
}

// Failures move and count nothing. Callbacks see the buffer and the error at that time.
TEST_F(SocketTest, Failures) {
  Connect();
  Trace::Now().on_socket = [&](std::string_view, SockRec* rec) {
    Platform::Note('s', format("({}{})", rec->error, rec->buffer == &buffer_ ? "b" : ""));
  };
  Arm("0123456789");
  buffer_.received = buffer_.sent = 3;
  Platform::Fail("recvfrom", 1, EINPROGRESS);
  EXPECT_EQ(Read(),
            "3 3, 0 0 | 0 11/5 0 | ReadSocket[(77b); recvfrom(7) = -1 EINPROGRESS; onError 115; (115b)]; (11b)");
  Platform::Fail("send", 1, EINTR);
  EXPECT_EQ(Write(), "3 3, 0 0 | 0 4/5 0 | WriteSocket[(77b); send(7) = -1 EINTR; onError 4; (4b)]; (4b)");
  EXPECT_TRUE(bytes_ == "0123456789" && rec_.buffer == nullptr);
}

TEST_F(SocketTest, Datagrams) {
  Platform::AddHost("box", {"127.0.0.1"});
  Use(Peer::Datagram().Release(), SOCK_TYPE_DATAGRAM);
  const Peer peer = Peer::Datagram();
  Alias(peer.port(), "P");
  // The sender is stored; the type matters once something has arrived.
  const auto got = [&](uint32_t before, uint32_t later) {
    rec_.type = before;
    rec_.from = AddressOf("", "");
    Trace::Now().on_socket = [=](std::string_view, SockRec* rec) { rec->type = later; };
    peer.SendTo(PortOf(rec_.fd), "hello");
    Arm("0123456789");
    const std::string read = Read();
    return format("{} | {} | {}", read, Text(rec_.from), Text(rec_.name));
  };
  const std::string read = "1 0/0 0 | ReadSocket[recvfrom(10) = 5] | ";
  EXPECT_EQ(got(1, 2), "5 0, 5 0 | " + read + "- 127.0.0.1 P tcp P | - - - - 0");
  EXPECT_EQ(got(3, 3), "5 0, 10 0 | " + read + "- - - tcp 0 | - - - - 0");
  // The destination is resolved each time.
  SockAddrRec to = AddressOf("box", peer.port()), nowhere = AddressOf("nowhere", 7);
  for (const uint32_t type : {2, 3}) {
    Trace::Now().on_socket = nullptr;
    rec_.type = type;
    rec_.bytesSent = 0;
    Arm("0123456789");
    buffer_.sent = 4;
    EXPECT_EQ(Write(), "0 4, 10 0 | 0 89/5 0 | WriteSocket[onError 89]");
    EXPECT_EQ(Write(&nowhere), "0 4, 10 0 | 0 89/5 0 | WriteSocket[AddrToIP[gethostbyname(nowhere) = 0]; onError 89]");
    EXPECT_EQ(Write(&to),
              "0 10, 10 6 | 1 0/0 0 | WriteSocket[AddrToIP[gethostbyname(box) = 1]; sendto(6, 127.0.0.1:P) = 6]");
    EXPECT_EQ(Text(to), "box - P tcp P");
    EXPECT_EQ(peer.Read(), "456789");
  }
}

// ---- Options ----

TEST_F(SocketTest, Options) {
  Use(Peer::Datagram().Release());
  const auto set = [this](int id) {
    SockOption option = {id, 5, 7};
    return Do(SetSocketOptions, &option);
  };
  const char* const calls[] = {"1:1, 7", "1:2, 7", "1:9, 7", "1:5, 7", "1:13, 7, 5", "1:6, 7", "1:10, 7",
                               "1:7, 5", "1:8, 5", "1:3, 7", "1:4, 7", "1:11, 7",    "1:12, 7"};
  Platform::Fail("setsockopt", 1, Platform::kZero, Platform::kOnwards);
  for (int id = 0; id < 13; ++id) EXPECT_EQ(set(id), format("1 0/0 0 | setsockopt({}) = 0", calls[id]));
  Platform::Mend();
  EXPECT_EQ(set(-3), "0 92/5 0 | setsockopt(1:-1, 7) = -1 ENOPROTOOPT; onError 92");
  SockOption type = {9, -5, 33}, unknown = {-3, -5, 33};
  EXPECT_EQ(Do(GetSocketOptions, &type), "1 0/0 0 | getsockopt(1:3) = 0");
  EXPECT_EQ(Do(GetSocketOptions, &unknown), "0 92/5 0 | getsockopt(1:-1) = -1 ENOPROTOOPT; onError 92");
  EXPECT_EQ(format("{} {}, {}", type.value1, type.value2, unknown.value1), "2 33, -5");

  EXPECT_EQ(Do(ReuseSocket, 1), "1 0/0 0 | setsockopt(1:2, 1) = 0");
  EXPECT_EQ(Do(ReuseSocket, 2), "1 0/0 0 | setsockopt(1:2, 0) = 0");
  EXPECT_EQ(Do(SetTcpBuffer, 40000), "1 0/0 0 | setsockopt(1:7, 40000) = 0; setsockopt(1:8, 40000) = 0");
  EXPECT_EQ(Do(SetTcpNoDelay, 4), "0 92/5 0 | setsockopt(6:1, 4) = -1 ENOPROTOOPT; onError 92");
  Platform::Fail("setsockopt", 2, EINPROGRESS);
  EXPECT_EQ(Do(SetTcpBuffer, 40000),
            "0 115/5 0 | setsockopt(1:7, 40000) = 0; setsockopt(1:8, 40000) = -1 EINPROGRESS; onError 115");
}

}  // namespace
