// node_wait_test.cc - waits on many nodes: which come back, in which array, in which order, and what each call asks of
// the system.
#include <unistd.h>

#include <deque>

#include "tests/support/nodes.hh"

namespace {

// Nodes are named a, b, c ... in the order of their making.
class NodeWaitTest : public NodeTest {
 protected:
  NodeWaitTest() { EXPECT_EQ(InitSocketPostData(&work_, 64), 1); }
  ~NodeWaitTest() override { FreeSocketPostData(&work_); }

  MQNode* Add(Node node, Peer peer = Peer()) {
    MQNode* const added = nodes_.emplace_back(std::move(node));
    peers_.push_back(std::move(peer));
    const std::string name(1, static_cast<char>('a' + nodes_.size() - 1));
    mnSetTraceCallBack(Trace::OnNode, added);
    OnSocketTrace(&added->sock, Trace::OnSocket);
    Trace::Name(added, name);
    Trace::Name(&added->sock, name);
    names_[added] = name;
    return added;
  }
  // One node in each state:
  //   l listening with a connection   i listening, idle   r readable   x urgent data   . idle   q queued writes
  //   Q queued writes and readable    c connecting        R connecting to nobody       - closed
  MQNode* Make(char state) {
    if (state == 'l' || state == 'i') {
      MQNode* const node = Add(Create(0, MQ_ROLE_LISTEN));
      if (state == 'l') peers_.back() = Peer::Connect(PortOf(node));
      return Settled(node, state == 'l');
    }
    if (state == 'c' || state == 'R') {
      Peer listener = Peer::Listen();
      const ClosedPort nobody;
      MQNode* const node = Add(Create(state == 'c' ? listener.port() : nobody.port(), MQ_ROLE_CONNECT));
      NoblockSocket(&node->sock);
      EXPECT_EQ(mnOpen(node), 0);
      EXPECT_EQ(node->error, 11);
      peers_.back() = std::move(listener);
      AwaitWritable(node->sock.fd);
      return node;
    }
    Link link = Connect();
    MQNode* const node = Add(std::move(link.node), std::move(link.peer));
    if (state == 'q' || state == 'Q') {
      const Message out(1, 4);
      Platform::Fail("send", 1, EAGAIN);
      mnWrite(out, node);
      Platform::Reset();
    }
    if (state == 'x') {
      peers_.back().SendUrgent('!');
      AwaitUrgent(node->sock.fd);
    }
    if (state == 'r' || state == 'Q') peers_.back().Send("data");
    if (state == '-') mnClose(node);
    return Settled(node, state == 'r' || state == 'Q');
  }
  void Make(std::string_view states) {
    for (const char state : states) Make(state);
    Trace::Take();
    Platform::Forget();
  }

  enum Family { kPost, kNPost };
  // A wait on all nodes, as "result status, listen ab, read c, write d".
  std::string Wait(Family family, int milliseconds = 0) {
    std::vector<MQNode*> list(nodes_.begin(), nodes_.end());
    list.push_back(nullptr);
    MQNode none;
    Arrays arrays(list.size(), &none);
    int status = 77;
    const int result = family == kPost ? mnPostExMSec(list.data(), arrays.listen.data(), arrays.read.data(),
                                                      milliseconds, &status, &work_)
                                       : mnNPostExMSec(list.data(), arrays.listen.data(), arrays.read.data(),
                                                       arrays.write.data(), milliseconds, &status, &work_);
    std::string text = std::to_string(result) + " " + std::to_string(status);
    if (result == 0) {
      EXPECT_TRUE(arrays.Untouched(&none)) << "an array was written by a wait that found nothing";
      return text;
    }
    text += ", listen " + Names(arrays.listen) + ", read " + Names(arrays.read);
    return family == kPost ? text : text + ", write " + Names(arrays.write);
  }

  // Output arrays of exactly the size that a wait on so many nodes may use.
  struct Arrays {
    Arrays(size_t size, MQNode* fill) : listen(size, fill), read(size, fill), write(size, fill) {}
    bool Untouched(const MQNode* fill) const {
      for (const auto* array : {&listen, &read, &write}) {
        for (const MQNode* node : *array) {
          if (node != fill) return false;
        }
      }
      return true;
    }
    std::vector<MQNode*> listen, read, write;
  };

  std::string Names(const std::vector<MQNode*>& array) {
    std::string names;
    for (MQNode* const* node = array.data(); *node != nullptr; ++node) names += names_.at(*node);
    return names.empty() ? "-" : names;
  }

  std::deque<Node> nodes_;
  std::deque<Peer> peers_;
  std::map<const MQNode*, std::string> names_;
  SockPostData work_;

 private:
  static MQNode* Settled(MQNode* node, bool readable) {
    if (readable) AwaitReadable(node->sock.fd);
    return node;
  }
};

TEST_F(NodeWaitTest, SortsReadyNodesIntoTheirArrays) {
  const struct {
    const char *states, *post, *npost;
  } rows[] = {
      {"", "0 9000", "0 9000"},
      {"i.", "0 9000", "0 9000"},
      {"r", "1 0, listen -, read a", "1 0, listen -, read a, write -"},
      {"l", "1 0, listen a, read -", "1 0, listen a, read -, write -"},
      {"rlr.lir", "1 0, listen be, read acg", "1 0, listen be, read acg, write -"},
      {"x", "1 0, listen -, read -", "1 0, listen -, read a, write -"},
      {"xrxl", "1 0, listen d, read b", "1 0, listen d, read bac, write -"},
      {"q", "0 9000", "1 0, listen -, read -, write a"},
      {"Qq", "1 0, listen -, read a", "1 0, listen -, read a, write ab"},
      {"cqc", "0 9000", "1 0, listen -, read -, write bac"},
      {"R", "1 0, listen -, read a", "1 0, listen -, read a, write -"},
      {"-r-q-", "1 0, listen -, read b", "1 0, listen -, read b, write d"},
  };
  for (const auto& row : rows) {
    nodes_.clear();
    Make(row.states);
    EXPECT_EQ(Wait(kPost), row.post) << row.states;
    EXPECT_EQ(Wait(kNPost), row.npost) << row.states;
    EXPECT_EQ(Platform::Records({"select"}).size(), 2u);
  }
}

// Sockets first, then nodes; the readable ones, the exceptional ones, the writable ones.
TEST_F(NodeWaitTest, Traces) {
  Make("Qxlc.");
  EXPECT_EQ(Wait(kPost), "1 0, listen c, read a");
  EXPECT_EQ(Trace::Take(), (Lines{"a PostSocket:Ready", "b PostSocket:Exception", "c PostSocket:Ready",
                                  "a mnPost::Ready", "c mnPost::Ready"}));
  EXPECT_EQ(Wait(kNPost), "1 0, listen c, read ab, write ad");
  EXPECT_EQ(Trace::Take(), (Lines{"a NPostSocket:Write", "a NPostSocket:Ready", "b NPostSocket:Exception",
                                  "c NPostSocket:Ready", "d NPostSocket:Write", "a mnNPost::Ready", "c mnNPost::Ready",
                                  "b mnNPost::Exception", "a mnNPost::Write", "d mnNPost::Write"}));
}

// Roles decide where an exceptional node goes too; a node is marked open before its trace point runs.
TEST_F(NodeWaitTest, ExceptionalListenerAndOpenState) {
  Make("xq");
  nodes_[0]->role = MQ_ROLE_LISTEN;
  nodes_[1]->openState = 0;
  uint32_t seen = 9;
  Trace::on_node = [&](std::string_view point, const MQNode* node) {
    if (point == "mnNPost::Write") seen = node->openState;
  };
  EXPECT_EQ(Wait(kNPost), "1 0, listen a, read -, write b");
  EXPECT_EQ(seen, 1u);
  EXPECT_EQ(nodes_[0]->openState, 1u);
}

TEST_F(NodeWaitTest, PendingConnects) {
  Make("c");
  MQNode* const node = nodes_[0];
  EXPECT_EQ(std::pair(node->openState, node->sock.connected), std::pair(0u, 0u));
  EXPECT_EQ(Wait(kPost), "0 9000");
  EXPECT_EQ(Wait(kNPost), "1 0, listen -, read -, write a");
  EXPECT_EQ(std::pair(node->openState, node->sock.connected), std::pair(1u, 1u));
  EXPECT_EQ(Wait(kNPost), "0 9000") << "not watched for writing any more";
  EXPECT_EQ(mnOpen(node), 1);

  // A refused connect is readable as well: it stays unopened, and the first transfer says why.
  nodes_.clear();
  Make("R");
  EXPECT_EQ(Wait(kNPost), "1 0, listen -, read a, write -");
  EXPECT_EQ(nodes_[0]->openState, 0u);
  const Message in;
  EXPECT_EQ(mnRead(in, nodes_[0]), 0);
  EXPECT_EQ(nodes_[0]->error, ECONNREFUSED);
}

// A socket whose holder is somebody else, or nobody, is ready all the same but reported by nobody.
TEST_F(NodeWaitTest, ForeignOwners) {
  Make("rqxr");
  nodes_[0]->sock.owner = nullptr;
  nodes_[1]->sock.owner = nodes_[3];
  nodes_[2]->sock.owner = nodes_[3];
  Trace::Take();
  EXPECT_EQ(Wait(kNPost), "1 0, listen -, read d, write -");
  Lines points = Trace::Take();
  EXPECT_EQ(points.back(), "d mnNPost::Ready");
  EXPECT_EQ(std::count_if(points.begin(), points.end(), [](const auto& point) { return point.find("::") + 1; }), 1);
  nodes_[3]->sock.owner = nodes_[0];
  EXPECT_EQ(Wait(kPost), "1 0, listen -, read -");
}

// What each form hands to select. A signal ends every wait at once.
TEST_F(NodeWaitTest, Timeouts) {
  MQNode* none[] = {nullptr};
  MQNode* out[1];
  int status = 0;
  const struct {
    const char* form;
    int timeout;
    const char* limit;
  } rows[] = {{"ms", 0, "0.000000s"},
              {"ms", 999, "0.999000s"},
              {"ms", 1000, "1.000000s"},
              {"ms", 1500, "1.500000s"},
              {"ms", -1, "0.000000s"},
              {"ms", INT32_MIN, "0.000000s"},
              {"ms", INT32_MAX, "2147483.647000s"},
              {"s", 3, "3.000000s"},
              {"s", -7, "0.000000s"},
              {"s", 2147483, "2147483.000000s"},
              {"s", 2147484, "2147483.000000s"},
              {"s", INT32_MAX, "2147483.000000s"},
              {"plain", 3, "3.000000s"},
              {"plain", INT32_MIN, "0.000000s"}};
  for (const auto& row : rows) {
    Platform::Reset();
    Platform::Fail("select", 1, EINTR, Platform::kOnwards);
    const std::string form = row.form;
    if (form == "ms") {
      EXPECT_EQ(mnPostExMSec(none, out, out, row.timeout, &status, &work_), 0);
      EXPECT_EQ(status, EINTR);
      EXPECT_EQ(mnNPostExMSec(none, out, out, out, row.timeout, &status, &work_), 0);
    } else if (form == "s") {
      EXPECT_EQ(mnPostEx(none, out, out, row.timeout, &status, &work_), 0);
      EXPECT_EQ(mnNPostEx(none, out, out, out, row.timeout, &status, &work_), 0);
    } else {
      EXPECT_EQ(mnPost(none, out, out, row.timeout, &status), 0);
      EXPECT_EQ(mnNPost(none, out, out, out, row.timeout, &status), 0);
    }
    EXPECT_EQ(status, EINTR);
    EXPECT_EQ(Platform::Calls(), Lines(2, "select(" + std::string(row.limit) + ") = -1 EINTR")) << form << row.timeout;
  }
}

// Nodes past the size of the record are not waited on: 2512 in a plain form, n - 1 in a record of size n.
TEST_F(NodeWaitTest, MoreNodesThanARecordTakes) {
  Make("rr");
  constexpr size_t kMany = 3000;
  constexpr size_t kTaken = 2512;
  std::vector<MQNode> many(kMany);
  std::vector<MQNode*> list;
  for (MQNode& node : many) {
    node.sock.fd = -1;
    node.sock.owner = &node;
    list.push_back(&node);
  }
  list.push_back(nullptr);
  for (const size_t ready : {size_t{0}, kTaken - 1, kTaken, kMany - 1}) {
    many[ready].sock.fd = nodes_[0]->sock.fd;
    MQNode none;
    for (const bool writing : {false, true}) {
      Arrays arrays(kTaken + 1, &none);
      int status = 77;
      const int result =
          writing ? mnNPost(list.data(), arrays.listen.data(), arrays.read.data(), arrays.write.data(), 0, &status)
                  : mnPost(list.data(), arrays.listen.data(), arrays.read.data(), 0, &status);
      EXPECT_EQ(result, ready < kTaken) << ready;
      EXPECT_EQ(status, ready < kTaken ? 0 : 9000);
      EXPECT_EQ(arrays.read[0], result ? &many[ready] : &none);
    }
    many[ready].sock.fd = -1;
  }
  Make("qq");
  for (const auto& [size, post, npost] : {std::tuple{1, "0 9000", "0 9000"},
                                          {2, "1 0, listen -, read a", "1 0, listen -, read a, write -"},
                                          {4, "1 0, listen -, read ab", "1 0, listen -, read ab, write c"},
                                          {5, "1 0, listen -, read ab", "1 0, listen -, read ab, write cd"}}) {
    FreeSocketPostData(&work_);
    ASSERT_EQ(InitSocketPostData(&work_, size), 1);
    EXPECT_EQ(Wait(kPost), post) << size;
    EXPECT_EQ(Wait(kNPost), npost) << size;
  }
}

// A server's loop: accept, read and finish as the wait says, until a large answer has gone through a small socket.
TEST_F(NodeWaitTest, QueuedWritesFinishThroughTheWait) {
  MQNode* const server = Add(Create(0, MQ_ROLE_LISTEN));
  const Peer client = Peer::Connect(PortOf(server));
  EXPECT_EQ(Wait(kNPost, 10000), "1 0, listen a, read -, write -");
  ASSERT_EQ(mnOpen(server), 1);
  MQNode* const child = Add(Node(server->child));
  NoblockSocket(&child->sock);
  mnSetBufferSize(child, 4096);
  client.Send(Wire(1, 4));
  EXPECT_EQ(Wait(kNPost, 10000), "1 0, listen -, read b, write -");
  Message msg;
  ASSERT_EQ(mnRead(msg, child), 1);
  msg.Put(2, 3000000);
  ASSERT_EQ(mnWrite(msg, child), 1);
  const std::string large = msg.raw();
  msg.Put(3, 4);
  ASSERT_EQ(mnWrite(msg, child), 1);
  ASSERT_TRUE(mnIsPendingIO(child));
  std::string arrived;
  int waits = 0;
  for (; mnIsPendingIO(child); ++waits) {
    char piece[65536];
    for (ssize_t got; (got = recv(client.fd(), piece, sizeof piece, MSG_DONTWAIT)) > 0;) arrived.append(piece, got);
    ASSERT_EQ(Wait(kNPost, 10000), "1 0, listen -, read -, write b");
    ASSERT_EQ(mnFinishWrite(child), 1);
  }
  EXPECT_GT(waits, 1);
  arrived += client.Read(3000156 + 160 - arrived.size());
  EXPECT_TRUE(arrived == large + msg.raw());
  EXPECT_EQ(Wait(kNPost), "0 9000");
}

}  // namespace
