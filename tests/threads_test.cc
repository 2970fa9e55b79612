// threads_test.cc - nodes of one process used by different threads, one node by one thread at a time. Worth most under
// the thread sanitizer: ./run test tsan.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "mqnode/mqnode.hpp"
#include "tests/support/sender.hh"

namespace {

using namespace mqnode;
using namespace std::chrono_literals;

constexpr int kThreads = 4;
constexpr int kRounds = 5;

Address Local(int port) { return {"127.0.0.1", std::to_string(port)}; }

// All nodes of the process are the login's, and sign with its key.
struct User {
  User() : name(Node::connector(Local(9)).user()) { EXPECT_TRUE(mqc_generate_key(secret, open)); }
  Signer MakeSigner() const { return Signer::create(name.c_str(), secret); }
  const std::string name;
  uint8_t secret[MQC_KEY_BYTES], open[MQC_KEY_BYTES];
};

// Writes message number over the node and reads it from the other, through the wait that finishes what was queued.
void Exchange(NodeRef from, NodeRef to, Address* destination, int number, MqcSigner* signer) {
  const Message out = Message::create(), in = Message::create();
  const size_t size = destination != nullptr ? 5 : static_cast<size_t>(number % 7) * 5003;
  const std::string value(size, static_cast<char>('a' + number % 26));
  ASSERT_TRUE(out.begin(static_cast<uint32_t>(number)) && out.add(1, value));
  ASSERT_EQ(mnSWriteTo(out.get(), from.get(), destination, signer != nullptr, signer), 1) << from.record().error;
  for (int result = 0; result == 0;) {
    MQNode* nodes[] = {from.get(), to.get(), nullptr};
    MQNode *listening[3], *readable[3], *writable[3];
    int status = 0;
    ASSERT_EQ(mnNPost(nodes, listening, readable, writable, 10, &status), 1) << status;
    ASSERT_TRUE(writable[0] == nullptr || mnFinishWrite(writable[0]));
    if (readable[0] == nullptr) continue;
    result = mnSRead(in.get(), to.get(), signer != nullptr, nullptr);
    ASSERT_TRUE(result || to.record().error == MQ_AGAIN) << to.record().error << ": " << mqc_authenticate_error();
  }
  EXPECT_EQ(in.command(), static_cast<uint32_t>(number));
  EXPECT_EQ(in.text_or(1, "nothing"), value);
}

// What goes wrong in an ordinary life: nothing comes, no message comes, the other side goes, nobody listens.
void Fail(NodeRef client, NodeRef server) {
  const Message in = Message::create();
  WaitSet set;
  EXPECT_TRUE(set.add(server) && set.wait(0ms).timed_out());
  EXPECT_TRUE(server.read(in).again());
  const std::string noise(200, 'n');
  EXPECT_EQ(send(client.descriptor(), noise.data(), noise.size(), 0), 200);
  EXPECT_TRUE(set.wait(10s));
  EXPECT_EQ(server.read(in).code(), MQ_BAD_MESSAGE);
  EXPECT_EQ(in.error(), "");
  server.close();
  EXPECT_TRUE(set.wait(0ms).timed_out());
  EXPECT_TRUE(client.read(in).peer_gone());
  EXPECT_EQ(Node::connector(Local(1)).open().code(), ECONNREFUSED);
}

// What is said of a failure is said to the thread that it happened to.
void HearOnlyOwnFailures(int thread) {
  const auto number = static_cast<uint32_t>(1000 + thread);
  const std::string mark = std::to_string(number);
  const Message msg = Message::create();
  SecureHeader envelope = {};
  IoBuffer none = {.data = nullptr, .length = number, .capacity = 0, .flags = 0, .received = 0, .sent = 0};
  for (int i = 0; i < 200; ++i) {
    reinterpret_cast<MsgHeader*>(msg.record().raw.data)->hdrLength = number;
    ASSERT_FALSE(AlienToNative(&msg.record().raw));
    ASSERT_FALSE(mqc_authenticate(&envelope, &none, msg.get()));
    std::this_thread::yield();
    ASSERT_NE(std::string(mqc_header_error()).find(mark), std::string::npos) << mqc_header_error();
    ASSERT_NE(std::string(mqc_authenticate_error()).find(mark), std::string::npos) << mqc_authenticate_error();
  }
}

// Nodes of every kind, made, used and deleted by one thread.
void LiveAlone(int thread, const User& user, std::barrier<>* start) {
  // A message of the other byte order and character set: the first of its kind in the process.
  const sender::Form form = {true, true};
  const std::string foreign = sender::Plain(form, sender::Body(form, "foreign"));
  start->arrive_and_wait();
  const Message alien = Message::create(static_cast<uint32_t>(foreign.size()));
  PcfRawData* const raw = &alien.record().raw;
  memcpy(raw->data, foreign.data(), foreign.size());
  raw->length = static_cast<uint32_t>(foreign.size());
  EXPECT_TRUE(AlienToNative(raw) && AlienPcfToNative(alien.get()) && RawToPcf(alien.get()));
  const Signer signer = user.MakeSigner();
  LOGMSG("1157I a line of a thread", 1);
  DumpPcfMessage(alien.get());
  HearOnlyOwnFailures(thread);

  for (int round = 0; round < kRounds; ++round) {
    const Node listener = Node::listener(Local(0)), client = Node::connector(Local(listener.local_port()));
    Node child;
    ASSERT_TRUE(client.open() && listener.accept(child));
    ASSERT_TRUE(client.set_blocking(false) && child.set_blocking(false));
    ASSERT_TRUE(round != 0 || client.set_buffer_size(4096));  // full before a message is through
    const Node one = Node::datagram(Local(0)), other = Node::datagram(Local(0));
    Address destination = Local(other.local_port());
    for (int i = 0; i < 6; ++i) {
      MqcSigner* const how = i % 2 != 0 ? signer.get() : nullptr;
      Exchange(client, child, nullptr, thread * 100 + i, how);
      Exchange(child, client, nullptr, thread * 100 + 50 + i, how);
      Exchange(one, other, &destination, i, how);
    }
    Fail(client, child);
  }
}

std::atomic<int> traced;
void CountNode(const char*, MQNode*) { ++traced; }
void CountSocket(const char*, SockRec*) { ++traced; }

class ThreadsTest : public testing::Test {
 protected:
  // What belongs to the process is set before its threads begin.
  ThreadsTest() {
    signal(SIGPIPE, SIG_IGN);
    unsetenv("TEVRA_HOME");
    mqc_log_to("/dev/null");
    mnGSetTraceCallBack(CountNode);
    G_socket_trace = CountSocket;
    EXPECT_TRUE(mqc_ring_add(user_.name.c_str(), user_.open, nullptr, 0));
  }
  ~ThreadsTest() override {
    mnGSetTraceCallBack(nullptr);
    G_socket_trace = nullptr;
    mqc_ring_clear();
    mqc_log_to(nullptr);
  }

  const User user_;
};

// The first call of each kind is made by all threads at once; what serves the whole process may be used by any thread.
TEST_F(ThreadsTest, EachWithItsOwnNodes) {
  std::barrier start(kThreads + 1);
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { LiveAlone(t, user_, &start); });
  std::thread process([&] {
    start.arrive_and_wait();
    while (!done) {
      EXPECT_TRUE(mqc_ring_add("somebody", user_.open, nullptr, 0));
      MqcMemory memory;
      mqc_memory(nullptr, &memory);
      mqc_set_window(300);
      EXPECT_TRUE(mqc_ring_remove("somebody"));
      std::this_thread::sleep_for(1ms);
    }
  });
  for (std::thread& thread : threads) thread.join();
  done = true;
  process.join();
  EXPECT_GT(traced, kThreads * kRounds * 100);
}

// A node that goes from one thread to another: accepted here, served there.
TEST_F(ThreadsTest, AcceptedChildrenGoToOtherThreads) {
  constexpr int kClients = 12;
  std::mutex lock;
  std::condition_variable filled;
  std::deque<Node> accepted;
  const Node listener = Node::listener(Local(0));
  const int port = listener.local_port();
  const auto serve = [&] {
    const Message msg = Message::create();
    const Signer signer = user_.MakeSigner();
    for (int served = 0; served < kClients / 2; ++served) {
      std::unique_lock held(lock);
      filled.wait(held, [&] { return !accepted.empty(); });
      const Node child = std::move(accepted.front());
      accepted.pop_front();
      held.unlock();
      while (child.read_signed(msg)) EXPECT_TRUE(child.write_signed(msg, signer)) << mqc_sign_error();
      EXPECT_EQ(child.record().error, SOCK_PEER_CLOSED);
    }
  };
  const auto ask = [&](int first) {
    const Signer signer = user_.MakeSigner();
    const Message msg = Message::create();
    for (int i = first; i < kClients; i += 2) {
      const Node client = Node::connector(Local(port));
      ASSERT_TRUE(client.open());
      for (uint32_t number = 1; number <= 5; ++number) {
        ASSERT_TRUE(msg.begin(number) && msg.add(1, i) && client.write_signed(msg, signer)) << mqc_sign_error();
        ASSERT_TRUE(client.read_signed(msg)) << mqc_authenticate_error();
        EXPECT_EQ(msg.command(), number);
      }
      SockOption linger = {SOCK_OPT_LINGER, 0, 0};  // an orderly end instead of a reset
      SetSocketOptions(&client.record().sock, &linger);
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) threads.emplace_back(serve);
  for (int t = 0; t < 2; ++t) threads.emplace_back(ask, t);
  for (int i = 0; i < kClients; ++i) {
    Node child;
    ASSERT_TRUE(listener.accept(child));
    const std::lock_guard held(lock);
    accepted.push_back(std::move(child));
    filled.notify_one();
  }
  for (std::thread& thread : threads) thread.join();
}

// One name at more addresses than are kept, so that most are looked up under the lock. It is not in the function that
// uses it: a child might find another thread's first call of that in progress.
const std::string names(1000, 't');
std::atomic<uint32_t> next_name;

// Takes every lock of the companion. True when everything succeeded.
bool UseCompanion(const User& user) {
  void* block = nullptr;
  const bool allocated = fNewMemory(&block, 1500, names.c_str() + next_name++ % 900);
  FreeMemory(block);
  const Signer signer = user.MakeSigner();
  const Message msg = Message::create();
  if (!allocated || !signer || !msg || !mqc_ring_add(user.name.c_str(), user.open, nullptr, 0)) return false;
  if (!msg.begin(1) || !msg.add(1, 1)) return false;
  PcfRawData* const raw = &msg.record().raw;
  SecureHeader* const envelope = &msg.record().secHeader;
  auto* const header = reinterpret_cast<MsgHeader*>(raw->data);
  user.name.copy(header->userId, sizeof header->userId);
  *envelope = {sizeof *envelope, 1, header->bigEndian, header->asciiText, raw->length, {}};
  user.name.copy(envelope->userId, sizeof envelope->userId);
  IoBuffer sent = {};
  if (!mqc_sign(signer.get(), msg.get(), &sent)) return false;
  IoBuffer part = sent;
  part.data += sizeof *envelope;
  part.length -= sizeof *envelope;
  memcpy(envelope, sent.data, sizeof *envelope);
  raw->length = 0;
  bool accepted = SizePcfMessage(msg.get(), part.length);
  memcpy(raw->data, part.data, part.length);
  raw->length = part.length;
  accepted = accepted && mqc_authenticate(envelope, &part, msg.get());
  DeleteBuffer(&sent);
  LOGMSG("1157I a line of a thread or a child", 1);
  return accepted;
}

// A child has one thread, and the locks as they were at the fork: none may be left taken.
TEST_F(ThreadsTest, ChildrenOfAForkAmongThreadsUseTheCompanion) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the address sanitizer's malloc leaves its own locks taken in a child";
#endif
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  const auto use = [&] {
    while (!done) EXPECT_TRUE(UseCompanion(user_)) << mqc_authenticate_error();
  };
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(use);
  for (int i = 0; i < 60 && !HasFailure(); ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(10);  // one that hangs is ended
      _exit(UseCompanion(user_) && UseCompanion(user_) && UseCompanion(user_) ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "child " << i;
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
