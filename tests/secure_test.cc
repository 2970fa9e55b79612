// secure_test.cc - signed messages written, gathered, authenticated, and everything that must be refused.
#include "tests/support/nodes.hh"
#include "tests/support/sender.hh"

namespace {

constexpr size_t kEnvelope = 32;
constexpr size_t kTrailer = 96;                         // what the companion's signature takes
constexpr size_t kSigned = kEnvelope + 160 + kTrailer;  // a message with 4 bytes
constexpr int64_t kNow = 0x0000018BCFE56789;

struct Signer {
  explicit Signer(const char* user) {
    uint8_t secret[MQC_KEY_BYTES];
    EXPECT_TRUE(mqc_generate_key(secret, key));
    signer = mqc_signer_new(user, secret, nullptr, 0);
  }
  ~Signer() { mqc_signer_free(signer); }
  uint8_t key[MQC_KEY_BYTES];
  MqcSigner* signer;
};

class SecureTest : public NodeTest {
 protected:
  SecureTest() {
    mqc_set_clock([]() -> int64_t { return kNow; });
    mqc_ring_add("tester", signer_.key, nullptr, 0);
  }
  ~SecureTest() override {
    mqc_ring_clear();
    mqc_set_clock(nullptr);
  }

  // The bytes of a signed message as a node puts them on the wire.
  std::string Sign(uint32_t command, size_t bytes = 4) {
    const Link link = Connect();
    const Message out(command, bytes);
    EXPECT_EQ(mnSWrite(out, link.node, 1, signer_.signer), 1);
    return link.peer.Read(kEnvelope + out->raw.length + kTrailer);
  }
  std::string Read(MQNode* node) {
    Companion::Now().calls.clear();
    const int result = mnSRead(in_, node, 1, signer_.signer);
    return (result ? in_.Text() : std::string("nothing")) + ", " + ReadState(node);
  }
  // A read of bytes that have just been sent.
  std::string Read(const Link& link, const std::string& bytes) {
    link.peer.Send(bytes);
    AwaitReadable(link.node->sock.fd);
    return Read(link.node);
  }
  Signer signer_{"tester"};
  Message in_{300};
};

TEST_F(SecureTest, BytesOnTheWire) {
  const Link link = Connect();
  Message out(7, 4);
  const std::string body = out.raw().substr(kHeader);
  memset(&out->secHeader, 'x', sizeof out->secHeader);
  for (const size_t at : {size_t{0}, size_t{8}, size_t{12}, kAtBody}) memset(out->raw.data + at, 'x', 4);
  memset(out->raw.data + kAtUser, 'x', 60);
  // The user that the caller gives has no say: the signature names who signed.
  EXPECT_EQ(mnSWriteMsg(out, link.node, nullptr, "somebody", 1, signer_.signer, 0), 1);
  const std::string wire = link.peer.Read(kSigned);

  const sender::Form native = {false, false};
  const std::string plain = sender::Encoder(native).Header(24, "tester", "UNKNOWN").bytes + body;
  std::string trailer("MQSIGN01\0\0", 10);
  for (int shift = 40; shift >= 0; shift -= 8) trailer += static_cast<char>(kNow >> shift);
  trailer.resize(kTrailer);
  EXPECT_EQ(wire.substr(0, kSigned - 80), sender::Enveloped(native, plain, "tester", trailer).substr(0, kSigned - 80))
      << "a nonce and the signature follow";
  // What the signer is given: the length of the plain message.
  EXPECT_EQ(out->secHeader.msgLength, 160u);
}

TEST_F(SecureTest, Delivery) {
  const Link link = Connect();
  link.peer.Send(Sign(1) + Sign(2, 100));
  Platform::Forget();
  EXPECT_EQ(Read(link.node), "1:4 from tester, 0, read 1, held 0/32");
  EXPECT_EQ(Platform::Calls(), (Lines{"recvfrom(32) = 32", "recvfrom(256) = 256"}));
  EXPECT_EQ(in_->secHeader.hdrLength, 32u);
  EXPECT_EQ(in_->secHeader.version, 1u);
  EXPECT_EQ(in_->raw.length, 160u);
  EXPECT_EQ(Read(link.node), "2:100 from tester, 0, read 2, held 0/32");
  EXPECT_EQ(Companion::Now().calls, (Lines{"AlienToNativeExt", "SizePcfMessage 384", "mqc_authenticate",
                                           "AlienToNative", "AlienPcfToNative", "RawToPcf"}));
  // An envelope of the other byte order; the signature does not depend on it.
  std::string foreign = Sign(3);
  SetWord(&foreign, 8, 1);
  SwapWords(&foreign, {0, 4, 8, 12, 16});
  EXPECT_EQ(Read(link, foreign), "3:4 from tester, 0, read 3, held 0/32");
  EXPECT_EQ(in_->secHeader.hdrLength, 32u);
}

TEST_F(SecureTest, Traces) {
  const Link link = Connect(kNonBlocking);
  Watch(link.node);
  WatchStates(link.node);
  const std::string wire = Sign(1);
  const struct {
    const char* what;
    std::string bytes;
    int failing;  // receive
    const char* points;
  } rows[] = {
      {"whole", Sign(2), 0, "mnSRead: 0, read 1, held 0/32; mnSRead: 0, read 1, held 0/32"},
      {"part of the envelope", wire.substr(0, 20), 0,
       "mnSReadMsg: 11, read 1, held 20/32; mnSRead: 11, read 1, held 20/32"},
      {"part of the message", wire.substr(20, 50), 0,
       "mnSReadMsg: 11, read 1, held 70/288; mnSRead: 11, read 1, held 70/288; mnSRead: 11, read 1, held 70/288"},
      {"the rest", wire.substr(70), 0, "mnSRead: 0, read 2, held 0/32"},
      {"a plain message", Wire(1, 4).substr(0, 32), 0,
       "mnSReadMsg: 2026, read 2, held 32/32; mnSRead: 2026, read 2, held 0/32"},
      {"failing receive: traced before the reset, unlike a plain read", wire.substr(0, 20), 2,
       "mnSReadMsg: 104, read 2, held 20/32; mnSRead: 104, read 2, held 0/32"},
      {"replayed", wire, 0, "mnSRead: -1001, read 3, held 288/288; mnSRead: -1001, read 3, held 0/32"},
  };
  for (const auto& row : rows) {
    if (row.failing != 0) Platform::Fail("recvfrom", row.failing, ECONNRESET);
    Trace::Take();
    Read(link, row.bytes);
    EXPECT_EQ(TakePoints(), row.points) << row.what;
  }
  EXPECT_EQ(Joined(Trace::Take()),
            "ReadSocket:Before; ReadSocket:After; ReadSocket:Before; ReadSocket:After; mnSRead; mnSRead");
  const Message out(1, 4);
  EXPECT_EQ(mnSWrite(out, link.node, 1, signer_.signer), 1);
  EXPECT_EQ(Joined(Trace::Take()), "mnSWriteMsg; WriteSocket:Before; WriteSocket:After; mnWriteToNode; mnSWriteMsg");
}

// Each function of the companion failing in turn: code, what was called, and the next message is read.
TEST_F(SecureTest, CompanionFailures) {
  const std::string gathered = "AlienToNativeExt; SizePcfMessage 388";
  const std::string authentic = gathered + "; mqc_authenticate; AlienToNative";
  const struct {
    const char *failing, *left;
    std::string calls;
  } rows[] = {
      {"AlienToNativeExt", "2026, read 0, held 0/32", "AlienToNativeExt"},
      {"SizePcfMessage", "2102, read 0, held 0/32", gathered},
      {"mqc_authenticate", "-1001, read 1, held 0/32", gathered + "; mqc_authenticate"},
      {"AlienToNative", "2026, read 1, held 0/32", authentic + "; DumpPcfMessage"},
      {"AlienPcfToNative", "4005, read 1, held 0/32", authentic + "; AlienPcfToNative; DumpPcfMessage"},
      {"RawToPcf", "4005, read 1, held 0/32", authentic + "; AlienPcfToNative; RawToPcf; DumpPcfMessage"},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    link.peer.Send(Sign(1, 104) + Sign(2));
    PcfMessage small;
    mqc_message_init(&small);
    Companion::Now() = {.failing = row.failing, .calls = {}};
    EXPECT_EQ(mnSRead(&small, link.node, 1, nullptr), 0);
    EXPECT_EQ(ReadState(link.node), row.left) << row.failing;
    EXPECT_EQ(Joined(Companion::Now().calls), row.calls) << row.failing;
    // After a failed check the record still holds what came.
    const bool copied = link.node->msgsRead != 0;
    EXPECT_EQ(std::string(small.secHeader.userId, 12), Field(copied ? "tester" : "", 12)) << row.failing;
    mqc_message_release(&small);
    if (row.calls == "AlienToNativeExt") continue;  // nobody knew how long the message was
    Companion::Now().failing.clear();
    EXPECT_EQ(mnSRead(in_, link.node, 1, nullptr), 1) << row.failing;
    EXPECT_EQ(in_.Text(), "2:4 from tester") << row.failing;
  }
}

TEST_F(SecureTest, WritesThatFail) {
  const Link link = Connect();
  const Message out(1, 4);
  const Signer other("other");
  const auto blocks = LiveBlocks();
  Watch(link.node);
  const struct {
    void* context;
    const char* failing;
    int allocation, error;
    Lines calls;
  } rows[] = {
      {nullptr, "", 0, MQ_NOT_SIGNED, {"VerifyMessage", "mqc_sign"}},
      {other.signer, "", 0, MQ_NOT_SIGNED, {"VerifyMessage", "mqc_sign"}},
      {signer_.signer, "mqc_sign", 0, MQ_NOT_SIGNED, {"VerifyMessage", "mqc_sign"}},
      {signer_.signer, "", 1, MQ_AGAIN, {"VerifyMessage"}},
      {signer_.signer, "", 2, MQ_NOT_SIGNED, {"VerifyMessage", "mqc_sign"}},
  };
  for (const auto& row : rows) {
    Companion::Now() = {.failing = row.failing, .calls = {}};
    mqc_fail_allocation(static_cast<uint64_t>(row.allocation), 0);
    EXPECT_EQ(mnSWrite(out, link.node, 1, row.context), 0);
    EXPECT_EQ(link.node->error, row.error);
    EXPECT_EQ(Companion::Now().calls, row.calls);
    EXPECT_EQ(Trace::Take(), Lines{"mnSWriteMsg"});
    EXPECT_EQ(LiveBlocks(), blocks);
  }
  EXPECT_EQ(Platform::Calls(), Lines{});
  Companion::Now().failing = "VerifyMessage";
  EXPECT_EQ(mnSWrite(out, link.node, 1, signer_.signer), 1) << "its result changes nothing";
}

TEST_F(SecureTest, EnvelopesAcceptedAndRefused) {
  const struct {
    uint32_t first, length;
    const char* outcome;
  } rows[] = {
      {32, 1, "nothing, 11, read 0, held 32/33"},
      {32, MQ_MAX_MESSAGE - 32, "nothing, 11, read 0, held 32/67108864"},
      {32, MQ_MAX_MESSAGE - 31, "nothing, 2026, read 0, held 0/32"},
      {32, 0, "nothing, 2026, read 0, held 0/32"},
      {32, 0xFFFFFFFF, "nothing, 2026, read 0, held 0/32"},
      {32, 0xFFFFFFE0, "nothing, 2026, read 0, held 0/32"},
      {31, 256, "nothing, 2026, read 0, held 0/32"},
      {33, 256, "nothing, 2026, read 0, held 0/32"},
      {136, 256, "nothing, 2026, read 0, held 0/32"},
  };
  for (const auto& row : rows) {
    for (const bool foreign : {false, true}) {
      const Link link = Connect(kNonBlocking);
      std::string wire = Sign(1).substr(0, kEnvelope);
      SetWord(&wire, 0, row.first);
      SetWord(&wire, 16, row.length);
      if (foreign) {
        SetWord(&wire, 8, 1);
        SwapWords(&wire, {0, 4, 8, 12, 16});
      }
      EXPECT_EQ(Read(link, wire), row.outcome) << row.first << " " << row.length << " " << foreign;
      if (link.node->error == MQ_AGAIN) continue;
      EXPECT_EQ(Read(link, Sign(2)), "2:4 from tester, 0, read 1, held 0/32") << "out of step";
    }
  }
  // Bytes that are no signed message at all, shorter than any header.
  const Link link = Connect();
  std::string shortest = Sign(1).substr(0, kEnvelope) + "x";
  SetWord(&shortest, 16, 1);
  EXPECT_EQ(Read(link, shortest), "nothing, -1001, read 1, held 0/32");
  std::string longest = Sign(1).substr(0, kEnvelope);
  SetWord(&longest, 16, 20000);
  mqc_fail_allocation(1, 0);
  EXPECT_EQ(Read(link, longest), "nothing, 2102, read 1, held 0/32");
}

TEST_F(SecureTest, DatagramSizes) {
  const Node node = CreateDatagram();
  const Peer peer = Peer::Datagram();
  const std::string wire = Sign(1);
  for (const std::string& bytes : {wire + "x", wire.substr(0, kSigned - 1), wire.substr(0, 32), wire.substr(0, 31)}) {
    peer.SendTo(PortOf(node), bytes);
    EXPECT_EQ(Read(node), "nothing, 2026, read 0, held 0/16520") << bytes.size();
    EXPECT_EQ(Companion::Now().calls.size(), bytes.size() < kEnvelope ? 0u : 1u) << "nothing short is converted";
  }
  SockAddrRec to = AddressOf("127.0.0.1", PortOf(node));
  const Node writer = CreateDatagram();
  const Message out(5, 4);
  EXPECT_EQ(mnSWriteTo(out, writer, &to, 1, signer_.signer), 1);
  EXPECT_EQ(Read(node), "5:4 from tester, 0, read 1, held 0/16520");
}

// One stream that changes its framing between messages, and a secure read that is told to read plainly.
TEST_F(SecureTest, SwitchingFraming) {
  const Link link = Connect();
  Watch(link.node);
  link.peer.Send(Wire(1, 4) + Sign(2) + Wire(3, 4) + Sign(4));
  for (const auto& [secure, text] :
       {std::pair{0, "1:4 from peer"}, {1, "2:4 from tester"}, {0, "3:4 from peer"}, {1, "4:4 from tester"}}) {
    Trace::Take();
    EXPECT_EQ(mnSRead(in_, link.node, secure, nullptr), 1);
    EXPECT_EQ(in_.Text(), text);
    EXPECT_EQ(Trace::Take().back(), secure ? "mnSRead" : "mnRead");
  }
  // The plain read of a signed stream, and a part of a plain header met by a secure read.
  link.peer.Send(Sign(5).substr(0, 136));
  EXPECT_EQ(mnSRead(in_, link.node, 0, nullptr), 0);
  EXPECT_EQ(ReadState(link.node), "2026, read 4, held 0/136");
  NoblockSocket(&link.node->sock);
  link.peer.Send(Wire(6, 4).substr(0, 100));
  AwaitReadable(link.node->sock.fd);
  EXPECT_EQ(mnRead(in_, link.node), 0);
  EXPECT_EQ(Read(link.node), "nothing, 11, read 4, held 100/136") << "judged once something has arrived";
  EXPECT_EQ(Read(link, Wire(6, 4).substr(100, 36)), "nothing, 2026, read 4, held 0/32");
}

}  // namespace
