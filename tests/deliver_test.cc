// deliver_test.cc - messages composed and delivered, plain and signed: what is on the wire, what waits in the queue,
// what is counted.
#include "tests/support/nodes.hh"
#include "tests/support/sender.hh"

namespace {

using sender::Encoder;

// The header that a node of "tester" puts in front of body bytes.
std::string Header(uint32_t body, const std::string& user = "tester") {
  return Encoder({false, false}).Header(body, user, "UNKNOWN").bytes;
}

class DeliverTest : public NodeTest {
 protected:
  // Writes messages of the given commands, the first of which finds the socket full.
  static void Queue(MQNode* node, std::initializer_list<uint32_t> commands) {
    Platform::Fail("send", 1, EAGAIN);
    for (const uint32_t command : commands) EXPECT_EQ(mnWrite(Message(command, 4), node), 1);
    Take();
  }
  // The commands of the messages of 4 bytes that are on the wire.
  static std::string Arrived(const Peer& peer, size_t count) {
    std::string commands;
    for (const std::string bytes = peer.Read(count * 160); commands.size() < count;) {
      commands += static_cast<char>('0' + WordAt(bytes, commands.size() * 160 + kHeader));
    }
    return commands;
  }
};

TEST_F(DeliverTest, PlainBytesOnTheWire) {
  const Link link = Connect();
  const Message out;
  mqc_begin(out, 0x01020304);
  mqc_add_bytes(out, 9, "abcdef", 6);
  memset(out->raw.data + kAtUser, 'x', 60);  // whatever was in the fields that the node fills
  const std::string body =
      Encoder({false, false}).Word(0x01020304).Word(1).Word(9).Word(MQC_BYTES).Word(6).Text("abcdef", 8).bytes;
  EXPECT_EQ(mnWrite(out, link.node), 1);
  EXPECT_EQ(link.peer.Read(164), Header(28) + body);
  EXPECT_EQ(mnSWrite(out, link.node, 0, nullptr), 1);
  EXPECT_EQ(link.peer.Read(164), Header(28) + body) << "unsigned is plain";
  Companion::Now().little = Companion::Now().ascii = false;
  EXPECT_EQ(mnWrite(out, link.node), 1);
  EXPECT_EQ(link.peer.Read(164), WithWord(WithWord(Header(28), 8, 1), 12, 0) + body);
}

TEST_F(DeliverTest, SignedBytesOnTheWire) {
  constexpr int64_t kNow = 0x0000018BCFE56789;
  mqc_set_clock([]() -> int64_t { return kNow; });
  const Keys keys;
  const Link link = Connect();
  const Message out(7, 4);
  const std::string body = out.raw().substr(kHeader);
  memset(&out->secHeader, 'x', sizeof out->secHeader);
  for (const size_t at : {size_t{0}, size_t{8}, size_t{12}, kAtBody}) memset(out->raw.data + at, 'x', 4);
  memset(out->raw.data + kAtUser, 'x', 60);
  // The user that the caller gives has no say: the signature names who signed.
  EXPECT_EQ(mnSWriteMsg(out, link.node, nullptr, "somebody", 1, keys.signer.get(), 0), 1);
  std::string trailer("MQSIGN01\0\0", 10);
  for (int shift = 40; shift >= 0; shift -= 8) trailer += static_cast<char>(kNow >> shift);
  trailer.resize(kTrailer);
  const std::string wire = sender::Enveloped({false, false}, Header(24) + body, "tester", trailer);
  EXPECT_EQ(link.peer.Read(288).substr(0, 208), wire.substr(0, 208)) << "a nonce and the signature follow";
  EXPECT_EQ(out->secHeader.msgLength, 160u) << "what the signer is given: the length of the plain message";
  mqc_set_clock(nullptr);
}

// What is no message is refused before anything happens; a raw form of any other length is sent as it is.
TEST_F(DeliverTest, LengthsOfRawForms) {
  const Link link = Connect();
  const Message out(1000);
  const uint64_t before = mqc_allocations();
  for (const uint32_t length : {0u, 135u, MQ_MAX_MESSAGE + 1, 0xFFFFFFFFu}) {
    out->raw.length = length;
    for (const auto& write : {mnSWrite, mnSWriteAltUser, mnSWriteAltUserHigh}) {
      for (const int secure : {0, 1}) {
        EXPECT_EQ(write(out, link.node, secure, nullptr), 0) << length;
        EXPECT_EQ(link.node->error, MQ_BAD_MESSAGE);
      }
    }
  }
  EXPECT_EQ(mqc_allocations(), before);
  EXPECT_EQ(Take(), "");
  out->raw.length = 1000;
  memset(out->raw.data, 'x', 1000);
  EXPECT_EQ(mnWrite(out, link.node), 1);
  EXPECT_EQ(WordAt(link.peer.Read(1000), kAtBody), 864u);
  PcfMessage empty;
  mqc_message_init(&empty);
  EXPECT_EQ(mnSWriteAltUser(&empty, link.node, 0, nullptr), 0);
  EXPECT_EQ(link.node->error, MQ_BAD_MESSAGE);
}

TEST_F(DeliverTest, UserOfTheHeader) {
  const Link link = Connect();
  const struct {
    char entry;  // w mnWriteMsg with this user; a, h the writers for alternative users, with it in the message
    const char* given;
    const char* user;
  } rows[] = {{'w', "", ""},
              {'w', "bob", "bob"},
              {'w', "exactly12chr", "exactly12chr"},
              {'w', "fifteencharacte", "fifteenchara"},
              {'a', "another", "another"},
              {'a', "anotherof12c", "anotherof12c"},
              {'a', "", "tester"},
              {'a', " bob", "tester"},
              {'a', "b", "b"},
              {'h', "another", "another"},
              {'h', " ", "tester"}};
  for (const auto& row : rows) {
    const Message out(1, 4);
    memset(out->raw.data + 84, 'A', 48);  // directly behind a user of 12 characters
    if (row.entry != 'w') memcpy(out->raw.data + kAtUser, Field(row.given, 12).data(), 12);
    EXPECT_EQ(row.entry == 'w'   ? mnWriteMsg(out, link.node, nullptr, row.given, 0)
              : row.entry == 'a' ? mnSWriteAltUser(out, link.node, 0, nullptr)
                                 : mnSWriteAltUserHigh(out, link.node, 0, nullptr),
              1);
    EXPECT_EQ(link.peer.Read(160).substr(0, kHeader), Header(24, row.user)) << row.given;
  }
  // Text anywhere in the message is taken before the header is filled in.
  for (const size_t at : {0, 8, 12, 64, 84, 140}) {
    const Message out(1, 4);
    memcpy(out->raw.data + at, "own", 4);
    EXPECT_EQ(mnWriteMsg(out, link.node, nullptr, reinterpret_cast<const char*>(out->raw.data + at), 0), 1);
    EXPECT_EQ(link.peer.Read(160).substr(0, kHeader), Header(24, "own")) << at;
  }
  // A host that writes into the node's field may leave something behind its text.
  for (size_t length = 0; length <= 12; ++length) {
    memset(link.node->user, 'x', 12);
    link.node->user[length] = '\0';
    EXPECT_EQ(mnWrite(Message(1, 4), link.node), 1);
    EXPECT_EQ(link.peer.Read(160).substr(0, kHeader), Header(24, std::string(length, 'x'))) << length;
  }
}

// Each entry point clears a stale error before its first trace point or right after it, and traces its own way.
TEST_F(DeliverTest, TraceOfEachEntryPoint) {
  const Keys keys;
  const Link link = Connect();
  MQNode* const node = link.node;
  const Message out(1, 4);
  const std::string sent = "WriteSocket:Before; WriteSocket:After; mnWriteToNode 0; ";
  const std::string plain = "mnWriteMsg 77; " + sent + "mnWriteMsg 0",
                    cleared = "mnWriteMsg 0; " + sent + "mnWriteMsg 0";
  const std::string secured = "mnSWriteMsg 77; " + plain, both = "mnSWriteMsg 0; " + cleared;
  const struct {
    std::function<int()> write;
    std::string trace;
  } rows[] = {
      {[&] { return mnWriteMsg(out, node, nullptr, "u", 0); }, plain},
      {[&] { return mnWriteTo(out, node, nullptr); }, cleared},
      {[&] { return mnWrite(out, node); }, cleared},
      {[&] { return mnSWriteMsgWithPriority(out, node, nullptr, "u", 0, nullptr, 0); }, secured},
      {[&] { return mnSWriteMsg(out, node, nullptr, "u", 0, nullptr, 0); }, secured},
      {[&] { return mnSWriteTo(out, node, nullptr, 0, nullptr); }, both},
      {[&] { return mnSWrite(out, node, 0, nullptr); }, both},
      {[&] { return mnSWriteAltUser(out, node, 0, nullptr); }, secured},
      {[&] { return mnSWriteAltUserHigh(out, node, 0, nullptr); }, secured},
      {[&] { return mnSWrite(out, node, 1, keys.signer.get()); }, "mnSWriteMsg 0; " + sent + "mnSWriteMsg 0"},
  };
  for (const auto& row : rows) {
    Watch(node, Error);
    node->error = 77;
    EXPECT_EQ(row.write(), 1);
    EXPECT_EQ(Take("sn"), row.trace);
  }
  EXPECT_EQ(Arrived(link.peer, 9), "111111111");
}

TEST_F(DeliverTest, OneWrite) {
  const std::string queued = "1: 11, sent 0, out 1, queue 1";
  const struct {
    int limit;                  // writeLimit
    std::vector<size_t> taken;  // by send
    int code;                   // of send, 0: none
    std::string outcome, points;
  } rows[] = {
      {-1, {}, 0, "1: 0, sent 1, out 0", "mnWriteToNode 0; mnWriteMsg 0"},
      {1, {}, 0, "1: 0, sent 1, out 0", "mnWriteToNode 0; mnWriteMsg 0"},
      {0, {100}, 0, queued, "mnWriteToNode 0; mnWriteToNode 11; mnWriteMsg 11"},
      {0, {0}, 0, queued, "mnWriteToNode 0; mnWriteToNode 11; mnWriteMsg 11"},
      {-1, {}, EAGAIN, queued, "mnWriteToNode 11; mnWriteToNode 11; mnWriteMsg 11"},
      {-1, {}, EINPROGRESS, queued, "mnWriteToNode 11; mnWriteToNode 11; mnWriteMsg 11"},
      {-1, {}, ECONNRESET, "0: 11, sent 0, out 0", "mnWriteToNode 104; mnWriteMsg 11"},
      {-1, {}, EINTR, "0: 11, sent 0, out 0", "mnWriteToNode 4; mnWriteMsg 11"},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    link.node->writeLimit = row.limit;
    Platform::Limit("send", row.taken);
    if (row.code != 0) Platform::Fail("send", 1, row.code);
    Watch(link.node, Error);
    const int result = mnWriteMsg(Message(1, 4), link.node, nullptr, "u", 0);
    EXPECT_EQ(format("{}: {}", result, WriteState(link.node)), row.outcome) << row.code;
    EXPECT_EQ(link.node->sock.error, row.code == EINPROGRESS ? 11 : row.code);
    EXPECT_EQ(Take("n"), "mnWriteMsg 0; " + row.points) << row.code;
    if (result == 0) continue;
    EXPECT_EQ(mnFinishWrite(link.node), 1);
    EXPECT_EQ(WriteState(link.node), "0, sent 1, out 0");
    EXPECT_EQ(Arrived(link.peer, 1), "1") << row.code;
  }
}

TEST_F(DeliverTest, SignedWritesThatFail) {
  const Keys keys;
  const Link link = Connect();
  const Message out(1, 4);
  const mqnode::Signer other = mqnode::Signer::create("other", {});
  const auto blocks = LiveBlocks();
  void* const signer = keys.signer.get();
  const struct {
    void* context;
    const char* failing;
    uint64_t allocation;
    int error;
    const char* happens = "VerifyMessage; mqc_sign";
  } rows[] = {{nullptr, "", 0, MQ_NOT_SIGNED},
              {other.get(), "", 0, MQ_NOT_SIGNED},
              {signer, "mqc_sign", 0, MQ_NOT_SIGNED},
              {signer, "", 1, MQ_AGAIN, "VerifyMessage"},
              {signer, "", 2, MQ_NOT_SIGNED}};
  for (const auto& row : rows) {
    Watch(link.node);
    Companion::Now().failing = row.failing;
    mqc_fail_allocation(row.allocation, 0);
    EXPECT_EQ(mnSWrite(out, link.node, 1, row.context), 0);
    EXPECT_EQ(link.node->error, row.error);
    EXPECT_EQ(Take(), std::string("mnSWriteMsg; ") + row.happens);
    EXPECT_EQ(LiveBlocks(), blocks);
  }
  Companion::Now().failing = "VerifyMessage";
  EXPECT_EQ(mnSWrite(out, link.node, 1, signer), 1) << "its result changes nothing";
}

// A descriptor of the caller's own: it is sent whole, whatever it was used for before, and never by the library again.
TEST_F(DeliverTest, DescriptorsStartAfresh) {
  const Link link = Connect();
  for (const bool full : {false, true}) {
    void* block;
    ASSERT_TRUE(fNewMemory(&block, sizeof(IoBuffer), "MQNODE"));
    auto* const desc = static_cast<IoBuffer*>(block);
    CreateBuffer(desc, 5);
    memcpy(desc->data, "bytes", 5);
    desc->sent = 3;
    desc->flags = MSG_OOB;
    if (full) Queue(link.node, {1});
    EXPECT_EQ(mnWriteToNode(link.node, nullptr, desc, 0), 1);
    EXPECT_EQ(mnFinishWrite(link.node), 1);
    EXPECT_EQ(Platform::Calls({"send"}).back(), "send(5) = 5");
    EXPECT_EQ(link.peer.Read(full ? 165 : 5).substr(full ? 160 : 0), "bytes");
  }
}

// Behind a queue nothing is tried and nothing overtakes; the bytes are those of the time of the write.
TEST_F(DeliverTest, WritesJoinTheQueueInOrder) {
  const Link link = Connect();
  Queue(link.node, {1, 2});
  link.node->writeLimit = 2;
  Watch(link.node, Error);
  const Message third(3, 4);
  EXPECT_EQ(mnWriteMsg(third, link.node, nullptr, "u", 0), 0);
  EXPECT_EQ(WriteState(link.node), "-1111, sent 0, out 2, queue 2");
  EXPECT_EQ(Take("csn"), "mnWriteMsg 0; mnWriteToNode -1111; mnWriteMsg -1111");
  EXPECT_EQ(IsNodeFailed(link.node), 0);
  link.node->writeLimit = 3;
  EXPECT_EQ(mnSWriteAltUserHigh(third, link.node, 0, nullptr), 1);
  EXPECT_EQ(Take("csn"), "mnSWriteMsg -1111; mnWriteMsg -1111; mnWriteToNode 0; mnWriteMsg 0");
  third.Put(9, 4);
  for (const int none : {0, -1, -5}) {
    link.node->writeLimit = none;
    EXPECT_EQ(mnWrite(Message(4, 4), link.node), 1);
  }
  EXPECT_EQ(Take("c"), "");
  EXPECT_EQ(WriteState(link.node), "0, sent 0, out 6, queue 6");
  EXPECT_EQ(mnFinishWrite(link.node), 1);
  EXPECT_EQ(Arrived(link.peer, 6), "123444");
  EXPECT_EQ(Take("n"), "mnFinishWrite 0");
  EXPECT_EQ(WriteState(link.node), "0, sent 6, out 0");
}

// Three queued writes of 160 bytes each, and a socket that misbehaves at its nth send.
TEST_F(DeliverTest, FinishingThreeWrites) {
  const struct {
    const char* what;
    int nth, code;
    const char *outcome, *points;
    const char* arrived;  // when finished afterwards without trouble
    std::function<void(MQNode*)> prepare = [](MQNode*) {};
  } rows[] = {
      {"all", 0, 0, "1: 0, sent 3, out 0", "mnFinishWrite 0", "123"},
      {"first full", 1, EAGAIN, "1: 11, sent 0, out 3, queue 3", "mnFinishWrite 11", "123"},
      {"second full", 2, EAGAIN, "1: 11, sent 1, out 2, queue 2", "mnFinishWrite 11", "123"},
      {"second in part", 0, 0, "1: 0, sent 1, out 2, queue 2", "", "123",
       [](MQNode*) {
         Platform::Limit("send", {160, 1});
       }},
      {"second fails", 2, EPIPE, "0: 11, sent 1, out 1, queue 1", "mnFinishWrite 32", "13"},
      {"last fails: the queue stays", 3, EPIPE, "0: 11, sent 2, out 0, queue 0", "mnFinishWrite 32", "12"},
      {"no memory to put back", 1, EAGAIN, "0: 11, sent 0, out 2, queue 2", "mnFinishWrite 11", "23",
       [](MQNode*) { mqc_fail_allocation(1, 0); }},
      {"an empty entry", 0, 0, "0: 105, sent 0, out 3, queue 3", "", "123",
       [](MQNode* node) { Qputhead(node->pending, nullptr); }},
      {"counted too few", 0, 0, "1: 0, sent 3, out 0", "mnFinishWrite 0", "123",
       [](MQNode* node) { node->writesOutstanding = 1; }},
      {"not counted, failing", 1, EPIPE, "0: 11, sent 0, out 0, queue 2", "mnFinishWrite 32", "23",
       [](MQNode* node) { node->writesOutstanding = 0; }},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    Queue(link.node, {1, 2, 3});
    Watch(link.node, Error);
    link.node->error = 77;
    if (row.nth != 0) Platform::Fail("send", row.nth, row.code);
    row.prepare(link.node);
    const int result = mnFinishWrite(link.node);
    EXPECT_EQ(format("{}: {}", result, WriteState(link.node)), row.outcome) << row.what;
    EXPECT_EQ(mnIsPendingIO(link.node), link.node->pending != nullptr);
    EXPECT_EQ(Take("n"), row.points) << row.what;
    std::string arrived = row.arrived;
    // A write joins a queue that stays, empty or not.
    if (link.node->pending != nullptr) {
      EXPECT_EQ(mnWrite(Message(4, 4), link.node), 1);
      arrived += "4";
    }
    EXPECT_EQ(mnFinishWrite(link.node), 1) << row.what;
    EXPECT_EQ(mnIsPendingIO(link.node), 0) << row.what;
    EXPECT_EQ(Arrived(link.peer, arrived.size()), arrived) << row.what;
    // Nothing to finish.
    Take();
    link.node->error = 77;
    EXPECT_EQ(mnFinishWrite(link.node), 1);
    EXPECT_EQ(format("{} {}", link.node->error, Take()), "0 ");
  }
}

TEST_F(DeliverTest, AdvisoryLimitOfTheQueue) {
  EXPECT_EQ(IsNodeQReady(nullptr), 1);
  SetNodeQLimit(nullptr);
  const Link link = Connect();
  EXPECT_EQ(IsNodeQReady(link.node), 1);
  SetNodeQLimit(link.node);
  const Message out(1, 4);
  Platform::Fail("send", 1, EAGAIN);
  for (int i = 1; i <= 101; ++i) {
    EXPECT_EQ(mnWrite(out, link.node), 1);
    EXPECT_EQ(IsNodeQReady(link.node), i <= 100) << i;
  }
  link.node->pendingLimit = 101;
  EXPECT_EQ(IsNodeQReady(link.node), 0) << "the queue has the limit that it was created with";
  SetNodeQLimit(link.node);
  EXPECT_EQ(IsNodeQReady(link.node), 1);
}

TEST_F(DeliverTest, DatagramsGoWhereTheyWereSentTo) {
  const Keys keys;
  const Node node = CreateDatagram();
  const Peer first = Peer::Datagram();
  SockAddrRec to = AddressOf("localhost", first.port()), nowhere = AddressOf("nowhere", 9);
  const Message out(1, 4);
  EXPECT_EQ(mnWriteTo(out, node, &to), 1);
  EXPECT_EQ(first.Read(), out.raw());
  EXPECT_EQ(out.user(), "tester");
  EXPECT_EQ(mnSWriteTo(out, node, &to, 0, nullptr), 1);
  EXPECT_EQ(first.Read(), out.raw());
  EXPECT_EQ(mnSWriteTo(out, node, &to, 1, keys.signer.get()), 1);
  EXPECT_EQ(first.Read().substr(kEnvelope, 160), out.raw());
  for (SockAddrRec* const none : {static_cast<SockAddrRec*>(nullptr), &nowhere}) {
    Take();
    EXPECT_EQ(mnWriteTo(out, node, none), 0);
    EXPECT_EQ(node->sock.error, 89);
    EXPECT_EQ(WriteState(node), "11, sent 3, out 0");
    EXPECT_EQ(Take("c"), none == nullptr ? "" : "gethostbyname(nowhere) = 0");
  }
}

TEST_F(DeliverTest, QueuedDatagramsKeepTheirDestinations) {
  const Node node = CreateDatagram();
  const Peer first = Peer::Datagram(), second = Peer::Datagram();
  Platform::Fail("sendto", 1, EAGAIN);
  Platform::Fail("sendto", 3, EAGAIN);
  const Message out;
  for (const uint32_t command : {1u, 2u, 3u}) {
    // The destination is gone when the datagram is sent.
    SockAddrRec to = AddressOf("127.0.0.1", command == 1 ? first.port() : second.port());
    out.Put(command, 4);
    EXPECT_EQ(mnWriteTo(out, node, &to), 1);
    memset(&to, 'x', sizeof to);
  }
  EXPECT_EQ(mnWrite(out, node), 0) << "without a destination it could never be sent";
  EXPECT_EQ(node->sock.error, 89);
  EXPECT_EQ(WriteState(node), "11, sent 0, out 3, queue 3");
  EXPECT_EQ(mnFinishWrite(node), 1);
  EXPECT_EQ(WriteState(node), "11, sent 1, out 2, queue 2");
  EXPECT_EQ(mnFinishWrite(node), 1);
  EXPECT_EQ(WriteState(node), "0, sent 3, out 0");
  EXPECT_EQ(WordAt(first.Read(), kHeader), 1u);
  EXPECT_EQ(WordAt(second.Read(), kHeader), 2u);
  EXPECT_EQ(WordAt(second.Read(), kHeader), 3u);
  // A write descriptor that an application queued keeps no destination.
  void* desc = nullptr;
  ASSERT_TRUE(fNewMemory(&desc, sizeof(IoBuffer), "MQNODE"));
  CreateBuffer(static_cast<IoBuffer*>(desc), 160);
  node->pending = Qalloc();
  Qput(node->pending, desc);
  EXPECT_EQ(mnFinishWrite(node), 0);
  EXPECT_EQ(node->sock.error, 89);
}

}  // namespace
