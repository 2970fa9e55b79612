// threads_test.cc - nodes of one process used by different threads, one node by one thread at a time. Worth most under
// the thread sanitizer: ./run test tsan.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "companion/host.h"
#include "mqnode/mqnode.h"
#include "tests/support/sender.hh"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 5;
constexpr int kPatience = 10;  // seconds

struct Deleter {
  void operator()(MQNode* node) const { DeleteMQNode(node); }
  void operator()(PcfMessage* msg) const { mqc_message_free(msg); }
  void operator()(MqcSigner* signer) const { mqc_signer_free(signer); }
};
using Node = std::unique_ptr<MQNode, Deleter>;
using Message = std::unique_ptr<PcfMessage, Deleter>;
using Signer = std::unique_ptr<MqcSigner, Deleter>;

SockAddrRec Address(int port) {
  SockAddrRec address = {};
  strcpy(address.host, "127.0.0.1");
  strcpy(address.protocol, "tcp");
  snprintf(address.service, sizeof address.service, "%d", port);
  return address;
}

int PortOf(const MQNode* node) {
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  EXPECT_EQ(getsockname(node->sock.fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  return ntohs(address.sin_port);
}

Node Make(int role, int port) {
  SockAddrRec address = Address(port);
  return Node(CreateMQNode(&address, role));
}
Node MakeDatagram() {
  SockAddrRec address = Address(0);
  return Node(CreateUDPMQNode(&address));
}

// All nodes of the process are the login's, and sign with its key.
struct User {
  User() {
    char login[48];
    int length = sizeof login;
    EXPECT_TRUE(GetUserName(login, &length));
    name = std::string(login).substr(0, 11);
    EXPECT_TRUE(mqc_generate_key(secret, open));
  }
  Signer MakeSigner() const { return Signer(mqc_signer_new(name.c_str(), secret, nullptr, 0)); }
  std::string name;
  uint8_t secret[MQC_KEY_BYTES], open[MQC_KEY_BYTES];
};

std::string Value(int number) {
  return std::string(static_cast<size_t>(number % 7) * 5003, static_cast<char>('a' + number % 26));
}

// Writes message number over the node and reads it from the other, through the wait that finishes what was queued.
void Exchange(MQNode* from, MQNode* to, SockAddrRec* destination, int number, MqcSigner* signer, SockPostData* work) {
  const Message out(mqc_message_new(0));
  const Message in(mqc_message_new(0));
  ASSERT_TRUE(mqc_begin(out.get(), static_cast<uint32_t>(number)));
  ASSERT_TRUE(mqc_add_text(out.get(), 1, destination != nullptr ? "short" : Value(number).c_str()));
  ASSERT_EQ(mnSWriteTo(out.get(), from, destination, signer != nullptr, signer), 1) << from->error;
  for (int result = 0; result == 0;) {
    MQNode* nodes[] = {from, to, nullptr};
    MQNode *listening[3], *readable[3], *writable[3];
    int status = 0;
    const int ready = number % 2 == 0 ? mnNPost(nodes, listening, readable, writable, kPatience, &status)
                                      : mnNPostEx(nodes, listening, readable, writable, kPatience, &status, work);
    ASSERT_EQ(ready, 1) << status;
    if (writable[0] != nullptr) {
      ASSERT_EQ(mnFinishWrite(writable[0]), 1);
    }
    if (readable[0] == nullptr) continue;
    result = mnSRead(in.get(), to, signer != nullptr, nullptr);
    ASSERT_TRUE(result || to->error == MQ_AGAIN) << to->error << ": " << mqc_authenticate_error();
  }
  MqcParam param;
  ASSERT_TRUE(mqc_param(in.get(), 0, &param));
  EXPECT_EQ(mqc_command(in.get()), static_cast<uint32_t>(number));
  EXPECT_EQ(param.text, destination != nullptr ? "short" : Value(number));
}

// What goes wrong in an ordinary life: nobody listens, nothing comes, no message comes, the other side goes.
void Fail(MQNode* client, MQNode* server) {
  const Message in(mqc_message_new(0));
  MQNode* nodes[] = {server, nullptr};
  MQNode *listening[2], *readable[2];
  int status = 0;
  EXPECT_EQ(mnPost(nodes, listening, readable, 0, &status), 0);
  EXPECT_EQ(status, SOCK_WAIT_TIMEOUT);
  EXPECT_EQ(mnRead(in.get(), server), 0);
  EXPECT_EQ(server->error, MQ_AGAIN);
  const std::string noise(200, 'n');
  ASSERT_EQ(send(client->sock.fd, noise.data(), noise.size(), 0), static_cast<ssize_t>(noise.size()));
  EXPECT_EQ(mnPost(nodes, listening, readable, kPatience, &status), 1);
  EXPECT_EQ(mnRead(in.get(), server), 0);
  EXPECT_EQ(server->error, MQ_BAD_MESSAGE);
  EXPECT_STREQ(mqc_message_error(in.get()), "");
  EXPECT_EQ(mnClose(server), 1);
  EXPECT_EQ(mnPost(nodes, listening, readable, 0, &status), 0);
  EXPECT_EQ(mnRead(in.get(), client), 0);
  EXPECT_NE(client->error, MQ_OK);

  MQNode bound = {};  // a port that is taken, on which nobody listens
  SockAddrRec address = Address(0);
  CreateSocket(&bound.sock);
  ASSERT_EQ(BindSocketName(&bound.sock, &address), 1);
  const Node nobody = Make(MQ_ROLE_CONNECT, PortOf(&bound));
  EXPECT_EQ(mnOpen(nobody.get()), 0);
  EXPECT_EQ(nobody->error, ECONNREFUSED);
  DeleteSocket(&bound.sock);
}

// What is said of a failure is said to the thread that it happened to.
void HearOnlyOwnFailures(int thread) {
  const auto number = static_cast<uint32_t>(1000 + thread);
  const std::string mark = std::to_string(number);
  const Message msg(mqc_message_new(0));
  SecureHeader envelope = {};
  IoBuffer none = {.data = nullptr, .length = number, .capacity = 0, .flags = 0, .received = 0, .sent = 0};
  for (int i = 0; i < 200; ++i) {
    reinterpret_cast<MsgHeader*>(msg->raw.data)->hdrLength = number;
    ASSERT_FALSE(AlienToNative(&msg->raw));
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
  std::string foreign = sender::Plain(form, sender::Body(form, "foreign"));
  SockPostData work;
  ASSERT_TRUE(InitSocketPostData(&work, 8));
  start->arrive_and_wait();

  const Message alien(mqc_message_new(static_cast<uint32_t>(foreign.size())));
  memcpy(alien->raw.data, foreign.data(), foreign.size());
  alien->raw.length = static_cast<uint32_t>(foreign.size());
  EXPECT_TRUE(AlienToNative(&alien->raw) && AlienPcfToNative(alien.get()) && RawToPcf(alien.get()));
  const Signer signer = user.MakeSigner();
  LOGMSG("1157I a line of a thread", 1);
  DumpPcfMessage(alien.get());
  HearOnlyOwnFailures(thread);

  for (int round = 0; round < kRounds; ++round) {
    const Node listener = Make(MQ_ROLE_LISTEN, 0);
    const Node client = Make(MQ_ROLE_CONNECT, PortOf(listener.get()));
    ASSERT_EQ(mnOpen(client.get()), 1) << client->error;
    ASSERT_EQ(mnOpen(listener.get()), 1) << listener->error;
    const Node child(listener->child);
    for (MQNode* node : {client.get(), child.get()}) NoblockSocket(&node->sock);
    if (round == 0) mnSetBufferSize(client.get(), 4096);  // full before a message is through
    const Node one = MakeDatagram();
    const Node other = MakeDatagram();
    SockAddrRec destination = Address(PortOf(other.get()));
    for (int i = 0; i < 6; ++i) {
      MqcSigner* const how = i % 2 != 0 ? signer.get() : nullptr;
      Exchange(client.get(), child.get(), nullptr, thread * 100 + i, how, &work);
      Exchange(child.get(), client.get(), nullptr, thread * 100 + 50 + i, how, &work);
      Exchange(one.get(), other.get(), &destination, i, how, &work);
    }
    Fail(client.get(), child.get());
  }
  FreeSocketPostData(&work);
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

  User user_;
};

// The first call of each kind is made by all threads at once; what serves the whole process may be used by any thread.
TEST_F(ThreadsTest, EachWithItsOwnNodes) {
  std::barrier start(kThreads + 1);
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { LiveAlone(t, user_, &start); });
  std::thread process([&] {
    const User other = user_;
    start.arrive_and_wait();
    while (!done) {
      EXPECT_TRUE(mqc_ring_add("somebody", other.open, nullptr, 0));
      MqcMemory memory;
      mqc_memory(nullptr, &memory);
      mqc_set_window(300);
      EXPECT_TRUE(mqc_ring_remove("somebody"));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
  const Node listener = Make(MQ_ROLE_LISTEN, 0);
  const int port = PortOf(listener.get());

  const auto serve = [&] {
    const Message msg(mqc_message_new(0));
    const Signer signer = user_.MakeSigner();
    for (int served = 0; served < kClients / 2; ++served) {
      std::unique_lock held(lock);
      filled.wait(held, [&] { return !accepted.empty(); });
      const Node child = std::move(accepted.front());
      accepted.pop_front();
      held.unlock();
      while (mnSRead(msg.get(), child.get(), 1, nullptr)) {
        EXPECT_EQ(mnSWrite(msg.get(), child.get(), 1, signer.get()), 1) << mqc_sign_error();
      }
      EXPECT_EQ(child->error, SOCK_PEER_CLOSED);
    }
  };
  const auto ask = [&](int first) {
    const Signer signer = user_.MakeSigner();
    for (int i = first; i < kClients; i += 2) {
      const Node client = Make(MQ_ROLE_CONNECT, port);
      ASSERT_EQ(mnOpen(client.get()), 1) << client->error;
      const Message msg(mqc_message_new(0));
      for (int number = 1; number <= 5; ++number) {
        ASSERT_TRUE(mqc_begin(msg.get(), static_cast<uint32_t>(number)) && mqc_add_int32(msg.get(), 1, i));
        ASSERT_EQ(mnSWrite(msg.get(), client.get(), 1, signer.get()), 1) << mqc_sign_error();
        ASSERT_EQ(mnSRead(msg.get(), client.get(), 1, nullptr), 1) << mqc_authenticate_error();
        EXPECT_EQ(mqc_command(msg.get()), static_cast<uint32_t>(number));
      }
      SockOption linger = {SOCK_OPT_LINGER, 0, 0};  // an orderly end instead of a reset
      SetSocketOptions(&client->sock, &linger);
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) threads.emplace_back(serve);
  for (int t = 0; t < 2; ++t) threads.emplace_back(ask, t);
  for (int i = 0; i < kClients; ++i) {
    ASSERT_EQ(mnOpen(listener.get()), 1) << listener->error;
    const std::lock_guard held(lock);
    accepted.emplace_back(listener->child);
    filled.notify_one();
  }
  for (std::thread& thread : threads) thread.join();
}

// Takes every lock of the companion. True when everything succeeded.
bool UseCompanion(const User& user) {
  // One name at more addresses than are kept, so that most are looked up under the lock.
  static const std::string names(1000, 't');
  static std::atomic<uint32_t> next;
  const char* const tag = names.c_str() + next++ % 900;
  void* block = nullptr;
  const bool allocated = fNewMemory(&block, 1500, tag);
  FreeMemory(block);
  const Signer signer = user.MakeSigner();
  const Message msg(mqc_message_new(0));
  if (!allocated || !signer || !msg || !mqc_ring_add(user.name.c_str(), user.open, nullptr, 0)) return false;
  if (!mqc_begin(msg.get(), 1) || !mqc_add_int32(msg.get(), 1, 1)) return false;
  auto* const header = reinterpret_cast<MsgHeader*>(msg->raw.data);
  user.name.copy(header->userId, sizeof header->userId);
  msg->secHeader = {sizeof(SecureHeader), 1, header->bigEndian, header->asciiText, msg->raw.length, {}};
  user.name.copy(msg->secHeader.userId, sizeof msg->secHeader.userId);
  IoBuffer sent = {};
  if (!mqc_sign(signer.get(), msg.get(), &sent)) return false;
  IoBuffer part = sent;
  part.data += sizeof(SecureHeader);
  part.length -= sizeof(SecureHeader);
  memcpy(&msg->secHeader, sent.data, sizeof(SecureHeader));
  msg->raw.length = 0;
  bool accepted = SizePcfMessage(msg.get(), part.length);
  memcpy(msg->raw.data, part.data, part.length);
  msg->raw.length = part.length;
  accepted = accepted && mqc_authenticate(&msg->secHeader, &part, msg.get());
  DeleteBuffer(&sent);
  LOGMSG("1157I a line of a thread or a child", 1);
  return accepted;
}

// A child has one thread, and the locks as they were at the fork: none may be left taken.
TEST_F(ThreadsTest, ChildrenOfAForkAmongThreadsUseTheCompanion) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the address sanitizer's malloc leaves its own locks taken in a child";
#endif
  constexpr int kChildren = 60;
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      while (!done) EXPECT_TRUE(UseCompanion(user_)) << mqc_authenticate_error();
    });
  }
  for (int i = 0; i < kChildren; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(kPatience);  // one that hangs is ended
      bool used = true;
      for (int n = 0; n < 3 && used; ++n) used = UseCompanion(user_);
      _exit(used ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "child " << i;
    if (status != 0) break;
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
