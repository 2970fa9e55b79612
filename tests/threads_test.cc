// threads_test.cc - nodes of one process in different threads, each node in one thread at a time. Most useful under the
// thread sanitizer: ./run test tsan.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <thread>

#include "mqnode/mqnode.hpp"
#include "runtime/runtime.h"
#include "tests/support/sender.hh"

#if __has_include("mqnode/asio.hpp")
#include <asio/detail/config.hpp>
#endif
#ifdef ASIO_HAS_CO_AWAIT
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>

#include "mqnode/asio.hpp"
#endif

namespace {

using namespace mqnode;
using namespace std::chrono_literals;

constexpr int kThreads = 4;
constexpr int kRounds = 5;

Address Local(int port) { return {"127.0.0.1", std::to_string(port)}; }

// All nodes of the process belong to the login user, and sign with its key.
struct User {
  User() : name(Node::connector(Local(9)).user()) { EXPECT_TRUE(mqc_generate_key(secret, open)); }
  Signer MakeSigner() const { return Signer::create(name.c_str(), secret); }
  const std::string name;
  uint8_t secret[MQC_KEY_BYTES], open[MQC_KEY_BYTES];
};

// Writes message `number` to one node and reads it from the other, using the wait that finishes queued writes.
void Exchange(NodeRef from, NodeRef to, Address* destination, int number, MqcSigner* signer) {
  const Message out = Message::create(), in = Message::create();
  const std::string value(destination != nullptr ? 5 : static_cast<size_t>(number % 7) * 5003, 'x');
  ASSERT_TRUE(out.begin(static_cast<uint32_t>(number)) && out.add(1, value));
  ASSERT_EQ(mnSWriteTo(out.get(), from.get(), destination, signer != nullptr, signer), 1) << from.record().error;
  WaitSet set;
  ASSERT_TRUE(set.add(from) && set.add(to));
  for (int result = 0; result == 0;) {
    ASSERT_TRUE(set.wait(10s));
    ASSERT_TRUE(set.writable().empty() || from.finish_write());
    if (set.readable().empty()) continue;
    result = mnSRead(in.get(), to.get(), signer != nullptr, nullptr);
    ASSERT_TRUE(result || to.record().error == MQ_AGAIN) << to.record().error << ": " << mqc_authenticate_error();
  }
  EXPECT_EQ(in.command(), static_cast<uint32_t>(number));
  EXPECT_EQ(in.text_or(1, "nothing"), value);
}

// Each thread sees the text of its own failures only.
void HearOnlyOwnFailures(int thread) {
  const auto number = static_cast<uint32_t>(1000 + thread);
  const Message msg = Message::create();
  SecureHeader envelope = {};
  IoBuffer none = {.data = nullptr, .length = number, .capacity = 0, .flags = 0, .received = 0, .sent = 0};
  reinterpret_cast<MsgHeader*>(msg.record().raw.data)->hdrLength = number;
  for (int i = 0; i < 200; ++i) {
    ASSERT_FALSE(AlienToNative(&msg.record().raw) || mqc_authenticate(&envelope, &none, msg.get()));
    std::this_thread::yield();
    for (const char* text : {mqc_header_error(), mqc_authenticate_error()}) {
      ASSERT_NE(std::string(text).find(std::to_string(number)), std::string::npos) << text;
    }
  }
}

// One thread creates, uses and deletes nodes of every kind. Half of the messages go through a node of another thread.
void LiveAlone(int thread, const User& user, std::barrier<>* start) {
  // A message in the other byte order and character set, the first of its kind in the process.
  const sender::Form form = {true, true};
  const std::string foreign = sender::Plain(form, sender::Body(form, "foreign"));
  const auto size = static_cast<uint32_t>(foreign.size());
  start->arrive_and_wait();
  const Message alien = Message::create(size);
  PcfRawData* const raw = &alien.record().raw;
  foreign.copy(reinterpret_cast<char*>(raw->data), raw->length = size);
  EXPECT_TRUE(AlienToNative(raw) && AlienPcfToNative(alien.get()) && RawToPcf(alien.get()));
  const Signer signer = user.MakeSigner(), seals = signer.sealing(user.name.c_str());
  DumpPcfMessage(alien.get());
  HearOnlyOwnFailures(thread);

  for (int round = 0; round < kRounds; ++round) {
    const Node listener = Node::listener(Local(0)), client = Node::connector(Local(listener.local_port()));
    Node child;
    ASSERT_TRUE(client.open() && listener.accept(child));
    ASSERT_TRUE(client.set_blocking(false) && child.set_blocking(false));
    ASSERT_TRUE(round != 0 || client.set_buffer_size(4096));  // fills before a message is complete
    const Node one = Node::datagram(Local(0)), other = Node::datagram(Local(0));
    Address destination = Local(other.local_port());
    const auto talk = [&](MqcSigner* how) {
      for (int i = 0; i < 6; ++i) {
        Exchange(client, child, nullptr, thread * 100 + i, how);
        Exchange(child, client, nullptr, thread * 100 + 50 + i, how);
        Exchange(one, other, &destination, i, how);
      }
    };
    talk(nullptr);
    EXPECT_TRUE(mqc_set_opener(signer.get())) << "replaced while others read";
    std::thread(talk, (round % 2 != 0 ? signer : seals).get()).join();
  }
}

std::atomic<int> traced;

class ThreadsTest : public testing::Test {
 protected:
  // Sets process-wide state before the threads start.
  ThreadsTest() {
    signal(SIGPIPE, SIG_IGN);
    unsetenv("TEVRA_HOME");
    mqc_log_to("/dev/null");
    mnGSetTraceCallBack([](const char*, MQNode*) { ++traced; });
    G_socket_trace = [](const char*, SockRec*) { ++traced; };
    EXPECT_TRUE(mqc_ring_add(user_.name.c_str(), user_.open, nullptr, 0));
  }
  const User user_;
};

// All threads make the first call of each kind at once, and share what is process-wide.
TEST_F(ThreadsTest, EachWithItsOwnNodes) {
  std::barrier start(kThreads + 1);
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { LiveAlone(t, user_, &start); });
  std::thread process([&] {
    start.arrive_and_wait();
    while (!done) {
      MqcMemory memory;
      EXPECT_TRUE(mqc_ring_add("somebody", user_.open, nullptr, 0) && mqc_memory(nullptr, &memory));
      EXPECT_TRUE(mqc_set_window(300) && mqc_ring_remove("somebody"));
      std::this_thread::sleep_for(1ms);
    }
  });
  for (std::thread& thread : threads) thread.join();
  done = true;
  process.join();
  EXPECT_GT(traced, kThreads * kRounds * 100);
}

// One tag at more addresses than are cached, so that most lookups take the lock. Not a local static: in a child,
// another thread's initialisation of it might still be in progress.
const std::string names(1000, 't');
std::atomic<uint32_t> next_name;

// Takes the locks that are in use at any time, and does little else, so that a fork finds them taken.
bool UseCompanion(const User& user) {
  void* block = nullptr;
  const bool allocated = fNewMemory(&block, 1500, names.c_str() + next_name++ % 900);
  FreeMemory(block);
  return allocated && mqc_ring_add(user.name.c_str(), user.open, nullptr, 0) && mqc_set_replay_limit(262144);
}

// A child has one thread, and the locks as they were at the fork: none may remain taken.
TEST_F(ThreadsTest, ChildrenOfAForkAmongThreadsUseTheCompanion) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the address sanitizer's malloc leaves its own locks taken in a child";
#endif
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  const auto use = [&] {
    while (!done) EXPECT_TRUE(UseCompanion(user_));
  };
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(use);
  for (int i = 0; i < 60 && !HasFailure(); ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(10);  // kills a child that hangs
      _exit(UseCompanion(user_) ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "child " << i;
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
}

#ifdef ASIO_HAS_CO_AWAIT
asio::awaitable<void> Serve(AsyncNode client) {
  const Message msg = Message::create();
  for (Result result = co_await client.read(msg); result; result = co_await client.read(msg)) {
    EXPECT_TRUE(co_await client.write(msg));
  }
  EXPECT_TRUE(co_await client.finish());
}

asio::awaitable<void> Listen(AsyncNode listener) {
  for (AsyncNode client; co_await listener.accept(client);) {
    asio::co_spawn(listener.get_executor(), Serve(std::move(client)), asio::detached);
  }
}

asio::awaitable<void> Ask(int port, std::atomic<int>* done) {
  const AsyncNode node(co_await asio::this_coro::executor, Node::connector(Local(port)));
  const Message msg = Message::create();
  Result result = co_await node.open();
  for (uint32_t number = 0; result && number < 100; ++number) {
    EXPECT_TRUE(msg.begin(number) && msg.add(1, std::string(number * 600, 'x')));
    result = co_await node.write(msg);
    if (result) result = co_await within(10s, node.read(msg));
    EXPECT_EQ(msg.command(), number);
  }
  EXPECT_TRUE(result) << result.name();
  EXPECT_TRUE(co_await within(10s, node.finish()));
  ++*done;
}

// A loop for each thread, with a server, and with clients of all servers. (libuv: loop_test.cc)
TEST_F(ThreadsTest, AsioLoops) {
  std::atomic<int> done{0};
  struct {
    asio::io_context loop{1};
    int port = 0;
  } all[kThreads];
  for (auto& [loop, port] : all) {
    Node listener = Node::listener(Local(0));
    port = listener.local_port();
    asio::co_spawn(loop, Listen(AsyncNode(loop.get_executor(), std::move(listener))), asio::detached);
  }
  std::vector<std::thread> threads;
  for (auto& own : all) {
    for (const auto& [loop, port] : all) asio::co_spawn(own.loop, Ask(port, &done), asio::detached);
    threads.emplace_back([&] {
      while (done < kThreads * kThreads) own.loop.run_for(10ms);
    });
  }
  for (std::thread& thread : threads) thread.join();
}
#endif

}  // namespace
