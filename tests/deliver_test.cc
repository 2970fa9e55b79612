// deliver_test.cc - composing and delivering messages, plain and signed: bytes on the wire, queue, counters.
#include "tests/support/nodes.hh"

namespace {

using sender::Encoder;

// The header of a message from a node of "tester" with a body of this many bytes.
std::string Header(uint32_t body, const std::string& user = "tester") {
  return Encoder({false, false}).Header(body, user, "UNKNOWN").bytes;
}

class DeliverTest : public NodeTest {
 protected:
  // Writes messages of the given commands. The first one finds the socket full, so all are queued.
  static void Queue(MQNode* node, std::initializer_list<uint32_t> commands) {
    Platform::Fail("send", 1, EAGAIN);
    for (const uint32_t command : commands) EXPECT_EQ(mnWrite(Message(command, 4), node), 1);
    Take();
  }
  // The commands of consecutive messages with 4 bytes of content.
  static std::string Commands(const std::string& bytes) {
    std::string commands;
    for (size_t at = kHeader; at < bytes.size(); at += 160) commands += static_cast<char>('0' + WordAt(bytes, at));
    return commands;
  }
  static std::string Arrived(const Peer& peer, size_t count) { return Commands(peer.Read(count * 160)); }
};

TEST_F(DeliverTest, BytesOnTheWire) {
  const Link link = Connect();
  const Message out;
  mqc_begin(out, 0x01020304);
  mqc_add_bytes(out, 9, "abcdef", 6);
  const std::string body =
      Encoder({false, false}).Word(0x01020304).Word(1).Word(9).Word(MQC_BYTES).Word(6).Text("abcdef", 8).bytes;
  // The node overwrites the previous content of its fields.
  const auto spoil = [&out] {
    for (const size_t at : {size_t{0}, size_t{8}, size_t{12}, kAtBody}) memset(out->raw.data + at, 'x', 4);
    memset(out->raw.data + kAtUser, 'x', 60);
  };
  memset(&out->secHeader, 'x', sizeof out->secHeader);
  spoil();
  EXPECT_EQ(mnWrite(out, link.node), 1);
  spoil();
  EXPECT_EQ(mnSWrite(out, link.node, 0, nullptr), 1);
  EXPECT_EQ(link.peer.Read(2 * 164), Header(28) + body + Header(28) + body) << "an unsigned write is plain";

  mqc_set_clock([]() -> int64_t { return 0x0000018BCFE56789; });
  const Keys keys;
  spoil();
  // The caller's user is ignored: the signature names the signer.
  EXPECT_EQ(mnSWriteMsg(out, link.node, nullptr, "somebody", 1, keys.signer.get(), 0), 1);
  const std::string trailer = Field("MQSIGN01" + std::string("\0\0\x01\x8B\xCF\xE5\x67\x89", 8), kTrailer);
  const std::string wire = sender::Enveloped({false, false}, Header(28) + body, "tester", trailer);
  EXPECT_EQ(link.peer.Read(292).substr(0, 212), wire.substr(0, 212)) << "a nonce and the signature follow";
  EXPECT_EQ(out->secHeader.msgLength, 164u) << "what the signer is given: the length of the plain message";
  mqc_set_clock(nullptr);
}

// Impossible lengths are refused before anything happens; a raw form of any other length is sent as it is.
TEST_F(DeliverTest, LengthsOfRawForms) {
  const Link link = Connect();
  const Message out(1000);
  const uint64_t before = mqc_allocations();
  for (const uint32_t length : {0u, 135u, MQ_MAX_MESSAGE + 1, 0xFFFFFFFFu}) {
    out->raw.length = length;
    for (const auto& write : {mnSWrite, mnSWriteAltUser, mnSWriteAltUserHigh}) {
      for (const int secure : {0, 1}) EXPECT_EQ(write(out, link.node, secure, nullptr), 0) << length;
      EXPECT_EQ(link.node->error, MQ_BAD_MESSAGE);
    }
  }
  EXPECT_EQ(mqc_allocations(), before);
  EXPECT_EQ(Take(), "");
  out->raw.length = 1000;
  memset(out->raw.data, 'x', 1000);
  EXPECT_EQ(mnWrite(out, link.node), 1);
  EXPECT_EQ(WordAt(link.peer.Read(1000), kAtBody), 864u);
}

TEST_F(DeliverTest, UserOfTheHeader) {
  const Link link = Connect();
  // The user that arrives after text was copied into the message and the message was written.
  const auto sent = [&](size_t at, const std::string& text, const std::function<int(PcfMessage*)>& write) {
    const Message out(1, 4);
    memset(out->raw.data + 84, 'A', 48);  // directly after a user of 12 characters
    memcpy(out->raw.data + at, text.data(), text.size());
    EXPECT_EQ(write(out), 1);
    const std::string header = link.peer.Read(160).substr(0, kHeader), user = header.substr(kAtUser, 12);
    EXPECT_EQ(header, Header(24, user.substr(0, user.find('\0'))));
    return user.substr(0, user.find('\0'));
  };
  for (const auto& [given, user, alternative] : {std::tuple{"", "", "tester"},
                                                 {" b", " b", "tester"},
                                                 {"b", "b", "b"},
                                                 {"exactly12chr", "exactly12chr", "exactly12chr"},
                                                 {"fifteencharacte", "fifteenchara", "fifteenchara"}}) {
    const std::string text = Field(given, 12);
    EXPECT_EQ(sent(0, "", [&, name = given](PcfMessage* out) { return mnWriteMsg(out, link.node, nullptr, name, 0); }),
              user);
    for (const auto& write : {mnSWriteAltUser, mnSWriteAltUserHigh}) {
      EXPECT_EQ(sent(kAtUser, text, [&](PcfMessage* out) { return write(out, link.node, 0, nullptr); }), alternative);
    }
  }
  // Text at any place in the message is read before the header is filled in.
  for (const size_t at : {0, 8, 12, 64, 84, 140}) {
    const auto write = [&](PcfMessage* out) {
      return mnWriteMsg(out, link.node, nullptr, reinterpret_cast<const char*>(out->raw.data + at), 0);
    };
    EXPECT_EQ(sent(at, Field("own", 4), write), "own") << at;
  }
  // Bytes that an application leaves after the text in the node's field are not sent.
  for (size_t length = 0; length <= 12; ++length) {
    memset(link.node->user, 'x', 12);
    link.node->user[length] = '\0';
    EXPECT_EQ(sent(0, "", [&](PcfMessage* out) { return mnWrite(out, link.node); }), std::string(length, 'x'));
  }
}

// Each entry point clears a stale error before or right after its first trace point, and has its own trace points.
TEST_F(DeliverTest, TraceOfEachEntryPoint) {
  const Keys keys;
  const Link link = Connect();
  MQNode* const node = link.node;
  const Message out(1, 4);
  const auto traced = [&](const auto& write, auto... arguments) {
    Watch(node, Error);
    node->error = 77;
    EXPECT_EQ(write(out, node, arguments...), 1);
    return Take("sn");
  };
  const std::string sent = "WriteSocket[]; mnWriteToNode 0; ";
  const std::string plain = "mnWriteMsg 77; " + sent + "mnWriteMsg 0",
                    cleared = "mnWriteMsg 0; " + sent + "mnWriteMsg 0";
  const std::string secured = "mnSWriteMsg 77; " + plain, both = "mnSWriteMsg 0; " + cleared;
  EXPECT_EQ(traced(mnWriteMsg, nullptr, "u", 0), plain);
  EXPECT_EQ(traced(mnWriteTo, nullptr), cleared);
  EXPECT_EQ(traced(mnWrite), cleared);
  EXPECT_EQ(traced(mnSWriteMsgWithPriority, nullptr, "u", 0, nullptr, 0), secured);
  EXPECT_EQ(traced(mnSWriteMsg, nullptr, "u", 0, nullptr, 0), secured);
  EXPECT_EQ(traced(mnSWriteTo, nullptr, 0, nullptr), both);
  EXPECT_EQ(traced(mnSWrite, 0, nullptr), both);
  EXPECT_EQ(traced(mnSWriteAltUser, 0, nullptr), secured);
  EXPECT_EQ(traced(mnSWriteAltUserHigh, 0, nullptr), secured);
  EXPECT_EQ(traced(mnSWrite, 1, keys.signer.get()), "mnSWriteMsg 0; " + sent + "mnSWriteMsg 0");
  EXPECT_EQ(Arrived(link.peer, 9), "111111111");
}

TEST_F(DeliverTest, OneWrite) {
  const auto write = [](const std::vector<size_t>& taken, int code, int limit = -1) {
    const Link link = Connect();
    link.node->writeLimit = limit;
    Platform::Limit("send", taken);
    if (code != 0) Platform::Fail("send", 1, code);
    Watch(link.node, Error);
    const int result = mnWriteMsg(Message(1, 4), link.node, nullptr, "u", 0);
    const std::string outcome = format("{}: {} {}", result, link.node->sock.error, WriteState(link.node));
    const std::string trace = Take("n");
    EXPECT_EQ(mnFinishWrite(link.node), 1);
    EXPECT_EQ(WriteState(link.node), result ? "0, sent 1, out 0" : "0, sent 0, out 0");
    if (result) {
      EXPECT_EQ(Arrived(link.peer, 1), "1");
    }
    return outcome + " | " + trace;
  };
  const std::string sent = "1: 0 0, sent 1, out 0 | mnWriteMsg 0; mnWriteToNode 0; mnWriteMsg 0";
  const std::string queued =
      " 11, sent 0, out 1, queue 1 | mnWriteMsg 0; mnWriteToNode {}; mnWriteToNode 11; mnWriteMsg 11";
  const std::string dropped = " 11, sent 0, out 0 | mnWriteMsg 0; mnWriteToNode {}; mnWriteMsg 11";
  EXPECT_EQ(write({}, 0), sent);
  EXPECT_EQ(write({}, 0, 1), sent);
  EXPECT_EQ(write({100}, 0, 0), "1: 0" + format(fmt::runtime(queued), 0));
  EXPECT_EQ(write({0}, 0), "1: 0" + format(fmt::runtime(queued), 0));
  EXPECT_EQ(write({}, EAGAIN), "1: 11" + format(fmt::runtime(queued), 11));
  EXPECT_EQ(write({}, EINPROGRESS), "1: 11" + format(fmt::runtime(queued), 11));
  EXPECT_EQ(write({}, ECONNRESET), "0: 104" + format(fmt::runtime(dropped), 104));
}

TEST_F(DeliverTest, SignedWritesThatFail) {
  const Keys keys;
  const Link link = Connect();
  const Message out(1, 4);
  const mqnode::Signer other = mqnode::Signer::create("other", {});
  const auto write = [&](void* context, const char* failing = "", uint64_t allocation = 0) {
    const auto blocks = LiveBlocks();
    Watch(link.node);
    Companion::Now().failing = failing;
    mqc_fail_allocation(allocation, 0);
    const int result = mnSWrite(out, link.node, 1, context);
    EXPECT_EQ(LiveBlocks(), blocks);
    return format("{}, {} | {}", result, link.node->error, Take("snm"));
  };
  void* const signer = keys.signer.get();
  EXPECT_EQ(write(nullptr), "0, -1000 | mnSWriteMsg; VerifyMessage; mqc_sign");
  EXPECT_EQ(write(other.get()), "0, -1000 | mnSWriteMsg; VerifyMessage; mqc_sign");
  EXPECT_EQ(write(signer, "", 1), "0, 11 | mnSWriteMsg; VerifyMessage");
  EXPECT_EQ(write(signer, "", 2), "0, -1000 | mnSWriteMsg; VerifyMessage; mqc_sign");
  EXPECT_EQ(write(signer, "VerifyMessage").substr(0, 5), "1, 0 ") << "its result changes nothing";
}

// A descriptor of the caller is sent from its beginning, whatever its state, and used once.
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
    link.node->error = 77;
    EXPECT_EQ(mnWriteToNode(link.node, nullptr, desc, 0), 1);
    EXPECT_EQ(link.node->error, 0);
    EXPECT_EQ(mnFinishWrite(link.node), 1);
    EXPECT_EQ(Platform::Calls({"send"}).back(), "send(5) = 5");
    EXPECT_EQ(link.peer.Read(full ? 165 : 5).substr(full ? 160 : 0), "bytes");
  }
}

// With queued writes, nothing is sent directly or out of order. The bytes are those at the time of the write.
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
  EXPECT_EQ(LiveBlocks()["MQNODE"], 6u);
  EXPECT_EQ(mnFinishWrite(link.node), 1);
  EXPECT_EQ(Arrived(link.peer, 6), "123444");
  EXPECT_EQ(Take("n"), "mnFinishWrite 0");
  EXPECT_EQ(WriteState(link.node), "0, sent 6, out 0");
}

// Three queued writes of 160 bytes, and a socket that fails at the nth send. Then a fourth write joins the remaining
// queue, empty or not, and all is sent. The last column is what has arrived.
TEST_F(DeliverTest, FinishingThreeWrites) {
  const auto finish = [](int nth, int code, void (*prepare)(MQNode*) = nullptr) {
    const Link link = Connect();
    MQNode* const node = link.node;
    Queue(node, {1, 2, 3});
    Watch(node, Error);
    node->error = 77;
    if (nth != 0) Platform::Fail("send", nth, code);
    if (prepare != nullptr) prepare(node);
    const int result = mnFinishWrite(node);
    const std::string outcome = format("{}: {} | {} | ", result, WriteState(node), Take("n"));
    EXPECT_EQ(mnIsPendingIO(node), node->pending != nullptr);
    EXPECT_EQ(mnWrite(Message(4, 4), node), 1);
    EXPECT_EQ(mnFinishWrite(node), 1);
    EXPECT_EQ(mnIsPendingIO(node), 0);
    Take();
    node->error = 77;
    EXPECT_EQ(mnFinishWrite(node), 1) << "nothing to finish";
    EXPECT_EQ(Error(node) + Take(), "0");
    mnClose(node);
    return outcome + Commands(link.peer.Read());
  };
  EXPECT_EQ(finish(0, 0), "1: 0, sent 3, out 0 | mnFinishWrite 0 | 1234");
  EXPECT_EQ(finish(1, EAGAIN), "1: 11, sent 0, out 3, queue 3 | mnFinishWrite 11 | 1234");
  EXPECT_EQ(finish(2, EAGAIN), "1: 11, sent 1, out 2, queue 2 | mnFinishWrite 11 | 1234");
  EXPECT_EQ(finish(0, 0, [](MQNode*) { Platform::Limit("send", {160, 1}); }), "1: 0, sent 1, out 2, queue 2 |  | 1234");
  EXPECT_EQ(finish(2, EPIPE), "0: 11, sent 1, out 1, queue 1 | mnFinishWrite 32 | 134");
  EXPECT_EQ(finish(3, EPIPE), "0: 11, sent 2, out 0, queue 0 | mnFinishWrite 32 | 124") << "the queue stays";
  EXPECT_EQ(finish(1, EAGAIN, [](MQNode*) { mqc_fail_allocation(1, 0); }),
            "0: 11, sent 0, out 2, queue 2 | mnFinishWrite 11 | 234");
  EXPECT_EQ(finish(0, 0, [](MQNode* node) { Qputhead(node->pending, nullptr); }),
            "0: 105, sent 0, out 3, queue 3 |  | 1234");
  EXPECT_EQ(finish(0, 0, [](MQNode* node) { node->writesOutstanding = 1; }),
            "1: 0, sent 3, out 0 | mnFinishWrite 0 | 1234");
  EXPECT_EQ(finish(1, EPIPE, [](MQNode* node) { node->writesOutstanding = 0; }),
            "0: 11, sent 0, out 0, queue 2 | mnFinishWrite 32 | 234");
}

TEST_F(DeliverTest, AdvisoryLimitOfTheQueue) {
  const Link link = Connect();
  SetNodeQLimit(nullptr);
  SetNodeQLimit(link.node);
  EXPECT_EQ(IsNodeQReady(nullptr) + IsNodeQReady(link.node), 2);
  link.node->pendingLimit = 2;
  for (const int ready : {1, 1, 0}) {
    Queue(link.node, {1});
    EXPECT_EQ(IsNodeQReady(link.node), ready);
  }
  link.node->pendingLimit = 3;
  EXPECT_EQ(IsNodeQReady(link.node), 0) << "the queue has the limit that it was created with";
  SetNodeQLimit(link.node);
  EXPECT_EQ(IsNodeQReady(link.node), 1);
}

TEST_F(DeliverTest, QueuedDatagramsKeepTheirDestinations) {
  const Keys keys;
  const Node node = CreateDatagram();
  const Peer first = Peer::Datagram(), second = Peer::Datagram();
  const Message out(1, 4);
  SockAddrRec nowhere = AddressOf("nowhere", 9);
  for (SockAddrRec* const none : {static_cast<SockAddrRec*>(nullptr), &nowhere}) {
    EXPECT_EQ(mnWriteTo(out, node, none), 0);
    EXPECT_EQ(format("{} {}", node->sock.error, WriteState(node)), "89 11, sent 0, out 0");
  }
  Platform::Fail("sendto", 1, EAGAIN);
  Platform::Fail("sendto", 3, EAGAIN);
  for (const uint32_t command : {1u, 2u, 3u}) {
    // The caller's address is overwritten before the datagram is sent.
    SockAddrRec to = AddressOf("127.0.0.1", command == 1 ? first.port() : second.port());
    out.Put(command, 4);
    EXPECT_EQ(command == 1 ? mnWriteTo(out, node, &to) : mnSWriteTo(out, node, &to, command == 3, keys.signer.get()),
              1);
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
  EXPECT_EQ(WordAt(second.Read(), kEnvelope + kHeader), 3u);
  // A write descriptor that an application has queued has no destination.
  void* desc = nullptr;
  ASSERT_TRUE(fNewMemory(&desc, sizeof(IoBuffer), "MQNODE"));
  CreateBuffer(static_cast<IoBuffer*>(desc), 160);
  node->pending = Qalloc();
  Qput(node->pending, desc);
  EXPECT_EQ(mnFinishWrite(node), 0);
  EXPECT_EQ(node->sock.error, 89);
}

// A write makes one send, and allocates its descriptor and data area. A read makes two receives, and allocates nothing
// once buffer and record have grown, except to remember an accepted signed message.
TEST_F(DeliverTest, Costs) {
  const Keys keys;
  Link link = Connect();  // two nodes of one connection
  const Node reader(Node::adopt(link.peer.Release(), MQ_ROLE_CONNECT).release());
  const Message in;
  // The system calls of an operation, and the allocations of the companion and of the library itself.
  const auto cost = [](auto run) {
    Take();
    const uint64_t companion = mqc_allocations();
    const size_t library = Platform::Allocations();
    EXPECT_TRUE(run());
    return format("{} | {} {}", Take("c"), mqc_allocations() - companion, Platform::Allocations() - library);
  };
  for (const auto& [secure, size] : {std::pair{0, 44u}, {0, 16364u}, {0, 65516u}, {1, 1004u}}) {
    const Message out(1, size);
    const uint32_t total = size + (secure ? 284 : 156), header = secure ? kEnvelope : kHeader;
    std::string write, read;
    for (int grown = 0; grown < 2; ++grown) {
      write = cost([&, is = secure] { return mnSWrite(out, link.node, is, keys.signer.get()); });
      // One receive must return the whole message, so it has to be there.
      std::string peeked(total, '\0');
      ASSERT_EQ(recv(reader->sock.fd, peeked.data(), total, MSG_PEEK | MSG_WAITALL), total);
      read = cost([&, is = secure] { return mnSRead(in, reader, is, nullptr); });
    }
    EXPECT_EQ(write, format("send({0}) = {0} | 2 0", total));
    EXPECT_EQ(read, format("recvfrom({0}) = {0}; recvfrom({1}) = {1} | {2} 0", header, total - header, secure));
  }
}

}  // namespace
