// node_test.cc - nodes: made, named, configured, opened, closed, deleted.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/support/nodes.hh"

namespace {

// What a creator left in a node.
std::string Facts(const MQNode* node) {
  return format("role {}, open {}, error {}, asks {}/{}, host {}, addr {}", node->role, node->openState, node->error,
                node->recvBuffer.length, node->recvBuffer.capacity, node->host, Text(node->addr));
}

// A creator returns the node with the reason; what comes after a failed step is still attempted, but for the listen.
TEST_F(NodeTest, Creators) {
  G_node_trace = Trace::OnNode;
  G_socket_trace = Trace::OnSocket;
  const Peer taken = Peer::Listen();
  Alias(taken.port(), "P");
  const SockAddrRec any = AddressOf("*", 0), busy = AddressOf("127.0.0.1", taken.port());
  SockOption keep_alive = {SOCK_OPT_KEEPALIVE, 0, 1};
  using Name = SockAddrRec*;
  const auto connector = [](Name name) { return CreateMQNode(name, MQ_ROLE_CONNECT); };
  const auto listener = [](Name name) { return CreateMQNode(name, MQ_ROLE_LISTEN); };
  const std::string stream = "socket(2, 1, 0) = fd; CreateAnySocket; ";
  const std::string datagram = "socket(2, 2, 0) = fd; CreateAnySocket; setsockopt(1:13, 1, 0) = 0; ";
  const std::string options = "setsockopt(1:2, 0) = 0; setsockopt(1:13, 1, 0) = 0; ";
  const std::string alive = "setsockopt(1:9, 1) = 0; setsockopt(1:13, 1, 0) = 0; ";
  const std::string resolve = "BindSocket:Before; AddrToIP:Before; AddrToIP:After; ";
  const std::string bind = resolve + "uname() = 0; bind(0.0.0.0:0) = {}; BindSocket:After; ";
  const std::string bound = format(fmt::runtime(bind), "0");
  const std::string closed = "role {}, open 0, error {}, asks 136/16520, host *, addr ";
  const std::string named = "testnode 0.0.0.0 0 tcp 0", unnamed = "testnode - - tcp 0", asked = "* - 0 tcp 0";
  const auto facts = [&](int role, int error) { return format(fmt::runtime(closed), role, error); };
  const std::string open = "role 0, open 1, error 0, asks 16520/16520, host *, addr " + named;
  const struct {
    std::function<MQNode*(Name)> create;
    SockAddrRec name;
    std::string happens, facts;
    const char* failing = "";
    int nth = 1, code = 0;
  } rows[] = {
      {connector, any, stream + options + "CreateMQNode", facts(0, 0) + asked},
      {[](Name name) { return CreateMQNode(name, 7); }, any, stream + options + "CreateMQNode", facts(7, 0) + asked},
      {listener, any, stream + options + bound + "listen(5) = 0; ListenSocket; CreateMQNode", facts(1, 0) + named},
      {[&](Name name) { return CreateMQNodeWithOpt(name, 1, &keep_alive); }, any,
       stream + alive + bound + "listen(5) = 0; ListenSocket; CreateMQNodeWithOpt", facts(1, 0) + named},
      {[](Name name) { return CreateMQNodeWithOpt(name, 0, nullptr); }, any,
       stream + "setsockopt(1:13, 1, 0) = 0; CreateMQNodeWithOpt", facts(0, 0) + asked},
      {[&](Name name) { return CreateUDPMQNodeWithOpt(name, &keep_alive); }, any,
       "socket(2, 2, 0) = fd; CreateAnySocket; " + alive + bound + "CreateUDPMQNodeWithOpt", open},
      {CreateUDPMQNode, any, datagram + bound + "CreateUDPMQNodeWithOpt", open},
      // failures
      {listener, any,
       "socket(2, 1, 0) = -1 EMFILE; CreateAnySocket; setsockopt(1:2, 0) = -1 EBADF; setsockopt(1:13, 1, 0) = -1 "
       "EBADF; " +
           format(fmt::runtime(bind), "-1 EBADF") + "CreateMQNode",
       facts(1, EBADF) + unnamed, "socket", 1, EMFILE},
      {connector, any, stream + "setsockopt(1:2, 0) = -1 ENOMEM; setsockopt(1:13, 1, 0) = 0; CreateMQNode",
       facts(0, 0) + asked, "setsockopt", 1, ENOMEM},
      {connector, any, stream + "setsockopt(1:2, 0) = 0; setsockopt(1:13, 1, 0) = -1 ENOMEM; CreateMQNode",
       facts(0, ENOMEM) + asked, "setsockopt", 2, ENOMEM},
      {listener, any, stream + options + bound + "listen(5) = -1 EINVAL; ListenSocket; CreateMQNode",
       facts(1, EINVAL) + named, "listen", 1, EINVAL},
      {listener, busy,
       stream + options + resolve + "uname() = 0; bind(127.0.0.1:P) = -1 EADDRINUSE; BindSocket:After; CreateMQNode",
       "role 1, open 0, error 98, asks 136/16520, host 127.0.0.1, addr " + unnamed},
      {CreateUDPMQNode, any, datagram + format(fmt::runtime(bind), "-1 EACCES") + "CreateUDPMQNodeWithOpt",
       "role 0, open 0, error 13, asks 16520/16520, host *, addr " + unnamed, "bind", 1, EACCES},
      {CreateUDPMQNode, AddressOf("nowhere", "0"),
       datagram + "BindSocket:Before; AddrToIP:Before; gethostbyname(nowhere) = 0; AddrToIP:After; BindSocket:After; "
                  "CreateUDPMQNodeWithOpt",
       "role 0, open 0, error 9003, asks 16520/16520, host nowhere, addr nowhere - 0 tcp 0"},
  };
  for (const auto& row : rows) {
    if (*row.failing != '\0') Platform::Fail(row.failing, row.nth, row.code);
    SockAddrRec name = row.name;
    Take();
    errno = 0;
    const Node node(row.create(&name));
    EXPECT_EQ(Take("csn"), row.happens);
    EXPECT_EQ(Facts(node), row.facts) << row.happens;
    EXPECT_EQ(memcmp(&name, &row.name, sizeof name), 0) << "the caller's address was changed";
    mnSetTraceCallBack(nullptr, node);
    OnSocketTrace(&node->sock, nullptr);
  }
}

// Every field that does not depend on the creator, and a node over a socket that exists.
TEST_F(NodeTest, NewRecord) {
  const Node node = Create(0, MQ_ROLE_CONNECT);
  EXPECT_EQ(format("type {}, {}, {}, limits {} {}, {} {}", node->nodeType, node->platform, WriteState(node),
                   node->writeLimit, node->pendingLimit, node->sock.owner == node.get(), node->child == nullptr),
            "type 2, UNIX, 0, sent 0, out 0, limits -1 100, true true");
  EXPECT_EQ(node->onTrace, nullptr);
  EXPECT_TRUE(node->opOpen == mnOpen && node->opClose == mnClose && node->opRead == mnRead &&
              node->opBrowse == mnBrowse && node->opWrite == mnWrite && node->opPost == mnPost);
  SockRec held;
  CreateSocketFromExisting(&held, Peer::Listen().Release());
  held.error = 5;
  mqc_fail_allocation(1, 0);
  EXPECT_EQ(CreateAndBindMQNode(&held, MQ_ROLE_LISTEN), nullptr);
  EXPECT_EQ(held.owner, nullptr);
  Take();
  const Node over(CreateAndBindMQNode(&held, MQ_ROLE_LISTEN));
  EXPECT_EQ(Take("csn"), "");
  EXPECT_EQ(Facts(over), "role 1, open 0, error 0, asks 136/16520, host @, addr - - - - 0");
  EXPECT_EQ(over->sock.owner, over.get());
  held.owner = over;
  EXPECT_EQ(memcmp(&over->sock, &held, sizeof held), 0);
}

TEST_F(NodeTest, UserIsAtMostTwelveCharactersOfTheLogin) {
  for (const auto& [login, user] : {std::pair{"bob", "bob"},
                                    {"exactly12chr", "exactly12chr"},
                                    {"a-login-of-20-letter", "a-login-of-2"},
                                    {"", ""},
                                    {"a-login-name-that-fits-into-forty-eight-charact", "a-login-name"},
                                    {"a-login-name-that-does-not-fit-into-48-character", ""},
                                    {"nobody", ""}}) {
    Companion::Now().user = login;
    Companion::Now().has_user = login != std::string("nobody");
    const Node node = Create(0, MQ_ROLE_CONNECT);
    EXPECT_EQ(std::string(node->user, sizeof node->user), Field(user, sizeof node->user));
  }
}

// ---- The application's name ----

class ApplNameTest : public NodeTest {
 protected:
  ApplNameTest() : path_(format("{}/{}", ::testing::TempDir(), getpid())) {
    setenv("TEVRA_HOME", ::testing::TempDir().c_str(), 1);
  }
  // The name and length that GetApplName gives, and whether it ran a command.
  static std::string ApplName() {
    Platform::Forget();
    std::string name(49, '.');
    int length = 48;
    EXPECT_EQ(GetApplName(name.data(), &length), 1);
    const std::string text = name.substr(0, strnlen(name.data(), 48));
    EXPECT_EQ(name, Field(text, 48) + '.') << "48 bytes, padded with zero bytes";
    return format("{} {}{}", text, length, Platform::Calls({"system"}).empty() ? ", nothing run" : "");
  }
  // Puts something at the scratch file's place: a text, or a link or pipe.
  int Plant(const std::string& what) const {
    remove(path_.c_str());
    if (what == "(link)") return symlink("/dev/null", path_.c_str());
    if (what == "(pipe)") return mkfifo(path_.c_str(), 0600);
    std::ofstream(path_) << what;
    return 0;
  }
  const std::string path_;
};

TEST_F(ApplNameTest, FromWhatTheListingWrote) {
  const std::string fifty = "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwx";
  for (const auto& [written, name] : {std::pair<std::string, std::string>{"server\n", "SERVER 6"},
                                      {"Server2", "SERVER2 7"},
                                      {"", " 0"},
                                      {"\n", " 0"},
                                      {"first\nsecond\n", "FIRST 5"},
                                      {" two words \n", "TWOWORDS 8"},
                                      {fifty + "\n", "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUV 48"},
                                      {std::string(600, 'z'), std::string(48, 'Z') + " 48"},
                                      // the newline is cut before blanks are taken out, behind the last blank
                                      {"a\t\n", "A 1"},
                                      {"\033[2Jab\x9b\n", "?[2JAB? 7"},
                                      {"(link)", "UNKNOWN 0"}}) {
    Platform::OnSystem([this, text = written](const char*) { return Plant(text); });
    EXPECT_EQ(ApplName(), name);
    EXPECT_EQ(Platform::Records({"system"})[0].detail,
              format("ps -p {0} | grep -v CMD | grep -v COMMAND  | awk '{{print $4}}'  > $TEVRA_HOME/{0}", getpid()));
    EXPECT_EQ(access(path_.c_str(), F_OK), -1) << "the scratch file was left behind";
  }
  Platform::OnSystem([&](const char*) { return Plant(fifty); });
  EXPECT_EQ(std::string(Create(0, MQ_ROLE_CONNECT)->applName, 48), "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUV");
}

// Without a listing, and with what another user may have planted: that is neither written to nor read.
TEST_F(ApplNameTest, Unknown) {
  Platform::OnSystem([](const char*) { return 1; });
  const std::string longest = "/" + std::string(243, 'x');
  for (const auto& [home, planted, name] :
       {std::tuple<std::string, std::string, std::string>{"", "", "UNKNOWN 0, nothing run"},
        {"/nonexistent", "", "UNKNOWN 0"},
        {longest, "", "UNKNOWN 0"},
        {longest + "x", "", "UNKNOWN 0, nothing run"},
        {::testing::TempDir(), "(link)", "UNKNOWN 0, nothing run"},
        {::testing::TempDir(), "(pipe)", "UNKNOWN 0, nothing run"},
        {::testing::TempDir(), "a file that an earlier process left", "UNKNOWN 0"}}) {
    setenv("TEVRA_HOME", home.c_str(), 1);
    if (home.empty()) unsetenv("TEVRA_HOME");
    remove(path_.c_str());
    if (!planted.empty()) Plant(planted);
    EXPECT_EQ(ApplName(), name) << home << planted;
    EXPECT_EQ(access(path_.c_str(), F_OK) == 0, planted[0] == '(');
  }
  char name[9] = "12345678";
  int length = 0;
  unsetenv("TEVRA_HOME");
  EXPECT_EQ(GetApplName(name, &length), 1);
  EXPECT_STREQ(name, "UNKNOWN") << "8 bytes are written whatever the length says";
}

TEST_F(ApplNameTest, IsThisPrograms) {
  std::string command;
  std::getline(std::ifstream("/proc/self/comm"), command);
  std::transform(command.begin(), command.end(), command.begin(), toupper);
  EXPECT_EQ(ApplName(), format("{} {}", command, command.size()));
  EXPECT_EQ(std::string(Create(0, MQ_ROLE_CONNECT)->applName, 48), Field(command, 48));
  // The application's own name for itself: nodes do not take it.
  unsetenv("TEVRA_HOME");
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
  for (const auto& [error, failed] : {std::pair{0, 0}, {-1111, 0}, {11, 1}, {-1000, 1}, {2026, 1}}) {
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
  // Both sizes are always tried; the node's error is left alone.
  for (const auto& [failing, outcome] :
       {std::pair{1, "0 0 42, setsockopt(1:7, 65536) = -1 ENOBUFS; setsockopt(1:8, 65536) = 0"},
        {2, "0 105 42, setsockopt(1:7, 65536) = 0; setsockopt(1:8, 65536) = -1 ENOBUFS"},
        {3, "1 0 42, setsockopt(1:7, 65536) = 0; setsockopt(1:8, 65536) = 0"}}) {
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
  const Peer listener = Peer::Listen(), nobody = Peer::Bound(SOCK_STREAM);
  const std::string trace = " | ConnectSocket:Before; AddrToIP:Before; AddrToIP:After; {}ConnectSocket:After; mnOpen";
  const struct {
    SockAddrRec to;
    bool blocking;
    std::string outcome, report;
  } rows[] = {
      {AddressOf("localhost", listener.port()), true, "1, 0, 1", ""},
      {AddressOf("127.0.0.1", nobody.port()), true, "0, 111, 0", "onError 111; "},
      {AddressOf("127.0.0.1", listener.port()), false, "0, 11, 0", "onError 11; "},
      {AddressOf("nowhere", listener.port()), true, "0, 9003, 0", "onError 9003; "},
      {AddressOf("127.0.0.1", "no-such"), true, "0, 9002, 0", "onError 9002; "},
  };
  for (const auto& row : rows) {
    SockAddrRec to = row.to;
    const Node node(CreateMQNode(&to, MQ_ROLE_CONNECT));
    if (!row.blocking) NoblockSocket(&node->sock);
    Watch(node);
    EXPECT_EQ(Open(node), row.outcome + format(fmt::runtime(trace), row.report));
  }
  // An open node; one that is connected but not known to be open; another role.
  const Link link = Connect();
  Watch(link.node);
  EXPECT_EQ(Open(link.node), "1, 0, 1 | ");
  link.node->openState = 0;
  EXPECT_EQ(Open(link.node), "1, 0, 1" + format(fmt::runtime(trace), ""));
  link.node->openState = 0;
  link.node->role = 2;
  EXPECT_EQ(Open(link.node), "0, 0, 0 | mnOpen");
}

TEST_F(NodeTest, OpenAcceptsIntoChildren) {
  const Node parent = Create(0, MQ_ROLE_LISTEN);
  Watch(parent);
  const Peer first = Peer::Connect(PortOf(parent->sock.fd));
  const Peer second = Peer::Connect(PortOf(parent->sock.fd));
  Alias(first.port(), "P");
  Alias(second.port(), "Q");
  parent->error = 77;
  parent->writeLimit = 3;
  parent->msgsRead = 9;
  parent->pending = Qalloc();
  ResetBuffer(&parent->recvBuffer, 32);
  MQNode expected = *parent;
  EXPECT_EQ(Open(parent), "1, 0, 0 | AcceptClient:Before; AcceptClient:After; mnOpen");
  const Node child(parent->child);
  // A copy of its parent, queue and receive buffer included, but for these.
  expected.sock = child->sock;
  expected.role = MQ_ROLE_CONNECT;
  expected.openState = 1;
  expected.error = 0;
  expected.child = nullptr;
  EXPECT_EQ(memcmp(&expected, child, sizeof expected), 0);
  EXPECT_TRUE(child->sock.owner == child.get() && child->sock.onTrace == nullptr);
  EXPECT_EQ(Text(child->sock.name), "- 127.0.0.1 P - P");
  EXPECT_TRUE(parent->pending == nullptr && parent->recvBuffer.data != child->recvBuffer.data);
  EXPECT_EQ(Facts(parent).substr(0, 46), "role 1, open 0, error 0, asks 136/16520, host ");

  EXPECT_EQ(Open(parent), "1, 0, 0 | AcceptClient:Before; AcceptClient:After; mnOpen");
  const Node other(parent->child);
  EXPECT_EQ(Text(other->sock.name), "- 127.0.0.1 Q - Q");
  NoblockSocket(&parent->sock);
  EXPECT_EQ(Open(parent), "0, 11, 0 | AcceptClient:Before; onError 11; AcceptClient:After; mnOpen");
  EXPECT_EQ(parent->child, other.get());
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
  const Peer lower = Peer::Datagram();  // lower numbers are taken
  EXPECT_EQ(mnClose(node), 1);
  EXPECT_EQ(Take(), "mnClose; mnClearPeningIO; DeleteSocket; close() = 0");
  EXPECT_EQ(WriteState(node), "42, sent 0, out 3");
  EXPECT_TRUE(node->openState == 0 && node->recvBuffer.data == nullptr);
  // The number of a closed descriptor goes to the next one who asks: a node must not close it a second time.
  const Peer somebody = Peer::Datagram();
  ASSERT_EQ(somebody.fd(), number);
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
