// read_test.cc - plain messages gathered from whatever arrives, delivered, browsed, refused.
#include <fcntl.h>
#include <unistd.h>

#include "tests/support/nodes.hh"

namespace {

constexpr size_t kSize = 160;  // of a message with 4 bytes
constexpr char kIdle[] = ", holds 0 of 136";

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
  // Node trace points with the state that each sees.
  void WatchStates(MQNode* node) {
    mnSetTraceCallBack(Trace::OnNode, node);
    Trace::on_node = [this](std::string_view point, const MQNode* seen) {
      points_.push_back(std::string(point) + ": " + ReadState(seen));
    };
  }
  Lines TakePoints() { return std::exchange(points_, {}); }

  Message in_{200};

 private:
  Lines points_;
};

// Whatever the first piece is, it is kept, and the next read goes on behind it.
TEST_F(ReadTest, TwoPiecesCutAtEveryByte) {
  const Link link = Connect(kNonBlocking);
  const std::string wire = Wire(5, 4);
  for (size_t cut = 1; cut < kSize; ++cut) {
    const std::string count = std::to_string(cut - 1);
    link.peer.Send(wire.substr(0, cut));
    AwaitReadable(link.node->sock.fd);
    const size_t asked = cut < kHeader ? kHeader : kSize;
    EXPECT_EQ(Read(link.node),
              "nothing, error 11, read " + count + ", holds " + std::to_string(cut) + " of " + std::to_string(asked));
    EXPECT_EQ(Read(link.node).substr(0, 17), "nothing, error 11") << "nothing new";
    link.peer.Send(wire.substr(cut));
    AwaitReadable(link.node->sock.fd);
    EXPECT_EQ(Read(link.node), "5:4 from peer, error 0, read " + std::to_string(cut) + kIdle);
  }
}

TEST_F(ReadTest, PiecesOfEverySize) {
  const Link link = Connect();
  for (const size_t size : {1, 3, 135, 137, 150, 1000}) {
    Platform::LimitAll("recvfrom", size);
    link.peer.Send(Wire(6, 300) + Foreign(Wire(7, 4)));
    EXPECT_EQ(Read(link.node).substr(0, 23), "6:300 from peer, error ") << size;
    EXPECT_EQ(Read(link.node).substr(0, 22), "7:4 from peer, error 0") << size;
  }
}

TEST_F(ReadTest, MessagesInOneSegmentAreReadOneByOne) {
  const Link link = Connect();
  link.peer.Send(Wire(1, 4) + Wire(2, 100) + Foreign(Wire(3, 4)));
  EXPECT_EQ(Read(link.node), std::string("1:4 from peer, error 0, read 1") + kIdle);
  EXPECT_EQ(Read(link.node), std::string("2:100 from peer, error 0, read 2") + kIdle);
  EXPECT_EQ(Read(link.node), std::string("3:4 from peer, error 0, read 3") + kIdle);
  EXPECT_EQ(Platform::Calls(), (Lines{"recvfrom(136) = 136", "recvfrom(24) = 24", "recvfrom(136) = 136",
                                      "recvfrom(120) = 120", "recvfrom(136) = 136", "recvfrom(24) = 24"}));
}

// Headers, in either byte order, and what a read makes of them. A refused one is dropped and the next bytes are a header
// again.
TEST_F(ReadTest, HeadersAcceptedAndRefused) {
  const struct {
    uint32_t first;
    uint32_t body;
    const char* outcome;
    bool second_look;  // the read gets as far as converting the header
  } rows[] = {
      {136, 24, "nothing, error 11, holds 136 of 160", true},
      {136, 1, "nothing, error 11, holds 136 of 137", true},
      {136, MQ_MAX_MESSAGE - 136, "nothing, error 11, holds 136 of 67108864", true},
      {136, MQ_MAX_MESSAGE - 135, "nothing, error 2026, holds 0 of 136", true},
      {136, 0, "nothing, error 2026, holds 0 of 136", true},
      {136, 0xFFFFFFFF, "nothing, error 2026, holds 0 of 136", true},
      {136, 0xFFFFFF78, "nothing, error 2026, holds 0 of 136", true},
      {136, 0xFFFFFF79, "nothing, error 2026, holds 0 of 136", true},
      {135, 24, "nothing, error 2026, holds 0 of 136", false},
      {137, 24, "nothing, error 2026, holds 0 of 136", false},
      {32, 24, "nothing, error 2026, holds 0 of 136", false},
      {0, 24, "nothing, error 2026, holds 0 of 136", false},
      {136 | 1u << 31, 24, "nothing, error 2026, holds 0 of 136", false},
  };
  for (const auto& row : rows) {
    for (const bool foreign : {false, true}) {
      const Link link = Connect(kNonBlocking);
      std::string wire = Wire(1, 4);
      SetWord(&wire, 0, row.first);
      SetWord(&wire, kAtBody, row.body);
      link.peer.Send((foreign ? Foreign(wire) : wire).substr(0, kHeader));
      AwaitReadable(link.node->sock.fd);
      std::string outcome = Read(link.node);
      outcome.erase(outcome.find(", read 0"), 8);
      EXPECT_EQ(outcome, row.outcome) << row.first << " " << row.body << " " << foreign;
      EXPECT_EQ(Companion::Now().calls, row.second_look ? Lines{"AlienToNative"} : Lines{});
      if (link.node->error == MQ_AGAIN) continue;
      link.peer.Send(Wire(2, 4));
      AwaitReadable(link.node->sock.fd);
      EXPECT_EQ(Read(link.node), std::string("2:4 from peer, error 0, read 1") + kIdle);
    }
  }
}

TEST_F(ReadTest, PeerGoneAndSocketFailures) {
  const struct {
    size_t sent;
    int code;  // of the receive that fails; 0: the peer closes
    std::string outcome;
  } rows[] = {{0, 0, "error 9004"},    {1, 0, "error 9004"},          {135, 0, "error 9004"},
              {136, 0, "error 9004"},  {159, 0, "error 9004"},        {50, ECONNRESET, "error 104"},
              {150, EINTR, "error 4"}, {150, EINPROGRESS, "error 11"}};
  for (const auto& row : rows) {
    Link link = Connect();
    link.peer.Send(Wire(1, 4).substr(0, row.sent));
    if (row.code == 0) {
      link.peer.Shutdown();
    } else {
      Platform::Fail("recvfrom", row.sent > kHeader ? 3 : 2, row.code);
    }
    const std::string kept = row.code == EINPROGRESS ? ", holds " + std::to_string(row.sent) + " of 160" : kIdle;
    EXPECT_EQ(Read(link.node), "nothing, " + row.outcome + ", read 0" + kept) << row.sent;
  }
}

// The order of trace points and resets, whole.
TEST_F(ReadTest, Traces) {
  const Link link = Connect(kNonBlocking);
  const std::string wire = Wire(1, 4);
  const auto receive = [&](const std::string& bytes) {
    link.peer.Send(bytes);
    AwaitReadable(link.node->sock.fd);
    Trace::Take();
    TakePoints();
    Read(link.node);
    return std::pair{TakePoints(), Trace::Take()};
  };
  Watch(link.node);
  WatchStates(link.node);
  const Lines once = {"ReadSocket:Before", "ReadSocket:After"};
  const auto reads = [&](int count, const Lines& then) {
    Lines lines;
    while (count-- > 0) lines.insert(lines.end(), once.begin(), once.end());
    lines.insert(lines.end(), then.begin(), then.end());
    return lines;
  };
  auto [points, trace] = receive(wire);
  EXPECT_EQ(points, (Lines{"mnRead: error 0, read 1, holds 0 of 136", "mnRead: error 0, read 1, holds 0 of 136"}));
  EXPECT_EQ(trace, reads(2, {"mnRead", "mnRead"}));
  std::tie(points, trace) = receive(wire.substr(0, 100));
  EXPECT_EQ(points,
            (Lines{"mnReadMsg: error 11, read 1, holds 100 of 136", "mnRead: error 11, read 1, holds 100 of 136"}));
  Lines blocked = {"ReadSocket:Before", "onError 11", "ReadSocket:After", "mnReadMsg", "mnRead"};
  EXPECT_EQ(trace, [&] {
    Lines lines = once;
    lines.insert(lines.end(), blocked.begin(), blocked.end());
    return lines;
  }());
  // The rest of the header: the nested read runs dry, and both reads are traced.
  std::tie(points, trace) = receive(wire.substr(100, 40));
  EXPECT_EQ(points,
            (Lines{"mnReadMsg: error 11, read 1, holds 140 of 160", "mnRead: error 11, read 1, holds 140 of 160",
                   "mnRead: error 11, read 1, holds 140 of 160"}));
  // The rest of the body: one read, which delivers.
  std::tie(points, trace) = receive(wire.substr(140));
  EXPECT_EQ(trace, reads(1, {"mnRead"}));
  // A wrong first word: traced while the bytes are still there.
  std::tie(points, trace) = receive(std::string(136, 'x'));
  EXPECT_EQ(points,
            (Lines{"mnReadMsg: error 2026, read 2, holds 136 of 136", "mnRead: error 2026, read 2, holds 0 of 136"}));
  EXPECT_EQ(trace, reads(1, {"mnReadMsg", "mnRead"}));
  // A bad length: the read itself notices.
  std::string empty = wire;
  SetWord(&empty, kAtBody, 0);
  std::tie(points, trace) = receive(empty.substr(0, kHeader));
  EXPECT_EQ(points, Lines{"mnRead: error 2026, read 2, holds 136 of 136"});
  // A receive that fails: reset first, then traced.
  Platform::Fail("recvfrom", 2, ECONNRESET);
  std::tie(points, trace) = receive(wire.substr(0, 100));
  EXPECT_EQ(points,
            (Lines{"mnReadMsg: error 104, read 2, holds 0 of 136", "mnRead: error 104, read 2, holds 0 of 136"}));
}

TEST_F(ReadTest, CompanionFailures) {
  const Lines converted = {"AlienToNative", "AlienPcfToNative", "RawToPcf"};
  const struct {
    const char* failing;
    const char* outcome;
    Lines calls;
    const char* user;  // of the record afterwards
  } rows[] = {
      {"AlienToNative", "nothing, error 2026, read 0, holds 0 of 136", {"AlienToNative"}, "none"},
      {"SizePcfMessage",
       "nothing, error 2102, read 0, holds 0 of 136",
       {"AlienToNative", "SizePcfMessage 256"},
       "none"},
      {"AlienPcfToNative",
       "nothing, error 4005, read 1, holds 0 of 136",
       {"AlienToNative", "SizePcfMessage 256", "AlienPcfToNative"},
       "peer"},
      {"RawToPcf",
       "nothing, error 4005, read 1, holds 0 of 136",
       {"AlienToNative", "SizePcfMessage 256", "AlienPcfToNative", "RawToPcf"},
       "peer"},
      {"none",
       "4:100 from peer, error 0, read 1, holds 0 of 136",
       {"AlienToNative", "SizePcfMessage 256", "AlienPcfToNative", "RawToPcf"},
       "peer"},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    PcfMessage small;
    mqc_message_init(&small);
    memcpy(small.secHeader.userId, "none", 4);
    link.peer.Send(Wire(4, 100) + Wire(5, 4));
    Companion::Now() = {.failing = row.failing, .calls = {}};
    const int result = mnRead(&small, link.node);
    EXPECT_EQ((result ? "4:100 from peer, " : "nothing, ") + ReadState(link.node), row.outcome) << row.failing;
    EXPECT_EQ(Companion::Now().calls, row.calls) << row.failing;
    EXPECT_EQ(std::string(small.secHeader.userId, 12), Field(row.user, 12));
    mqc_message_release(&small);
    Companion::Now().failing.clear();
    // The failed header was dropped, its body was not: only a read that knew the length is still in step.
    if (std::string(row.failing) != "AlienToNative") {
      EXPECT_EQ(Read(link.node).substr(0, 22), "5:4 from peer, error 0") << row.failing;
    }
  }
}

TEST_F(ReadTest, BodyThatNobodyUnderstandsIsConsumed) {
  const Link link = Connect();
  std::string wire = Wire(1, 4);
  SetWord(&wire, kHeader + 4, 9);  // more parameters than there are
  link.peer.Send(wire + Wire(2, 4));
  EXPECT_EQ(Read(link.node), std::string("nothing, error 4005, read 1") + kIdle);
  EXPECT_EQ(Companion::Now().calls.back(), "RawToPcf") << "a plain read dumps nothing";
  EXPECT_EQ(Read(link.node), std::string("2:4 from peer, error 0, read 2") + kIdle);
}

TEST_F(ReadTest, ReceiveBufferGrowsForLongMessagesAlone) {
  const Link link = Connect();
  link.peer.Send(Wire(1, 16520 - 156));
  EXPECT_EQ(Read(link.node).substr(0, 17), "1:16364 from peer");
  EXPECT_EQ(link.node->recvBuffer.capacity, 16520u);
  link.peer.Send(Wire(2, 16520 - 155));
  EXPECT_EQ(Read(link.node).substr(0, 17), "2:16365 from peer");
  EXPECT_EQ(link.node->recvBuffer.capacity, 16524u);
  link.peer.Send(Wire(3, 20000));
  EXPECT_EQ(Read(link.node).substr(0, 17), "3:20000 from peer");
  link.peer.Send(Wire(4, 4));
  EXPECT_EQ(Read(link.node), std::string("4:4 from peer, error 0, read 4") + kIdle);
  EXPECT_EQ(link.node->recvBuffer.capacity, 20156u);
}

TEST_F(ReadTest, NoMemoryForALongMessage) {
  const Link link = Connect();
  link.peer.Send(Wire(1, 20000).substr(0, kHeader));
  mqc_fail_allocation(1, 0);
  EXPECT_EQ(Read(link.node), std::string("nothing, error 2102, read 0") + kIdle);
  EXPECT_EQ(link.node->recvBuffer.capacity, 16520u);
  // A node that never got a buffer takes one with its first read; without memory it fails and can be read later.
  mqc_fail_allocation(2, 0);
  const Node bare = Create(0, MQ_ROLE_CONNECT);
  ASSERT_EQ(bare->recvBuffer.capacity, 0u);
  Platform::Forget();
  EXPECT_EQ(mnReadMsg(bare), 0);
  EXPECT_EQ(bare->error, MQ_NO_ROOM);
  mqc_fail_allocation(1, 0);
  EXPECT_EQ(mnRead(in_, bare), 0);
  EXPECT_EQ(bare->error, MQ_NO_ROOM);
  EXPECT_EQ(Platform::Calls(), Lines{});
  EXPECT_EQ(mnRead(in_, bare), 0);
  EXPECT_EQ(bare->error, ENOTCONN);
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
      {"right", wire, "1:4 from peer, error 0"},
      {"foreign", Foreign(wire), "1:4 from peer, error 0"},
      {"as long as the buffer", Wire(1, 16520 - 156), "1:16364 from peer, error 0"},
      {"longer than the buffer", Wire(1, 16520 - 155), "nothing, error 2026"},
      {"one byte short", wire.substr(0, kSize - 1), "nothing, error 2026"},
      {"one byte long", wire + "x", "nothing, error 2026"},
      {"two messages", wire + wire, "nothing, error 2026"},
      {"a header alone", wire.substr(0, kHeader), "nothing, error 2026"},
      {"without a body", bodiless, "nothing, error 2026"},
      {"less than a header", wire.substr(0, kHeader - 1), "nothing, error 2026"},
      {"one byte", "x", "nothing, error 2026"},
      {"wrong first word", wrong, "nothing, error 2026"},
      {"wrapping length", wrapping, "nothing, error 2026"},
      {"empty", "", "nothing, error 9004"},
      {"none", "-", "nothing, error 11"},
  };
  for (const auto& row : rows) {
    if (row.bytes != "-") {
      peer.SendTo(PortOf(node), row.bytes);
      AwaitReadable(node->sock.fd);
    }
    const uint32_t before = node->msgsRead;
    const std::string outcome = Read(node);
    EXPECT_EQ(outcome.substr(0, outcome.find(", read ")), row.outcome) << row.what;
    EXPECT_EQ(node->msgsRead - before, outcome[0] == '1' ? 1u : 0u) << row.what;
    EXPECT_EQ(ReadState(node).substr(ReadState(node).find(", holds")), ", holds 0 of 16520") << row.what;
    const bool judged = row.bytes.size() >= kHeader && row.bytes != wrong;
    EXPECT_EQ(!Companion::Now().calls.empty(), judged) << row.what << ": nothing short is converted";
  }
  EXPECT_EQ(Text(node->sock.from),
            "- 127.0.0.1 " + std::to_string(peer.port()) + " tcp " + std::to_string(peer.port()));
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
  EXPECT_EQ(Read(link.node), std::string("1:4 from peer, error 0, read 1") + kIdle);

  mnSRead(in_, link.node, 1, nullptr);
  std::string envelope(32, '\0');
  SetWord(&envelope, 0, 32);
  link.peer.Send(envelope.substr(0, 20));
  AwaitReadable(link.node->sock.fd);
  mnSRead(in_, link.node, 1, nullptr);
  EXPECT_EQ(ReadState(link.node), "error 11, read 1, holds 20 of 32");
  link.peer.Send(envelope.substr(20));
  AwaitReadable(link.node->sock.fd);
  EXPECT_EQ(Read(link.node), std::string("nothing, error 2026, read 1") + kIdle);
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
    EXPECT_EQ(Browse(link.node), std::string("1, error 0, read 0") + kIdle);
    EXPECT_EQ(before, 0) << "a stale error was seen";
    EXPECT_EQ(Trace::Take(), (Lines{"ReadSocket:Before", "ReadSocket:After", "mnBrowse"}));
    EXPECT_EQ(Platform::Calls().back(), "recvfrom(136, flags 2) = 136");
    EXPECT_EQ(WordAt(in_.raw(), 0) + in_->raw.length, 136u + 55u) << "native, its length left alone";
    EXPECT_EQ(in_->raw.capacity, 200u);
  }
  EXPECT_EQ(Companion::Now().calls, (Lines{"AlienToNative", "SizePcfMessage 120"})) << "the body alone is asked for";
  EXPECT_EQ(Read(link.node), std::string("3:100 from peer, error 0, read 1") + kIdle);
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
    const char* failing;
    const char* outcome;
    Lines calls;
  } rows[] = {
      {header(136, 64), "SizePcfMessage", "1, error 0", {"AlienToNative"}},
      {header(136, 65), "SizePcfMessage", "0, error 2102", {"AlienToNative", "SizePcfMessage 65"}},
      {header(136, 65), "", "1, error 0", {"AlienToNative", "SizePcfMessage 65"}},
      {header(136, 64), "AlienToNative", "0, error 2026", {"AlienToNative", "DumpPcfMessage"}},
      {header(136, 0xFFFFFFFF), "", "0, error 2026", {"AlienToNative"}},
      {header(136, MQ_MAX_MESSAGE - 135), "", "0, error 2026", {"AlienToNative"}},
      {header(135, 64), "", "0, error 2026", {}},
      {header(137, 64), "", "0, error 2026", {}},
      {"text", "", "0, error 2026", {}},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    Message small(200);
    link.peer.Send(row.bytes);
    AwaitReadable(link.node->sock.fd);
    Companion::Now() = {.failing = row.failing, .calls = {}};
    const int result = mnBrowse(small, link.node);
    EXPECT_EQ(std::to_string(result) + ", error " + std::to_string(link.node->error), row.outcome);
    EXPECT_EQ(Companion::Now().calls, row.calls);
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
    EXPECT_EQ(Browse(link.node), std::string("1, error 0, read 0") + kIdle) << part;
    EXPECT_EQ(Platform::Calls({"recvfrom"}).front(), "recvfrom(136, flags 2) = " + std::to_string(part));
    EXPECT_EQ(Platform::Calls({"recvfrom"}).back(), "recvfrom(136, flags 2) = 136");
    Platform::Reset();
    EXPECT_EQ(Read(link.node), std::string("1:4 from peer, error 0, read 1") + kIdle);

    // Nothing more comes: bounded, in looks and in time.
    Platform::SkipPauses();
    link.peer.Send(wire.substr(0, part));
    AwaitReadable(link.node->sock.fd);
    EXPECT_EQ(Browse(link.node), std::string("0, error 11, read 1") + kIdle);
    EXPECT_EQ(Platform::Calls({"nanosleep"}), Lines(100, "nanosleep(0.010000000s) = 0"));
    NoblockSocket(&link.node->sock);
    Platform::Forget();
    EXPECT_EQ(Browse(link.node), std::string("0, error 11, read 1") + kIdle);
    EXPECT_EQ(Platform::Calls({"nanosleep"}), Lines{});

    // The peer will send no more.
    BlockSocket(&link.node->sock);
    link.peer.Shutdown();
    Watch(link.node);
    EXPECT_EQ(Browse(link.node), std::string("0, error 9004, read 1") + kIdle);
    EXPECT_EQ(link.node->sock.error, 9004);
    EXPECT_EQ(Trace::Take().back(), "mnBrowse");
  }
}

TEST_F(ReadTest, BrowseWithNothingThere) {
  Link link = Connect(kNonBlocking);
  EXPECT_EQ(Browse(link.node), std::string("0, error 11, read 0") + kIdle);
  link.peer.Close();
  AwaitReadable(link.node->sock.fd);
  EXPECT_EQ(Browse(link.node), std::string("0, error 9004, read 0") + kIdle);
  const Node node = CreateDatagram();
  const Peer peer = Peer::Datagram();
  Platform::Reset();
  peer.SendTo(PortOf(node), Wire(1, 4).substr(0, 100));
  peer.SendTo(PortOf(node), Wire(2, 4));
  EXPECT_EQ(mnBrowse(in_, node), 0);
  EXPECT_EQ(node->error, MQ_BAD_MESSAGE) << "a datagram does not grow";
  EXPECT_EQ(Platform::Calls(), Lines{"recvfrom(136, flags 2) = 100"});
  EXPECT_EQ(mnRead(in_, node), 0);
  EXPECT_EQ(mnBrowse(in_, node), 1);
  EXPECT_EQ(mnRead(in_, node), 1);
  EXPECT_EQ(in_.Text(), "2:4 from peer");
}

}  // namespace
