// loop_test.cc - nodes in a libuv loop, with plain sockets or blocking nodes as peers. Each test must release its
// nodes, memory and descriptors.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>
#include <span>
#include <thread>

#include "mqnode/mqnode.hpp"
#include "mqnode/uv.h"

namespace {

using namespace mqnode;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Logs events as text and passes them on. A node's data is its App.
struct App {
  std::vector<std::string> log;
  std::function<void(const char* event, MqUvNode* node, PcfMessage* msg)> on = [](auto...) {};
  std::vector<MqUvNode*> nodes;  // accepted or opened, and not ended yet

  void Note(const char* event, MqUvNode* node, PcfMessage* msg = nullptr, const std::string& text = "") {
    log.push_back(event + (text.empty() ? "" : " " + text));
    on(event, node, msg);
  }
  size_t Count(std::string_view line) const { return static_cast<size_t>(std::count(log.begin(), log.end(), line)); }

  static App& Of(const MqUvNode* node) { return *static_cast<App*>(mq_uv_data(node)); }
  static std::string Text(PcfMessage* msg) { return std::string(MessageRef(msg).text_or(1, "none").substr(0, 20)); }
  static void Begin(const char* event, MqUvNode* node) {
    Of(node).nodes.push_back(node);
    Of(node).Note(event, node);
  }
  static void End(MqUvNode* node, int code, const char* why) {
    App& app = Of(node);
    std::erase(app.nodes, node);
    app.Note("end", node, nullptr,
             std::string(code != 0 ? mq_error_name(code) : "0") + (why ? std::string(", ") + why : ""));
  }
};

const MqUvEvents kEvents = {
    .on_accept = [](MqUvNode*, MqUvNode* node) { App::Begin("accept", node); },
    .on_open = [](MqUvNode* node) { App::Begin("open", node); },
    .on_message = [](MqUvNode* node, PcfMessage* msg) { App::Of(node).Note("message", node, msg, App::Text(msg)); },
    .on_datagram = [](MqUvNode* node, PcfMessage* msg,
                      SockAddrRec*) { App::Of(node).Note("datagram", node, msg, App::Text(msg)); },
    .on_drain = [](MqUvNode* node) { App::Of(node).Note("drain", node); },
    .on_lost = [](MqUvNode* node, int code) { App::Of(node).Note("lost", node, nullptr, mq_error_name(code)); },
    .on_end = App::End,
};
void OnWritten(MqUvNode* node, int code, void* number) {
  App::Of(node).Note("written", node, nullptr,
                     std::to_string(reinterpret_cast<uintptr_t>(number)) + (code != 0 ? mq_error_name(code) : ""));
}

Address Local(int port) { return {"127.0.0.1", std::to_string(port)}; }

// A loop of one thread.
struct Loop {
  explicit Loop(const MqLoopLimits& limits = mq_loop_limits()) {
    uv_loop_init(&loop);
    uv = mq_uv_new(&loop, &limits);
  }
  ~Loop() {
    mq_uv_free(uv);
    EXPECT_TRUE(Until([this] { return uv_loop_close(&loop) == 0; }));
  }
  bool Until(const std::function<bool()>& done) {
    for (const auto end = Clock::now() + 20s; Clock::now() < end; std::this_thread::sleep_for(50us)) {
      uv_run(&loop, UV_RUN_NOWAIT);
      if (done()) return true;
    }
    return false;
  }
  // The port of a node that is handed over.
  int Start(Node node, App* app, int secure = 0, MqcSigner* signer = nullptr) {
    const int port = node.local_port();
    MqUvNode* const started = mq_uv_start(uv, node.release(), secure, &kEvents, app);
    EXPECT_NE(started, nullptr);
    mq_uv_set_signer(started, signer);
    return port;
  }
  // The same for a listening node, whose children have the same data.
  int Listen(App* app, int secure = 0) { return Start(Node::listener(Local(0)), app, secure); }
  MqUvNode* Connect(App* app, int port) {
    Node node = Node::connector(Local(port));
    EXPECT_TRUE(node.set_buffer_size(4096));
    return mq_uv_connect(uv, node.release(), 0, &kEvents, app);
  }
  uv_loop_t loop;
  MqUv* uv;
};

Node Client(int port) {
  Node node = Node::connector(Local(port));
  EXPECT_TRUE(node.open()) << node.record().error;
  return node;
}

Message Text(const std::string& text) {
  Message msg = Message::create();
  EXPECT_TRUE(msg.begin(1) && msg.add(1, text));
  return msg;
}

bool Write(MqUvNode* node, const std::string& text, size_t number = 0) {
  return mq_uv_write(node, Text(text).get(), number != 0 ? OnWritten : nullptr, reinterpret_cast<void*>(number)) != 0;
}

// A key of the login, who is in the ring.
struct Key {
  Key() : user(Node::connector(Local(9)).user()) {
    EXPECT_TRUE(mqc_generate_key(secret, open) && mqc_ring_add(user.c_str(), open, nullptr, 0));
    signer = Signer::create(user.c_str(), secret);
  }
  ~Key() { mqc_ring_remove(user.c_str()); }
  const std::string user;
  uint8_t secret[MQC_KEY_BYTES], open[MQC_KEY_BYTES];
  Signer signer;
};

// Descriptors, and blocks in use but for those that know users and remember their messages.
std::string Resources() {
  using Files = std::filesystem::directory_iterator;
  MqcMemory all, replay, ring;
  mqc_memory(nullptr, &all);
  mqc_memory("replay", &replay);
  mqc_memory("ring", &ring);
  return std::to_string(std::distance(Files("/proc/self/fd"), Files())) + " " +
         std::to_string(all.live_blocks - replay.live_blocks - ring.live_blocks);
}

class LoopTest : public testing::Test {
 protected:
  LoopTest() {
    signal(SIGPIPE, SIG_IGN);
    uv_loop_close(uv_default_loop());  // the first loop of a process opens descriptors that stay open
  }
  void SetUp() override { before_ = Resources(); }
  void TearDown() override { EXPECT_EQ(Resources(), before_); }
  App app;

 private:
  std::string before_;
};

TEST_F(LoopTest, AMessageCutAtEveryByte) {
  const Key key;
  for (const int secure : {0, 1}) {
    Loop loop;
    const int port = loop.Listen(&app, secure);
    for (size_t cut = 1, size = 2; cut < size; ++cut) {
      const Node client = Client(port);
      // The client's bytes are made on another connection, to be sent in two pieces.
      int pair[2];
      ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
      const Node writer = Node::adopt(pair[0], MQ_ROLE_CONNECT);
      ASSERT_TRUE(mnSWrite(Text("cut").get(), writer.get(), secure, key.signer.get()));
      ASSERT_TRUE(mnSWrite(Text("next").get(), writer.get(), secure, key.signer.get()));
      char bytes[1024];
      const auto both = static_cast<size_t>(read(pair[1], bytes, sizeof bytes));
      close(pair[1]);
      size = both / 2;
      app.log.clear();
      ASSERT_EQ(send(client.descriptor(), bytes, cut, 0), static_cast<ssize_t>(cut));
      ASSERT_TRUE(
          loop.Until([&] { return !app.nodes.empty() && mq_uv_node(app.nodes.back())->sock.bytesReceived == cut; }));
      ASSERT_EQ(send(client.descriptor(), bytes + cut, both - cut, 0), static_cast<ssize_t>(both - cut));
      ASSERT_TRUE(loop.Until([&] { return app.log.size() >= 3; }));
      ASSERT_EQ(app.log, (std::vector<std::string>{"accept", "message cut", "message next"})) << cut << " " << secure;
      mq_uv_stop(app.nodes.back());
      ASSERT_TRUE(loop.Until([&] { return app.nodes.empty(); }));
    }
  }
}

// The answers to a stream and to datagrams, signed if the node is; its peer accepts no others.
TEST_F(LoopTest, AnswersAreSigned) {
  const Key key;
  for (const int secure : {0, 1}) {
    for (const bool stream : {true, false}) {
      app = App();
      app.on = [](std::string_view event, MqUvNode* node, PcfMessage* msg) {
        Address from = NodeRef(mq_uv_node(node)).sender();
        EXPECT_TRUE(event != "message" || mq_uv_write(node, msg, OnWritten, reinterpret_cast<void*>(1)));
        EXPECT_TRUE(event != "datagram" || mq_uv_write_to(node, msg, &from, OnWritten, reinterpret_cast<void*>(1)));
      };
      Loop loop;
      Node node = stream ? Node::listener(Local(0)) : Node::datagram(Local(0));
      Address to = Local(loop.Start(std::move(node), &app, secure, key.signer.get()));
      const Node peer = stream ? Client(atoi(to.service)) : Node::datagram(Local(0));
      ASSERT_TRUE(mnSWriteTo(Text("one").get(), peer.get(), stream ? nullptr : &to, secure, key.signer.get()));
      ASSERT_TRUE(loop.Until([&] { return app.Count("written 1") == 1; })) << secure << stream;
      EXPECT_EQ(app.log.size(), stream ? 3u : 2u);
      const Message in = Message::create();
      ASSERT_TRUE(secure != 0 ? peer.read_signed(in, 10s) : peer.read(in, 10s)) << stream;
      EXPECT_EQ(App::Text(in.get()), "one");
    }
  }
}

// More is written than the marks allow: the node is not read, and writes are refused. When the peer reads, all writes
// complete in order, and the node is read again.
TEST_F(LoopTest, AQueueFillsAndDrains) {
  MqLoopLimits limits = mq_loop_limits();
  limits.highBytes = 300000, limits.lowBytes = 50000, limits.queueBytes = 1000000, limits.socketBytes = 4096;
  Loop loop(limits);
  const Node client = Client(loop.Listen(&app));
  ASSERT_TRUE(loop.Until([&] { return app.nodes.size() == 1; }));
  MqUvNode* const node = app.nodes[0];
  size_t written = 0;
  // The system accepts a part of the first message.
  while (Write(node, std::string(written == 0 ? 500000 : 20000, 'x'), written + 1)) ++written;
  EXPECT_EQ(mq_uv_node(node)->error, MQ_WRITE_LIMIT);
  uint64_t queued = 0;
  for (const QueueEntry* entry = mq_uv_node(node)->pending->head; entry != nullptr; entry = entry->next) {
    queued += static_cast<IoBuffer*>(entry->item)->length - static_cast<IoBuffer*>(entry->item)->sent;
  }
  EXPECT_EQ(mq_uv_queued(node), queued);
  EXPECT_GT(mq_uv_queued(node), limits.queueBytes);
  EXPECT_LT(mq_uv_queued(node), limits.queueBytes + 21000);
  ASSERT_TRUE(client.write(Text("a question")));
  for (int i = 0; i < 50; ++i) uv_run(&loop.loop, UV_RUN_NOWAIT);
  EXPECT_EQ(app.Count("message a question"), 0u);

  ASSERT_TRUE(client.set_blocking(false));
  const Message in = Message::create();
  ASSERT_TRUE(loop.Until([&] {
    while (client.read(in)) continue;
    return client.record().msgsRead == written && app.Count("message a question") == 1;
  }));
  EXPECT_EQ(app.Count("drain"), 1u);
  EXPECT_EQ(mq_uv_queued(node), 0u);
  std::vector<std::string> expected;
  for (size_t i = 1; i <= written; ++i) expected.push_back("written " + std::to_string(i));
  std::vector<std::string> completed;
  for (const std::string& line : app.log) {
    if (line.starts_with("written")) completed.push_back(line);
  }
  EXPECT_EQ(completed, expected);
}

// One node or all are stopped in each event: each node ends once, and each accepted write is reported.
TEST_F(LoopTest, StoppedInsideEveryEvent) {
  for (const std::string_view where : {"accept", "open", "message", "datagram", "drain", "written", "lost", "end"}) {
    for (const bool all : {false, true}) {
      app = App();
      {
        MqLoopLimits limits = mq_loop_limits();
        limits.highBytes = limits.lowBytes = 1, limits.socketBytes = 4096;
        Loop loop(limits);
        const int port = loop.Listen(&app);
        const int datagrams = loop.Start(Node::datagram(Local(0)), &app);
        size_t accepted = 0;
        app.on = [&](std::string_view event, MqUvNode* node, PcfMessage*) {
          if (event == "open") {
            for (size_t i = 0; i < 30; ++i) accepted += Write(node, std::string(i == 0 ? 1 : 10000, 'x'), i + 1);
          }
          if (event != where) return;
          all ? mq_uv_free(loop.uv) : mq_uv_stop(node);
        };
        ASSERT_NE(loop.Connect(&app, port), nullptr);
        Node sender = Node::datagram(Local(0));
        Address to = Local(datagrams);
        ASSERT_TRUE(sender.write_to(Text("a datagram"), to));
        ASSERT_EQ(sendto(sender.descriptor(), "bad", 3, 0, nullptr, 0), -1);
        const sockaddr_in address = {AF_INET, htons(static_cast<uint16_t>(datagrams)), {htonl(INADDR_LOOPBACK)}, {}};
        sendto(sender.descriptor(), "bad", 3, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        if (where == "end") {
          ASSERT_TRUE(loop.Until([&] { return !app.nodes.empty(); }));
          mq_uv_stop(app.nodes[0]);
        }
        const auto happened = [&](const std::string& line) { return line.starts_with(where); };
        ASSERT_TRUE(loop.Until([&] { return std::any_of(app.log.begin(), app.log.end(), happened); })) << where;
        for (int i = 0; i < 10 && !all; ++i) uv_run(&loop.loop, UV_RUN_NOWAIT);
        app.on = [&](std::string_view, MqUvNode* node, PcfMessage*) { mq_uv_stop(node); };
        if (!all) mq_uv_free(loop.uv);
        ASSERT_TRUE(loop.Until([&] { return uv_loop_alive(&loop.loop) == 0; }));
        const auto told = [](const std::string& line) { return line.starts_with("written"); };
        EXPECT_EQ(std::count_if(app.log.begin(), app.log.end(), told), static_cast<ssize_t>(accepted)) << where;
        const auto end = [](const std::string& line) { return line.starts_with("end"); };
        EXPECT_EQ(std::count_if(app.log.begin(), app.log.end(), end), static_cast<ssize_t>(3 + app.Count("accept")))
            << where;
        loop.uv = nullptr;
      }
    }
  }
}

// What a peer does while a node with a megabyte of queued messages ends, and the outcome.
TEST_F(LoopTest, EndsInOrder) {
  struct Row {
    const char *peer, *end;
  };
  for (const Row& row : {Row{"reads and closes", "end 0"},
                         {"closes its side first", "end 0"},
                         {"resets", "end ECONNRESET, ECONNRESET"},
                         {"does nothing", "end ETIMEDOUT, did not close in time"},
                         {"ends too", "end 0"},
                         {"closes before its answers", "end SOCK_PEER_CLOSED"}}) {
    const std::string_view peer = row.peer;
    App far;
    app = App();
    MqLoopLimits limits = mq_loop_limits();
    limits.endMsec = peer == "does nothing" ? 100 : 10000, limits.socketBytes = 4096;
    Loop loop(limits);
    const int port = loop.Listen(&app);
    Node client;
    if (peer == "ends too") {
      ASSERT_NE(loop.Connect(&far, port), nullptr);
    } else {
      client = Client(port);
    }
    ASSERT_TRUE(loop.Until([&] { return app.nodes.size() == 1 && (client || far.nodes.size() == 1); }));
    const bool is_owed = peer == "closes before its answers";
    mq_uv_set_owed(app.nodes[0], is_owed);
    if (is_owed) shutdown(client.descriptor(), SHUT_WR);
    ASSERT_TRUE(!is_owed || loop.Until([&] { return mq_uv_node(app.nodes[0])->error == SOCK_PEER_CLOSED; }));
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(Write(app.nodes[0], std::string(20000, 'x')));
    for (int i = 0; i < 50 && !client; ++i) ASSERT_TRUE(Write(far.nodes[0], std::string(20000, 'x')));
    is_owed ? mq_uv_set_owed(app.nodes[0], 0) : mq_uv_end(app.nodes[0]);
    EXPECT_FALSE(Write(app.nodes[0], "too late"));
    if (!client) mq_uv_end(far.nodes[0]);
    if (peer == "resets") client.reset();
    if (peer == "closes its side first") shutdown(client.descriptor(), SHUT_WR);
    ASSERT_TRUE(!client || client.set_blocking(false));
    const Message in = Message::create();
    ASSERT_TRUE(loop.Until([&] {
      if (client && peer != "does nothing") {
        while (client.read(in)) continue;
        if (client.record().error == SOCK_PEER_CLOSED) {
          EXPECT_EQ(client.record().msgsRead, 50u) << peer;
          client.reset();
        }
      }
      return app.log.back().starts_with("end") && (far.log.empty() || far.log.back() == "end 0");
    })) << peer;
    EXPECT_EQ(app.log.back(), row.end) << peer;
  }
}

// With no descriptor or place left, new connections wait until a node has gone, or take its place.
TEST_F(LoopTest, NewcomersWaitOrTakeAPlace) {
  for (const bool descriptors : {true, false}) {
    for (const int kept : {-1, 0}) {
      app = App();
      MqLoopLimits limits = mq_loop_limits();
      limits.keptMsec = kept;
      if (!descriptors) limits.nodes = 3;
      Loop loop(limits);
      const int port = loop.Listen(&app);
      std::vector<Node> clients;
      for (int i = 0; i < 5; ++i) clients.push_back(Client(port));
      rlimit before{};
      getrlimit(RLIMIT_NOFILE, &before);
      if (descriptors) {
        int next[4];  // the fourth free descriptor becomes the limit
        for (int& fd : next) fd = dup(0);
        for (const int fd : next) close(fd);
        const rlimit few = {static_cast<rlim_t>(next[3]), before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
      }
      const std::string place = "end ECONNABORTED, its place is needed";
      ASSERT_TRUE(loop.Until([&] {
        return kept < 0 ? app.Count("accept") == 3 && (!descriptors || app.Count("lost EMFILE") > 0)
                        : app.Count("accept") == 5;
      })) << descriptors
          << kept;
      for (int i = 0; i < 20; ++i) uv_run(&loop.loop, UV_RUN_NOWAIT);
      EXPECT_EQ(app.Count("accept"), kept < 0 ? 3u : 5u);
      EXPECT_EQ(app.Count(place), kept < 0 ? 0u : 2u);
      if (kept < 0) {
        mq_uv_stop(app.nodes[0]);
        mq_uv_stop(app.nodes[1]);
        EXPECT_TRUE(loop.Until([&] { return app.Count("accept") == 5; }));
      }
      setrlimit(RLIMIT_NOFILE, &before);
    }
  }
}

// A node that breaks a rule on time is closed after the time of that rule; an active node is not closed.
TEST_F(LoopTest, TimeOuts) {
  MqLoopLimits limits = mq_loop_limits();
  limits.firstMsec = 100, limits.midwayMsec = 200, limits.idleMsec = 400, limits.connectMsec = 100;
  limits.socketBytes = 4096, limits.backlog = 1;
  const Node full = Node::listener(Local(0));
  ListenSocket(&full.record().sock, 0);
  const Node taken = Client(full.local_port());
  struct Row {
    const char* peer;
    int msec;
    const char* end;
    App app = {};
    Node client = {};
    double ended = 0;
  };
  Row rows[] = {{"silent", 100, "end ETIMEDOUT, too slow"},          {"midway", 200, "end ETIMEDOUT, too slow"},
                {"unread", 200, "end ETIMEDOUT, takes no answers"},  {"idle", 400, "end ETIMEDOUT, idle"},
                {"connects", 100, "end ETIMEDOUT, does not answer"}, {"active", 1000, ""}};
  Loop loop(limits);
  const int port = loop.Listen(&app);
  for (Row& row : rows) {
    if (std::string_view(row.peer) == "connects") {
      ASSERT_NE(loop.Connect(&row.app, full.local_port()), nullptr);
      continue;
    }
    row.client = Client(port);
    ASSERT_TRUE(loop.Until([&] { return app.nodes.size() == 1; }));
    mq_uv_set_data(app.nodes[0], &row.app);
    row.app.nodes.swap(app.nodes);
  }
  for (Row& row : std::span(rows).subspan(1, 3)) {
    ASSERT_TRUE(row.client.write(Text("one")));
    ASSERT_TRUE(loop.Until([&] { return row.app.Count("message one") == 1; }));
  }
  ASSERT_TRUE(rows[5].client.write(Text("active")));
  const auto start = Clock::now();
  ASSERT_EQ(send(rows[1].client.descriptor(), "\x88\0", 2, 0), 2);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(Write(rows[2].app.nodes[0], std::string(60000, 'x')));
  const auto passed = [&] { return std::chrono::duration<double, std::milli>(Clock::now() - start).count(); };
  ASSERT_TRUE(loop.Until([&] {
    if (app.log.size() < static_cast<size_t>(passed() / 50)) {
      app.log.push_back("beat");
      EXPECT_TRUE(rows[5].client.write(Text("active")));
    }
    for (Row& row : rows) {
      if (row.ended == 0 && !row.app.log.empty() && row.app.log.back().starts_with("end")) row.ended = passed();
    }
    return passed() > 700 && rows[3].ended != 0;
  }));
  for (const Row& row : std::span(rows).first(5)) {
    ASSERT_FALSE(row.app.log.empty()) << row.peer;
    EXPECT_EQ(row.app.log.back(), row.end) << row.peer;
    // The nodes' times began before start.
    EXPECT_GE(row.ended, row.msec - 60) << row.peer;
  }
  EXPECT_GT(rows[5].app.Count("message active"), 5u);
  EXPECT_EQ(rows[5].ended, 0);
}

// Each of two threads serves the other one and asks it questions.
TEST_F(LoopTest, LoopsInThreads) {
  constexpr size_t kQuestions = 300;
  std::atomic<int> ports[2] = {0, 0}, done{0};
  const auto live = [&](int me) {
    App server, client;
    Loop loop;
    server.on = [](std::string_view event, MqUvNode* node, PcfMessage* msg) {
      EXPECT_TRUE(event != "message" || mq_uv_write(node, msg, nullptr, nullptr));
    };
    client.on = [&](std::string_view event, MqUvNode* node, PcfMessage*) {
      const bool asks =
          (event == "open" || event == "message") && client.Count("message from thread to threa") < kQuestions;
      EXPECT_TRUE(!asks || Write(node, "from thread to thread", 1));
    };
    ports[me] = loop.Listen(&server);
    while (ports[1 - me] == 0) std::this_thread::yield();
    ASSERT_NE(loop.Connect(&client, ports[1 - me]), nullptr);
    EXPECT_TRUE(loop.Until([&] { return client.Count("message from thread to threa") >= kQuestions; }));
    ++done;
    EXPECT_TRUE(loop.Until([&] { return done == 2; }));
  };
  std::thread one(live, 0), other(live, 1);
  one.join();
  other.join();
}

}  // namespace
