// read_test.cc - messages gathered from whatever arrives, plain and signed: delivered, browsed, refused.
#include "tests/support/nodes.hh"

namespace {

class ReadTest : public NodeTest {
 protected:
  // A read and what it left: what was delivered, the state. What was sent is there before.
  std::string Read(MQNode* node, bool secure = false) {
    const int result = mnSRead(in_, node, secure, nullptr);
    return (result ? in_.Text() : "nothing") + ", " + ReadState(node);
  }
  std::string Read(const Link& link, const std::string& bytes, bool secure = false) {
    Send(link, bytes);
    return Read(link.node, secure);
  }
  std::string Browse(const MQNode* node) {
    const int result = mnBrowse(in_, const_cast<MQNode*>(node));
    return format("{}, {}", result, node->error);
  }
  static void Send(const Link& link, const std::string& bytes) {
    link.peer.Send(bytes);
    if (!bytes.empty()) Await(link.node->sock.fd);
    Take();
  }
  std::string Form(bool secure, uint32_t command) { return secure ? keys_.Sign(command) : Wire(command); }

  Keys keys_;
  const Message in_{300};
};

// Headers, in either byte order, and what a read makes of them. A refused one is dropped and the next bytes are a
// header again. Only a header that is recognised gets converted.
TEST_F(ReadTest, HeadersAcceptedAndRefused) {
  const struct {
    bool secure;
    uint32_t first, announced;
    uint32_t asked = 0;  // 0: refused
  } rows[] = {{false, 136, 24, 160},
              {false, 136, 1, 137},
              {false, 136, MQ_MAX_MESSAGE - 136, MQ_MAX_MESSAGE},
              {false, 136, MQ_MAX_MESSAGE - 135},
              {false, 136, 0},
              {false, 136, 0xFFFFFFFF},
              {false, 136, 0xFFFFFF78},
              {false, 136, 0xFFFFFF79},
              {false, 135, 24},
              {false, 137, 24},
              {false, 32, 24},
              {false, 136 | 1u << 31, 24},
              {true, 32, 1, 33},
              {true, 32, MQ_MAX_MESSAGE - 32, MQ_MAX_MESSAGE},
              {true, 32, MQ_MAX_MESSAGE - 31},
              {true, 32, 0},
              {true, 32, 0xFFFFFFFF},
              {true, 32, 0xFFFFFFE0},
              {true, 31, 256},
              {true, 33, 256},
              {true, 136, 256}};
  for (const auto& row : rows) {
    const uint32_t length = row.secure ? kEnvelope : kHeader;
    const std::string native = WithWord(
        WithWord(Form(row.secure, 1).substr(0, length), row.secure ? 16 : kAtBody, row.announced), 0, row.first);
    std::string foreign = WithWord(Foreign(Form(row.secure, 1)).substr(0, length), row.secure ? 16 : kAtBody,
                                   __builtin_bswap32(row.announced));
    foreign = WithWord(foreign, 0, __builtin_bswap32(row.first));
    for (const std::string& header : {native, foreign}) {
      const Link link = Connect(false);
      EXPECT_EQ(Read(link, header, row.secure), row.asked != 0
                                                    ? format("nothing, 11, read 0, held {}/{}", length, row.asked)
                                                    : format("nothing, 2026, read 0, held 0/{}", length))
          << row.first << " " << row.announced;
      EXPECT_EQ(Take("m"), row.first != length ? "" : row.secure ? "AlienToNativeExt" : "AlienToNative");
      if (row.asked != 0) continue;
      EXPECT_EQ(Read(link, Foreign(Form(row.secure, 2)), row.secure),
                format("2:4 from {}, 0, read 1, held 0/{}", row.secure ? "tester" : "peer", length));
    }
  }
  // Something signed that is shorter than any header.
  EXPECT_EQ(Read(Connect(), WithWord(keys_.Sign(1).substr(0, kEnvelope) + "x", 16, 1), true),
            "nothing, -1001, read 1, held 0/32");
}

// Trace points with what they see: the order of reports and resets, which differs in a receive that fails.
TEST_F(ReadTest, Traces) {
  const Link links[] = {Connect(false), Connect(false)};
  const std::string plain = Wire(1), wire = keys_.Sign(1);
  const std::string empty = WithWord(plain.substr(0, kHeader), kAtBody, 0);
  const std::string got = "ReadSocket:Before; ReadSocket:After; ";
  const std::string blocked = "ReadSocket:Before; onError 11; ReadSocket:After; ";
  const std::string reset = got + "ReadSocket:Before; onError 104; ReadSocket:After; ";
  const struct {
    bool secure;
    std::string bytes;
    std::string trace;
    int failing = 0;  // receive
  } rows[] = {
      // whole: by the nested read, and by the outer
      {false, plain, got + got + "mnRead 0, read 1, held 0/136; mnRead 0, read 1, held 0/136"},
      // part of a header
      {false, plain.substr(0, 100),
       got + blocked + "mnReadMsg 11, read 1, held 100/136; mnRead 11, read 1, held 100/136"},
      // the nested read runs dry
      {false, plain.substr(100, 40),
       got + got + blocked +
           "mnReadMsg 11, read 1, held 140/160; mnRead 11, read 1, held 140/160; "
           "mnRead 11, read 1, held 140/160"},
      {false, plain.substr(140), got + "mnRead 0, read 2, held 0/136"},
      // wrong first word: traced with the bytes still there
      {false, std::string(136, 'x'), got + "mnReadMsg 2026, read 2, held 136/136; mnRead 2026, read 2, held 0/136"},
      {false, empty, got + "mnRead 2026, read 2, held 136/136"},
      // reset, then traced
      {false, plain.substr(0, 100), reset + "mnReadMsg 104, read 2, held 0/136; mnRead 104, read 2, held 0/136", 2},
      {true, wire, got + got + "mnSRead 0, read 1, held 0/32; mnSRead 0, read 1, held 0/32"},
      // replayed
      {true, wire, got + got + "mnSRead -1001, read 2, held 288/288; mnSRead -1001, read 2, held 0/32"},
      {true, wire.substr(0, 20), got + blocked + "mnSReadMsg 11, read 2, held 20/32; mnSRead 11, read 2, held 20/32"},
      {true, wire.substr(20, 50),
       got + got + blocked +
           "mnSReadMsg 11, read 2, held 70/288; mnSRead 11, read 2, held 70/288; "
           "mnSRead 11, read 2, held 70/288"},
      {true, wire.substr(70), got + "mnSRead -1001, read 3, held 288/288"},
      {true, plain.substr(0, 32), got + "mnSReadMsg 2026, read 3, held 32/32; mnSRead 2026, read 3, held 0/32"},
      // traced, then reset
      {true, wire.substr(0, 20), reset + "mnSReadMsg 104, read 3, held 20/32; mnSRead 104, read 3, held 0/32", 2},
  };
  for (const auto& row : rows) {
    const Link& link = links[row.secure];
    Watch(link.node, ReadState);
    if (row.failing != 0) Platform::Fail("recvfrom", row.failing, ECONNRESET);
    Read(link, row.bytes, row.secure);
    EXPECT_EQ(Take("sn"), row.trace);
  }
  const Node node = CreateDatagram();
  const Peer peer = Peer::Datagram();
  Watch(node);
  for (const std::string& bytes : {plain, std::string("short")}) {
    peer.SendTo(PortOf(node->sock.fd), bytes);
    Read(node);
    EXPECT_EQ(Take("sn"), "ReadSocket:Before; ReadSocket:After; mnRead");
  }
}

// Each function of the companion failing in turn: what the node says, what was called, which user the record names.
TEST_F(ReadTest, CompanionFailures) {
  const std::string plain = "AlienToNative; SizePcfMessage 256";
  const std::string gathered = "AlienToNativeExt; SizePcfMessage 384";
  const std::string authentic = gathered + "; mqc_authenticate; AlienToNative";
  const struct {
    bool secure;
    const char *failing, *left, *user;
    std::string calls;
  } rows[] = {
      {false, "AlienToNative", "2026, read 0, held 0/136", "none", "AlienToNative"},
      {false, "SizePcfMessage", "2102, read 0, held 0/136", "none", plain},
      {false, "AlienPcfToNative", "4005, read 1, held 0/136", "peer", plain + "; AlienPcfToNative"},
      {false, "RawToPcf", "4005, read 1, held 0/136", "peer", plain + "; AlienPcfToNative; RawToPcf"},
      {false, "", "0, read 1, held 0/136", "peer", plain + "; AlienPcfToNative; RawToPcf"},
      {true, "AlienToNativeExt", "2026, read 0, held 0/32", "none", "AlienToNativeExt"},
      {true, "SizePcfMessage", "2102, read 0, held 0/32", "none", gathered},
      // after a failed check the record still holds what came
      {true, "mqc_authenticate", "-1001, read 1, held 0/32", "tester", gathered + "; mqc_authenticate"},
      {true, "AlienToNative", "2026, read 1, held 0/32", "tester", authentic + "; DumpPcfMessage"},
      {true, "AlienPcfToNative", "4005, read 1, held 0/32", "tester", authentic + "; AlienPcfToNative; DumpPcfMessage"},
      {true, "RawToPcf", "4005, read 1, held 0/32", "tester",
       authentic + "; AlienPcfToNative; RawToPcf; DumpPcfMessage"},
      {true, "", "0, read 1, held 0/32", "tester", authentic + "; AlienPcfToNative; RawToPcf"},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    PcfMessage small;
    mqc_message_init(&small);
    memcpy(small.secHeader.userId, "none", 4);
    Send(link, (row.secure ? keys_.Sign(4, 100) : Wire(4, 100)) + Form(row.secure, 5));
    Companion::Now().failing = row.failing;
    EXPECT_EQ(mnSRead(&small, link.node, row.secure, nullptr), *row.failing == '\0');
    EXPECT_EQ(Take("m"), row.calls);
    EXPECT_EQ(ReadState(link.node), row.left) << row.calls;
    EXPECT_EQ(std::string(small.secHeader.userId, 12), Field(row.user, 12));
    if (row.secure && *row.failing == '\0') {
      EXPECT_EQ(format("{} {} {}", small.secHeader.hdrLength, small.secHeader.version, small.raw.length), "32 1 256");
    }
    mqc_message_release(&small);
    Companion::Now().failing.clear();
    // A header that could not be converted was dropped, its body was not.
    if (row.calls.find(';') == std::string::npos) continue;
    EXPECT_EQ(mnSRead(in_, link.node, row.secure, nullptr), 1) << row.failing;
    EXPECT_EQ(in_.Text(), row.secure ? "5:4 from tester" : "5:4 from peer");
  }
}

TEST_F(ReadTest, ReceiveBufferGrowsForLongMessagesAlone) {
  const Link link = Connect();
  int read = 0;
  for (const auto& [size, capacity] : {std::pair{16364u, 16520u}, {16365u, 16524u}, {20000u, 20156u}, {4u, 20156u}}) {
    Send(link, Wire(1, size));
    EXPECT_EQ(Read(link.node), format("1:{} from peer, 0, read {}, held 0/136", size, ++read));
    EXPECT_EQ(link.node->recvBuffer.capacity, capacity);
  }
}

TEST_F(ReadTest, NoMemory) {
  for (const bool secure : {false, true}) {
    const Link link = Connect();
    Send(link, secure ? WithWord(keys_.Sign(1).substr(0, 32), 16, 20000) : Wire(1, 20000).substr(0, kHeader));
    mqc_fail_allocation(1, 0);
    Watch(link.node, ReadState);
    EXPECT_EQ(Read(link.node, secure),
              secure ? "nothing, 2102, read 0, held 0/32" : "nothing, 2102, read 0, held 0/136");
    EXPECT_EQ(Take("n"), secure ? "mnSRead 2102, read 0, held 32/32" : "mnRead 2102, read 0, held 136/136")
        << "known before anything more is gathered";
    EXPECT_EQ(link.node->recvBuffer.capacity, 16520u);
  }
  // A node without a receive area, created without memory or closed: a read takes one when there is memory.
  mqc_fail_allocation(2, 0);
  const Node bare = Create(0, MQ_ROLE_CONNECT), closed = Create(0, MQ_ROLE_CONNECT);
  mnClose(closed);
  for (const Node* node : {&bare, &closed}) {
    Take();
    EXPECT_EQ(mnReadMsg(*node), 0);
    EXPECT_EQ(ReadState(*node), "2102, read 0, held 0/0");
    mqc_fail_allocation(1, 0);
    EXPECT_EQ(Read(*node), "nothing, 2102, read 0, held 0/0");
    EXPECT_EQ(Take("c"), "");
    EXPECT_EQ(Read(*node), format("nothing, {}, read 0, held 0/136", node == &bare ? ENOTCONN : EBADF));
  }
}

// Whole messages alone, each of which is converted once; nothing short is. An idle buffer is not armed again.
TEST_F(ReadTest, Datagrams) {
  const Node node = CreateDatagram();
  NoblockSocket(&node->sock);
  const Peer peer = Peer::Datagram();
  Alias(peer.port(), "P");
  const std::string wire = Wire(1), wire2 = keys_.Sign(2);
  const struct {
    bool secure;
    std::string bytes;
    const char* outcome;
    bool judged = true;
  } rows[] = {
      {false, wire, "1:4 from peer, 0"},
      {false, Foreign(wire), "1:4 from peer, 0"},
      {false, Wire(1, 16520 - 156), "1:16364 from peer, 0"},
      {false, Wire(1, 16520 - 155), "nothing, 2026"},
      {false, wire.substr(0, wire.size() - 1), "nothing, 2026"},
      {false, wire + "x", "nothing, 2026"},
      {false, wire.substr(0, kHeader), "nothing, 2026"},
      {false, WithWord(wire.substr(0, kHeader), kAtBody, 0), "nothing, 2026"},
      {false, wire.substr(0, kHeader - 1), "nothing, 2026", false},
      {false, "x", "nothing, 2026", false},
      {false, WithWord(wire, 0, 135), "nothing, 2026", false},
      {false, WithWord(wire, kAtBody, 24 + 0xFFFFFF00u), "nothing, 2026"},
      {false, "", "nothing, 9004", false},
      {false, "(none)", "nothing, 11", false},
      {true, wire2 + "x", "nothing, 2026"},
      {true, wire2.substr(0, wire2.size() - 1), "nothing, 2026"},
      {true, wire2.substr(0, kEnvelope), "nothing, 2026"},
      {true, wire2.substr(0, kEnvelope - 1), "nothing, 2026", false},
      {true, wire2, "2:4 from tester, 0"},
  };
  for (const auto& row : rows) {
    const bool some = row.bytes != "(none)";
    if (some) peer.SendTo(PortOf(node->sock.fd), row.bytes);
    if (some) Await(node->sock.fd);
    node->msgsRead = 0;
    Take();
    const std::string outcome = Read(node, row.secure);
    EXPECT_EQ(outcome, format("{}, read {}, held 0/16520", row.outcome, node->msgsRead));
    EXPECT_EQ(node->msgsRead, outcome[0] == 'n' ? 0u : 1u) << row.outcome;
    const std::string events = Take("mb");
    EXPECT_EQ(events.find("AlienToNative") != events.npos, row.judged) << row.bytes.size();
    EXPECT_EQ(events.find("reset") != events.npos, some) << row.bytes.size();
    EXPECT_EQ(events.find("reset"), events.rfind("reset")) << row.bytes.size();
  }
  EXPECT_EQ(Text(node->sock.from), "- 127.0.0.1 P tcp P");
  // The gather step alone keeps what it has.
  peer.SendTo(PortOf(node->sock.fd), wire);
  peer.SendTo(PortOf(node->sock.fd), Wire(2));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(mnReadMsg(node), 1);
    EXPECT_EQ(ReadState(node), "0, read 1, held 160/160");
    EXPECT_EQ(memcmp(node->recvBuffer.data, wire.data(), wire.size()), 0);
  }
  EXPECT_EQ(Read(node), "1:4 from peer, 0, read 2, held 0/16520");
}

// One stream that changes its framing between messages, buffers left idle or with a part by the other reader.
TEST_F(ReadTest, SwitchingFraming) {
  const Link link = Connect(false);
  const std::string envelope = keys_.Sign(5).substr(0, 136);
  const struct {
    std::string bytes;
    bool secure;
    const char* outcome;
  } rows[] = {
      {Wire(1) + keys_.Sign(2) + Wire(3) + keys_.Sign(4), false, "1:4 from peer, 0, read 1, held 0/136"},
      {"", true, "2:4 from tester, 0, read 2, held 0/32"},
      {"", false, "3:4 from peer, 0, read 3, held 0/136"},
      {"", true, "4:4 from tester, 0, read 4, held 0/32"},
      {envelope, false, "nothing, 2026, read 4, held 0/136"},
      // a part is judged once something has arrived
      {Wire(6).substr(0, 100), false, "nothing, 11, read 4, held 100/136"},
      {"", true, "nothing, 11, read 4, held 100/136"},
      {Wire(6).substr(100, 36), true, "nothing, 2026, read 4, held 0/32"},
      {envelope.substr(0, 20), true, "nothing, 11, read 4, held 20/32"},
      {"", false, "nothing, 11, read 4, held 20/32"},
      {envelope.substr(20, 12), false, "nothing, 2026, read 4, held 0/136"},
  };
  for (const auto& row : rows) EXPECT_EQ(Read(link, row.bytes, row.secure), row.outcome);
}

// ---- Browsing ----

TEST_F(ReadTest, BrowseConsumesNothing) {
  const Link link = Connect();
  Send(link, Foreign(Wire(3, 200)));
  for (int twice = 0; twice < 2; ++twice) {
    Watch(link.node, Error);
    in_->raw.length = 55;
    link.node->error = 77;
    Trace::Now().on_socket = [](std::string_view, const SockRec* rec) {
      Platform::Note('s', std::to_string(static_cast<MQNode*>(rec->owner)->error));
    };
    EXPECT_EQ(Browse(link.node), "1, 0");
    EXPECT_EQ(Take(),
              "ReadSocket:Before; 0; recvfrom(136, flags 2) = 136; ReadSocket:After; 0; AlienToNative; "
              "SizePcfMessage 220; mnBrowse 0");
    EXPECT_EQ(WordAt(in_.raw(), 0), 136u);
    EXPECT_EQ(in_->raw.length, 55u);
  }
  EXPECT_EQ(Read(link.node), "3:200 from peer, 0, read 1, held 0/136");
}

TEST_F(ReadTest, BrowseOfHeaders) {
  const auto header = [](uint32_t first, uint32_t body) {
    return WithWord(WithWord(Wire(1).substr(0, kHeader), 0, first), kAtBody, body);
  };
  const struct {
    std::string bytes;
    const char *failing, *outcome, *calls;
  } rows[] = {
      {header(136, 164), "SizePcfMessage", "1, 0", "AlienToNative"},
      {header(136, 165), "SizePcfMessage", "0, 2102", "AlienToNative; SizePcfMessage 165"},
      {header(136, 165), "", "1, 0", "AlienToNative; SizePcfMessage 165"},
      {header(136, 164), "AlienToNative", "0, 2026", "AlienToNative; DumpPcfMessage"},
      {header(136, 0x7FFFFFFF), "", "0, 2102", "AlienToNative; SizePcfMessage 2147483647"},
      {header(136, 0xFFFFFFFF), "", "1, 0", "AlienToNative"},  // compared as a signed number
      {header(135, 64), "", "0, 2026", ""},
      {header(137, 64), "", "0, 2026", ""},
      {"text", "", "0, 2026", ""},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    const Message small(300);
    Send(link, row.bytes);
    Companion::Now().failing = row.failing;
    const int result = mnBrowse(small, link.node);
    EXPECT_EQ(format("{}, {}", result, link.node->error), row.outcome);
    EXPECT_EQ(Take("m"), row.calls);
  }
}

// Part of a header: a look again from the front after each pause, for a bounded time, unless the node does not block.
TEST_F(ReadTest, BrowseOfPartOfAHeader) {
  const std::string wire = Wire(1);
  for (const size_t part : {2, 4, 135}) {
    const Link link = Connect();
    const auto pauses = [] { return Platform::Records({"nanosleep"}).size(); };
    Send(link, wire.substr(0, part));
    int paused = 0;
    Platform::OnPause([&] {
      if (++paused == 4) link.peer.Send(wire.substr(part));
    });
    EXPECT_EQ(Browse(link.node), "1, 0") << part;
    EXPECT_EQ(Platform::Calls({"recvfrom"}).front(), format("recvfrom(136, flags 2) = {}", part));
    EXPECT_EQ(Platform::Calls({"recvfrom"}).back(), "recvfrom(136, flags 2) = 136");
    EXPECT_EQ(Read(link.node), "1:4 from peer, 0, read 1, held 0/136");

    // Nothing more comes: bounded, in looks and in time.
    Platform::Reset();
    Platform::SkipPauses();
    Send(link, wire.substr(0, part));
    EXPECT_EQ(Browse(link.node), "0, 11");
    EXPECT_EQ(Platform::Calls({"nanosleep"}), Lines(100, "nanosleep(0.010000000s) = 0"));
    NoblockSocket(&link.node->sock);
    Take();
    EXPECT_EQ(Browse(link.node), "0, 11");
    EXPECT_EQ(pauses(), 0u);
    // Whether it blocks cannot be told: it pauses.
    Platform::Fail("fcntl", 1, EBADF, Platform::kOnwards);
    EXPECT_EQ(Browse(link.node), "0, 11");
    EXPECT_EQ(pauses(), 100u);
    // The peer will send no more.
    Platform::Mend();
    BlockSocket(&link.node->sock);
    link.peer.Shutdown();
    Watch(link.node, Error);
    EXPECT_EQ(Browse(link.node), "0, 9004");
    EXPECT_EQ(link.node->sock.error, 9004);
    EXPECT_EQ(Take("n"), "mnBrowse 9004");
  }
}

TEST_F(ReadTest, BrowseWithNothingThere) {
  Link link = Connect(false);
  EXPECT_EQ(Browse(link.node), "0, 11");
  Send(link, Wire(1));
  Platform::Limit("recvfrom", {2});
  EXPECT_EQ(Browse(link.node), "1, 0") << "the first look was cut short";
  EXPECT_EQ(mnRead(in_, link.node), 1);
  link.peer = Peer();
  Await(link.node->sock.fd);
  EXPECT_EQ(Browse(link.node), "0, 9004");
  // A datagram does not grow.
  const Node node = CreateDatagram();
  const Peer peer = Peer::Datagram();
  peer.SendTo(PortOf(node->sock.fd), Wire(1).substr(0, 100));
  peer.SendTo(PortOf(node->sock.fd), Wire(2));
  Take();
  EXPECT_EQ(Browse(node), "0, 2026");
  EXPECT_EQ(Platform::Calls({"recvfrom"}), Lines(2, "recvfrom(136, flags 2) = 100"));
  EXPECT_EQ(mnRead(in_, node), 0);
  EXPECT_EQ(Browse(node), "1, 0");
  EXPECT_EQ(Read(node), "2:4 from peer, 0, read 1, held 0/16520");
}

}  // namespace
