// wait_test.cc - readiness waits on many nodes and their sockets. A case gives the state of each node, and the expected
// lists and arrays.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <sstream>

#include "tests/support/nodes.hh"

namespace {

SockRec untouched;  // referenced by output lists before a wait
MQNode* const kNoNode = reinterpret_cast<MQNode*>(&untouched);

// Nodes are named a, b, c ... in order of creation. State letters of a node:
//   r data to read   x urgent data   f too full to write   . none of these   - closed   w with queued writes
//   u connected 0    d datagram type   L listens, by its role   l listening with a connection
class WaitTest : public NodeTest {
 protected:
  WaitTest() {
    Trace::Now().names[&untouched] = "?";
    Size(64);
  }
  ~WaitTest() override { FreeSocketPostData(&work_); }

  void Size(int size) {
    FreeSocketPostData(&work_);
    ASSERT_EQ(InitSocketPostData(&work_, size), 1);
  }

  MQNode* Add(Node made) {
    MQNode* const node = nodes_.emplace_back(std::move(made));
    Trace::Now().names[node] = Trace::Now().names[&node->sock] = static_cast<char>('a' + nodes_.size() - 1);
    Watch(node);
    return node;
  }
  void Make(const std::string& states) {
    const auto has = [&states](char letter) { return states.find(letter) != std::string::npos; };
    Link link = has('l') ? Link{Create(0, MQ_ROLE_LISTEN), Peer()} : Connect();
    MQNode* const node = Add(std::move(link.node));
    const Peer& peer = peers_.emplace_back(has('l') ? Peer::Connect(PortOf(node->sock.fd)) : std::move(link.peer));
    node->openState = 0;
    if (has('r')) peer.Send("data");
    if (has('x')) peer.Send("!", MSG_OOB);
    const std::string piece(1 << 16, 'f');
    while (has('f') && send(node->sock.fd, piece.data(), piece.size(), MSG_DONTWAIT) > 0) {
    }
    if (has('w')) node->pending = Qalloc();
    if (has('u')) node->sock.connected = 0;
    if (has('d')) node->sock.type = SOCK_TYPE_DATAGRAM;
    if (has('L')) node->role = MQ_ROLE_LISTEN;
    if (has('x')) Await(node->sock.fd, POLLPRI);
    if (has('r')) Await(node->sock.fd);
    if (has('-')) DeleteSocket(&node->sock);
  }
  void MakeAll(const char* states) {
    nodes_.clear();
    peers_.clear();
    std::istringstream words(states);
    for (std::string word; words >> word;) Make(word);
    Take();
  }
  SockRec* Sock(size_t node) { return &nodes_[node]->sock; }

  // Waits once on all nodes with mnPost or mnNPost: "result status | readable writable exceptional | listen read write
  // | marks": the lists of sockets, the arrays of nodes, and for each node 1 if connected plus 2 if open. "?" is an
  // unchanged list, "none" an absent one.
  std::string Wait(bool writes) {
    const std::vector<MQNode*> before(nodes_.size() + 1, kNoNode);
    std::vector<MQNode*> nodes(nodes_.begin(), nodes_.end()), listen = before, read = before, write = before;
    nodes.push_back(nullptr);
    const std::string lists = Lists([&](int* status) {
      return writes ? mnNPostExMSec(nodes.data(), listen.data(), read.data(), write.data(), 0, status, &work_)
                    : mnPostExMSec(nodes.data(), listen.data(), read.data(), 0, status, &work_);
    });
    std::string marks;
    for (const Node& node : nodes_) marks += static_cast<char>('0' + node->sock.connected + 2 * node->openState);
    return format("{} | {} {} {} | {}", lists, Names(listen.data(), listen.size()), Names(read.data(), read.size()),
                  Names(write.data(), write.size()), marks);
  }
  // Waits once on sockets; with writers, NPostSocket is used.
  std::string WaitFor(const std::vector<SockRec*>& sockets, const std::vector<SockRec*>& writers) {
    return Lists([&](int* status) {
      const PostTimeout poll = {0, 0};
      std::copy(sockets.begin(), sockets.end(), work_.sockets);
      if (work_.writable != nullptr) std::copy(writers.begin(), writers.end(), work_.writable);
      return (writers.empty() ? PostSocket : NPostSocket)(&work_, &poll, status);
    });
  }
  std::string Lists(const std::function<int(int* status)>& wait) {
    for (SockRec** list : {work_.readable, work_.exceptional, work_.writable}) {
      if (list != nullptr) std::fill_n(list, work_.size, &untouched);
    }
    int status = 77;
    const int result = wait(&status);
    const auto size = static_cast<size_t>(work_.size);
    return format("{} {} | {} {} {}", result, status, Names(work_.readable, size), Names(work_.writable, size),
                  Names(work_.exceptional, size));
  }
  // What follows the terminator must be unchanged, except in a list that is compacted in place.
  template <typename Record>
  std::string Names(Record** list, size_t size) const {
    if (list == nullptr) return "none";
    std::string names;
    for (size_t i = 0; i < size; ++i) names += list[i] == nullptr ? "-" : Trace::Now().names[list[i]];
    const size_t end = std::min(names.find_first_of("-?"), names.size());
    EXPECT_TRUE(static_cast<void*>(list) == work_.writable || names.find_first_not_of('?', end + 1) == names.npos);
    return names.substr(0, end == 0 || names[end] == '?' ? end + 1 : end);
  }

  SockPostData work_ = {};
  std::deque<Peer> peers_;
  std::deque<Node> nodes_;
};

constexpr bool kPost = false, kNPost = true;

TEST_F(WaitTest, SortsSocketsAndNodes) {
  const auto check = [this](const char* states, const std::string& post, const std::string& npost) {
    MakeAll(states);
    EXPECT_EQ(Wait(kPost), post) << states;
    EXPECT_EQ(Wait(kNPost), npost) << states;
  };
  const std::string post_none = "0 9000 | ? ? ? | ? ? ? | ", npost_none = "0 9000 | ? - ? | ? ? ? | ";
  check(". -", post_none + "11", npost_none + "11");
  check(". x - r rx x r", "1 0 | deg ? bf | - deg ? | 1111111", "1 0 | deg - bf | - degbf - | 1111111");
  check("l r - xL l", "1 0 | abe ? d | ae b ? | 11111", "1 0 | abe - d | aed b - | 11111");
  // waiting writes
  check("fw .w -w rw xw", "1 0 | d ? e | - d ? | 11111", "1 0 | d bde e | - de bde | 13133");
  check("fw r", "1 0 | b ? - | - b ? | 11", "1 0 | b - - | - b - | 11");
  check("fw", post_none + "1", "0 9000 | ? a ? | ? ? ? | 1");
  // connects that have not completed
  check(".wud", post_none + "0", "1 0 | - a - | - - a | 3");
  check(".ud -u", post_none + "00", npost_none + "00");
  check(".u fw r .w ru xu", "1 0 | ce ? f | - ce ? | 011100", "1 0 | ce da f | - cef da | 311300");
  // A record of size n accepts n - 1 nodes, of each kind.
  Size(0);
  check("r", "0 22 |    | ? ? ? | 1", "0 22 |    | ? ? ? | 1");
  Size(1);
  check("r", post_none + "1", npost_none + "1");
  Size(3);
  check("rwu rwu r", "1 0 | ab ? - | - ab ? | 001", "1 0 | ab ab - | - ab ab | 331");
  check("xwu .u", "1 0 | - ? a | - - ? | 00", "1 0 | - ab a | - a ab | 33");
}

// The order is: sockets, then nodes; readable, exceptional, writable.
TEST_F(WaitTest, Traces) {
  MakeAll("rw x l .u .");
  Wait(kPost);
  EXPECT_EQ(Take("sn"),
            "a PostSocket:Ready; b PostSocket:Exception; c PostSocket:Ready; a mnPost::Ready; c mnPost::Ready");
  // What each callback sees: the position in readable, writable and exceptional; connected; open.
  Trace::Now().on_socket = [&](std::string_view, SockRec* rec) {
    std::string places = "(";
    for (SockRec** list : {work_.readable, work_.writable, work_.exceptional}) {
      const auto at = std::find(list, list + work_.size, rec) - list;
      places += at < work_.size ? static_cast<char>('0' + at) : '-';
    }
    Platform::Note('s', places + (rec->connected != 0 ? " connected)" : ")"));
  };
  Trace::Now().show = [](const MQNode* node) { return std::string(node->openState != 0 ? "open" : "not"); };
  Wait(kNPost);
  EXPECT_EQ(Take("sn"),
            "a NPostSocket:Write; (-0- connected); a NPostSocket:Ready; (00- connected); b NPostSocket:Exception; (--0 "
            "connected); c NPostSocket:Ready; (1-- connected); d NPostSocket:Write; (-1- connected); a mnNPost::Ready "
            "not; c mnNPost::Ready not; b mnNPost::Exception not; a mnNPost::Write open; d mnNPost::Write open");
}

TEST_F(WaitTest, AnAbsentListIsNotWatched) {
  const auto wait = [this](std::string_view absent, const char* states, bool writes = false) {
    MakeAll(states);
    const SockPostData whole = work_;
    if (absent.find('r') != absent.npos) work_.readable = nullptr;
    if (absent.find('w') != absent.npos) work_.writable = nullptr;
    if (absent.find('x') != absent.npos) work_.exceptional = nullptr;
    const std::string outcome = WaitFor({Sock(0), Sock(1), nullptr}, std::vector<SockRec*>(writes));
    work_ = whole;
    return outcome;
  };
  EXPECT_EQ(wait("r", "r rx"), "1 0 | none ? b");
  EXPECT_EQ(wait("r", "r ."), "0 9000 | none ? ?");
  EXPECT_EQ(wait("x", "rx x"), "1 0 | a ? none");
  EXPECT_EQ(wait("w", ".u r", true), "1 0 | b none -");
  EXPECT_EQ(wait("rwx", "rxu .", true), "0 9000 | none none none");
}

// More nodes than the plain forms support, and more than fit in the scratch memory of a wait.
TEST_F(WaitTest, ManyNodes) {
  MakeAll("r");
  constexpr size_t kMany = 3000, kTaken = 2512;
  std::vector<MQNode> many(kMany);
  std::vector<MQNode*> list(kMany + 1), none(kMany + 1), read(kMany + 1);
  for (size_t i = 0; i < kMany; ++i) {
    many[i].sock.fd = -1;
    many[i].sock.owner = list[i] = &many[i];
  }
  Size(kMany + 1);
  for (const size_t ready : {size_t{0}, kTaken - 1, kTaken, kMany - 1}) {
    many[ready].sock.fd = Sock(0)->fd;
    read[0] = nullptr;
    int status = 77;
    mnPost(list.data(), none.data(), read.data(), 0, &status);
    EXPECT_EQ(read[0], ready < kTaken ? &many[ready] : nullptr) << ready;
    EXPECT_EQ(mnNPostEx(list.data(), none.data(), read.data(), none.data(), 0, &status, &work_), 1);
    EXPECT_EQ(read[0], &many[ready]);
    many[ready].sock.fd = -1;
  }
}

TEST_F(WaitTest, ListedTwiceOrOnlyAsAWriter) {
  MakeAll("rw .w .u");
  EXPECT_EQ(WaitFor({Sock(0), Sock(0), nullptr}, {Sock(0), Sock(0), nullptr}), "1 0 | aa aa -");
  EXPECT_EQ(WaitFor({nullptr}, {Sock(0), nullptr}), "1 0 | - a -");
  Size(2);
  EXPECT_EQ(WaitFor({Sock(2), nullptr}, {Sock(1), nullptr}), "1 0 | - b -") << "no more than fit";
}

// A node whose socket has another owner is ready but not reported.
TEST_F(WaitTest, ForeignOwners) {
  MakeAll("r .w x r");
  nodes_[0]->sock.owner = nullptr;
  nodes_[1]->sock.owner = nodes_[2]->sock.owner = nodes_[3];
  EXPECT_EQ(Wait(kNPost), "1 0 | ad b c | - d - | 1111");
  EXPECT_EQ(Take("n"), "d mnNPost::Ready");
  nodes_[3]->sock.owner = nodes_[0];
  EXPECT_EQ(Wait(kPost), "1 0 | ad ? c | - - ? | 1111");
}

// What all forms pass to select: those in milliseconds and those in seconds.
TEST_F(WaitTest, Timeouts) {
  MQNode *none[] = {nullptr}, *out[1];
  int status = 0;
  Platform::Fail("select", 1, EINTR, Platform::kOnwards);
  const auto expect = [](int count, const char* timeout) {
    EXPECT_EQ(Platform::Calls(), Lines(static_cast<size_t>(count), format("select({}s) = -1 EINTR", timeout)));
    Take();
  };
  for (const auto& [timeout, milliseconds, seconds] : {std::tuple{1500, "1.500000", "1500.000000"},
                                                       {-1, "0.000000", "0.000000"},
                                                       {INT32_MAX, "2147483.647000", "2147483.000000"}}) {
    mnPostExMSec(none, out, out, timeout, &status, &work_);
    mnNPostExMSec(none, out, out, out, timeout, &status, &work_);
    expect(2, milliseconds);
    mnPost(none, out, out, timeout, &status);
    mnNPost(none, out, out, out, timeout, &status);
    mnPostEx(none, out, out, timeout, &status, &work_);
    mnNPostEx(none, out, out, out, timeout, &status, &work_);
    expect(4, seconds);
  }
}

TEST_F(WaitTest, AFailedSelectTouchesNoList) {
  MakeAll("rwu r");
  Platform::Fail("select", 1, EINTR, 2);
  EXPECT_EQ(Wait(kPost), "0 4 | ? ? ? | ? ? ? | 01");
  EXPECT_EQ(Wait(kNPost), "0 4 | ? a ? | ? ? ? | 01");
  const auto highest = static_cast<size_t>(std::max(Sock(0)->fd, Sock(1)->fd));
  EXPECT_EQ(Platform::Records({"select"})[0].size, highest + 1);
  EXPECT_EQ(Take("sn"), "");
}

// Lists and records are read only when their turn comes.
TEST_F(WaitTest, CallbacksMayCloseOrReplaceLaterSockets) {
  for (const bool writes : {kPost, kNPost}) {
    MakeAll("r r r . r r");
    const int far = Sock(2)->fd, quiet = Sock(3)->fd;
    Trace::Now().on_socket = [&](std::string_view point, const SockRec* rec) {
      if (rec == Sock(4)) work_.sockets[5] = nullptr;
      if (rec != Sock(0) || point == "DeleteSocket") return;
      DeleteSocket(Sock(1));
      Sock(2)->fd = 1 << 20;  // far outside the sets of this wait
      Sock(3)->fd = Sock(4)->fd;
    };
    EXPECT_EQ(Wait(writes).substr(0, 10), "1 0 | ade ");
    Trace::Now().on_socket = nullptr;
    Sock(2)->fd = far;
    Sock(3)->fd = quiet;
  }
}

// ---- Descriptors of 1024 and above ----

TEST_F(WaitTest, HighDescriptors) {
  constexpr int kHighest = 3500;
  rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max <= kHighest) GTEST_SKIP() << "the hard limit of open files is " << limit.rlim_max;
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, kHighest + 1);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  // Numbers of the descriptors; 0: any.
  const auto make = [this](const char* states, std::initializer_list<int> numbers) {
    MakeAll(states);
    for (size_t i = 0; i < numbers.size(); ++i) {
      const int number = numbers.begin()[i];
      if (number != 0) close(std::exchange(Sock(i)->fd, dup2(Sock(i)->fd, number)));
    }
  };
  const long blocks = Platform::LibraryBlocks();
  make("r x r", {kHighest, 1024, 0});
  EXPECT_EQ(Wait(kPost), "1 0 | ac ? b | - ac ? | 111");
  make("r . .", {0, 1087, 2048});  // the sets grow after some sockets were added
  EXPECT_EQ(Wait(kNPost), "1 0 | a - - | - a - | 111");
  make(".u ru .", {1500, kHighest, 1024});
  EXPECT_EQ(Wait(kNPost), "1 0 | b a - | - b a | 301");
  make("fw .w .u rw ru", {1030, 2100, 1023, kHighest, 1024});
  for (int nth = 1; nth <= 2; ++nth) {
    Platform::Fail("calloc", nth, ENOMEM);
    EXPECT_EQ(Wait(kNPost), "0 12 | ? abd ? | ? ? ? | 11010");
    Platform::Fail("calloc", nth, ENOMEM);
    EXPECT_EQ(Wait(kPost), "0 12 | ? ? ? | ? ? ? | 11010");
    EXPECT_EQ(Take("c"), "") << "no select";
  }
  EXPECT_EQ(Wait(kNPost), "1 0 | de bdc - | - de bdc | 13330");
  EXPECT_EQ(Platform::LibraryBlocks(), blocks);
}

TEST_F(WaitTest, WorkRecordsAreSetUpAndReleased) {
  const long before = Platform::LibraryBlocks();
  for (int nth = 1; nth <= 8; ++nth) {
    SockPostData work, empty = {};
    memset(&work, 0x5a, sizeof work);
    Platform::Fail("malloc", nth, ENOMEM);
    EXPECT_EQ(InitSocketPostData(&work, SOCK_POST_SIZE), nth == 8);
    EXPECT_EQ(format("{} {}", work.size, Platform::LibraryBlocks() - before), format("2513 {}", nth - 1));
    if (nth == 8) work.writable[SOCK_POST_SIZE - 1] = nullptr;
    FreeSocketPostData(&work);
    FreeSocketPostData(&work);
    EXPECT_EQ(memcmp(&work, &empty, sizeof work), 0);
    Platform::Mend();
  }
}

}  // namespace
