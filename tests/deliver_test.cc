// deliver_test.cc - messages composed and delivered: what is on the wire, what waits in the queue, what is counted.
#include <unistd.h>

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
  void Queue(MQNode* node, std::initializer_list<uint32_t> commands) {
    Platform::Fail("send", 1, EAGAIN);
    for (const uint32_t command : commands) {
      const Message out(command, 4);
      EXPECT_EQ(mnWrite(out, node), 1);
    }
    Platform::Reset();
    TakePoints();
  }
  // The commands of the messages that are on the wire.
  std::string Arrived(const Peer& peer, size_t count) {
    std::string commands;
    for (const std::string bytes = peer.Read(count * 160); commands.size() < count;) {
      commands += static_cast<char>('0' + WordAt(bytes, commands.size() * 160 + kHeader));
    }
    return commands;
  }
};

TEST_F(DeliverTest, PlainBytesOnTheWire) {
  const Link link = Connect();
  Message out;
  mqc_begin(out, 0x01020304);
  mqc_add_bytes(out, 9, "abcdef", 6);
  memset(out->raw.data + kAtUser, 'x', 60);  // whatever stood in the fields that the node fills
  const std::string body =
      Encoder({false, false}).Word(0x01020304).Word(1).Word(9).Word(MQC_BYTES).Word(6).Text("abcdef", 8).bytes;
  EXPECT_EQ(mnWrite(out, link.node), 1);
  EXPECT_EQ(link.peer.Read(164), Header(28) + body);
  EXPECT_EQ(mnSWrite(out, link.node, 0, nullptr), 1);
  EXPECT_EQ(link.peer.Read(164), Header(28) + body) << "unsigned is plain";

  Companion::Now().little = false;
  Companion::Now().ascii = false;
  EXPECT_EQ(mnWrite(out, link.node), 1);
  std::string flags = Header(28);
  SetWord(&flags, 8, 1);
  SetWord(&flags, 12, 0);
  EXPECT_EQ(link.peer.Read(164), flags + body);
}

// What is no message is refused before anything happens; a raw form of any other length is sent as it is.
TEST_F(DeliverTest, LengthsOfRawForms) {
  const Link link = Connect();
  Message out(1000);
  WatchErrors(link.node);
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
  EXPECT_EQ(Platform::Calls(), Lines{});
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
  const auto write = [&](const char* user) {
    return [&link, user](PcfMessage* out) { return mnWriteMsg(out, link.node, nullptr, user, 0); };
  };
  const auto alternative = [&](const char* user, int (*fn)(PcfMessage*, MQNode*, int, void*)) {
    return [&link, user, fn](PcfMessage* out) {
      memcpy(out->raw.data + kAtUser, Field(user, 12).data(), 12);
      memset(out->raw.data + 84, 'A', 48);  // directly behind a user of 12 characters
      return fn(out, link.node, 0, nullptr);
    };
  };
  const struct {
    std::function<int(PcfMessage*)> write;
    const char* user;
  } rows[] = {
      {write(""), ""},
      {write("bob"), "bob"},
      {write("exactly12chr"), "exactly12chr"},
      {write("fifteencharacte"), "fifteenchara"},
      {alternative("another", mnSWriteAltUser), "another"},
      {alternative("anotherof12c", mnSWriteAltUser), "anotherof12c"},
      {alternative("", mnSWriteAltUser), "tester"},
      {alternative(" bob", mnSWriteAltUser), "tester"},
      {alternative("another", mnSWriteAltUserHigh), "another"},
      {alternative(" ", mnSWriteAltUserHigh), "tester"},
  };
  for (const auto& row : rows) {
    const Message out(1, 4);
    EXPECT_EQ(row.write(out), 1);
    EXPECT_EQ(link.peer.Read(160).substr(0, kHeader), Header(24, row.user)) << row.user;
  }
  // Text anywhere in the message is taken before the header is filled in.
  for (const size_t at : {0, 8, 12, 64, 84, 140}) {
    const Message out(1, 4);
    memcpy(out->raw.data + at, "own", 4);
    EXPECT_EQ(write(reinterpret_cast<const char*>(out->raw.data + at))(out), 1);
    EXPECT_EQ(link.peer.Read(160).substr(0, kHeader), Header(24, "own")) << at;
  }
  // A host that writes into the node's field may leave something behind its text.
  for (size_t length = 0; length <= 12; ++length) {
    memset(link.node->user, 'x', 12);
    link.node->user[length] = '\0';
    const Message out(1, 4);
    EXPECT_EQ(mnWrite(out, link.node), 1);
    EXPECT_EQ(link.peer.Read(160).substr(0, kHeader), Header(24, std::string(length, 'x'))) << length;
  }
}

// Each entry point clears a stale error before its first trace point or right after it, and traces its own way.
TEST_F(DeliverTest, TraceOfEachEntryPoint) {
  const Link link = Connect();
  MQNode* const node = link.node;
  const Message out(1, 4);
  const char* const plain = "mnWriteMsg 77; mnWriteToNode 0; mnWriteMsg 0";
  const char* const cleared = "mnWriteMsg 0; mnWriteToNode 0; mnWriteMsg 0";
  const char* const secured = "mnSWriteMsg 77; mnWriteMsg 77; mnWriteToNode 0; mnWriteMsg 0";
  const char* const both = "mnSWriteMsg 0; mnWriteMsg 0; mnWriteToNode 0; mnWriteMsg 0";
  const struct {
    std::function<int()> write;
    const char* points;
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
  };
  for (const auto& row : rows) {
    WatchErrors(node);
    node->error = 77;
    EXPECT_EQ(row.write(), 1);
    EXPECT_EQ(TakePoints(), row.points);
  }
  // One whole write with the socket's part of it.
  Watch(node);
  EXPECT_EQ(mnWrite(out, node), 1);
  EXPECT_EQ(Joined(Trace::Take()), "mnWriteMsg; WriteSocket:Before; WriteSocket:After; mnWriteToNode; mnWriteMsg");
  EXPECT_EQ(Arrived(link.peer, 10), "1111111111");
}

TEST_F(DeliverTest, OneWrite) {
  const struct {
    int limit;  // writeLimit
    std::vector<size_t> taken;
    int code;  // of send, 0: none
    const char *outcome, *points;
  } rows[] = {
      {-1, {}, 0, "1: 0, sent 1, out 0", "mnWriteToNode 0; mnWriteMsg 0"},
      {1, {}, 0, "1: 0, sent 1, out 0", "mnWriteToNode 0; mnWriteMsg 0"},
      {0, {100}, 0, "1: 11, sent 0, out 1, queue 1", "mnWriteToNode 0; mnWriteToNode 11; mnWriteMsg 11"},
      {0, {0}, 0, "1: 11, sent 0, out 1, queue 1", "mnWriteToNode 0; mnWriteToNode 11; mnWriteMsg 11"},
      {-1, {}, EAGAIN, "1: 11, sent 0, out 1, queue 1", "mnWriteToNode 11; mnWriteToNode 11; mnWriteMsg 11"},
      {-1, {}, EINPROGRESS, "1: 11, sent 0, out 1, queue 1", "mnWriteToNode 11; mnWriteToNode 11; mnWriteMsg 11"},
      {-1, {}, ECONNRESET, "0: 11, sent 0, out 0", "mnWriteToNode 104; mnWriteMsg 11"},
      {-1, {}, EINTR, "0: 11, sent 0, out 0", "mnWriteToNode 4; mnWriteMsg 11"},
  };
  for (const auto& row : rows) {
    const Link link = Connect();
    const Message out(1, 4);
    link.node->writeLimit = row.limit;
    Platform::Limit("send", row.taken);
    if (row.code != 0) Platform::Fail("send", 1, row.code);
    WatchErrors(link.node);
    const int result = mnWriteMsg(out, link.node, nullptr, "u", 0);
    EXPECT_EQ(std::to_string(result) + ": " + WriteState(link.node), row.outcome) << row.code;
    EXPECT_EQ(link.node->sock.error, row.code == EINPROGRESS ? 11 : row.code);
    EXPECT_EQ(TakePoints(), std::string("mnWriteMsg 0; ") + row.points) << row.code;
    Platform::Reset();
    if (result == 0) continue;
    EXPECT_EQ(mnFinishWrite(link.node), 1);
    EXPECT_EQ(WriteState(link.node), "0, sent 1, out 0");
    EXPECT_EQ(Arrived(link.peer, 1), "1") << row.code;
  }
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
    if (full) Platform::Fail("send", 1, EAGAIN);
    EXPECT_EQ(mnWriteToNode(link.node, nullptr, desc, 0), 1);
    EXPECT_EQ(mnFinishWrite(link.node), 1);
    EXPECT_EQ(Platform::Calls({"send"}).back(), "send(5) = 5");
    EXPECT_EQ(link.peer.Read(5), "bytes");
  }
}

// Behind a queue nothing is tried and nothing overtakes; the bytes are those of the time of the write.
TEST_F(DeliverTest, WritesJoinTheQueueInOrder) {
  const Link link = Connect();
  Queue(link.node, {1, 2});
  WatchErrors(link.node);
  Message third(3, 4);
  EXPECT_EQ(mnSWriteAltUserHigh(third, link.node, 0, nullptr), 1);
  third.Put(9, 4);
  EXPECT_EQ(TakePoints(), "mnSWriteMsg 0; mnWriteMsg 0; mnWriteToNode 0; mnWriteMsg 0");
  const Message fourth(4, 4);
  EXPECT_EQ(mnWrite(fourth, link.node), 1);
  EXPECT_EQ(Platform::Calls(), Lines{});
  EXPECT_EQ(WriteState(link.node), "0, sent 0, out 4, queue 4");
  TakePoints();
  EXPECT_EQ(mnFinishWrite(link.node), 1);
  EXPECT_EQ(Arrived(link.peer, 4), "1234");
  EXPECT_EQ(TakePoints(), "mnFinishWrite 0");
  EXPECT_EQ(WriteState(link.node), "0, sent 4, out 0");
}

TEST_F(DeliverTest, LimitOfOutstandingWrites) {
  const Link link = Connect();
  Queue(link.node, {1, 2});
  link.node->writeLimit = 2;
  WatchErrors(link.node);
  const Message out(3, 4);
  EXPECT_EQ(mnWriteMsg(out, link.node, nullptr, "u", 0), 0);
  EXPECT_EQ(WriteState(link.node), "-1111, sent 0, out 2, queue 2");
  EXPECT_EQ(TakePoints(), "mnWriteMsg 0; mnWriteToNode -1111; mnWriteMsg -1111");
  EXPECT_EQ(IsNodeFailed(link.node), 0);
  link.node->writeLimit = 3;
  EXPECT_EQ(mnWrite(out, link.node), 1);
  for (const int none : {0, -1, -5}) {
    link.node->writeLimit = none;
    EXPECT_EQ(mnWrite(out, link.node), 1);
  }
  EXPECT_EQ(mnFinishWrite(link.node), 1);
  EXPECT_EQ(Arrived(link.peer, 6), "123333");
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
      {"last fails", 3, EPIPE, "0: 11, sent 2, out 0, queue 0", "mnFinishWrite 32", "12"},
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
    WatchErrors(link.node);
    link.node->error = 77;
    if (row.nth != 0) Platform::Fail("send", row.nth, row.code);
    row.prepare(link.node);
    const int result = mnFinishWrite(link.node);
    EXPECT_EQ(std::to_string(result) + ": " + WriteState(link.node), row.outcome) << row.what;
    EXPECT_EQ(mnIsPendingIO(link.node), link.node->pending != nullptr);
    EXPECT_EQ(TakePoints(), row.points) << row.what;
    Platform::Reset();
    EXPECT_EQ(mnFinishWrite(link.node), 1) << row.what;
    EXPECT_EQ(mnIsPendingIO(link.node), 0) << row.what;
    EXPECT_EQ(Arrived(link.peer, strlen(row.arrived)), row.arrived) << row.what;
  }
}

TEST_F(DeliverTest, FinishingNothing) {
  const Link link = Connect();
  WatchErrors(link.node);
  link.node->error = 77;
  EXPECT_EQ(mnFinishWrite(link.node), 1);
  EXPECT_EQ(WriteState(link.node), "0, sent 0, out 0");
  EXPECT_EQ(TakePoints(), "");
  EXPECT_EQ(Platform::Calls(), Lines{});
  // A queue whose last write was dropped stays until it is finished; a write meanwhile joins it.
  Queue(link.node, {1});
  Platform::Fail("send", 1, EPIPE);
  EXPECT_EQ(mnFinishWrite(link.node), 0);
  const Message out(2, 4);
  EXPECT_EQ(mnWrite(out, link.node), 1);
  EXPECT_EQ(WriteState(link.node), "0, sent 0, out 1, queue 1");
  EXPECT_EQ(mnFinishWrite(link.node), 1);
  EXPECT_EQ(Arrived(link.peer, 1), "2");
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
  const Node node = CreateDatagram();
  const Peer first = Peer::Datagram();
  const Peer second = Peer::Datagram();
  SockAddrRec to_first = AddressOf("127.0.0.1", first.port());
  SockAddrRec to_second = AddressOf("localhost", second.port());
  SockAddrRec nowhere = AddressOf("nowhere", 9);
  const Message out(1, 4);
  const auto sent = [&] { return std::string("tester") == out.raw().substr(kAtUser, 6); };
  EXPECT_EQ(mnWriteTo(out, node, &to_first), 1);
  EXPECT_EQ(mnSWriteTo(out, node, &to_second, 0, nullptr), 1);
  EXPECT_TRUE(sent());
  EXPECT_EQ(first.ReadDatagram(), out.raw());
  EXPECT_EQ(second.ReadDatagram(), out.raw());
  for (SockAddrRec* to : {static_cast<SockAddrRec*>(nullptr), &nowhere}) {
    Platform::Forget();
    EXPECT_EQ(mnWriteTo(out, node, to), 0);
    EXPECT_EQ(node->sock.error, 89);
    EXPECT_EQ(WriteState(node), "11, sent 2, out 0");
    EXPECT_EQ(Platform::Calls({"send", "sendto"}), Lines{});
  }
}

TEST_F(DeliverTest, QueuedDatagramsKeepTheirDestinations) {
  const Node node = CreateDatagram();
  const Peer first = Peer::Datagram();
  const Peer second = Peer::Datagram();
  Platform::Fail("sendto", 1, EAGAIN);
  Message out;
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
  Platform::Fail("sendto", 2, EAGAIN);
  EXPECT_EQ(mnFinishWrite(node), 1);
  EXPECT_EQ(WriteState(node), "11, sent 1, out 2, queue 2");
  EXPECT_EQ(mnFinishWrite(node), 1);
  EXPECT_EQ(WriteState(node), "0, sent 3, out 0");
  EXPECT_EQ(WordAt(first.ReadDatagram(), kHeader), 1u);
  EXPECT_EQ(WordAt(second.ReadDatagram(), kHeader), 2u);
  EXPECT_EQ(WordAt(second.ReadDatagram(), kHeader), 3u);

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
