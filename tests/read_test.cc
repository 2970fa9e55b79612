// read_test.cc - plain messages gathered from whatever arrives, delivered, browsed, refused.
#include <fcntl.h>
#include <unistd.h>

#include "tests/support/nodes.hh"

namespace {

constexpr size_t kSize = 160;  // of a message with 4 bytes

class ReadTest : public NodeTest {
 protected:
  // A read and what it left: the result, the state, what was delivered.
  std::string Read(MQNode* node) {
    Companion::Now().calls.clear();
    const int result = mnRead(in_, node);
    return (result ? in_.Text() : std::string("nothing")) + ", " + ReadState(node);
  }
  std::string Browse(MQNode* node) {
    const int result = mnBrowse(in_, node);
    return std::to_string(result) + ", " + ReadState(node);
  }
  Message in_{200};
};

// Headers, in either byte order, and what a read makes of them. A refused one is dropped and the next bytes are
// a header again.
TEST_F(ReadTest, HeadersAcceptedAndRefused) {
  const struct {
    uint32_t first, body;
    const char* left;
    const char* calls;  // only a header that is recognised gets converted
  } rows[] = {
      {136, 24, "11, read 0, held 136/160", "AlienToNative"},
      {136, 1, "11, read 0, held 136/137", "AlienToNative"},
      {136, MQ_MAX_MESSAGE - 136, "11, read 0, held 136/67108864", "AlienToNative"},
      {136, MQ_MAX_MESSAGE - 135, "2026, read 0, held 0/136", "AlienToNative"},
      {136, 0, "2026, read 0, held 0/136", "AlienToNative"},
      {136, 0xFFFFFFFF, "2026, read 0, held 0/136", "AlienToNative"},
      {136, 0xFFFFFF78, "2026, read 0, held 0/136", "AlienToNative"},
      {136, 0xFFFFFF79, "2026, read 0, held 0/136", "AlienToNative"},
      {135, 24, "2026, read 0, held 0/136", ""},
      {137, 24, "2026, read 0, held 0/136", ""},
      {32, 24, "2026, read 0, held 0/136", ""},
      {0, 24, "2026, read 0, held 0/136", ""},
      {136 | 1u << 31, 24, "2026, read 0, held 0/136", ""},
  };
  for (const auto& row : rows) {
    for (const bool foreign : {false, true}) {
      const Link link = Connect(kNonBlocking);
      std::string wire = Wire(1, 4);
      SetWord(&wire, 0, row.first);
      SetWord(&wire, kAtBody, row.body);
      link.peer.Send((foreign ? Foreign(wire) : wire).substr(0, kHeader));
      AwaitReadable(link.node->sock.fd);
      EXPECT_EQ(Read(link.node), std::string("nothing, ") + row.left) << row.first << " " << row.body << " " << foreign;
      EXPECT_EQ(Joined(Companion::Now().calls), row.calls);
      if (link.node->error == MQ_AGAIN) continue;
      link.peer.Send(Wire(2, 4));
      AwaitReadable(link.node->sock.fd);
      EXPECT_EQ(Read(link.node), "2:4 from peer, 0, read 1, held 0/136");
    }
  }
}

// Trace points with what they see: the order of reports and resets.
TEST_F(ReadTest, Traces) {
  const Link link = Connect(kNonBlocking);
  const std::string wire = Wire(1, 4);
  std::string empty = wire.substr(0, kHeader);
  SetWord(&empty, kAtBody, 0);
  const std::string got = "ReadSocket:Before; ReadSocket:After; ";
  const std::string blocked = "ReadSocket:Before; onError 11; ReadSocket:After; ";
  const struct {
    const char* what;
    std::string bytes;
    int failing;  // receive
    const char* points;
    std::string trace;
  } rows[] = {
      {"whole: by the nested read, and by the outer", wire, 0,
       "mnRead: 0, read 1, held 0/136; mnRead: 0, read 1, held 0/136", got + got + "mnRead; mnRead"},
      {"part of a header", wire.substr(0, 100), 0,
       "mnReadMsg: 11, read 1, held 100/136; mnRead: 11, read 1, held 100/136", got + blocked + "mnReadMsg; mnRead"},
      {"the nested read runs dry", wire.substr(100, 40), 0,
       "mnReadMsg: 11, read 1, held 140/160; mnRead: 11, read 1, held 140/160; mnRead: 11, read 1, held 140/160",
       got + got + blocked + "mnReadMsg; mnRead; mnRead"},
      {"the rest", wire.substr(140), 0, "mnRead: 0, read 2, held 0/136", got + "mnRead"},
      {"wrong first word: traced with the bytes still there", std::string(136, 'x'), 0,
       "mnReadMsg: 2026, read 2, held 136/136; mnRead: 2026, read 2, held 0/136", got + "mnReadMsg; mnRead"},
      {"bad length", empty, 0, "mnRead: 2026, read 2, held 136/136", got + "mnRead"},
      {"failing receive: reset, then traced", wire.substr(0, 100), 2,
       "mnReadMsg: 104, read 2, held 0/136; mnRead: 104, read 2, held 0/136",
       got + "ReadSocket:Before; onError 104; ReadSocket:After; mnReadMsg; mnRead"},
  };
  Watch(link.node);
  WatchStates(link.node);
  for (const auto& row : rows) {
    if (row.failing != 0) Platform::Fail("recvfrom", row.failing, ECONNRESET);
    link.peer.Send(row.bytes);
    AwaitReadable(link.node->sock.fd);
    Read(link.node);
    EXPECT_EQ(TakePoints(), row.points) << row.what;
    EXPECT_EQ(Joined(Trace::Take()), row.trace) << row.what;
  }
}

TEST_F(ReadTest, CompanionFailures) {
  const struct {
    const char *failing, *left, *calls;
    const char* user;  // of the record afterwards
  } rows[] = {
      {"AlienToNative", "2026, read 0, held 0/136", "AlienToNative", "none"},
      {"SizePcfMessage", "2102, read 0, held 0/136", "AlienToNative; SizePcfMessage 256", "none"},
      {"AlienPcfToNative", "4005, read 1, held 0/136", "AlienToNative; SizePcfMessage 256; AlienPcfToNative", "peer"},
      {"RawToPcf", "4005, read 1, held 0/136", "AlienToNative; SizePcfMessage 256; AlienPcfToNative; RawToPcf", "peer"},
      {"none", "0, read 1, held 0/136", "AlienToNative; SizePcfMessage 256; AlienPcfToNative; RawToPcf", "peer"},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    PcfMessage small;
    mqc_message_init(&small);
    memcpy(small.secHeader.userId, "none", 4);
    link.peer.Send(Wire(4, 100) + Wire(5, 4));
    Companion::Now() = {.failing = row.failing, .calls = {}};
    const int result = mnRead(&small, link.node);
    EXPECT_EQ(result, link.node->error == 0) << row.failing;
    EXPECT_EQ(ReadState(link.node), row.left) << row.failing;
    EXPECT_EQ(Joined(Companion::Now().calls), row.calls) << row.failing;
    EXPECT_EQ(std::string(small.secHeader.userId, 12), Field(row.user, 12));
    mqc_message_release(&small);
    // A header that could not be converted was dropped, its body was not.
    if (link.node->error == MQ_BAD_MESSAGE) continue;
    Companion::Now().failing.clear();
    EXPECT_EQ(mnRead(in_, link.node), 1) << row.failing;
    EXPECT_EQ(in_.Text(), "5:4 from peer");
  }
}

TEST_F(ReadTest, ReceiveBufferGrowsForLongMessagesAlone) {
  const Link link = Connect();
  for (const auto& [size, capacity] : {std::pair{16364u, 16520u}, {16365u, 16524u}, {20000u, 20156u}, {4u, 20156u}}) {
    link.peer.Send(Wire(1, size));
    EXPECT_EQ(mnRead(in_, link.node), 1);
    EXPECT_EQ(in_.Text(), "1:" + std::to_string(size) + " from peer");
    EXPECT_EQ(link.node->recvBuffer.capacity, capacity);
    EXPECT_EQ(link.node->recvBuffer.length, 136u);
  }
}

TEST_F(ReadTest, NoMemoryForALongMessage) {
  const Link link = Connect();
  link.peer.Send(Wire(1, 20000).substr(0, kHeader));
  mqc_fail_allocation(1, 0);
  WatchStates(link.node);
  EXPECT_EQ(Read(link.node), "nothing, 2102, read 0, held 0/136");
  EXPECT_EQ(TakePoints(), "mnRead: 2102, read 0, held 136/136") << "known before anything more is gathered";
  EXPECT_EQ(link.node->recvBuffer.capacity, 16520u);
  // A node without a receive area, created without memory or closed: a read takes one when there is memory.
  mqc_fail_allocation(2, 0);
  const Node bare = Create(0, MQ_ROLE_CONNECT);
  mnClose(link.node);
  for (MQNode* node : {static_cast<MQNode*>(bare), static_cast<MQNode*>(link.node)}) {
    Platform::Forget();
    EXPECT_EQ(mnReadMsg(node), 0);
    EXPECT_EQ(ReadState(node), "2102, read 0, held 0/0");
    mqc_fail_allocation(1, 0);
    EXPECT_EQ(Read(node), "nothing, 2102, read 0, held 0/0");
    EXPECT_EQ(Platform::Calls(), Lines{});
    EXPECT_EQ(Read(node), "nothing, " + std::to_string(node == bare ? ENOTCONN : EBADF) + ", read 0, held 0/136");
  }
}

TEST_F(ReadTest, Datagrams) {
  const Node node = CreateDatagram();
  NoblockSocket(&node->sock);
  const Peer peer = Peer::Datagram();
  const std::string wire = Wire(1, 4);
  std::string wrong = wire;
  SetWord(&wrong, 0, 135);
  std::string bodiless = wire.substr(0, kHeader);
  SetWord(&bodiless, kAtBody, 0);
  std::string wrapping = wire;
  SetWord(&wrapping, kAtBody, 24 + 0xFFFFFF00u);
  const struct {
    const char* what;
    std::string bytes;
    const char* outcome;
  } rows[] = {
      {"right", wire, "1:4 from peer, 0"},
      {"foreign", Foreign(wire), "1:4 from peer, 0"},
      {"as long as the buffer", Wire(1, 16520 - 156), "1:16364 from peer, 0"},
      {"longer than the buffer", Wire(1, 16520 - 155), "nothing, 2026"},
      {"one byte short", wire.substr(0, kSize - 1), "nothing, 2026"},
      {"one byte long", wire + "x", "nothing, 2026"},
      {"two messages", wire + wire, "nothing, 2026"},
      {"a header alone", wire.substr(0, kHeader), "nothing, 2026"},
      {"without a body", bodiless, "nothing, 2026"},
      {"less than a header", wire.substr(0, kHeader - 1), "nothing, 2026"},
      {"one byte", "x", "nothing, 2026"},
      {"wrong first word", wrong, "nothing, 2026"},
      {"wrapping length", wrapping, "nothing, 2026"},
      {"empty", "", "nothing, 9004"},
      {"none", "-", "nothing, 11"},
  };
  for (const auto& row : rows) {
    if (row.bytes != "-") {
      peer.SendTo(PortOf(node), row.bytes);
      AwaitReadable(node->sock.fd);
    }
    const uint32_t before = node->msgsRead;
    Companion::Now().resets = 0;
    const std::string outcome = Read(node);
    EXPECT_EQ(Companion::Now().resets, row.bytes == "-" ? 0 : 1) << row.what << ": an idle buffer is not armed again";
    EXPECT_EQ(outcome.substr(0, outcome.find(", read ")), row.outcome) << row.what;
    EXPECT_EQ(node->msgsRead - before, outcome[0] == '1' ? 1u : 0u) << row.what;
    EXPECT_NE(outcome.find(", held 0/16520"), std::string::npos) << row.what;
    const bool judged = row.bytes.size() >= kHeader && row.bytes != wrong;
    EXPECT_EQ(!Companion::Now().calls.empty(), judged) << row.what << ": nothing short is converted";
  }
  EXPECT_EQ(Text(node->sock.from),
            "- 127.0.0.1 " + std::to_string(peer.port()) + " tcp " + std::to_string(peer.port()));
}

// The gather step alone keeps what it has, a datagram too.
TEST_F(ReadTest, GatheredOnce) {
  const Node node = CreateDatagram();
  const Peer peer = Peer::Datagram();
  const std::string wire = Wire(1, 4);
  peer.SendTo(PortOf(node), wire);
  peer.SendTo(PortOf(node), Wire(2, 4));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(mnReadMsg(node), 1);
    EXPECT_EQ(ReadState(node), "0, read 0, held 160/160");
    EXPECT_EQ(memcmp(node->recvBuffer.data, wire.data(), kSize), 0);
  }
  EXPECT_EQ(Read(node), "1:4 from peer, 0, read 1, held 0/16520");
}

TEST_F(ReadTest, TraceOfADatagram) {
  const Node node = CreateDatagram();
  const Peer peer = Peer::Datagram();
  Watch(node);
  for (const char* const bytes : {"whole", "short"}) {
    peer.SendTo(PortOf(node), bytes[0] == 'w' ? Wire(1, 4) : "short");
    Read(node);
    EXPECT_EQ(Trace::Take(), (Lines{"ReadSocket:Before", "ReadSocket:After", "mnRead"})) << bytes;
  }
}

// A buffer that a secure read left idle or with part of an envelope.
TEST_F(ReadTest, AfterTheOtherFraming) {
  const Link link = Connect(kNonBlocking);
  mnSRead(in_, link.node, 1, nullptr);
  EXPECT_EQ(link.node->recvBuffer.length, 32u);
  link.peer.Send(Wire(1, 4));
  AwaitReadable(link.node->sock.fd);
  EXPECT_EQ(Read(link.node), "1:4 from peer, 0, read 1, held 0/136");

  mnSRead(in_, link.node, 1, nullptr);
  std::string envelope(32, '\0');
  SetWord(&envelope, 0, 32);
  link.peer.Send(envelope.substr(0, 20));
  AwaitReadable(link.node->sock.fd);
  mnSRead(in_, link.node, 1, nullptr);
  EXPECT_EQ(ReadState(link.node), "11, read 1, held 20/32");
  EXPECT_EQ(Read(link.node), "nothing, 11, read 1, held 20/32") << "judged once something has arrived";
  link.peer.Send(envelope.substr(20));
  AwaitReadable(link.node->sock.fd);
  EXPECT_EQ(Read(link.node), "nothing, 2026, read 1, held 0/136");
}

TEST_F(ReadTest, BrowseConsumesNothing) {
  const Link link = Connect();
  Watch(link.node);
  link.node->error = 77;
  int before = -1;
  Trace::on_socket = [&](std::string_view, const SockRec*) { before = before < 0 ? link.node->error : before; };
  link.peer.Send(Foreign(Wire(3, 100)));
  in_->raw.length = 55;
  for (int i = 0; i < 2; ++i) {
    Companion::Now().calls.clear();
    EXPECT_EQ(Browse(link.node), "1, 0, read 0, held 0/136");
    EXPECT_EQ(before, 0) << "a stale error was seen";
    EXPECT_EQ(Trace::Take(), (Lines{"ReadSocket:Before", "ReadSocket:After", "mnBrowse"}));
    EXPECT_EQ(Platform::Calls().back(), "recvfrom(136, flags 2) = 136");
    EXPECT_EQ(WordAt(in_.raw(), 0) + in_->raw.length, 136u + 55u) << "native, its length left alone";
    EXPECT_EQ(in_->raw.capacity, 200u);
  }
  EXPECT_EQ(Companion::Now().calls, (Lines{"AlienToNative", "SizePcfMessage 120"})) << "the body alone is asked for";
  EXPECT_EQ(Read(link.node), "3:100 from peer, 0, read 1, held 0/136");
}

TEST_F(ReadTest, BrowseOfWhatIsNoMessage) {
  const auto header = [](uint32_t first, uint32_t body) {
    std::string bytes = Wire(1, 4).substr(0, kHeader);
    SetWord(&bytes, 0, first);
    SetWord(&bytes, kAtBody, body);
    return bytes;
  };
  const struct {
    std::string bytes;
    const char *failing, *outcome, *calls;
  } rows[] = {
      {header(136, 64), "SizePcfMessage", "1, 0", "AlienToNative"},
      {header(136, 65), "SizePcfMessage", "0, 2102", "AlienToNative; SizePcfMessage 65"},
      {header(136, 65), "", "1, 0", "AlienToNative; SizePcfMessage 65"},
      {header(136, 64), "AlienToNative", "0, 2026", "AlienToNative; DumpPcfMessage"},
      {header(136, 0x7FFFFFFF), "", "0, 2102", "AlienToNative; SizePcfMessage 2147483647"},
      {header(136, 0xFFFFFFFF), "", "1, 0", "AlienToNative"},  // compared as a signed number
      {header(135, 64), "", "0, 2026", ""},
      {header(137, 64), "", "0, 2026", ""},
      {"text", "", "0, 2026", ""},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    Message small(200);
    link.peer.Send(row.bytes);
    AwaitReadable(link.node->sock.fd);
    Companion::Now() = {.failing = row.failing, .calls = {}};
    const int result = mnBrowse(small, link.node);
    EXPECT_EQ(std::to_string(result) + ", " + std::to_string(link.node->error), row.outcome);
    EXPECT_EQ(Joined(Companion::Now().calls), row.calls);
  }
}

// Part of a header: a look again from the front after each pause, for a bounded time, unless the node does not block.
TEST_F(ReadTest, BrowseOfPartOfAHeader) {
  const std::string wire = Wire(1, 4);
  for (const size_t part : {2, 4, 100, 135}) {
    Link link = Connect();
    Platform::Reset();
    link.peer.Send(wire.substr(0, part));
    AwaitReadable(link.node->sock.fd);
    int pauses = 0;
    Platform::OnPause([&] {
      if (++pauses == 4) link.peer.Send(wire.substr(part));
    });
    EXPECT_EQ(Browse(link.node), "1, 0, read 0, held 0/136") << part;
    EXPECT_EQ(Platform::Calls({"recvfrom"}).front(), "recvfrom(136, flags 2) = " + std::to_string(part));
    EXPECT_EQ(Platform::Calls({"recvfrom"}).back(), "recvfrom(136, flags 2) = 136");
    Platform::Reset();
    EXPECT_EQ(Read(link.node), "1:4 from peer, 0, read 1, held 0/136");

    // Nothing more comes: bounded, in looks and in time.
    Platform::SkipPauses();
    link.peer.Send(wire.substr(0, part));
    AwaitReadable(link.node->sock.fd);
    EXPECT_EQ(Browse(link.node), "0, 11, read 1, held 0/136");
    EXPECT_EQ(Platform::Calls({"nanosleep"}), Lines(100, "nanosleep(0.010000000s) = 0"));
    NoblockSocket(&link.node->sock);
    Platform::Forget();
    EXPECT_EQ(Browse(link.node), "0, 11, read 1, held 0/136");
    EXPECT_EQ(Platform::Calls({"nanosleep"}), Lines{});

    // Whether it blocks cannot be told: it pauses.
    Platform::Fail("fcntl", 1, EBADF, Platform::kOnwards);
    Platform::Forget();
    EXPECT_EQ(Browse(link.node), "0, 11, read 1, held 0/136");
    EXPECT_EQ(Platform::Calls({"nanosleep"}).size(), 100u);
    Platform::Reset();

    // The peer will send no more.
    BlockSocket(&link.node->sock);
    link.peer.Shutdown();
    Watch(link.node);
    EXPECT_EQ(Browse(link.node), "0, 9004, read 1, held 0/136");
    EXPECT_EQ(link.node->sock.error, 9004);
    EXPECT_EQ(Trace::Take().back(), "mnBrowse");
  }
}

TEST_F(ReadTest, BrowseWithNothingThere) {
  Link link = Connect(kNonBlocking);
  EXPECT_EQ(Browse(link.node), "0, 11, read 0, held 0/136");
  link.peer.Send(Wire(1, 4));
  AwaitReadable(link.node->sock.fd);
  Platform::Limit("recvfrom", {2});
  EXPECT_EQ(Browse(link.node), "1, 0, read 0, held 0/136") << "the first look was cut short";
  EXPECT_EQ(mnRead(in_, link.node), 1);
  link.peer.Close();
  AwaitReadable(link.node->sock.fd);
  EXPECT_EQ(Browse(link.node), "0, 9004, read 1, held 0/136");
  const Node node = CreateDatagram();
  const Peer peer = Peer::Datagram();
  Platform::Reset();
  peer.SendTo(PortOf(node), Wire(1, 4).substr(0, 100));
  peer.SendTo(PortOf(node), Wire(2, 4));
  EXPECT_EQ(mnBrowse(in_, node), 0);
  EXPECT_EQ(node->error, MQ_BAD_MESSAGE) << "a datagram does not grow";
  EXPECT_EQ(Platform::Calls({"recvfrom"}), Lines(2, "recvfrom(136, flags 2) = 100"));
  EXPECT_EQ(mnRead(in_, node), 0);
  EXPECT_EQ(mnBrowse(in_, node), 1);
  EXPECT_EQ(mnRead(in_, node), 1);
  EXPECT_EQ(in_.Text(), "2:4 from peer");
}

}  // namespace
