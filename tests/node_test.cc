// node_test.cc - nodes: made, named, configured, opened, closed, deleted.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/support/nodes.hh"

namespace {

// What a creator left in a node.
std::string Facts(const MQNode* node) {
  return "role " + std::to_string(node->role) + ", open " + std::to_string(node->openState) + ", error " +
         std::to_string(node->error) + ", asks " + std::to_string(node->recvBuffer.length) + ", host " + node->host +
         ", addr " + Text(node->addr);
}

// What kind of socket, with which options and names: each row is what the kernel saw, what was traced, what is left.
TEST_F(NodeTest, CreatorsAreTheirCallsTheirTraceAndTheirFacts) {
  G_node_trace = Trace::OnNode;
  G_socket_trace = Trace::OnSocket;
  SockAddrRec any = AddressOf("*", 0);
  SockOption keepAlive = {SOCK_OPT_KEEPALIVE, 0, 1};
  SockRec existing;
  CreateSocketFromExisting(&existing, Peer::Listen().Release());
  Trace::Take();
  const std::string stream = "socket(2, 1, 0) = fd; ";
  const std::string datagram = "socket(2, 2, 0) = fd; ";
  const std::string no_reuse = "setsockopt(1:2, 0) = 0; ";
  const std::string keep_alive = "setsockopt(1:9, 1) = 0; ";
  const std::string linger = "setsockopt(1:13, 1, 0) = 0";
  const std::string bound = "; uname() = 0; bind(0.0.0.0:0) = 0";
  const std::string listening = bound + "; listen(5) = 0";
  const std::string made = "CreateAnySocket; ";
  const std::string binding = "BindSocket:Before; AddrToIP:Before; AddrToIP:After; BindSocket:After; ";
  const std::string closed = "open 0, error 0, asks 136, host *, addr ";
  const std::string open = "role 0, open 1, error 0, asks 16520, host *, addr testnode 0.0.0.0 0 tcp 0";
  const struct {
    std::function<MQNode*()> create;
    std::string calls, trace, facts;
  } rows[] = {
      {[&] { return CreateMQNode(&any, 0); }, stream + no_reuse + linger, made + "CreateMQNode",
       "role 0, " + closed + "* - 0 tcp 0"},
      {[&] { return CreateMQNode(&any, 1); }, stream + no_reuse + linger + listening,
       made + binding + "ListenSocket; CreateMQNode", "role 1, " + closed + "testnode 0.0.0.0 0 tcp 0"},
      {[&] { return CreateMQNode(&any, 7); }, stream + no_reuse + linger, made + "CreateMQNode",
       "role 7, " + closed + "* - 0 tcp 0"},
      {[&] { return CreateMQNodeWithOpt(&any, 1, &keepAlive); }, stream + keep_alive + linger + listening,
       made + binding + "ListenSocket; CreateMQNodeWithOpt", "role 1, " + closed + "testnode 0.0.0.0 0 tcp 0"},
      {[&] { return CreateMQNodeWithOpt(&any, 0, nullptr); }, stream + linger, made + "CreateMQNodeWithOpt",
       "role 0, " + closed + "* - 0 tcp 0"},
      {[&] { return CreateUDPMQNodeWithOpt(&any, &keepAlive); }, datagram + keep_alive + linger + bound,
       made + binding + "CreateUDPMQNodeWithOpt", open},
      {[&] { return CreateUDPMQNode(&any); }, datagram + linger + bound, made + binding + "CreateUDPMQNodeWithOpt",
       open},
      {[&] { return CreateAndBindMQNode(&existing, 1); }, "", "CreateAndBindMQNode",
       "role 1, open 0, error 0, asks 136, host @, addr - - - - 0"},
  };
  for (const auto& row : rows) {
    Platform::Forget();
    const Node node(row.create());
    EXPECT_EQ(Joined(Platform::Calls()), row.calls) << row.trace;
    EXPECT_EQ(Joined(Trace::Take()), row.trace);
    EXPECT_EQ(Facts(node), row.facts);
    EXPECT_EQ(Text(any), "* - 0 tcp 0") << "the caller's address was changed";
    mnSetTraceCallBack(nullptr, node);
    OnSocketTrace(&node->sock, nullptr);
  }
}

// Every field that does not depend on the creator.
TEST_F(NodeTest, NewRecord) {
  const Node node = Create(0, MQ_ROLE_CONNECT);
  EXPECT_EQ(node->nodeType, 2u);
  EXPECT_STREQ(node->platform, "UNIX");
  EXPECT_EQ(node->sock.owner, static_cast<MQNode*>(node));
  EXPECT_EQ(node->child, nullptr);
  EXPECT_EQ(WriteState(node), "0, sent 0, out 0");
  EXPECT_EQ(node->writeLimit, -1);
  EXPECT_EQ(node->pendingLimit, 100u);
  EXPECT_EQ(node->recvBuffer.capacity, 16520u);
  EXPECT_EQ(node->onTrace, nullptr);
  EXPECT_TRUE(node->opOpen == mnOpen && node->opClose == mnClose && node->opRead == mnRead &&
              node->opBrowse == mnBrowse && node->opWrite == mnWrite && node->opPost == mnPost);
  const Peer listener = Peer::Listen();
  SockRec held;
  CreateSocketFromExisting(&held, dup(listener.fd()));
  held.error = 5;
  const Node over(CreateAndBindMQNode(&held, MQ_ROLE_LISTEN));
  EXPECT_EQ(over->sock.fd, held.fd);
  EXPECT_EQ(over->sock.owner, static_cast<MQNode*>(over));
  EXPECT_EQ(over->error, 0) << "it is not the socket's";
}

// A creator returns the node with the reason; what comes after a failed step is still attempted, but for the listen.
TEST_F(NodeTest, CreationFailures) {
  const Peer taken = Peer::Listen();
  const std::string port = std::to_string(taken.port());
  const std::string made = "socket(2, 1, 0) = fd";
  const struct {
    const char* host;
    std::string service;
    int role;  // -1: a datagram node
    const char* failing;
    int nth, code, error;
    std::string calls;  // of socket, bind and listen
  } rows[] = {
      {"*", "0", 1, "socket", 1, EMFILE, EBADF, "socket(2, 1, 0) = -1 EMFILE; bind(0.0.0.0:0) = -1 EBADF"},
      {"*", "0", 0, "setsockopt", 1, ENOMEM, 0, made},
      {"*", "0", 0, "setsockopt", 2, ENOMEM, ENOMEM, made},
      {"*", "0", 1, "bind", 1, EACCES, EACCES, made + "; bind(0.0.0.0:0) = -1 EACCES"},
      {"*", "0", 1, "listen", 1, EINVAL, EINVAL, made + "; bind(0.0.0.0:0) = 0; listen(5) = -1 EINVAL"},
      {"127.0.0.1", port, 1, "", 1, 0, EADDRINUSE, made + "; bind(127.0.0.1:" + port + ") = -1 EADDRINUSE"},
      {"*", "no-such", 1, "", 1, 0, SOCK_SERVICE_UNKNOWN, made},
      {"*", "0", -1, "bind", 1, EACCES, EACCES, "socket(2, 2, 0) = fd; bind(0.0.0.0:0) = -1 EACCES"},
      {"nowhere", "0", -1, "", 1, 0, SOCK_HOST_UNKNOWN, "socket(2, 2, 0) = fd"},
  };
  for (const auto& row : rows) {
    Platform::Reset();
    if (*row.failing != '\0') Platform::Fail(row.failing, row.nth, row.code);
    SockAddrRec address = AddressOf(row.host, row.service);
    errno = 0;
    const Node node(row.role < 0 ? CreateUDPMQNode(&address) : CreateMQNode(&address, row.role));
    ASSERT_NE(static_cast<MQNode*>(node), nullptr);
    EXPECT_EQ(Joined(Platform::Calls({"socket", "bind", "listen"})), row.calls);
    EXPECT_EQ(node->error, row.error) << row.calls;
    EXPECT_EQ(node->openState, 0u);
  }
  SockRec sock;
  CreateSocketFromExisting(&sock, taken.fd());
  mqc_fail_allocation(1, 0);
  EXPECT_EQ(CreateAndBindMQNode(&sock, MQ_ROLE_CONNECT), nullptr);
  EXPECT_EQ(sock.owner, nullptr);
}

TEST_F(NodeTest, UserIsAtMostTwelveCharactersOfTheLogin) {
  const struct {
    const char *login, *user;
  } rows[] = {{"bob", "bob"},
              {"exactly12chr", "exactly12chr"},
              {"a-login-of-20-letter", "a-login-of-2"},
              {"", ""},
              {"a-login-name-that-does-not-fit-into-48-characters", ""}};
  for (const auto& row : rows) {
    Companion::Now().user = row.login;
    const Node node = Create(0, MQ_ROLE_CONNECT);
    EXPECT_EQ(std::string(node->user, sizeof node->user), Field(row.user, sizeof node->user));
  }
  Companion::Now().has_user = false;
  EXPECT_EQ(std::string(Create(0, MQ_ROLE_CONNECT)->user, 13), Field("", 13));
}

std::string ScratchPath() { return ::testing::TempDir() + "/" + std::to_string(getpid()); }

// The name and length that GetApplName gives, and whether it ran a command.
std::string ApplName() {
  Platform::Forget();
  char name[49] = "................................................";
  int length = 48;
  EXPECT_EQ(GetApplName(name, &length), 1);
  const std::string field(name, 48);
  EXPECT_EQ(field.substr(strnlen(name, 48)).find_first_not_of('\0'), std::string::npos) << "not padded with zero bytes";
  const size_t commands = Platform::Calls({"system"}).size();
  return field.substr(0, strnlen(name, 48)) + " " + std::to_string(length) + (commands != 0 ? "" : ", nothing run");
}

TEST_F(NodeTest, ApplicationNameFromWhatTheListingWrote) {
  setenv("TEVRA_HOME", ::testing::TempDir().c_str(), 1);
  const std::string fifty = "abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwx";
  const struct {
    std::string written;
    const char* name;
  } rows[] = {
      {"server\n", "SERVER 6"},
      {"Server2", "SERVER2 7"},
      {"", " 0"},
      {"\n", " 0"},
      {"first\nsecond\n", "FIRST 5"},
      {" two words \n", "TWOWORDS 8"},
      {fifty + "\n", "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUV 48"},
      {std::string(600, 'z'), "ZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZZ 48"},
      // The newline is cut before blanks are taken out, and only behind the last blank.
      {"a\t\n", "A 1"},
      {"\033[2Jab\x9b\n", "?[2JAB? 7"},
  };
  for (const auto& row : rows) {
    Platform::OnSystem([&row](const char*) {
      std::ofstream(ScratchPath()) << row.written;
      return 0;
    });
    EXPECT_EQ(ApplName(), row.name);
    EXPECT_NE(access(ScratchPath().c_str(), F_OK), 0) << "the scratch file was left behind";
  }
  const std::string pid = std::to_string(getpid());
  EXPECT_EQ(Platform::Records({"system"})[0].detail,
            "ps -p " + pid + " | grep -v CMD | grep -v COMMAND  | awk '{print $4}'  > $TEVRA_HOME/" + pid);
  Platform::OnSystem([&](const char*) { return std::ofstream(ScratchPath()) << fifty, 0; });
  EXPECT_EQ(std::string(Create(0, MQ_ROLE_CONNECT)->applName, 48), "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUV");
  // Taking the name leaves no errno behind for the lookup.
  SockAddrRec address = AddressOf("127.0.0.1", "nosuch", "tcp");
  errno = 0;
  EXPECT_EQ(Node(CreateMQNode(&address, MQ_ROLE_LISTEN))->error, SOCK_SERVICE_UNKNOWN);
}

TEST_F(NodeTest, ApplicationNameWithoutAListing) {
  EXPECT_EQ(ApplName(), "UNKNOWN 0, nothing run");
  Platform::OnSystem([](const char*) { return 0; });
  setenv("TEVRA_HOME", "/nonexistent", 1);
  EXPECT_EQ(ApplName(), "UNKNOWN 0");
  setenv("TEVRA_HOME", ("/" + std::string(243, 'x')).c_str(), 1);
  EXPECT_EQ(ApplName(), "UNKNOWN 0") << "244 characters fit";
  setenv("TEVRA_HOME", ("/" + std::string(244, 'x')).c_str(), 1);
  EXPECT_EQ(ApplName(), "UNKNOWN 0, nothing run");
  char name[9] = "12345678";
  int length = 0;
  EXPECT_EQ(GetApplName(name, &length), 1) << "8 bytes are written whatever the length says";
  EXPECT_EQ(std::string(name), "UNKNOWN");
}

// Only a file that the shell has made counts: what another user may have planted is neither written to nor read.
TEST_F(NodeTest, ApplicationNameFromAPlantedFile) {
  setenv("TEVRA_HOME", ::testing::TempDir().c_str(), 1);
  const std::string path = ScratchPath();
  const auto plant = [&path](const char* kind) {
    remove(path.c_str());
    if (*kind == 'l') return symlink("/dev/null", path.c_str());
    if (*kind == 'p') return mkfifo(path.c_str(), 0600);
    std::ofstream(path) << "stale";
    return 0;
  };
  for (const char* const kind : {"link", "pipe"}) {
    ASSERT_EQ(plant(kind), 0);
    EXPECT_EQ(ApplName(), "UNKNOWN 0, nothing run") << kind;
    EXPECT_EQ(access(path.c_str(), F_OK), 0) << kind;
  }
  Platform::OnSystem([&plant](const char*) { return plant("link"); });
  remove(path.c_str());
  EXPECT_EQ(ApplName(), "UNKNOWN 0") << "planted meanwhile";
  plant("file");
  Platform::OnSystem([](const char*) { return 1; });
  EXPECT_EQ(ApplName(), "UNKNOWN 0") << "a file that an earlier process left";
}

TEST_F(NodeTest, ApplicationNameIsThisProgram) {
  setenv("TEVRA_HOME", ::testing::TempDir().c_str(), 1);
  std::string command;
  std::getline(std::ifstream("/proc/self/comm"), command);
  std::transform(command.begin(), command.end(), command.begin(), toupper);
  EXPECT_EQ(ApplName(), command + " " + std::to_string(command.size()));
  EXPECT_NE(access(ScratchPath().c_str(), F_OK), 0);
  EXPECT_EQ(std::string(Create(0, MQ_ROLE_CONNECT)->applName, 48), Field(command, 48));
}

TEST_F(NodeTest, ApplicationNameOfTheHost) {
  SetApplName("short");
  SetApplName(nullptr);
  EXPECT_STREQ(G_szApplName, "short");
  SetApplName(std::string(60, 'n').c_str());
  EXPECT_EQ(G_szApplName, std::string(48, 'n'));
  EXPECT_EQ(std::string(Create(0, MQ_ROLE_CONNECT)->applName), "UNKNOWN") << "nodes do not take it";
  SetApplName("");
}

TEST_F(NodeTest, SmallCalls) {
  EXPECT_EQ(IsNodeFailed(nullptr), 1);
  Node node = Create(0, MQ_ROLE_CONNECT);
  for (const auto& [error, failed] : {std::pair{0, 0}, {-1111, 0}, {11, 1}, {-1000, 1}, {2026, 1}}) {
    node->error = error;
    EXPECT_EQ(IsNodeFailed(node), failed) << error;
  }
  node->sock.error = 42;
  SetMQNodeError(node);
  EXPECT_EQ(node->error, 42);

  EXPECT_EQ(mnGSetTraceCallBack(Trace::OnNode), 1);
  RunTraceMethod("none", node);
  EXPECT_EQ(mnSetTraceCallBack(Trace::OnNode, node), 1);
  RunTraceMethod("one", node);
  EXPECT_EQ(Trace::Take(), Lines{"one"});

  // Both sizes are always tried; the node's error is left alone.
  for (const auto& [failing, result, code] : {std::tuple{1, 0, 0}, {2, 0, ENOBUFS}, {3, 1, 0}}) {
    Platform::Reset();
    Platform::Fail("setsockopt", failing, ENOBUFS);
    EXPECT_EQ(mnSetBufferSize(node, 65536), result);
    EXPECT_EQ(node->sock.error, code);
    EXPECT_EQ(Platform::Calls(),
              (Lines{failing == 1 ? "setsockopt(1:7, 65536) = -1 ENOBUFS" : "setsockopt(1:7, 65536) = 0",
                     failing == 2 ? "setsockopt(1:8, 65536) = -1 ENOBUFS" : "setsockopt(1:8, 65536) = 0"}));
  }
  EXPECT_EQ(node->error, 42);
  EXPECT_EQ(Trace::Take(), Lines{});
}

TEST_F(NodeTest, OpenConnects) {
  const Peer listener = Peer::Listen(20);
  const ClosedPort nobody;
  const auto at = [](const std::string& host, int port) { return AddressOf(host, port); };
  const Lines connect = {"ConnectSocket:Before", "AddrToIP:Before", "AddrToIP:After"};
  const struct {
    SockAddrRec to;
    Mode mode;
    std::string outcome;  // result, error, openState
    bool report;
  } rows[] = {
      {at("127.0.0.1", listener.port()), kBlocking, "1, 0, 1", false},
      {at("localhost", listener.port()), kBlocking, "1, 0, 1", false},
      {at("127.0.0.1", nobody.port()), kBlocking, "0, 111, 0", true},
      {at("127.0.0.1", listener.port()), kNonBlocking, "0, 11, 0", true},
      {at("nowhere", listener.port()), kBlocking, "0, 9003, 0", true},
      {AddressOf("127.0.0.1", "no-such"), kBlocking, "0, 9002, 0", true},
  };
  for (const auto& row : rows) {
    SockAddrRec to = row.to;
    const Node node(CreateMQNode(&to, MQ_ROLE_CONNECT));
    if (row.mode == kNonBlocking) NoblockSocket(&node->sock);
    Watch(node);
    node->error = 77;
    errno = 0;
    const int result = mnOpen(node);
    EXPECT_EQ(std::to_string(result) + ", " + std::to_string(node->error) + ", " + std::to_string(node->openState),
              row.outcome);
    Lines trace = connect;
    if (row.report) trace.push_back("onError " + std::to_string(node->error));
    trace.insert(trace.end(), {"ConnectSocket:After", "mnOpen"});
    EXPECT_EQ(Trace::Take(), trace);
  }
}

TEST_F(NodeTest, OpenOfAnOpenNodeAndOfAnotherRole) {
  Link link = Connect();
  Watch(link.node);
  link.node->error = 77;
  Platform::Forget();
  EXPECT_EQ(mnOpen(link.node), 1);
  EXPECT_EQ(link.node->error, 0);
  EXPECT_EQ(Trace::Take(), Lines{});
  // Connected but not known to be open: the system's "already connected" is a success.
  link.node->openState = 0;
  EXPECT_EQ(mnOpen(link.node), 1);
  EXPECT_EQ(link.node->error, 0);
  Trace::Take();
  link.node->openState = 0;
  link.node->role = 2;
  Platform::Forget();
  EXPECT_EQ(mnOpen(link.node), 0);
  EXPECT_EQ(Trace::Take(), Lines{"mnOpen"});
  EXPECT_EQ(Platform::Calls(), Lines{});
}

TEST_F(NodeTest, OpenAcceptsIntoChildren) {
  Node parent = Create(0, MQ_ROLE_LISTEN);
  Watch(parent);
  const Peer first = Peer::Connect(PortOf(parent));
  const Peer second = Peer::Connect(PortOf(parent));
  parent->error = 77;
  parent->writeLimit = 3;
  parent->msgsRead = 9;
  parent->pending = Qalloc();
  ResetBuffer(&parent->recvBuffer, 32);
  MQNode expected = *parent;
  ASSERT_EQ(mnOpen(parent), 1);
  EXPECT_EQ(Trace::Take(), (Lines{"AcceptClient:Before", "AcceptClient:After", "mnOpen"}));
  const Node child(parent->child);
  // A copy of its parent, queue and receive buffer included, but for these.
  expected.sock = child->sock;
  expected.role = MQ_ROLE_CONNECT;
  expected.openState = 1;
  expected.error = 0;
  expected.child = nullptr;
  EXPECT_EQ(memcmp(&expected, child, sizeof expected), 0);
  EXPECT_EQ(child->sock.owner, static_cast<MQNode*>(child));
  EXPECT_EQ(child->sock.onTrace, nullptr);
  EXPECT_EQ(Text(child->sock.name),
            "- 127.0.0.1 " + std::to_string(first.port()) + " - " + std::to_string(first.port()));
  EXPECT_EQ(parent->pending, nullptr);
  EXPECT_EQ(Facts(parent).substr(0, 40), "role 1, open 0, error 0, asks 136, host ");
  EXPECT_EQ(parent->recvBuffer.capacity, 16520u);
  EXPECT_NE(parent->recvBuffer.data, child->recvBuffer.data);

  ASSERT_EQ(mnOpen(parent), 1);
  const Node other(parent->child);
  EXPECT_NE(static_cast<MQNode*>(other), static_cast<MQNode*>(child));
  EXPECT_EQ(other->sock.name.port, static_cast<uint32_t>(second.port()));
  Trace::Take();

  NoblockSocket(&parent->sock);
  Trace::Take();
  EXPECT_EQ(mnOpen(parent), 0);
  EXPECT_EQ(parent->error, 11);
  EXPECT_EQ(parent->child, static_cast<MQNode*>(other));
  EXPECT_EQ(Trace::Take(), (Lines{"AcceptClient:Before", "onError 11", "AcceptClient:After", "mnOpen"}));
}

TEST_F(NodeTest, CloseAndDelete) {
  Link link = Connect();
  MQNode* const node = link.node;
  const Message out(1, 4);
  Platform::Fail("send", 1, EAGAIN);
  for (int i = 0; i < 3; ++i) mnWrite(out, node);
  Qput(node->pending, nullptr);
  Watch(node);
  link.node->openState = 1;
  node->sock.error = 42;
  EXPECT_EQ(mnClose(node), 1);
  EXPECT_EQ(Trace::Take(), (Lines{"mnClose", "mnClearPeningIO", "DeleteSocket"}));
  EXPECT_EQ(WriteState(node), "42, sent 0, out 3");
  EXPECT_EQ(node->openState, 0u);
  EXPECT_EQ(node->recvBuffer.data, nullptr);

  mnClearPeningIO(node);
  EXPECT_EQ(Trace::Take(), Lines{"mnClearPeningIO"});
  Platform::Forget();
  link.node.Delete();
  EXPECT_EQ(Trace::Take(), (Lines{"DeleteMQNode", "mnClose", "mnClearPeningIO", "DeleteSocket"}));
  EXPECT_EQ(Platform::Calls(), Lines{});
  EXPECT_EQ(DeleteMQNode(nullptr), 0);
}

// The number of a closed descriptor goes to the next one who asks: a node must not close it a second time.
TEST_F(NodeTest, DeleteLeavesADescriptorThatBecameSomebodyElses) {
  Node node = Create(0, MQ_ROLE_CONNECT);
  const int number = node->sock.fd;
  mnClose(node);
  const Peer other = Peer::Datagram();
  ASSERT_EQ(other.fd(), number);
  const Message msg(200);
  EXPECT_EQ(mnRead(msg, node), 0);
  EXPECT_EQ(mnReadMsg(node), 0);
  mnClose(node);
  node.Delete();
  EXPECT_NE(fcntl(number, F_GETFD), -1);
}

}  // namespace
