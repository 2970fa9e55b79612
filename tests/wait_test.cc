// wait_test.cc - the readiness wait over real sockets. Cases are written as the state of each socket and read as the
// lists that came back.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <span>
#include <sstream>

#include "tests/support/fixture.hh"

namespace {

enum class Family { kPost, kNPost };
constexpr PostTimeout kPoll = {0, 0};
constexpr PostTimeout kPatient = {0, 10};

SockRec untouched;  // what output lists hold before a wait

// Sockets are named a, b, c ... in the order of their making. State letters of one socket:
//   r data to read   x urgent data   f too full to write   . none of these   - no descriptor
//   w in the list of waiting writes   u connect not completed (connected 0)   d datagram type
class WaitTest : public Fixture {
 protected:
  WaitTest() { EXPECT_EQ(InitSocketPostData(&work_, 8), 1); }
  ~WaitTest() override {
    FreeSocketPostData(&work_);
    for (SockRec& rec : sockets_) DeleteSocket(&rec);
  }

  void Size(int size) {
    FreeSocketPostData(&work_);
    ASSERT_EQ(InitSocketPostData(&work_, size), 1);
  }

  SockRec& Add(int fd) {
    SockRec& rec = sockets_.emplace_back();
    CreateSocketFromExisting(&rec, fd);
    OnSocketTrace(&rec, Trace::OnSocket);
    Trace::Name(&rec, std::string(1, static_cast<char>('a' + sockets_.size() - 1)));
    rec.connected = 1;
    return rec;
  }

  void Make(const std::string& states) {
    Peer& peer = peers_.emplace_back();
    const bool none = states.find('-') != std::string::npos;
    SockRec& rec = Add(none ? -1 : Connected(&peer));
    const auto has = [&states](char letter) { return states.find(letter) != std::string::npos; };
    if (has('r')) peer.Send("data");
    if (has('x')) peer.SendUrgent('!');
    if (has('f')) Fill(rec.fd);
    if (has('w')) writers_.push_back(&rec);
    if (has('u')) rec.connected = 0;
    if (has('d')) rec.type = SOCK_TYPE_DATAGRAM;
    if (has('x')) AwaitUrgent(rec.fd);
    if (has('r')) AwaitReadable(rec.fd);
  }
  void MakeAll(const char* states) {
    for (SockRec& rec : sockets_) DeleteSocket(&rec);
    sockets_.clear();
    peers_.clear();
    writers_.clear();
    std::istringstream words(states);
    for (std::string word; words >> word;) Make(word);
  }

  // One wait over all sockets. "result status | readable | writable | exceptional"; a list that is untouched reads "?",
  // an absent one "none".
  std::string Wait(Family family, const PostTimeout& timeout = kPatient) {
    for (SockRec** list : {work_.readable, work_.exceptional, work_.writable}) {
      for (int i = 0; list != nullptr && i < work_.size; ++i) list[i] = &untouched;
    }
    size_t count = 0;
    for (SockRec& rec : sockets_) work_.sockets[count++] = &rec;
    work_.sockets[count] = nullptr;
    if (family == Family::kNPost && work_.writable != nullptr) {
      count = 0;
      for (SockRec* rec : writers_) work_.writable[count++] = rec;
      work_.writable[count] = nullptr;
    }
    Trace::Take();
    Platform::Forget();
    int status = 77;
    const int result = (family == Family::kPost ? PostSocket : NPostSocket)(&work_, &timeout, &status);
    return std::to_string(result) + " " + std::to_string(status) + " | " + List(work_.readable) + " | " +
           List(work_.writable) + " | " + List(work_.exceptional);
  }

  std::string List(SockRec** list) const {
    if (list == nullptr) return "none";
    std::string names;
    for (int i = 0; i < work_.size; ++i) {
      if (list[i] == nullptr) return names.empty() ? "-" : names;
      if (list[i] == &untouched) return names + "?";
      for (size_t at = 0; at < sockets_.size(); ++at) {
        if (&sockets_[at] == list[i]) names += static_cast<char>('a' + at);
      }
    }
    return names + "!";  // no terminator
  }

  std::string ConnectedFlags() const {
    std::string flags;
    for (const SockRec& rec : sockets_) flags += static_cast<char>('0' + rec.connected);
    return flags;
  }

  struct Row {
    const char *states, *result, *connected;
    Lines trace;
  };
  void Check(Family family, std::span<const Row> rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.states);
      MakeAll(row.states);
      EXPECT_EQ(Wait(family, kPoll), row.result);
      EXPECT_EQ(ConnectedFlags(), row.connected);
      EXPECT_EQ(Trace::Take(), row.trace);
    }
  }

  // Moves a socket's descriptor to this number.
  static void MoveTo(SockRec& rec, int number) {
    ASSERT_EQ(dup2(rec.fd, number), number);
    close(rec.fd);
    rec.fd = number;
  }

  static int Connected(Peer* other) {
    const Peer listener = Peer::Listen();
    Peer mine = Peer::Connect(listener.port());
    *other = listener.Accept();
    return mine.Release();
  }
  static void Fill(int fd) {
    const std::string piece(1 << 16, 'f');
    while (send(fd, piece.data(), piece.size(), MSG_DONTWAIT) > 0) {
    }
  }

  SockPostData work_;
  std::deque<SockRec> sockets_;
  std::deque<Peer> peers_;
  std::vector<SockRec*> writers_;
};

TEST_F(WaitTest, PostListsReadableAndExceptional) {
  const Row rows[] = {
      {"r", "1 0 | a | ? | -", "1", {"a PostSocket:Ready"}},
      {"x", "1 0 | - | ? | a", "1", {"a PostSocket:Exception"}},
      {"rx", "1 0 | a | ? | -", "1", {"a PostSocket:Ready"}},
      {". x - r rx x r",
       "1 0 | deg | ? | bf",
       "1111111",
       {"b PostSocket:Exception", "d PostSocket:Ready", "e PostSocket:Ready", "f PostSocket:Exception",
        "g PostSocket:Ready"}},
      {". - .u .w", "0 9000 | ? | ? | ?", "1101", {}},
      {"- -", "0 9000 | ? | ? | ?", "11", {}},
      {"", "0 9000 | ? | ? | ?", "", {}},
  };
  Check(Family::kPost, rows);
}

TEST_F(WaitTest, NPostListsWritesToo) {
  const Row rows[] = {
      {"r x rx", "1 0 | ac | - | b", "111", {"a NPostSocket:Ready", "b NPostSocket:Exception", "c NPostSocket:Ready"}},
      // waiting writes
      {".w", "1 0 | - | a | -", "1", {"a NPostSocket:Write"}},
      {"rw", "1 0 | a | a | -", "1", {"a NPostSocket:Write", "a NPostSocket:Ready"}},
      {"xw", "1 0 | - | a | a", "1", {"a NPostSocket:Write", "a NPostSocket:Exception"}},
      {"fw .w -w fw .w", "1 0 | - | be | -", "11111", {"b NPostSocket:Write", "e NPostSocket:Write"}},
      {"fw r", "1 0 | b | - | -", "11", {"b NPostSocket:Ready"}},
      {"fw", "0 9000 | ? | a | ?", "1", {}},
      {".", "0 9000 | ? | - | ?", "1", {}},
      {"", "0 9000 | ? | - | ?", "", {}},
      // connects that have not completed
      {".u", "1 0 | - | a | -", "1", {"a NPostSocket:Write"}},
      {".wu", "1 0 | - | a | -", "1", {"a NPostSocket:Write"}},
      {".wud", "1 0 | - | a | -", "1", {"a NPostSocket:Write"}},
      {"ru", "1 0 | a | - | -", "0", {"a NPostSocket:Ready"}},
      {"xu", "1 0 | - | - | a", "0", {"a NPostSocket:Exception"}},
      {"rwu", "1 0 | a | a | -", "1", {"a NPostSocket:Write", "a NPostSocket:Ready"}},
      {".ud", "0 9000 | ? | - | ?", "0", {}},
      {"-u", "0 9000 | ? | - | ?", "0", {}},
      {".u fw r .w ru xu",
       "1 0 | ce | da | f",
       "111100",
       {"d NPostSocket:Write", "a NPostSocket:Write", "c NPostSocket:Ready", "e NPostSocket:Ready",
        "f NPostSocket:Exception"}},
  };
  Check(Family::kNPost, rows);
}

TEST_F(WaitTest, AnAbsentListIsNotWatched) {
  const struct {
    Family family;
    const char* absent;  // r, w, x
    const char *states, *result;
  } rows[] = {
      {Family::kPost, "r", "r rx", "1 0 | none | ? | b"},
      {Family::kPost, "x", "rx x", "1 0 | a | ? | none"},
      {Family::kPost, "r", "r", "0 9000 | none | ? | ?"},
      {Family::kPost, "w", "r", "1 0 | a | none | -"},
      {Family::kNPost, "w", ".u r", "1 0 | b | none | -"},
      {Family::kNPost, "w", ".u", "0 9000 | ? | none | ?"},
      {Family::kNPost, "r", "ru rx", "1 0 | none | a | b"},
      {Family::kNPost, "x", "xu x", "1 0 | - | a | none"},
      {Family::kNPost, "rwx", "rxu", "0 9000 | none | none | none"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.states << " without " << row.absent);
    MakeAll(row.states);
    const SockPostData whole = work_;
    if (strchr(row.absent, 'r') != nullptr) work_.readable = nullptr;
    if (strchr(row.absent, 'w') != nullptr) work_.writable = nullptr;
    if (strchr(row.absent, 'x') != nullptr) work_.exceptional = nullptr;
    EXPECT_EQ(Wait(row.family, kPoll), row.result);
    work_ = whole;
  }
}

TEST_F(WaitTest, AListMayBeExactlyFull) {
  Size(3);
  MakeAll("rwu rwu");
  EXPECT_EQ(Wait(Family::kPost), "1 0 | ab | ? | -");
  EXPECT_EQ(Wait(Family::kNPost), "1 0 | ab | ab | -");
  MakeAll("xwu .u");
  EXPECT_EQ(Wait(Family::kNPost), "1 0 | - | ab | a");
  Size(1);
  MakeAll("");
  EXPECT_EQ(Wait(Family::kNPost, kPoll), "0 9000 | ? | - | ?");
  Size(0);
  int status = 77;
  EXPECT_EQ(NPostSocket(&work_, &kPoll, &status), 0);
  EXPECT_EQ(status, EINVAL) << "no list is looked into";
}

TEST_F(WaitTest, ASocketListedTwiceIsReportedTwice) {
  MakeAll("rw");
  SockRec* const rec = &sockets_[0];
  work_.sockets[0] = work_.sockets[1] = rec;
  work_.writable[0] = work_.writable[1] = rec;
  work_.sockets[2] = work_.writable[2] = nullptr;
  int status = 77;
  EXPECT_EQ(NPostSocket(&work_, &kPatient, &status), 1);
  EXPECT_EQ(List(work_.readable) + " " + List(work_.writable), "aa aa");
}

// More sockets than a wait keeps at hand.
TEST_F(WaitTest, AListMayBeLongerThanThePlainForms) {
  constexpr int kMany = SOCK_POST_SIZE + 10;
  Size(kMany + 1);
  MakeAll("r . -");
  std::fill_n(work_.sockets, kMany, &sockets_[1]);
  work_.sockets[kMany - 3] = &sockets_[2];
  for (const int at : {0, kMany - 2, kMany - 1}) work_.sockets[at] = &sockets_[0];
  work_.sockets[kMany] = nullptr;
  int status = 77;
  EXPECT_EQ(PostSocket(&work_, &kPatient, &status), 1);
  EXPECT_EQ(List(work_.readable), "aaa");
}

TEST_F(WaitTest, EntriesBehindTheTerminatorStay) {
  MakeAll("r r");
  work_.sockets[0] = &sockets_[0];
  work_.sockets[1] = nullptr;
  for (int i = 0; i < 8; ++i) work_.readable[i] = work_.exceptional[i] = &untouched;
  int status = 77;
  EXPECT_EQ(PostSocket(&work_, &kPatient, &status), 1);
  EXPECT_EQ(work_.readable[1], nullptr);
  EXPECT_EQ(work_.readable[2], &untouched);
  EXPECT_EQ(work_.exceptional[0], nullptr);
  EXPECT_EQ(work_.exceptional[1], &untouched);
}

TEST_F(WaitTest, TimeoutAndDescriptorCountReachSelect) {
  const struct {
    const char* states;
    PostTimeout timeout;
    const char* call;
  } rows[] = {
      {"", {0, 0}, "select(0.000000s) = -1 EINTR"},
      {"-", {250, 1}, "select(1.250000s) = -1 EINTR"},
      {". - .", {999, 0}, "select(0.999000s) = -1 EINTR"},
      {".w .", {0, 2147483}, "select(2147483.000000s) = -1 EINTR"},
  };
  for (const Family family : {Family::kPost, Family::kNPost}) {
    for (const auto& row : rows) {
      MakeAll(row.states);
      int highest = 0;
      for (const SockRec& rec : sockets_) highest = std::max(highest, rec.fd);
      Platform::Fail("select", 1, EINTR);
      Wait(family, row.timeout);
      EXPECT_EQ(Platform::Calls(), Lines{row.call});
      EXPECT_EQ(Platform::Records().back().size, static_cast<size_t>(highest) + 1);
    }
  }
  // A socket that waits to write without being in the main list still counts.
  MakeAll(".w");
  SockRec* const writer = &sockets_[0];
  work_.sockets[0] = nullptr;
  work_.writable[0] = writer;
  work_.writable[1] = nullptr;
  int status = 77;
  EXPECT_EQ(NPostSocket(&work_, &kPatient, &status), 1);
  EXPECT_EQ(List(work_.writable), "a");
}

TEST_F(WaitTest, AFailedSelectTouchesNoList) {
  MakeAll("rwu r");
  for (const int code : {EINTR, ENOMEM}) {
    for (const Family family : {Family::kPost, Family::kNPost}) {
      Platform::Fail("select", 1, code);
      const std::string writable = family == Family::kPost ? "?" : "a";
      EXPECT_EQ(Wait(family), "0 " + std::to_string(code) + " | ? | " + writable + " | ?");
      EXPECT_EQ(Trace::Take(), Lines{});
      EXPECT_EQ(ConnectedFlags(), "01");
    }
  }
  const int closed = dup(sockets_[0].fd);
  close(closed);
  Add(closed);
  EXPECT_EQ(Wait(Family::kPost), "0 9 | ? | ? | ?") << "a descriptor that was closed elsewhere";
  sockets_.pop_back();
}

// ---- Trace callbacks ----

TEST_F(WaitTest, CallbacksFindTheirSocketListedAndMarked) {
  MakeAll(".wu .u r x");
  Lines seen;
  Trace::on_socket = [&](std::string_view, SockRec* rec) {
    std::string counts;
    for (SockRec** list : {work_.readable, work_.writable, work_.exceptional}) {
      int at = 0;
      while (at < work_.size && list[at] != rec) ++at;
      counts += at < work_.size ? static_cast<char>('0' + at) : '-';
    }
    seen.push_back(counts + " " + std::to_string(rec->connected));
  };
  EXPECT_EQ(Wait(Family::kNPost), "1 0 | c | ab | d");
  EXPECT_EQ(seen, (Lines{"-0- 1", "-1- 1", "0-- 1", "--0 1"}));
}

TEST_F(WaitTest, CallbacksMayCloseOrReplaceLaterSockets) {
  MakeAll("r r r r");
  const int other = sockets_[2].fd;
  Trace::on_socket = [&](std::string_view point, SockRec* rec) {
    if (rec != &sockets_[0] || point != "PostSocket:Ready") return;
    DeleteSocket(&sockets_[1]);
    sockets_[2].fd = 1 << 20;  // far outside the sets of this wait
  };
  EXPECT_EQ(Wait(Family::kPost), "1 0 | ad | ? | -");
  sockets_[2].fd = other;

  // The lists and records count as they are when their turn comes.
  for (const Family family : {Family::kPost, Family::kNPost}) {
    MakeAll("r . r r");
    const int quiet = sockets_[1].fd;
    Trace::on_socket = [&](std::string_view, SockRec* rec) {
      if (rec == &sockets_[0]) sockets_[1].fd = sockets_[2].fd;
      if (rec == &sockets_[2]) work_.sockets[3] = nullptr;
    };
    EXPECT_EQ(Wait(family), family == Family::kPost ? "1 0 | abc | ? | -" : "1 0 | abc | - | -");
    Trace::on_socket = nullptr;
    sockets_[1].fd = quiet;
  }
}

// ---- Descriptors of 1024 and above ----

class HighDescriptorTest : public WaitTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    rlimit more = before_;
    if (more.rlim_max < kHighest + 1) GTEST_SKIP() << "the hard limit of open files is " << more.rlim_max;
    more.rlim_cur = std::max<rlim_t>(more.rlim_cur, kHighest + 1);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
  }
  void TearDown() override {
    for (SockRec& rec : sockets_) DeleteSocket(&rec);
    setrlimit(RLIMIT_NOFILE, &before_);
    WaitTest::TearDown();
  }
  void MakeAt(const char* states, std::initializer_list<int> numbers) {
    MakeAll(states);
    size_t at = 0;
    for (const int number : numbers) {
      if (number > 0) MoveTo(sockets_[at], number);
      ++at;
    }
  }

  static constexpr int kHighest = 3500;
  rlimit before_;
};

TEST_F(HighDescriptorTest, AreWaitedOnLikeOthers) {
  const struct {
    Family family;
    const char* states;
    std::initializer_list<int> numbers;
    const char* result;
  } rows[] = {
      {Family::kPost, "r . x", {1024, 1025, 1026}, "1 0 | a | ? | c"},
      {Family::kPost, "r . r", {0, 1500, kHighest}, "1 0 | ac | ? | -"},
      {Family::kPost, "r x r", {kHighest, 1024, 0}, "1 0 | ac | ? | b"},
      {Family::kPost, ". .", {1087, 2048}, "0 9000 | ? | ? | ?"},
      {Family::kNPost, "fw .w .u rw ru", {1030, 2100, 1023, kHighest, 1024}, "1 0 | de | bdc | -"},
      {Family::kNPost, ".w", {kHighest}, "1 0 | - | a | -"},
      {Family::kNPost, ".u ru .", {1500, kHighest, 1024}, "1 0 | b | a | -"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.result);
    MakeAt(row.states, row.numbers);
    EXPECT_EQ(Wait(row.family, kPoll), row.result);
    EXPECT_EQ(Wait(row.family, kPoll).substr(0, 2), std::string(row.result).substr(0, 2)) << "and once more";
  }
}

TEST_F(HighDescriptorTest, NoMemoryForTheSetsIsEnomem) {
  for (const Family family : {Family::kPost, Family::kNPost}) {
    for (int nth = 1; nth <= 2; ++nth) {
      SCOPED_TRACE(nth);
      MakeAt("rwu rwu", {1024, kHighest});
      Platform::Fail("calloc", nth, ENOMEM);
      const std::string writable = family == Family::kPost ? "?" : "ab";
      EXPECT_EQ(Wait(family), "0 12 | ? | " + writable + " | ?");
      EXPECT_TRUE(Platform::FailureWasUsed());
      EXPECT_EQ(Platform::Calls(), Lines{}) << "no select";
      EXPECT_EQ(ConnectedFlags(), "00");
      EXPECT_EQ(Wait(family).substr(0, 3), "1 0") << "the next wait is as if nothing had happened";
    }
  }
}

// ---- The work record ----

bool IsEmpty(const SockPostData& work) {
  const SockPostData empty = {};
  return memcmp(&work, &empty, sizeof work) == 0;
}

TEST_F(WaitTest, WorkRecordsAreSetUpAndReleased) {
  SockPostData work;
  memset(&work, 0x5a, sizeof work);
  EXPECT_EQ(InitSocketPostData(&work, SOCK_POST_SIZE), 1);
  EXPECT_EQ(work.size, 2513);
  work.writable[SOCK_POST_SIZE - 1] = nullptr;
  FreeSocketPostData(&work);
  EXPECT_TRUE(IsEmpty(work));
  FreeSocketPostData(&work);
  EXPECT_TRUE(IsEmpty(work));
}

TEST_F(WaitTest, WorkRecordsWithoutMemory) {
  for (int nth = 1; nth <= 7; ++nth) {
    SCOPED_TRACE(nth);
    SockPostData work;
    memset(&work, 0x5a, sizeof work);
    Platform::Fail("malloc", nth, ENOMEM);
    EXPECT_EQ(InitSocketPostData(&work, 5), 0);
    EXPECT_EQ(work.size, 5);
    const void* const fields[] = {work.sockets, work.readable, work.writable, work.exceptional,
                                  work.readSet, work.writeSet, work.exceptSet};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(fields[i] != nullptr, i + 1 < nth) << "field " << i;
    FreeSocketPostData(&work);
    EXPECT_TRUE(IsEmpty(work));
  }
}

}  // namespace
