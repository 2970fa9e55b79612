// read_test.cc - reading messages that arrive in pieces, plain and signed: delivered, browsed, refused.
#include "tests/support/nodes.hh"

namespace {

class ReadTest : public NodeTest {
 protected:
  // Reads once and returns what was delivered, and the state. All that was sent has arrived before.
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
  std::string Framed(bool secure, uint32_t command) { return secure ? keys_.Sign(command) : Wire(command); }

  Keys keys_;
  const Message in_{300};
};

// Headers in both byte orders, and the outcome of a read. A refused header is dropped, and the next bytes are read as a
// header. Only a recognised header is converted.
TEST_F(ReadTest, HeadersAcceptedAndRefused) {
  const auto check = [this](bool secure, uint32_t first, uint32_t announced, bool accepted) {
    const uint32_t length = secure ? kEnvelope : kHeader, at = secure ? 16 : kAtBody;
    const std::string native = Framed(secure, 1).substr(0, length);
    for (const bool foreign : {false, true}) {
      const Link link = Connect(false);
      const auto word = [&](uint32_t value) { return foreign ? __builtin_bswap32(value) : value; };
      const std::string form = foreign ? Foreign(native) : native;
      EXPECT_EQ(Read(link, With(With(form, at, word(announced)), 0, word(first)), secure),
                accepted ? format("nothing, 11, read 0, held {}/{}", length, length + announced)
                         : format("nothing, 2026, read 0, held 0/{}", length))
          << first << " " << announced;
      EXPECT_EQ(Take("m"), first != length ? "" : secure ? "AlienToNativeExt" : "AlienToNative");
      if (accepted) continue;
      EXPECT_EQ(Read(link, Foreign(Framed(secure, 2)), secure),
                format("2:4 from {}, 0, read 1, held 0/{}", secure ? "tester" : "peer", length));
    }
  };
  for (const uint32_t length : {1u, 24u, MQ_MAX_MESSAGE - 136}) check(false, 136, length, true);
  for (const uint32_t length : {0u, MQ_MAX_MESSAGE - 135, 0xFFFFFFFFu, 0xFFFFFF78u}) check(false, 136, length, false);
  for (const uint32_t first : {32u, 135u, 137u, 136u | 1u << 31}) check(false, first, 24, false);
  for (const uint32_t length : {1u, MQ_MAX_MESSAGE - 32}) check(true, 32, length, true);
  for (const uint32_t length : {0u, MQ_MAX_MESSAGE - 31, 0xFFFFFFFFu, 0xFFFFFFE0u}) check(true, 32, length, false);
  for (const uint32_t first : {31u, 33u, 136u}) check(true, first, 256, false);
  // A signed message that is shorter than any header.
  EXPECT_EQ(Read(Connect(), With(keys_.Sign(1).substr(0, kEnvelope) + "x", 16, 1), true),
            "nothing, -1001, read 1, held 0/32");
}

// Trace points and what they observe: reports and resets come in another order when a receive fails.
TEST_F(ReadTest, Traces) {
  const Link links[] = {Connect(false), Connect(false)};
  const auto read = [&](bool secure, const std::string& bytes, int failing = 0) {
    Watch(links[secure].node, ReadState);
    if (failing != 0) Platform::Fail("recvfrom", failing, ECONNRESET);
    Read(links[secure], bytes, secure);
    return Take("sn");
  };
  const std::string plain = Wire(1), wire = keys_.Sign(1);
  const std::string got = "ReadSocket[]; ";
  const std::string blocked = got + "ReadSocket[onError 11]; ";
  const std::string reset = got + "ReadSocket[onError 104]; ";
  // A whole message, by the nested read and by the outer one. Part of a header; the nested read runs dry; the rest.
  EXPECT_EQ(read(false, plain), got + got + "mnRead 0, read 1, held 0/136; mnRead 0, read 1, held 0/136");
  EXPECT_EQ(read(false, plain.substr(0, 100)),
            blocked + "mnReadMsg 11, read 1, held 100/136; mnRead 11, read 1, held 100/136");
  EXPECT_EQ(read(false, plain.substr(100, 40)),
            got + blocked +
                "mnReadMsg 11, read 1, held 140/160; mnRead 11, read 1, held 140/160; mnRead 11, read 1, held 140/160");
  EXPECT_EQ(read(false, plain.substr(140)), got + "mnRead 0, read 2, held 0/136");
  // A wrong first word is traced before the reset; a failed receive is traced after it.
  EXPECT_EQ(read(false, std::string(136, 'x')),
            got + "mnReadMsg 2026, read 2, held 136/136; mnRead 2026, read 2, held 0/136");
  EXPECT_EQ(read(false, With(plain.substr(0, 136), kAtBody, 0)), got + "mnRead 2026, read 2, held 136/136");
  EXPECT_EQ(read(false, "part", 2), reset + "mnReadMsg 104, read 2, held 0/136; mnRead 104, read 2, held 0/136");
  EXPECT_EQ(read(true, wire), got + got + "mnSRead 0, read 1, held 0/32; mnSRead 0, read 1, held 0/32");
  // A replayed message, whole and in parts.
  EXPECT_EQ(read(true, wire), got + got + "mnSRead -1001, read 2, held 288/288; mnSRead -1001, read 2, held 0/32");
  EXPECT_EQ(read(true, wire.substr(0, 20)),
            blocked + "mnSReadMsg 11, read 2, held 20/32; mnSRead 11, read 2, held 20/32");
  EXPECT_EQ(read(true, wire.substr(20, 50)),
            got + blocked +
                "mnSReadMsg 11, read 2, held 70/288; mnSRead 11, read 2, held 70/288; mnSRead 11, read 2, held 70/288");
  EXPECT_EQ(read(true, wire.substr(70)), got + "mnSRead -1001, read 3, held 288/288");
  EXPECT_EQ(read(true, plain.substr(0, 32)),
            got + "mnSReadMsg 2026, read 3, held 32/32; mnSRead 2026, read 3, held 0/32");
  EXPECT_EQ(read(true, "part", 2), reset + "mnSReadMsg 104, read 3, held 4/32; mnSRead 104, read 3, held 0/32");
}

// Each function of the companion fails in turn: the node's error, the calls, the user in the record.
TEST_F(ReadTest, CompanionFailures) {
  const auto read = [this](bool secure, const std::string& failing) {
    const Link link = Connect();
    const Message small;
    memcpy(small->secHeader.userId, "none", 4);
    Send(link, (secure ? keys_.Sign(4, 100) : Wire(4, 100)) + Framed(secure, 5));
    Companion::Now().failing = failing;
    EXPECT_EQ(mnSRead(small, link.node, secure, nullptr), failing.empty());
    const std::string outcome = format("{} | {}, user {}", Take("m"), ReadState(link.node), small.sender());
    Companion::Now().failing.clear();
    // A header that could not be converted was dropped, but not its body. Otherwise the next message is read.
    const bool in_step = outcome.find(';') != std::string::npos;
    EXPECT_EQ(in_step ? mnSRead(in_, link.node, secure, nullptr) : 1, 1) << outcome;
    EXPECT_EQ(in_step ? in_.command() : 5, 5u) << outcome;
    return outcome;
  };
  const std::string plain = "AlienToNative; SizePcfMessage 256";
  const std::string gathered = "AlienToNativeExt; SizePcfMessage 384";
  const std::string checked = gathered + "; mqc_authenticate", native = checked + "; AlienToNative";
  EXPECT_EQ(read(false, "AlienToNative"), "AlienToNative | 2026, read 0, held 0/136, user none");
  EXPECT_EQ(read(false, "SizePcfMessage"), plain + " | 2102, read 0, held 0/136, user none");
  EXPECT_EQ(read(false, "AlienPcfToNative"), plain + "; AlienPcfToNative | 4005, read 1, held 0/136, user peer");
  EXPECT_EQ(read(false, "RawToPcf"), plain + "; AlienPcfToNative; RawToPcf | 4005, read 1, held 0/136, user peer");
  EXPECT_EQ(read(false, ""), plain + "; AlienPcfToNative; RawToPcf | 0, read 1, held 0/136, user peer");
  EXPECT_EQ(read(true, "AlienToNativeExt"), "AlienToNativeExt | 2026, read 0, held 0/32, user none");
  EXPECT_EQ(read(true, "SizePcfMessage"), gathered + " | 2102, read 0, held 0/32, user none");
  // After a failed check the record still contains what was received.
  EXPECT_EQ(read(true, "mqc_authenticate"), checked + " | -1001, read 1, held 0/32, user tester");
  EXPECT_EQ(read(true, "AlienToNative"), native + "; DumpPcfMessage | 2026, read 1, held 0/32, user tester");
  EXPECT_EQ(read(true, "AlienPcfToNative"),
            native + "; AlienPcfToNative; DumpPcfMessage | 4005, read 1, held 0/32, user tester");
  EXPECT_EQ(read(true, "RawToPcf"),
            native + "; AlienPcfToNative; RawToPcf; DumpPcfMessage | 4005, read 1, held 0/32, user tester");
  EXPECT_EQ(read(true, ""), native + "; AlienPcfToNative; RawToPcf | 0, read 1, held 0/32, user tester");
  EXPECT_EQ(format("{} {} {}", in_->secHeader.hdrLength, in_->secHeader.version, in_->raw.length), "32 1 160");
}

TEST_F(ReadTest, NoMemory) {
  for (const bool secure : {false, true}) {
    const Link link = Connect();
    Send(link, secure ? With(keys_.Sign(1).substr(0, 32), 16, 20000) : Wire(1, 20000).substr(0, kHeader));
    mqc_fail_allocation(1, 0);
    Watch(link.node, ReadState);
    EXPECT_EQ(Read(link.node, secure),
              secure ? "nothing, 2102, read 0, held 0/32" : "nothing, 2102, read 0, held 0/136");
    EXPECT_EQ(Take("n"), secure ? "mnSRead 2102, read 0, held 32/32" : "mnRead 2102, read 0, held 136/136")
        << "reported before more is received";
    EXPECT_EQ(link.node->recvBuffer.capacity, 16520u);
  }
  // A node without a receive area, because memory was short or it was closed: a read allocates one.
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

// A datagram must be one whole message. A header that is whole and recognised is converted.
TEST_F(ReadTest, Datagrams) {
  const Node node = CreateDatagram();
  NoblockSocket(&node->sock);
  const Peer peer = Peer::Datagram();
  Alias(peer.port(), "P");
  const auto read = [&](bool secure, const std::string& bytes, bool sent = true) {
    if (sent) peer.SendTo(PortOf(node->sock.fd), bytes);
    if (sent) Await(node->sock.fd);
    node->msgsRead = 0;
    Take();
    const std::string outcome = Read(node, secure);
    const std::string tail = format(", read {}, held 0/16520", outcome[0] == 'n' ? 0 : 1);
    EXPECT_EQ(outcome.substr(outcome.size() - tail.size()), tail);
    const std::string events = Take("m");
    return format("{} {}", outcome.substr(0, outcome.size() - tail.size()), events.substr(0, events.find(';')));
  };
  const std::string wire = Wire(1), wire2 = keys_.Sign(2);
  EXPECT_EQ(read(false, wire), "1:4 from peer, 0 AlienToNative");
  EXPECT_EQ(read(false, Foreign(wire)), "1:4 from peer, 0 AlienToNative");
  EXPECT_EQ(read(false, Wire(1, 16520 - 156)), "1:16364 from peer, 0 AlienToNative");
  for (const std::string& bytes : {Wire(1, 16520 - 155), wire.substr(0, 159), wire + "x", wire.substr(0, kHeader),
                                   With(wire.substr(0, kHeader), kAtBody, 0), With(wire, kAtBody, 24 + 0xFFFFFF00u)}) {
    EXPECT_EQ(read(false, bytes), "nothing, 2026 AlienToNative") << bytes.size();
  }
  for (const std::string& bytes : {wire.substr(0, kHeader - 1), std::string("x"), With(wire, 0, 135)}) {
    EXPECT_EQ(read(false, bytes), "nothing, 2026 ") << bytes.size();
  }
  EXPECT_EQ(read(false, ""), "nothing, 9004 ");
  EXPECT_EQ(read(false, "", false), "nothing, 11 ");
  for (const std::string& bytes : {wire2 + "x", wire2.substr(0, wire2.size() - 1), wire2.substr(0, kEnvelope)}) {
    EXPECT_EQ(read(true, bytes), "nothing, 2026 AlienToNativeExt") << bytes.size();
  }
  EXPECT_EQ(read(true, wire2.substr(0, kEnvelope - 1)), "nothing, 2026 ");
  EXPECT_EQ(read(true, wire2), "2:4 from tester, 0 AlienToNativeExt");
  EXPECT_EQ(Text(node->sock.from), "- 127.0.0.1 P tcp P");
  // mnReadMsg alone keeps what it has received.
  peer.SendTo(PortOf(node->sock.fd), wire);
  peer.SendTo(PortOf(node->sock.fd), Wire(2));
  Watch(node);
  EXPECT_EQ(mnReadMsg(node) + mnReadMsg(node), 2);
  EXPECT_EQ(ReadState(node), "0, read 1, held 160/160");
  EXPECT_EQ(Read(node), "1:4 from peer, 0, read 2, held 0/16520");
  EXPECT_EQ(Take("sn"), "ReadSocket[]; mnRead");
}

// One stream whose framing changes between messages; buffers left idle, or partly filled, by the other reader.
TEST_F(ReadTest, SwitchingFraming) {
  const Link link = Connect(false);
  const std::string envelope = keys_.Sign(5).substr(0, 136), plain = Wire(6);
  EXPECT_EQ(Read(link, Wire(1) + keys_.Sign(2) + Wire(3) + keys_.Sign(4)), "1:4 from peer, 0, read 1, held 0/136");
  EXPECT_EQ(Read(link.node, true), "2:4 from tester, 0, read 2, held 0/32");
  EXPECT_EQ(Read(link.node, false), "3:4 from peer, 0, read 3, held 0/136");
  EXPECT_EQ(Read(link.node, true), "4:4 from tester, 0, read 4, held 0/32");
  EXPECT_EQ(Read(link, envelope), "nothing, 2026, read 4, held 0/136");
  // A part of a message is judged when something has arrived.
  EXPECT_EQ(Read(link, plain.substr(0, 100)), "nothing, 11, read 4, held 100/136");
  EXPECT_EQ(Read(link.node, true), "nothing, 11, read 4, held 100/136");
  EXPECT_EQ(Read(link, plain.substr(100, 36), true), "nothing, 2026, read 4, held 0/32");
  EXPECT_EQ(Read(link, envelope.substr(0, 20), true), "nothing, 11, read 4, held 20/32");
  EXPECT_EQ(Read(link.node, false), "nothing, 11, read 4, held 20/32");
  EXPECT_EQ(Read(link, envelope.substr(20, 12)), "nothing, 2026, read 4, held 0/136");
}

// ---- Browsing ----

TEST_F(ReadTest, BrowseConsumesNothing) {
  const Link link = Connect();
  Send(link, Foreign(Wire(3, 200)));
  Watch(link.node, Error);
  in_->raw.length = 55;
  link.node->error = 77;
  Trace::Now().on_socket = [](std::string_view, const SockRec* rec) {
    Platform::Note('s', std::to_string(static_cast<MQNode*>(rec->owner)->error));
  };
  for (int i = 0; i < 2; ++i) EXPECT_EQ(Browse(link.node), "1, 0");
  const std::string once =
      "ReadSocket[0; recvfrom(136, flags 2) = 136]; 0; AlienToNative; SizePcfMessage 220; mnBrowse 0";
  EXPECT_EQ(Take(), once + "; " + once);
  EXPECT_EQ(format("{} {}", WordAt(in_.raw(), 0), in_->raw.length), "136 55");
  EXPECT_EQ(Read(link.node), "3:200 from peer, 0, read 1, held 0/136");
}

TEST_F(ReadTest, BrowseOfHeaders) {
  const auto browse = [](uint32_t first, uint32_t body, const char* failing = "") {
    const Link link = Connect();
    const Message small(300);
    Send(link, With(With(Wire(1).substr(0, kHeader), 0, first), kAtBody, body));
    Companion::Now().failing = failing;
    const int result = mnBrowse(small, link.node);
    return format("{}, {}, {}", result, link.node->error, Take("m"));
  };
  EXPECT_EQ(browse(136, 164, "SizePcfMessage"), "1, 0, AlienToNative");
  EXPECT_EQ(browse(136, 165, "SizePcfMessage"), "0, 2102, AlienToNative; SizePcfMessage 165");
  EXPECT_EQ(browse(136, 164, "AlienToNative"), "0, 2026, AlienToNative; DumpPcfMessage");
  EXPECT_EQ(browse(136, 0x7FFFFFFF), "0, 2102, AlienToNative; SizePcfMessage 2147483647");
  EXPECT_EQ(browse(136, 0xFFFFFFFF), "1, 0, AlienToNative") << "compared as a signed number";
  EXPECT_EQ(browse(135, 64) + browse(137, 64), "0, 2026, 0, 2026, ");
}

// Part of a header: the browse looks again after each pause, for a bounded time, unless the node does not block.
TEST_F(ReadTest, BrowseOfPartOfAHeader) {
  const std::string wire = Wire(1);
  for (const size_t part : {2, 4, 135}) {
    const Link link = Connect();
    Send(link, wire.substr(0, part));
    Platform::OnPause([&, paused = 0]() mutable {
      if (++paused == 4) link.peer.Send(wire.substr(part));
    });
    EXPECT_EQ(Browse(link.node), "1, 0") << part;
    EXPECT_EQ(Platform::Calls({"recvfrom"}).front(), format("recvfrom(136, flags 2) = {}", part));
    EXPECT_EQ(Read(link.node), "1:4 from peer, 0, read 1, held 0/136");

    // Nothing more arrives: looks and time are bounded, also if it is not known whether the node blocks.
    Platform::Reset();
    Platform::SkipPauses();
    Send(link, wire.substr(0, part));
    Platform::Fail("fcntl", 1, EBADF);
    EXPECT_EQ(Browse(link.node), "0, 11");
    EXPECT_EQ(Platform::Calls({"nanosleep"}), Lines(100, "nanosleep(0.010000000s) = 0"));
    NoblockSocket(&link.node->sock);
    Take();
    EXPECT_EQ(Browse(link.node), "0, 11");
    EXPECT_EQ(Platform::Calls({"nanosleep"}), Lines());
    // The peer has shut down its sending side.
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
  // The area of a datagram node does not grow.
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
