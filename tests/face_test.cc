// face_test.cc - mqnode.hpp: it costs what the C interface costs, owns what it should, loses no code.
#include "mqnode/mqnode.hpp"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <span>
#include <type_traits>
#include <vector>

#include "tests/support/fixture.hh"

namespace {

using namespace mqnode;
using namespace std::chrono_literals;

template <class Handle>
constexpr bool kIsHandle = sizeof(Handle) == sizeof(void*) &&
                           std::is_nothrow_move_constructible_v<Handle>&& std::is_nothrow_move_assignable_v<Handle> &&
                           !std::is_copy_constructible_v<Handle> && !std::is_copy_assignable_v<Handle>;
static_assert(kIsHandle<Node> && kIsHandle<Message> && kIsHandle<Signer>);
static_assert(!std::is_copy_constructible_v<WaitSet> && std::is_nothrow_move_constructible_v<WaitSet>);
static_assert(std::is_trivially_copyable_v<NodeRef> && std::is_trivially_copyable_v<Result> && sizeof(Result) == 16);
static_assert(!std::is_convertible_v<MQNode*, Node> && !std::is_convertible_v<NodeRef, Node>);

// What would lose part of a value does not compile.
template <class Value>
concept Addable = requires(MessageRef msg, Value value) {
  msg.add(1u, value);
};
static_assert(Addable<int32_t> && Addable<int64_t> && Addable<const char*> && Addable<std::string> && Addable<Bytes>);
static_assert(Addable<std::vector<uint8_t>> && Addable<std::span<const std::byte>>);
static_assert(!Addable<bool> && !Addable<uint32_t> && !Addable<size_t> && !Addable<double> &&
              !Addable<std::string_view>);
static_assert(!Addable<std::vector<int>>);

constexpr uint8_t kSecret[MQC_KEY_BYTES] = {7};

class FaceTest : public Fixture {
 protected:
  FaceTest() { unsetenv("TEVRA_HOME"); }
  ~FaceTest() override { mqc_ring_clear(); }

  static Address Local(int port) { return {"127.0.0.1", std::to_string(port)}; }

  // A listening node, a node connected to it, and the child at the other end.
  struct Pair {
    Node listener = Node::listener(Local(0));
    Node client;
    Node server;
  };
  static Pair Connected() {
    Pair pair;
    pair.client = Node::connector(Local(pair.listener.local_port()));
    EXPECT_TRUE(pair.client.open());
    EXPECT_TRUE(pair.listener.accept(pair.server));
    return pair;
  }
  static Message Filled() {
    Message msg = Message::create();
    EXPECT_TRUE(msg.begin(7) && msg.add(1, "text"));
    return msg;
  }
};

// Accepts this node's own messages.
void Trust(const char* user) {
  Signer signer = Signer::create(user, kSecret);
  uint8_t key[MQC_KEY_BYTES];
  signer.public_key(key);
  ASSERT_EQ(mqc_ring_add(user, key, nullptr, 0), 1);
}

// ---- Cost ----

// The same conversation twice, through the C interface and through the face: a wait, a plain and a signed message, a
// datagram, from the creation of the nodes to their end. Returns the text that arrived.
std::string TalkInC(SockAddrRec any) {
  MQNode* const listener = CreateMQNode(&any, MQ_ROLE_LISTEN);
  SockAddrRec there = AddressOf("127.0.0.1", NodeRef(listener).local_port());
  MQNode* const client = CreateMQNode(&there, MQ_ROLE_CONNECT);
  mnOpen(client);
  mnOpen(listener);
  MQNode* const server = listener->child;
  NoblockSocket(&server->sock);
  MqcSigner* const signer = mqc_signer_new(client->user, kSecret, nullptr, 0);
  PcfMessage* const msg = mqc_message_new(0);
  mqc_begin(msg, 7);
  mqc_add_text(msg, 1, "question");
  mqc_add_bytes(msg, 2, kSecret, sizeof kSecret);
  mnWrite(msg, client);

  SockPostData work;
  InitSocketPostData(&work, 16);
  MQNode *nodes[] = {listener, server, nullptr}, *listening[3], *readable[3], *writable[3];
  int status;
  mnNPostExMSec(nodes, listening, readable, writable, 5000, &status, &work);
  for (MQNode** ready = readable; *ready != nullptr; ++ready) mnRead(msg, *ready);
  mnSWrite(msg, server, 1, signer);
  mnSRead(msg, client, 1, nullptr);

  MQNode* const datagram = CreateUDPMQNode(&any);
  there = AddressOf("127.0.0.1", NodeRef(datagram).local_port());
  mnWriteTo(msg, datagram, &there);
  mnRead(msg, datagram);
  MqcParam text;
  mqc_find(msg, 1, &text);
  std::string arrived = text.text != nullptr ? text.text : "nothing";

  DeleteMQNode(datagram);
  FreeSocketPostData(&work);
  mqc_message_free(msg);
  mqc_signer_free(signer);
  DeleteMQNode(server);
  DeleteMQNode(client);
  DeleteMQNode(listener);
  return arrived;
}

std::string TalkThroughTheFace(const Address& any) {
  Node listener = Node::listener(any);
  Address there("127.0.0.1", std::to_string(listener.local_port()));
  Node client = Node::connector(there);
  EXPECT_TRUE(client.open());
  Node server;
  EXPECT_TRUE(listener.accept(server));
  EXPECT_TRUE(server.set_blocking(false));
  const Signer signer = Signer::create(client.record().user, kSecret);
  const Message msg = Message::create();
  EXPECT_TRUE(msg.begin(7) && msg.add(1, "question") && msg.add(2, kSecret) && client.write(msg));

  WaitSet set;
  EXPECT_TRUE(set.add(listener) && set.add(server) && set.wait(5s));
  for (const NodeRef ready : set.readable()) EXPECT_TRUE(ready.read(msg));
  EXPECT_TRUE(server.write_signed(msg, signer) && client.read_signed(msg));

  const Node datagram = Node::datagram(any);
  there = Address("127.0.0.1", std::to_string(datagram.local_port()));
  EXPECT_TRUE(datagram.write_to(msg, there) && datagram.read(msg));
  return std::string(msg.text_or(1, "nothing"));
}

struct Cost {
  Lines calls;
  uint64_t companion_allocations;
  size_t library_allocations;
  std::string arrived;
};

template <class Talk>
Cost Measure(Talk talk, const Address& any) {
  Platform::Reset();
  const uint64_t before = mqc_allocations();
  const std::string arrived = talk(any);
  Lines calls = Platform::Calls();
  for (std::string& call : calls) {  // each talk has its own ports
    const size_t port = call.find("127.0.0.1:");
    if (port != std::string::npos) call.erase(port + 9, call.find_first_of(",)", port) - port - 9);
  }
  return {calls, mqc_allocations() - before, Platform::Allocations(), arrived};
}

TEST_F(FaceTest, CostsWhatTheCInterfaceCosts) {
  Trust(Node::connector(Local(9)).record().user);
  Measure(TalkInC, Local(0));  // the first talk also pays for what lives as long as the process
  const Cost plain = Measure(TalkInC, Local(0));
  const Cost face = Measure(TalkThroughTheFace, Local(0));
  EXPECT_EQ(plain.arrived, "question");
  EXPECT_EQ(face.arrived, "question");
  EXPECT_EQ(face.calls, plain.calls);
  EXPECT_EQ(face.companion_allocations, plain.companion_allocations);
  EXPECT_EQ(face.library_allocations, plain.library_allocations);
}

// ---- Ownership: the fixture counts descriptors and blocks afterwards ----

TEST_F(FaceTest, HandlesOwnWhatTheyHold) {
  Pair pair = Connected();
  MQNode* const held = pair.client.get();
  Node moved = std::move(pair.client);
  EXPECT_FALSE(pair.client);
  EXPECT_TRUE(pair.client.failed());
  EXPECT_STREQ(pair.client.status().name(), "ENOMEM");
  EXPECT_EQ(moved.get(), held);
  EXPECT_EQ(moved.record().sock.owner, held);
  Node& alias = moved;
  moved = std::move(alias);
  EXPECT_EQ(moved.get(), held);
  Node given(moved.release());
  EXPECT_FALSE(moved);
  given = Node::connector(Local(9));
  EXPECT_NE(given.get(), nullptr);

  Message msg = Filled();
  Message other = Filled();
  other = std::move(msg);
  msg.reset(mqc_message_new(0));
  EXPECT_TRUE(other && other.command() == 7 && msg);
}

TEST_F(FaceTest, AcceptReplacesTheChild) {
  Pair pair = Connected();
  const int old = pair.server.descriptor();
  ASSERT_TRUE(pair.listener.set_blocking(false));
  Result nothing = pair.listener.accept(pair.server);
  EXPECT_TRUE(!nothing && nothing.again());
  EXPECT_EQ(pair.server.descriptor(), old);

  const Node second = Node::connector(Local(pair.listener.local_port()));
  ASSERT_TRUE(second.open());
  ASSERT_TRUE(pair.listener.accept(pair.server));
  EXPECT_NE(pair.server.descriptor(), old);
  EXPECT_EQ(fcntl(old, F_GETFD), -1);
  EXPECT_EQ(pair.listener.record().child, nullptr);

  const Node third = Node::connector(Local(pair.listener.local_port()));
  ASSERT_TRUE(third.open());
  mqc_fail_allocation(1, 0);
  const Result none = pair.listener.accept(pair.server);
  mqc_fail_allocation(0, 0);
  EXPECT_TRUE(!none && none.code() == ENOMEM && !none.again());
}

// ---- Results ----

std::string Told(const Result& result) {
  return std::string(result ? "ok " : "failed ") + std::to_string(result.code()) + " " + result.name() +
         (result.again() ? ", again" : "") + (result.peer_gone() ? ", peer gone" : "") +
         (result.timed_out() ? ", timed out" : "");
}

TEST_F(FaceTest, ResultsNameTheCause) {
  const Message msg = Filled();
  Pair pair = Connected();
  ASSERT_TRUE(pair.server.set_blocking(false) && pair.client.set_blocking(false));
  EXPECT_EQ(Told(pair.server.read(msg)), "failed 11 MQ_AGAIN, again");

  Platform::Fail("send", 1, EAGAIN);
  EXPECT_EQ(Told(pair.client.write(msg)), "ok 11 MQ_AGAIN, again");
  EXPECT_TRUE(pair.client.has_pending());
  EXPECT_EQ(Told(pair.client.finish_write()), "ok 0 MQ_OK");
  EXPECT_FALSE(pair.client.has_pending());
  EXPECT_EQ(Told(pair.server.read(msg)), "ok 0 MQ_OK");

  // Dropped: the node says 11 each time.
  Platform::Fail("send", 1, EPIPE);
  EXPECT_EQ(Told(pair.client.write(msg)), "failed 11 EPIPE");
  Platform::Fail("send", 1, EAGAIN);
  mqc_fail_allocation(3, 0);  // record, data area, queue
  EXPECT_EQ(Told(pair.client.write(msg)), "failed 11 ENOMEM");
  mqc_fail_allocation(0, 0);

  // 105 is the socket's, or the node's.
  Platform::Fail("recvfrom", 1, ENOBUFS);
  EXPECT_EQ(Told(pair.server.read(msg)), "failed 105 ENOBUFS");
  MQNode& record = pair.client.record();
  record.pending = Qalloc();
  Qput(record.pending, nullptr);
  EXPECT_EQ(Told(pair.client.finish_write()), "failed 105 MQ_NO_DESCRIPTOR");
  pair.client.discard_pending();

  record.writeLimit = 1;
  record.writesOutstanding = 1;
  EXPECT_EQ(Told(pair.client.write(msg)), "failed -1111 MQ_WRITE_LIMIT");
  pair.client.reset();
  EXPECT_EQ(Told(pair.server.read(msg)), "failed 104 ECONNRESET, peer gone");
}

// After half a message was lost the peer would take the next one for its rest.
TEST_F(FaceTest, APartialLossClosesTheNode) {
  const Message msg = Filled();
  for (const bool queued : {false, true}) {
    const Pair pair = Connected();
    Platform::Limit("send", {100});
    if (!queued) mqc_fail_allocation(3, 0);  // record, data area, queue
    const Result first = pair.client.write(msg);
    mqc_fail_allocation(0, 0);
    EXPECT_EQ(bool(first), queued);
    Platform::Fail("send", 1, EINTR);
    if (queued) {
      EXPECT_EQ(Told(pair.client.finish_write()), "failed 11 EINTR");
    }
    Platform::Mend();
    EXPECT_FALSE(pair.client.is_open());
    EXPECT_EQ(Told(pair.client.write(msg)), "failed 11 EBADF");
    EXPECT_EQ(Told(pair.server.read(msg)), "failed 104 ECONNRESET, peer gone");
  }
  // Nothing left: the stream is in step, the message may be written again.
  Pair pair = Connected();
  Platform::Fail("send", 1, EINTR);
  EXPECT_EQ(Told(pair.client.write(msg)), "failed 11 EINTR");
  EXPECT_TRUE(pair.client.write(msg) && pair.server.read(msg));
}

// Nothing is cut: the operation that would have used the text fails.
TEST_F(FaceTest, AddressesThatDoNotFitDoNotResolve) {
  const std::string zero("1\0", 2);
  const struct {
    Address address;
    const char* expected;
  } cases[] = {
      {{std::string(256, '1'), "9"}, "SOCK_HOST_UNKNOWN"},
      {{"127.0.0.1" + std::string(1, '\0') + "x", "9"}, "SOCK_HOST_UNKNOWN"},
      {{"127.0.0.1", std::string(33, '0')}, "SOCK_SERVICE_UNKNOWN"},
      {{"127.0.0.1", zero}, "SOCK_SERVICE_UNKNOWN"},
      {{"127.0.0.1", "echo", std::string(47, 't')}, "SOCK_SERVICE_UNKNOWN"},
  };
  Platform::AddService("echo", std::string(46, 't'), 7);
  for (const auto& [address, expected] : cases) {
    errno = 0;
    EXPECT_STREQ(Node::connector(address).open().name(), expected) << Text(address);
  }
  const Address longest(std::string(255, 'h'), std::string(32, 's'), std::string(46, 'p'));
  EXPECT_EQ(Text(longest), std::string(255, 'h') + " - " + std::string(32, 's') + " " + std::string(46, 'p') + " 0");
}

// ---- Messages ----

TEST_F(FaceTest, ParametersAreWalkedAndFound) {
  const std::vector<uint8_t> some = {1, 2, 3};
  const std::array<std::byte, 2> more = {};
  const Message msg = Message::create();
  EXPECT_TRUE(msg.params().empty());
  EXPECT_EQ(msg.user(), "");
  EXPECT_FALSE(msg.add(1, 1));
  EXPECT_NE(msg.error(), "");
  ASSERT_TRUE(msg.begin(9) && msg.add(1, -5) && msg.add(2, int64_t{1} << 40) && msg.add(3, std::string("three")));
  ASSERT_TRUE(msg.add(4, some) && msg.add(5, more) && msg.add(1, "again"));
  EXPECT_EQ(msg.error(), "");

  std::string walked;
  for (const Param& param : msg.params()) {
    walked += std::to_string(param.id()) + ":" + std::to_string(param.number()) + ":" + std::string(param.text()) +
              ":" + std::to_string(param.bytes().size()) + " ";
  }
  EXPECT_EQ(walked, "1:-5::0 2:1099511627776::0 3:0:three:0 4:0::3 5:0::2 1:0:again:0 ");
  EXPECT_EQ(msg.number_or(1, 0), -5);
  EXPECT_EQ(msg.number_or(3, 77), 77);
  EXPECT_EQ(msg.text_or(3, ""), "three");
  EXPECT_EQ(msg.text_or(6, "none"), "none");
  EXPECT_FALSE(msg.find(6));
  EXPECT_FALSE(msg.params()[6]);
  const std::span<const uint8_t> bytes = msg.find(4).bytes();
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.end()), some);
  const uint8_t one = 0;
  EXPECT_FALSE(msg.add(1, Bytes(&one, SIZE_MAX)));
}

TEST_F(FaceTest, SignedMessagesSayWhoSigned) {
  const Message msg = Filled();
  Pair pair = Connected();
  const std::string user(pair.client.user());
  ErrorText why;
  EXPECT_FALSE(Signer::create("a user id that is too long", kSecret, &why));
  EXPECT_NE(why.view(), "");
  EXPECT_FALSE(Signer::load("no such file"));
  const Signer signer = Signer::create(user.c_str(), kSecret, &why);
  ASSERT_TRUE(signer) << why.text;
  EXPECT_EQ(signer.user(), user);

  ASSERT_TRUE(pair.client.write_signed(msg, signer));
  EXPECT_EQ(Told(pair.server.read_signed(msg)), "failed -1001 MQ_NOT_AUTHENTIC");
  Trust(user.c_str());
  ASSERT_TRUE(msg.begin(8) && pair.client.write_signed(msg, signer));
  ASSERT_TRUE(pair.server.read_signed(msg));
  EXPECT_EQ(msg.sender(), user);
  EXPECT_EQ(msg.user(), user);
  EXPECT_EQ(msg.application(), pair.client.application());
}

// ---- Nodes ----

// ---- Waits ----

class FaceWaitTest : public FaceTest {
 protected:
  // One more connected pair; the server end is in the set and has a message to read.
  void AddReady() {
    Pair& pair = pairs_.emplace_back(Connected());
    ASSERT_TRUE(set_.add(pair.server) && pair.client.write(Filled()));
  }
  std::string Listed(Nodes nodes) const {
    std::string text;
    for (const NodeRef node : nodes) {
      for (size_t i = 0; i < pairs_.size(); ++i) {
        if (node == pairs_[i].server) text += std::to_string(i) + " ";
      }
    }
    return text;
  }

  std::vector<Pair> pairs_;
  WaitSet set_;
};

// More nodes than there is room for at first, added between waits and in a loop over the ready ones.
TEST_F(FaceWaitTest, GrowsAlsoInALoop) {
  AddReady();
  ASSERT_TRUE(set_.wait(5s));
  for (NodeRef node : set_.readable()) {
    EXPECT_EQ(node, pairs_[0].server);
    for (int i = 1; i < 20; ++i) AddReady();
  }
  ASSERT_TRUE(set_.wait_readable(5s));
  EXPECT_EQ(Listed(set_.readable()), "0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 ");
  EXPECT_EQ(Listed(set_.nodes()), Listed(set_.readable()));
  EXPECT_EQ(Listed(set_.writable()), "");

  WaitSet moved = std::move(set_);
  EXPECT_EQ(moved.size(), 20);
  EXPECT_EQ(set_.size(), 0);
  set_ = std::move(moved);
  Platform::Reset();
  ASSERT_TRUE(set_.wait(5s));
  EXPECT_EQ(Platform::Allocations(), 0u);
}

TEST_F(FaceWaitTest, RemovedNodesAreGoneFromAllLists) {
  for (int i = 0; i < 6; ++i) AddReady();
  ASSERT_TRUE(set_.wait(5s));
  const MQNode* const third = pairs_[3].server.get();
  std::string visited;
  for (const NodeRef node : set_.readable()) {
    visited += node == pairs_[0].server   ? "0 "
               : node == pairs_[2].server ? "2 "
               : node == pairs_[5].server ? "5 "
                                          : "? ";
    if (node != pairs_[2].server) continue;
    for (const size_t i : {1, 2, 3, 4}) {  // one that was visited, itself, the next two
      EXPECT_TRUE(set_.remove(pairs_[i].server));
      pairs_[i].server.reset();
    }
  }
  EXPECT_EQ(visited, "0 ? 2 5 ");
  EXPECT_FALSE(set_.remove(const_cast<MQNode*>(third)));
  EXPECT_EQ(Listed(set_.readable()), "0 5 ");
  EXPECT_EQ(Listed(set_.nodes()), "0 5 ");
  EXPECT_TRUE(set_.remove(pairs_[0].server) && set_.readable().front() == pairs_[5].server);
}

}  // namespace
