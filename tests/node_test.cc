// node_test.cc - nodes: made, named, configured, opened, closed, deleted.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/support/nodes.hh"

namespace {

// What a creator stored in a node: "role open error asked/capacity host, address".
std::string Facts(const MQNode* node) {
  return format("{} {} {} {}/{} {}, {}", node->role, node->openState, node->error, node->recvBuffer.length,
                node->recvBuffer.capacity, node->host, Text(node->addr));
}

// Calls, trace points and results of the creators. A creator returns the node with its error; after a failed step it
// attempts the following ones, except listen.
TEST_F(NodeTest, Creators) {
  G_node_trace = Trace::OnNode;
  const auto make = [](const std::function<MQNode*(SockAddrRec*)>& create, const char* host = "*") {
    const SockAddrRec at = AddressOf(host, 0);
    SockAddrRec name = at;
    Take();
    errno = 0;
    const Node node(create(&name));
    const std::string happened = Take("cn");
    EXPECT_EQ(memcmp(&name, &at, sizeof name), 0) << "the caller's address was changed";
    mnSetTraceCallBack(nullptr, node);
    return happened + " | " + Facts(node);
  };
  SockOption alive = {SOCK_OPT_KEEPALIVE, 0, 1};
  const auto connector = [](SockAddrRec* name) { return CreateMQNode(name, MQ_ROLE_CONNECT); };
  const auto listener = [](SockAddrRec* name) { return CreateMQNode(name, MQ_ROLE_LISTEN); };
  const auto with_option = [&](SockAddrRec* name) { return CreateMQNodeWithOpt(name, 7, &alive); };
  const auto datagram_with_option = [&](SockAddrRec* name) { return CreateUDPMQNodeWithOpt(name, &alive); };
  const std::string stream = "socket(2, 1, 0) = fd; ", datagram = "socket(2, 2, 0) = fd; ";
  const std::string linger = "setsockopt(1:13, 1, 0) = 0; ", bind = "uname() = 0; bind(0.0.0.0:0) = 0; ";
  const std::string no_reuse = "setsockopt(1:2, 0) = 0; " + linger, options = "setsockopt(1:9, 1) = 0; " + linger;
  EXPECT_EQ(make(listener),
            stream + no_reuse + bind + "listen(5) = 0; CreateMQNode | 1 0 0 136/16520 *, testnode 0.0.0.0 0 tcp 0");
  EXPECT_EQ(make(with_option), stream + options + "CreateMQNodeWithOpt | 7 0 0 136/16520 *, * - 0 tcp 0");
  EXPECT_EQ(make(datagram_with_option),
            datagram + options + bind + "CreateUDPMQNodeWithOpt | 0 1 0 16520/16520 *, testnode 0.0.0.0 0 tcp 0");
  EXPECT_EQ(make(CreateUDPMQNode, "nowhere"),
            datagram + linger +
                "gethostbyname(nowhere) = 0; CreateUDPMQNodeWithOpt | 0 0 9003 16520/16520 nowhere, "
                "nowhere - 0 tcp 0");
  Platform::Fail("setsockopt", 1, ENOMEM);
  EXPECT_EQ(make(connector),
            stream + "setsockopt(1:2, 0) = -1 ENOMEM; " + linger + "CreateMQNode | 0 0 0 136/16520 *, * - 0 tcp 0");
  Platform::Fail("socket", 1, EMFILE);
  EXPECT_EQ(make(listener),
            "socket(2, 1, 0) = -1 EMFILE; setsockopt(1:2, 0) = -1 EBADF; setsockopt(1:13, 1, 0) = -1 EBADF; uname() = "
            "0; bind(0.0.0.0:0) = -1 EBADF; CreateMQNode | 1 0 9 136/16520 *, testnode - - tcp 0");
}

// All fields that are the same for each creator; a node over an existing socket.
TEST_F(NodeTest, NewRecord) {
  const Node node = Create(0, MQ_ROLE_CONNECT);
  EXPECT_EQ(format("type {}, {}, {}, limits {} {}, {} {}", node->nodeType, node->platform, WriteState(node),
                   node->writeLimit, node->pendingLimit, node->sock.owner == node.get(), node->child == nullptr),
            "type 2, UNIX, 0, sent 0, out 0, limits -1 100, true true");
  EXPECT_TRUE(node->opOpen == mnOpen && node->opClose == mnClose && node->opRead == mnRead &&
              node->opBrowse == mnBrowse && node->opWrite == mnWrite && node->opPost == mnPost);
  SockRec held;
  CreateSocketFromExisting(&held, Peer::Listen().Release());
  held.error = 5;
  Take();
  G_node_trace = Trace::OnNode;
  const Node over(CreateAndBindMQNode(&held, MQ_ROLE_LISTEN));
  EXPECT_EQ(Take(), "CreateAndBindMQNode");
  EXPECT_EQ(Facts(over), "1 0 0 136/16520 @, - - - - 0");
  EXPECT_EQ(over->sock.owner, over.get());
  held.owner = over;
  EXPECT_EQ(memcmp(&over->sock, &held, sizeof held), 0);
}

TEST_F(NodeTest, UserIsAtMostTwelveCharactersOfTheLogin) {
  for (const auto& [login, user] : {std::pair{"bob", "bob"},
                                    {"a-login-name-that-fits-into-forty-eight-charact", "a-login-name"},
                                    {"a-login-name-that-does-not-fit-into-48-character", ""}}) {
    Companion::Now().user = login;
    EXPECT_EQ(std::string(Create(0, MQ_ROLE_CONNECT)->user, sizeof MQNode::user), Field(user, sizeof MQNode::user));
  }
}

// ---- The application's name ----

class ApplNameTest : public NodeTest {
 protected:
  ApplNameTest() : path_(format("{}/{}", ::testing::TempDir(), getpid())) {
    setenv("TEVRA_HOME", ::testing::TempDir().c_str(), 1);
  }
  // The name and length that GetApplName returns, and whether it ran a command.
  static std::string ApplName() {
    Platform::Forget();
    std::string name(49, '.');
    int length = 48;
    EXPECT_EQ(GetApplName(name.data(), &length), 1);
    const std::string text = name.substr(0, strnlen(name.data(), 48));
    EXPECT_EQ(name, Field(text, 48) + '.') << "48 bytes, padded with zero bytes";
    const std::vector<Call> run = Platform::Records({"system"});
    if (run.empty()) return format("{} {}, nothing run", text, length);
    EXPECT_EQ(run[0].detail,
              format("ps -p {0} | grep -v CMD | grep -v COMMAND  | awk '{{print $4}}'  > $TEVRA_HOME/{0}", getpid()));
    return format("{} {}", text, length);
  }
  // Puts a text, a link or nothing in the place of the scratch file.
  int Plant(const std::string& what) const {
    remove(path_.c_str());
    if (what == "(link)") return symlink("/dev/null", path_.c_str());
    if (what != "(none)") std::ofstream(path_) << what;
    return what == "(another's)" && geteuid() == 0 ? chown(path_.c_str(), 12345, 12345) : 0;
  }
  const std::string path_;
};

TEST_F(ApplNameTest, IsTheFirstLineThatTheListingWrote) {
  const std::string home = ::testing::TempDir(), longest = "/" + std::string(243, 'x');
  const std::string letters = "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwx" + std::string(550, 'z');
  const std::string name48 = "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUV";
  const struct {
    std::string home, before, written, name;
  } rows[] = {
      {home, "(none)", "Server2", "SERVER2 7"},
      {home, "(none)", "", " 0"},
      {home, "(none)", "first\nsecond\n", "FIRST 5"},
      {home, "(none)", " two\twords \n", "TWOWORDS 8"},
      {home, "(none)", "\033[2Jab~\x7f\x9b\n", "?[2JAB~?? 9"},
      {home, "(none)", "(link)", "UNKNOWN 0"},
      {home, "(none)", "(another's)", geteuid() == 0 ? "UNKNOWN 0" : "(ANOTHER'S) 11"},
      // what another user may have planted is neither written to nor read
      {home, "(link)", "", "UNKNOWN 0, nothing run"},
      {home, "a file that an earlier process left", "(none)", "UNKNOWN 0"},
      {longest, "(none)", "(none)", "UNKNOWN 0"},
      {longest + "x", "(none)", "(none)", "UNKNOWN 0, nothing run"},
      {home, "(none)", letters, name48 + " 48"},
  };
  for (const auto& row : rows) {
    setenv("TEVRA_HOME", row.home.c_str(), 1);
    Plant(row.before);
    Platform::OnSystem([&](const char*) { return Plant(row.written); });
    EXPECT_EQ(ApplName(), row.name) << row.before;
    EXPECT_EQ(access(path_.c_str(), F_OK) == 0, row.before == "(link)") << "the scratch file is removed";
    Plant("(none)");
  }
  // Reading the name leaves no errno behind that would change the result of the lookup.
  Platform::OnSystem([&](const char*) { return Plant(letters); });
  errno = 0;
  SockAddrRec address = AddressOf("127.0.0.1", "nosuch");
  const Node node(CreateMQNode(&address, MQ_ROLE_LISTEN));
  EXPECT_EQ(node->error, SOCK_SERVICE_UNKNOWN);
  EXPECT_EQ(std::string(node->applName, 48), name48);
}

TEST_F(ApplNameTest, IsThisPrograms) {
  std::string command;
  std::getline(std::ifstream("/proc/self/comm"), command);
  std::transform(command.begin(), command.end(), command.begin(), toupper);
  EXPECT_EQ(ApplName(), format("{} {}", command, command.size()));
  unsetenv("TEVRA_HOME");
  char name[9] = "12345678";
  int length = 0;
  EXPECT_EQ(GetApplName(name, &length), 1);
  EXPECT_STREQ(name, "UNKNOWN") << "8 bytes are written whatever the length says";
  // The name that an application sets for itself, which nodes do not use.
  SetApplName("short");
  SetApplName(nullptr);
  EXPECT_STREQ(G_szApplName, "short");
  SetApplName(std::string(60, 'n').c_str());
  EXPECT_EQ(G_szApplName, std::string(48, 'n'));
  EXPECT_STREQ(Create(0, MQ_ROLE_CONNECT)->applName, "UNKNOWN");
  SetApplName("");
}

// ---- Small calls, opening, closing ----

TEST_F(NodeTest, SmallCalls) {
  const Node node = Create(0, MQ_ROLE_CONNECT);
  for (const auto& [error, failed] : {std::pair{0, 0}, {-1111, 0}, {11, 1}}) {
    node->error = error;
    EXPECT_EQ(IsNodeFailed(node), failed) << error;
  }
  EXPECT_EQ(IsNodeFailed(nullptr), 1);
  node->sock.error = 42;
  SetMQNodeError(node);
  EXPECT_EQ(node->error, 42);
  Take();
  EXPECT_EQ(mnGSetTraceCallBack(Trace::OnNode), 1);
  RunTraceMethod("none", node);
  EXPECT_EQ(mnSetTraceCallBack(Trace::OnNode, node), 1);
  RunTraceMethod("one", node);
  EXPECT_EQ(Take(), "one");
  // Both sizes are always set; the node's error is not changed.
  for (const auto& [failing, outcome] :
       {std::pair{1, "0 0 42, setsockopt(1:7, 65536) = -1 ENOBUFS; setsockopt(1:8, 65536) = 0"},
        {2, "0 105 42, setsockopt(1:7, 65536) = 0; setsockopt(1:8, 65536) = -1 ENOBUFS"}}) {
    Platform::Mend();
    Platform::Fail("setsockopt", failing, ENOBUFS);
    const int result = mnSetBufferSize(node, 65536);
    EXPECT_EQ(format("{} {} {}, {}", result, node->sock.error, node->error, Take()), outcome);
  }
}

// "result, error, openState | socket and node trace".
std::string Open(MQNode* node) {
  Take();
  node->error = 77;
  errno = 0;
  const int result = mnOpen(node);
  return format("{}, {}, {} | {}", result, node->error, node->openState, Take("sn"));
}

TEST_F(NodeTest, OpenConnects) {
  const Peer nobody = Peer::Bound(SOCK_STREAM);
  const Node refused = Create(nobody.port(), MQ_ROLE_CONNECT);
  Watch(refused);
  EXPECT_EQ(Open(refused), "0, 111, 0 | ConnectSocket[AddrToIP[]; onError 111]; mnOpen");
  // An open node; a connected node that is not marked open; another role.
  const Link link = Connect();
  Watch(link.node);
  EXPECT_EQ(Open(link.node), "1, 0, 1 | ");
  link.node->openState = 0;
  EXPECT_EQ(Open(link.node), "1, 0, 1 | ConnectSocket[AddrToIP[]]; mnOpen");
  link.node->openState = 0;
  link.node->role = 2;
  EXPECT_EQ(Open(link.node), "0, 0, 0 | mnOpen");
}

TEST_F(NodeTest, OpenAcceptsIntoChildren) {
  const Node parent = Create(0, MQ_ROLE_LISTEN);
  Watch(parent);
  const Peer peer = Peer::Connect(PortOf(parent->sock.fd));
  Alias(peer.port(), "P");
  parent->error = 77;
  parent->writeLimit = 3;
  parent->msgsRead = 9;
  parent->pending = Qalloc();
  ResetBuffer(&parent->recvBuffer, 32);
  MQNode expected = *parent;
  EXPECT_EQ(Open(parent), "1, 0, 0 | AcceptClient[]; mnOpen");
  const Node child(parent->child);
  // A copy of its parent, with its queue and receive buffer, except for these fields.
  expected.sock = child->sock;
  expected.role = MQ_ROLE_CONNECT;
  expected.openState = 1;
  expected.error = 0;
  expected.child = nullptr;
  EXPECT_EQ(memcmp(&expected, child, sizeof expected), 0);
  EXPECT_TRUE(child->sock.owner == child.get() && child->sock.onTrace == nullptr);
  EXPECT_EQ(Text(child->sock.name), "- 127.0.0.1 P - P");
  EXPECT_TRUE(parent->pending == nullptr && parent->recvBuffer.data != child->recvBuffer.data);
  EXPECT_EQ(Facts(parent).substr(0, 15), "1 0 0 136/16520");
  NoblockSocket(&parent->sock);
  EXPECT_EQ(Open(parent), "0, 11, 0 | AcceptClient[onError 11]; mnOpen");
  EXPECT_EQ(parent->child, child.get());
}

TEST_F(NodeTest, CloseAndDelete) {
  Link link = Connect();
  MQNode* const node = link.node;
  const Message out(1, 4);
  Platform::Fail("send", 1, EAGAIN);
  for (int i = 0; i < 3; ++i) mnWrite(out, node);
  Qput(node->pending, nullptr);
  Watch(node);
  node->sock.error = 42;
  const int number = node->sock.fd;
  EXPECT_EQ(mnClose(node), 1);
  EXPECT_EQ(Take(), "mnClose; mnClearPeningIO; DeleteSocket; close() = 0");
  EXPECT_EQ(WriteState(node), "42, sent 0, out 3");
  EXPECT_TRUE(node->openState == 0 && node->recvBuffer.data == nullptr);
  // The number of a closed descriptor is reused: a node must not close it again.
  const Peer somebody(dup2(Peer::Datagram().fd(), number));
  const Message in(200);
  EXPECT_EQ(mnRead(in, node) + mnReadMsg(node), 0);
  Take();
  mnClearPeningIO(node);
  EXPECT_EQ(Take(), "mnClearPeningIO");
  link.node.reset();
  EXPECT_EQ(Take(), "DeleteMQNode; mnClose; mnClearPeningIO; DeleteSocket");
  EXPECT_NE(fcntl(number, F_GETFD), -1);
  EXPECT_EQ(DeleteMQNode(nullptr), 0);
  EXPECT_EQ(DeleteMQNode(Create(0, MQ_ROLE_CONNECT).release()), 1);
}

}  // namespace
