// face_test.cc - mqnode.hpp: ownership and error codes. server.hpp: its end; the hostile runs test its limits.
// errors.h: complete, unambiguous in each place, and consistent with the system's names.
#include "mqnode/mqnode.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <set>
#include <span>
#include <type_traits>

#include "mqnode/server.hpp"
#include "tests/support/fixture.hh"

namespace {

using namespace mqnode;
using namespace std::chrono_literals;

static_assert(!std::is_copy_constructible_v<Node> && !std::is_convertible_v<MQNode*, Node>);

// Values that would lose information do not compile.
template <class Value>
concept Addable = requires(MessageRef msg, Value value) {
  msg.add(1u, value);
};
static_assert(!Addable<bool> && !Addable<uint32_t> && !Addable<size_t> && !Addable<double> &&
              !Addable<std::string_view> && !Addable<std::vector<int>>);

constexpr uint8_t kSecret[MQC_KEY_BYTES] = {7};

Address Local(int port) { return {"127.0.0.1", std::to_string(port)}; }

// A listening node, a node connected to it, and the child at the other end.
struct Connected {
  Connected() : client(Node::connector(Local(listener.local_port()))) {
    EXPECT_TRUE(client.open() && listener.accept(server));
  }
  Node listener = Node::listener(Local(0));
  Node client, server;
};

Message Filled() {
  Message msg = Message::create();
  EXPECT_TRUE(msg.begin(7) && msg.add(1, "text"));
  return msg;
}

std::string Told(const Result& result) {
  return format("{} {} {}{}{}{}", result ? "ok" : "failed", result.code(), result.name(),
                result.again() ? ", again" : "", result.peer_gone() ? ", peer gone" : "",
                result.timed_out() ? ", timed out" : "");
}

class FaceTest : public Fixture {
 protected:
  FaceTest() { unsetenv("TEVRA_HOME"); }
  ~FaceTest() override { mqc_ring_clear(); }

  // Adds this user's key to the ring.
  static void Trust(const char* user) {
    uint8_t key[MQC_KEY_BYTES];
    Signer::create(user, kSecret).public_key(key);
    ASSERT_EQ(mqc_ring_add(user, key, nullptr, 0), 1);
  }
};

// ---- Ownership: the fixture counts descriptors and blocks afterwards ----

TEST_F(FaceTest, HandlesOwnWhatTheyHold) {
  Connected pair;
  MQNode* const held = pair.client.get();
  Node moved = std::move(pair.client);
  EXPECT_TRUE(!pair.client && pair.client.failed());
  EXPECT_STREQ(pair.client.status().name(), "ENOMEM");
  Node& alias = moved;
  moved = std::move(alias);
  EXPECT_TRUE(moved.get() == held && held->sock.owner == held);
  Node given(moved.release());
  given = Node::connector(Local(9));
  EXPECT_TRUE(given && !moved);
}

TEST_F(FaceTest, AcceptReplacesTheChild) {
  Connected pair;
  const int old = pair.server.descriptor();
  ASSERT_TRUE(pair.listener.set_blocking(false));
  EXPECT_EQ(Told(pair.listener.accept(pair.server)), "failed 11 MQ_AGAIN, again");
  EXPECT_EQ(pair.server.descriptor(), old);
  const Node second = Node::connector(Local(pair.listener.local_port()));
  ASSERT_TRUE(second.open() && pair.listener.accept(pair.server));
  EXPECT_TRUE(pair.server.descriptor() != old && fcntl(old, F_GETFD) == -1);
  EXPECT_EQ(pair.listener.record().child, nullptr);
  const Node third = Node::connector(Local(pair.listener.local_port()));
  ASSERT_TRUE(third.open());
  mqc_fail_allocation(1, 0);
  EXPECT_EQ(Told(pair.listener.accept(pair.server)), "failed 12 ENOMEM");
}

// ---- Results ----

TEST_F(FaceTest, ResultsNameTheCause) {
  const Message msg = Filled();
  Connected pair;
  const Node &client = pair.client, &server = pair.server;
  ASSERT_TRUE(server.set_blocking(false) && client.set_blocking(false));
  EXPECT_EQ(Told(server.read(msg)), "failed 11 MQ_AGAIN, again");
  Platform::Fail("send", 1, EAGAIN);
  EXPECT_EQ(Told(client.write(msg)), "ok 11 MQ_AGAIN, again");
  EXPECT_TRUE(client.has_pending());
  EXPECT_EQ(Told(client.finish_write()), "ok 0 MQ_OK");
  EXPECT_FALSE(client.has_pending());
  EXPECT_EQ(Told(server.read(msg)), "ok 0 MQ_OK");
  // A dropped message: node->error is 11 in each case.
  Platform::Fail("send", 1, EPIPE);
  EXPECT_EQ(Told(client.write(msg)), "failed 11 EPIPE");
  for (const int nth : {3, 4}) {  // record, data area, queue, entry
    Platform::Fail("send", 1, EAGAIN);
    mqc_fail_allocation(nth, 0);
    EXPECT_EQ(Told(client.write(msg)), "failed 11 ENOMEM");
    EXPECT_FALSE(client.has_pending());
  }
  // Code 105 has different names in the socket and in the node.
  Platform::Fail("recvfrom", 1, ENOBUFS);
  EXPECT_EQ(Told(server.read(msg)), "failed 105 ENOBUFS");
  MQNode& record = client.record();
  record.pending = Qalloc();
  Qput(record.pending, nullptr);
  EXPECT_EQ(Told(client.finish_write()), "failed 105 MQ_NO_DESCRIPTOR");
  client.discard_pending();
  record.writeLimit = record.writesOutstanding = 1;
  EXPECT_EQ(Told(client.write(msg)), "failed -1111 MQ_WRITE_LIMIT");
  pair.client.reset();
  EXPECT_EQ(Told(server.read(msg)), "failed 104 ECONNRESET, peer gone");
}

// A read with a time limit keeps what has arrived, and the node stays blocking.
TEST_F(FaceTest, ReadsEndInTime) {
  const Message msg = Filled();
  Connected pair;
  Platform::Limit("send", {100});
  EXPECT_TRUE(pair.client.set_blocking(false) && pair.client.write(msg) && pair.client.has_pending());
  const Result read = pair.server.read(msg, 20ms);
  EXPECT_TRUE(!read && read.timed_out());
  EXPECT_EQ(pair.server.record().recvBuffer.received, 100U);
  Platform::Mend();
  EXPECT_TRUE(pair.client.finish_write() && pair.server.read(msg, 10s));
  EXPECT_EQ(fcntl(pair.server.descriptor(), F_GETFL) & O_NONBLOCK, 0);
}

// Otherwise the peer would read the next message as the rest of the one that was cut.
TEST_F(FaceTest, APartialLossClosesTheNode) {
  const Message msg = Filled();
  for (const bool queued : {false, true}) {
    const Connected pair;
    Platform::Limit("send", {100});
    if (!queued) mqc_fail_allocation(3, 0);  // record, data area, queue
    EXPECT_EQ(bool(pair.client.write(msg)), queued);
    Platform::Fail("send", 1, EINTR);
    EXPECT_EQ(queued ? Told(pair.client.finish_write()) : "", queued ? "failed 11 EINTR" : "");
    Platform::Mend();
    EXPECT_FALSE(pair.client.is_open());
    EXPECT_EQ(Told(pair.client.write(msg)), "failed 11 EBADF");
    EXPECT_EQ(Told(pair.server.read(msg)), "failed 104 ECONNRESET, peer gone");
  }
  // Nothing was sent: the stream is intact, and the message may be written again.
  const Connected pair;
  Platform::Fail("send", 1, EINTR);
  EXPECT_EQ(Told(pair.client.write(msg)), "failed 11 EINTR");
  EXPECT_TRUE(pair.client.write(msg) && pair.server.read(msg));
}

// Deleting a node discards unsent data; finishing it delivers everything.
TEST_F(FaceTest, FinishedNodesLoseNothing) {
  constexpr int kMessages = 20;
  const std::vector<uint8_t> large(1 << 20);
  // Returns the result, and how many messages the peer has read. The peer leaves or stays after that, or writes first.
  enum Then { kLeaves, kStays, kAnswersFirst };
  const auto write_all = [&](int reads, Then then, std::chrono::milliseconds longest) {
    const Node listener = Node::listener(Local(0));
    const pid_t reader = fork();
    if (reader == 0) {
      Node server;
      int read = 0;
      const Message in = Message::create();
      if (!listener.accept(server)) _exit(1);
      if (then == kAnswersFirst && !(in.begin(2) && in.add(1, large))) _exit(1);
      for (int i = 0; i < kMessages && then == kAnswersFirst && server.write(in); ++i) continue;
      while (read < reads && server.read(in)) ++read;
      if (then == kStays) pause();
      _exit(read < reads && server.finish(20s) ? read : 0);
    }
    const Node client = Node::connector(Local(listener.local_port()));
    const Message msg = Message::create();
    EXPECT_TRUE(client.open() && client.set_blocking(false) && msg.begin(1) && msg.add(1, large));
    for (int i = 0; i < kMessages && client.write(msg); ++i) continue;
    const std::string told = Told(client.finish(longest));
    if (then == kStays) kill(reader, SIGTERM);
    int status = 0;
    waitpid(reader, &status, 0);
    return format("{}, {}", told, WIFEXITED(status) ? WEXITSTATUS(status) : 0);
  };
  EXPECT_EQ(write_all(INT_MAX, kLeaves, 20s), "ok 0 MQ_OK, 20");
  EXPECT_EQ(write_all(INT_MAX, kAnswersFirst, 20s), "ok 0 MQ_OK, 20");
  EXPECT_EQ(write_all(kMessages, kStays, 300ms), "failed 110 ETIMEDOUT, 0");
  EXPECT_EQ(write_all(1, kLeaves, 20s).substr(0, 6), "failed") << "the peer left";
}

// Texts are not truncated: the operation that would use them fails.
TEST_F(FaceTest, AddressesThatDoNotFitDoNotResolve) {
  Platform::AddService("echo", std::string(46, 't'), 7);
  const auto open = [](const Address& address) { return errno = 0, Node::connector(address).open().code(); };
  EXPECT_EQ(open({std::string(256, '1'), "9"}), SOCK_HOST_UNKNOWN);
  EXPECT_EQ(open({"127.0.0.1" + std::string(1, '\0') + "x", "9"}), SOCK_HOST_UNKNOWN);
  EXPECT_EQ(open({"127.0.0.1", std::string("1\0", 2)}), SOCK_SERVICE_UNKNOWN);
  EXPECT_EQ(open({"127.0.0.1", "echo", std::string(47, 't')}), SOCK_SERVICE_UNKNOWN);
  EXPECT_EQ(Text(Address(std::string(255, 'h'), std::string(32, 's'), std::string(46, 'p'))),
            format("{:h<255} - {:s<32} {:p<46} 0", "", "", ""));
}

// ---- Messages ----

TEST_F(FaceTest, ParametersAreWalkedAndFound) {
  const std::vector<uint8_t> some = {1, 2, 3};
  const std::array<std::byte, 2> more = {};
  const Message msg = Message::create();
  EXPECT_TRUE(msg.params().empty() && msg.user().empty());
  EXPECT_FALSE(msg.add(1, 1));
  EXPECT_NE(msg.error(), "");
  ASSERT_TRUE(msg.begin(9) && msg.add(1, -5) && msg.add(2, int64_t{1} << 40) && msg.add(3, std::string("three")) &&
              msg.add(4, some) && msg.add(5, more) && msg.add(1, "again"));
  EXPECT_EQ(msg.error(), "");
  std::string walked;
  for (const Param& param : msg.params()) {
    walked += format("{}:{}:{}:{} ", param.id(), param.number(), param.text(), param.bytes().size());
  }
  EXPECT_EQ(walked, "1:-5::0 2:1099511627776::0 3:0:three:0 4:0::3 5:0::2 1:0:again:0 ");
  EXPECT_EQ(
      format("{} {} {} {}", msg.number_or(1, 0), msg.number_or(3, 77), msg.text_or(3, ""), msg.text_or(6, "none")),
      "-5 77 three none");
  EXPECT_TRUE(!msg.find(6) && !msg.params()[6]);
  const std::span<const uint8_t> bytes = msg.find(4).bytes();
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.end()), some);
  EXPECT_FALSE(msg.add(1, Bytes(some.data(), SIZE_MAX)));
}

TEST_F(FaceTest, SignedMessagesSayWhoSigned) {
  const Message msg = Filled();
  const Connected pair;
  const std::string user = "alice";
  EXPECT_TRUE(pair.client.set_user(user) && pair.client.set_application("planner"));
  EXPECT_FALSE(pair.client.set_user(std::string(13, 'u')) || pair.client.set_application(std::string(49, 'a')));
  ErrorText why;
  EXPECT_FALSE(Signer::create("a user id that is too long", kSecret, &why));
  EXPECT_NE(why.view(), "");
  const Signer signer = Signer::create(user.c_str(), kSecret, &why);
  EXPECT_EQ(signer.user(), user) << why.text;
  ASSERT_TRUE(pair.client.write_signed(msg, signer));
  EXPECT_EQ(Told(pair.server.read_signed(msg)), "failed -1001 MQ_NOT_AUTHENTIC");
  Trust(user.c_str());
  ASSERT_TRUE(msg.begin(8) && pair.client.write_signed(msg, signer) && pair.server.read_signed(msg));
  EXPECT_TRUE(msg.sender() == user && msg.user() == user && msg.application() == "planner");
}

// ---- Waits ----

class FaceWaitTest : public FaceTest {
 protected:
  // Adds a connected pair; the server end is in the set and has a message to read.
  void AddReady() {
    const Connected& pair = pairs_.emplace_back();
    ASSERT_TRUE(set_.add(pair.server) && pair.client.write(Filled()));
  }
  std::string NameOf(NodeRef node) const {
    for (size_t i = 0; i < pairs_.size(); ++i) {
      if (node == pairs_[i].server) return std::to_string(i) + " ";
    }
    return "? ";
  }
  std::string Listed(Nodes nodes) const {
    std::string text;
    for (const NodeRef node : nodes) text += NameOf(node);
    return text;
  }

  std::vector<Connected> pairs_;
  WaitSet set_;
};

// More nodes than the initial capacity, added between waits and in a loop over the ready ones.
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
  EXPECT_TRUE(moved.size() == 20 && set_.size() == 0);
  set_ = std::move(moved);
  Platform::Reset();
  ASSERT_TRUE(set_.wait(5s));
  EXPECT_EQ(Platform::Allocations(), 0u);
}

TEST_F(FaceWaitTest, RemovedNodesAreGoneFromAllLists) {
  for (int i = 0; i < 6; ++i) AddReady();
  ASSERT_TRUE(set_.wait(5s));
  MQNode* const third = pairs_[3].server.get();
  std::string visited;
  for (const NodeRef node : set_.readable()) {
    visited += NameOf(node);
    if (node != pairs_[2].server) continue;
    for (const size_t i : {1, 2, 3, 4}) {  // a visited one, the current one, the next two
      EXPECT_TRUE(set_.remove(pairs_[i].server));
      pairs_[i].server.reset();
    }
  }
  EXPECT_EQ(visited, "0 1 2 5 ");
  EXPECT_FALSE(set_.remove(third));
  EXPECT_EQ(Listed(set_.readable()) + Listed(set_.nodes()), "0 5 0 5 ");
  EXPECT_TRUE(set_.remove(pairs_[0].server) && set_.readable().front() == pairs_[5].server);
}

// Answers with more than the socket buffers can contain.
class LargeServer : public Server {
 public:
  using Server::Server;
  std::string told;

 private:
  const char* accepted(ServerClient) noexcept override { return told += "in ", nullptr; }
  const char* message(ServerClient client, MessageRef msg) noexcept override {
    return msg.add(2, std::vector<uint8_t>(4 << 20)) ? sent(client.node().write(msg)) : "no memory";
  }
  void dropped(ServerClient, const char* why) noexcept override { told += why != nullptr ? why : "left"; }
};

TEST_F(FaceTest, ServersSendWhatWaitsBeforeTheyEnd) {
  MqServerLimits limits = mq_server_limits();
  limits.clientsPerAddress = 1;
  const Node listener = Node::listener(Local(0));
  Node client = Node::connector(Local(listener.local_port()));
  const Node second = Node::connector(Local(listener.local_port()));
  LargeServer server(limits);
  server.record().log = nullptr;
  Message msg = Filled();
  ASSERT_TRUE(server.add(listener) && client.open() && second.open() && client.write(msg));
  for (int i = 0; i < 500 && (server.size() == 0 || !NodeRef(server.record().clients[0]->node).has_pending()); ++i) {
    ASSERT_TRUE(server.round(10ms));
  }
  EXPECT_TRUE(second.read(msg).peer_gone());
  const pid_t reader = fork();
  if (reader == 0) _exit(client.read(msg) && msg.params().size() == 2 && !client.read(msg) ? 0 : 1);
  client.reset();
  EXPECT_TRUE(server.end(30s));
  EXPECT_EQ(server.told, "in left");
  int status = 1;
  EXPECT_TRUE(waitpid(reader, &status, 0) == reader && status == 0);
}

// ---- The table of errors ----

TEST(Errors, EveryEntryIsFoundByCodeInEachOfItsPlacesAndByBothNames) {
  size_t count = 0;
  const MqErrorInfo* const table = mq_error_table(&count);
  for (const MqErrorInfo& entry : std::span(table, count)) {
    for (const unsigned place : {MQ_IN_NODE, MQ_IN_SOCKET, MQ_IN_STATUS}) {
      if ((entry.places & place) == 0 || entry.code == MQ_NO_DESCRIPTOR) continue;
      const MqErrorInfo* const found = mq_error_find(entry.code, place);
      ASSERT_NE(found, nullptr) << entry.name;
      EXPECT_STREQ(found->name, entry.name) << "place " << place << ": one code must have one meaning in one place";
    }
    const std::set<std::string_view> names = {entry.name, entry.alias != nullptr ? entry.alias : entry.name};
    const char* const of_system = entry.code > 0 ? strerrorname_np(entry.code) : nullptr;
    EXPECT_TRUE(of_system == nullptr || (entry.places & MQ_IN_SOCKET) == 0 || names.contains(of_system)) << entry.name;
    EXPECT_EQ(mq_error_by_name(entry.name), &entry);
    EXPECT_TRUE(entry.alias == nullptr || mq_error_by_name(entry.alias) == &entry) << entry.name;
  }
}

TEST(Errors, UnknownCodesAndNamesGiveTextsAndNoEntry) {
  EXPECT_EQ(mq_error_find(9001, MQ_IN_ANY), nullptr);
  EXPECT_EQ(mq_error_find(SOCK_WAIT_TIMEOUT, MQ_IN_SOCKET), nullptr) << "a timeout is never in a socket record";
  EXPECT_STREQ(mq_error_name(9001), "unknown code");
  EXPECT_TRUE(*mq_error_meaning(9001) != '\0' && *mq_error_remedy(9001) != '\0');
  EXPECT_EQ(mq_error_by_name("MQ_"), nullptr);
  EXPECT_EQ(mq_error_by_name(""), nullptr);
  EXPECT_STREQ(mq_error_by_name("econnrefused")->name, "ECONNREFUSED");
}

}  // namespace
