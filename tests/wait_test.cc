// wait_test.cc - readiness waits on many nodes and their sockets. Cases are written as the state of each node and read
// as the lists and arrays that came back.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <sstream>

#include "tests/support/nodes.hh"

namespace {

enum Family { kPost, kNPost, kPostSocket, kNPostSocket };  // of nodes, of their sockets alone
SockRec untouched;                                         // what output lists hold before a wait
MQNode no_node;                                            // the same of arrays

// Nodes are named a, b, c ... in the order of their making. State letters of one node:
//   r data to read   x urgent data   f too full to write   . none of these   - closed   w with queued writes
//   u connected 0    d datagram type   L listens, by its role
//   l listening with a connection   i listening, idle   c connecting   R connecting to nobody
class WaitTest : public NodeTest {
 protected:
  WaitTest() { Size(64); }
  ~WaitTest() override { FreeSocketPostData(&work_); }

  void Size(int size) {
    FreeSocketPostData(&work_);
    ASSERT_EQ(InitSocketPostData(&work_, size), 1);
  }

  MQNode* Add(MQNode* node) {
    const std::string name(1, static_cast<char>('a' + nodes_.size()));
    nodes_.emplace_back(node);
    Trace::Now().names[node] = Trace::Now().names[&node->sock] = name;
    Watch(node);
    return node;
  }
  void Make(const std::string& states) {
    const auto has = [&states](char letter) { return states.find(letter) != std::string::npos; };
    const bool listens = has('l') || has('i'), connects = has('c') || has('R');
    const Peer nobody = Peer::Bound(SOCK_STREAM);
    Peer listener = Peer::Listen();
    const int port = has('R') ? nobody.port() : has('c') ? listener.port() : 0;
    Link link = listens || connects ? Link{Create(port, listens), Peer()} : Connect();
    MQNode* const node = Add(link.node.release());
    Peer& peer = peers_.emplace_back(connects ? std::move(listener) : std::move(link.peer));
    if (connects) NoblockSocket(&node->sock);
    EXPECT_TRUE(!connects || mnOpen(node) == 0);
    if (connects) Await(node->sock.fd, POLLOUT);
    if (has('l')) peer = Peer::Connect(PortOf(node->sock.fd));
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

  // One wait over all nodes: "result status | readable writable exceptional | listen read write | marks", with the
  // lists of sockets, the arrays of nodes, and for each node 1 when it is connected plus 2 when it is open. A list that
  // is untouched reads "?", an absent one "none".
  std::string Wait(Family family) {
    for (SockRec** list : {work_.readable, work_.exceptional, work_.writable}) {
      if (list != nullptr) std::fill_n(list, work_.size, &untouched);
    }
    const size_t size = nodes_.size() + 1;
    std::vector<MQNode*> nodes(nodes_.begin(), nodes_.end()), listen(size, &no_node), read = listen, write = listen;
    nodes.push_back(nullptr);
    const PostTimeout poll = {0, 0};
    int status = 77, result = 0;
    if (family == kPost) {
      result = mnPostExMSec(nodes.data(), listen.data(), read.data(), 0, &status, &work_);
    } else if (family == kNPost) {
      result = mnNPostExMSec(nodes.data(), listen.data(), read.data(), write.data(), 0, &status, &work_);
    } else {
      if (family == kNPostSocket && work_.writable != nullptr) work_.writable[0] = nullptr;
      for (size_t i = 0; i < size; ++i) work_.sockets[i] = i + 1 < size ? &nodes[i]->sock : nullptr;
      result = (family == kPostSocket ? PostSocket : NPostSocket)(&work_, &poll, &status);
    }
    std::string marks;
    for (const Node& node : nodes_) marks += static_cast<char>('0' + node->sock.connected + 2 * node->openState);
    return format("{} {} | {} {} {} | {} {} {} | {}", result, status, List(work_.readable), List(work_.writable),
                  List(work_.exceptional), List(listen), List(read), List(write), marks);
  }
  std::string List(SockRec** list) const {
    return list == nullptr ? "none" : Names(list, static_cast<size_t>(work_.size), &untouched);
  }
  std::string List(std::vector<MQNode*>& array) const { return Names(array.data(), array.size(), &no_node); }
  // What is behind the terminator has to be untouched, but for the list that is compacted in place.
  template <typename Record>
  std::string Names(Record** list, size_t size, Record* none) const {
    std::string names;
    for (size_t i = 0; i < size; ++i) {
      if (list[i] == none) return names + "?";
      if (list[i] == nullptr) {
        const bool kept = std::all_of(list + i + 1, list + size, [=](const Record* r) { return r == none; });
        EXPECT_TRUE(kept || static_cast<void*>(list) == work_.writable);
        return names.empty() ? "-" : names;
      }
      names += Trace::Now().names[list[i]];
    }
    return names + "!";  // no terminator
  }

  SockPostData work_ = {};
  std::deque<Peer> peers_;
  std::deque<Node> nodes_;
};

TEST_F(WaitTest, SortsSocketsAndNodes) {
  const auto check = [this](const char* states, const std::string& post, const std::string& npost) {
    MakeAll(states);
    EXPECT_EQ(Wait(kPost), post) << states;
    EXPECT_EQ(Wait(kNPost), npost) << states;
  };
  const std::string post_none = "0 9000 | ? ? ? | ? ? ? | ", npost_none = "0 9000 | ? - ? | ? ? ? | ";
  check("", post_none, npost_none);
  check("i . -", post_none + "111", npost_none + "111");
  check("r x rx", "1 0 | ac ? b | - ac ? | 111", "1 0 | ac - b | - acb - | 111");
  check(". x - r rx x r", "1 0 | deg ? bf | - deg ? | 1111111", "1 0 | deg - bf | - degbf - | 1111111");
  check("l r - xL l", "1 0 | abe ? d | ae b ? | 11111", "1 0 | abe - d | aed b - | 11111");
  // waiting writes
  check("rw", "1 0 | a ? - | - a ? | 1", "1 0 | a a - | - a a | 3");
  check("xw", "1 0 | - ? a | - - ? | 1", "1 0 | - a a | - a a | 3");
  check("fw .w -w fw .w", post_none + "11111", "1 0 | - be - | - - be | 13113");
  check("fw r", "1 0 | b ? - | - b ? | 11", "1 0 | b - - | - b - | 11");
  check("fw", post_none + "1", "0 9000 | ? a ? | ? ? ? | 1");
  // connects that have not completed
  check(".u", post_none + "0", "1 0 | - a - | - - a | 3");
  check(".wud", post_none + "0", "1 0 | - a - | - - a | 3");
  check("rwu", "1 0 | a ? - | - a ? | 0", "1 0 | a a - | - a a | 3");
  check(".ud -u", post_none + "00", npost_none + "00");
  check(".u fw r .w ru xu", "1 0 | ce ? f | - ce ? | 011100", "1 0 | ce da f | - cef da | 311300");
  check("c", post_none + "0", "1 0 | - a - | - - a | 3");
  check("R", "1 0 | a ? - | - a ? | 0", "1 0 | a - - | - a - | 0");
  // A record of size n takes n - 1 nodes, and so many of each kind.
  Size(0);
  check("r", "0 22 | ! ! ! | ? ? ? | 1", "0 22 | ! ! ! | ? ? ? | 1");
  Size(1);
  check("r", post_none + "1", npost_none + "1");
  Size(3);
  check("rwu rwu", "1 0 | ab ? - | - ab ? | 00", "1 0 | ab ab - | - ab ab | 33");
  check("xwu .u", "1 0 | - ? a | - - ? | 00", "1 0 | - ab a | - a ab | 33");
  Size(4);
  check("r r .w .w", "1 0 | ab ? - | - ab ? | 1111", "1 0 | ab c - | - ab c | 1131");
}

// Sockets first, then nodes; the readable ones, the exceptional ones, the writable ones.
TEST_F(WaitTest, Traces) {
  MakeAll("rw x l .u .");
  Wait(kPost);
  EXPECT_EQ(Take("sn"),
            "a PostSocket:Ready; b PostSocket:Exception; c PostSocket:Ready; a mnPost::Ready; c mnPost::Ready");
  // What each finds: its place in readable, writable and exceptional; connected; open.
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
  const auto wait = [this](Family family, std::string_view absent, const char* states) {
    MakeAll(states);
    const SockPostData whole = work_;
    if (absent.find('r') != absent.npos) work_.readable = nullptr;
    if (absent.find('w') != absent.npos) work_.writable = nullptr;
    if (absent.find('x') != absent.npos) work_.exceptional = nullptr;
    const std::string outcome = Wait(family);
    work_ = whole;
    return outcome;
  };
  EXPECT_EQ(wait(kPostSocket, "r", "r rx"), "1 0 | none ? b | ? ? ? | 11");
  EXPECT_EQ(wait(kPostSocket, "x", "rx x"), "1 0 | a ? none | ? ? ? | 11");
  EXPECT_EQ(wait(kPostSocket, "r", "r"), "0 9000 | none ? ? | ? ? ? | 1");
  EXPECT_EQ(wait(kPostSocket, "w", "r"), "1 0 | a none - | ? ? ? | 1");
  EXPECT_EQ(wait(kNPostSocket, "w", ".u r"), "1 0 | b none - | ? ? ? | 01");
  EXPECT_EQ(wait(kNPostSocket, "rwx", "rxu"), "0 9000 | none none none | ? ? ? | 0");
}

// More nodes than the plain forms wait on, and more than a wait keeps at hand.
TEST_F(WaitTest, ManyNodes) {
  MakeAll("r");
  constexpr size_t kMany = 3000, kTaken = 2512;
  std::vector<MQNode> many(kMany);
  std::vector<MQNode*> list;
  for (MQNode& node : many) {
    node.sock.fd = -1;
    node.sock.owner = &node;
    list.push_back(&node);
  }
  list.push_back(nullptr);
  Size(kMany + 1);
  for (const size_t ready : {size_t{0}, kTaken - 1, kTaken, kMany - 1}) {
    many[ready].sock.fd = nodes_[0]->sock.fd;
    for (const int form : {0, 1, 2}) {
      std::vector<MQNode*> listen(kMany + 1), read(kMany + 1), write(kMany + 1);
      int status = 77;
      const int result = form == 0 ? mnPost(list.data(), listen.data(), read.data(), 0, &status)
                         : form == 1
                             ? mnNPost(list.data(), listen.data(), read.data(), write.data(), 0, &status)
                             : mnNPostEx(list.data(), listen.data(), read.data(), write.data(), 0, &status, &work_);
      const bool found = form == 2 || ready < kTaken;
      EXPECT_EQ(format("{} {}", result, status), found ? "1 0" : "0 9000") << ready;
      EXPECT_EQ(read[0], found ? &many[ready] : nullptr) << ready;
    }
    many[ready].sock.fd = -1;
  }
}

TEST_F(WaitTest, ListedTwiceOrOnlyAsAWriter) {
  MakeAll("rw");
  SockRec* const rec = &nodes_[0]->sock;
  const auto wait = [&](std::vector<SockRec*> sockets, std::vector<SockRec*> writers) {
    std::fill_n(work_.readable, work_.size, &untouched);
    std::copy(sockets.begin(), sockets.end(), work_.sockets);
    std::copy(writers.begin(), writers.end(), work_.writable);
    const PostTimeout poll = {0, 0};
    int status = 77;
    EXPECT_EQ(NPostSocket(&work_, &poll, &status), 1);
    return List(work_.readable) + " " + List(work_.writable);
  };
  EXPECT_EQ(wait({rec, rec, nullptr}, {rec, rec, nullptr}), "aa aa");
  EXPECT_EQ(wait({nullptr}, {rec, nullptr}), "- a");
  Size(2);
  MakeAll(".w .u");
  EXPECT_EQ(wait({&nodes_[1]->sock, nullptr}, {&nodes_[0]->sock, nullptr}), "- a") << "no more than fit";
}

// A node that something else owns the socket of is ready but reported by nobody.
TEST_F(WaitTest, ForeignOwners) {
  MakeAll("r .w x r");
  nodes_[0]->sock.owner = nullptr;
  nodes_[1]->sock.owner = nodes_[2]->sock.owner = nodes_[3];
  EXPECT_EQ(Wait(kNPost), "1 0 | ad b c | - d - | 1111");
  EXPECT_EQ(Take("n"), "d mnNPost::Ready");
  nodes_[3]->sock.owner = nodes_[0];
  EXPECT_EQ(Wait(kPost), "1 0 | ad ? c | - - ? | 1111");
}

// What both families hand to select, in each form. A signal ends every wait at once.
TEST_F(WaitTest, Timeouts) {
  MQNode *none[] = {nullptr}, *out[1];
  const auto limits = [&](char form, int timeout) {  // in milliseconds, seconds, or plain
    Platform::Fail("select", 1, EINTR, 2);
    int status = 0, other = 0;
    if (form == 'm') mnPostExMSec(none, out, out, timeout, &status, &work_);
    if (form == 'm') mnNPostExMSec(none, out, out, out, timeout, &other, &work_);
    if (form == 's') mnPostEx(none, out, out, timeout, &status, &work_);
    if (form == 's') mnNPostEx(none, out, out, out, timeout, &other, &work_);
    if (form == 'p') mnPost(none, out, out, timeout, &status);
    if (form == 'p') mnNPost(none, out, out, out, timeout, &other);
    return format("{} {} {}", status, other, Take("c"));
  };
  const auto both = [](const char* limit) {
    return format("4 4 select({0}s) = -1 EINTR; select({0}s) = -1 EINTR", limit);
  };
  EXPECT_EQ(limits('m', 0), both("0.000000"));
  EXPECT_EQ(limits('m', 999), both("0.999000"));
  EXPECT_EQ(limits('m', 1500), both("1.500000"));
  EXPECT_EQ(limits('m', -1), both("0.000000"));
  EXPECT_EQ(limits('m', INT32_MIN), both("0.000000"));
  EXPECT_EQ(limits('m', INT32_MAX), both("2147483.647000"));
  for (const char form : {'s', 'p'}) {
    EXPECT_EQ(limits(form, 3), both("3.000000"));
    EXPECT_EQ(limits(form, -7), both("0.000000"));
    EXPECT_EQ(limits(form, 2147483), both("2147483.000000"));
    EXPECT_EQ(limits(form, INT32_MAX), both("2147483.000000"));
  }
}

TEST_F(WaitTest, AFailedSelectTouchesNoList) {
  for (const int code : {EINTR, ENOMEM}) {
    MakeAll("rwu r");
    Platform::Fail("select", 1, code, 2);
    EXPECT_EQ(Wait(kPost), format("0 {} | ? ? ? | ? ? ? | 01", code));
    EXPECT_EQ(Wait(kNPost), format("0 {} | ? a ? | ? ? ? | 01", code));
    EXPECT_EQ(Take("sn"), "");
    const int highest = std::max(nodes_[0]->sock.fd, nodes_[1]->sock.fd);
    Wait(kPost);
    EXPECT_EQ(Platform::Records({"select"})[0].size, static_cast<size_t>(highest) + 1);
  }
  const int fd = std::exchange(nodes_[0]->sock.fd, dup(nodes_[0]->sock.fd));
  close(nodes_[0]->sock.fd);
  EXPECT_EQ(Wait(kPost), "0 9 | ? ? ? | ? ? ? | 01") << "a descriptor that was closed elsewhere";
  nodes_[0]->sock.fd = fd;
}

// The lists and records count as they are when their turn comes.
TEST_F(WaitTest, CallbacksMayCloseOrReplaceLaterSockets) {
  for (const Family family : {kPostSocket, kNPostSocket}) {
    MakeAll("r r r r");
    const int other = nodes_[2]->sock.fd;
    Trace::Now().on_socket = [&](std::string_view point, const SockRec* rec) {
      if (rec != &nodes_[0]->sock || point == "DeleteSocket") return;
      DeleteSocket(&nodes_[1]->sock);
      nodes_[2]->sock.fd = 1 << 20;  // far outside the sets of this wait
    };
    EXPECT_EQ(Wait(family).substr(0, 9), "1 0 | ad ");
    nodes_[2]->sock.fd = other;

    Trace::Now().on_socket = nullptr;
    MakeAll("r . r r");
    const int quiet = nodes_[1]->sock.fd;
    Trace::Now().on_socket = [&](std::string_view, const SockRec* rec) {
      if (rec == &nodes_[0]->sock) nodes_[1]->sock.fd = nodes_[2]->sock.fd;
      if (rec == &nodes_[2]->sock) work_.sockets[3] = nullptr;
    };
    EXPECT_EQ(Wait(family).substr(0, 10), "1 0 | abc ");
    Trace::Now().on_socket = nullptr;
    nodes_[1]->sock.fd = quiet;
  }
}

// ---- Descriptors of 1024 and above ----

TEST_F(WaitTest, HighDescriptors) {
  constexpr int kHighest = 3500;
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  if (before.rlim_max < kHighest + 1) GTEST_SKIP() << "the hard limit of open files is " << before.rlim_max;
  const rlimit more = {std::max<rlim_t>(before.rlim_cur, kHighest + 1), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
  // Numbers of the descriptors; 0: whatever it is.
  const auto make = [this](const char* states, std::initializer_list<int> numbers) {
    MakeAll(states);
    for (size_t i = 0; i < numbers.size(); ++i) {
      const int number = numbers.begin()[i];
      if (number != 0) close(std::exchange(nodes_[i]->sock.fd, dup2(nodes_[i]->sock.fd, number)));
    }
  };
  make("r . x", {1024, 1025, 1026});
  EXPECT_EQ(Wait(kPost), "1 0 | a ? c | - a ? | 111");
  make("r x r", {kHighest, 1024, 0});
  EXPECT_EQ(Wait(kPost), "1 0 | ac ? b | - ac ? | 111");
  make(". .", {1087, 2048});
  EXPECT_EQ(Wait(kPost), "0 9000 | ? ? ? | ? ? ? | 11");
  EXPECT_EQ(Wait(kNPost), "0 9000 | ? - ? | ? ? ? | 11");
  make(".w", {kHighest});
  EXPECT_EQ(Wait(kNPost), "1 0 | - a - | - - a | 3");
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
  nodes_.clear();
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(WaitTest, WorkRecordsAreSetUpAndReleased) {
  for (int nth = 1; nth <= 8; ++nth) {
    SockPostData work, empty = {};
    memset(&work, 0x5a, sizeof work);
    Platform::Fail("malloc", nth, ENOMEM);
    EXPECT_EQ(InitSocketPostData(&work, SOCK_POST_SIZE), nth == 8);
    EXPECT_EQ(work.size, 2513);
    const void* const fields[] = {work.sockets, work.readable, work.writable, work.exceptional,
                                  work.readSet, work.writeSet, work.exceptSet};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(fields[i] != nullptr, i + 1 < nth) << "field " << i;
    if (nth == 8) work.writable[SOCK_POST_SIZE - 1] = nullptr;
    FreeSocketPostData(&work);
    FreeSocketPostData(&work);
    EXPECT_EQ(memcmp(&work, &empty, sizeof work), 0);
    Platform::Mend();
  }
}

TEST_F(WaitTest, PendingConnects) {
  MakeAll("c R");
  EXPECT_EQ(Wait(kNPost), "1 0 | b a - | - b a | 30");
  EXPECT_EQ(mnOpen(nodes_[0]), 1);
  // A refused connect is readable as well: it stays unopened, and the first transfer says why.
  const Message in;
  EXPECT_EQ(mnRead(in, nodes_[1]), 0);
  EXPECT_EQ(nodes_[1]->error, ECONNREFUSED);
  nodes_.pop_back();
  EXPECT_EQ(Wait(kNPost), "0 9000 | ? - ? | ? ? ? | 3") << "not watched for writing any more";
}

}  // namespace
