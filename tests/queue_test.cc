// queue_test.cc - the queue, driven by little scripts and compared as the list that a walk from head to tail sees.
#include "queue/queue.h"

#include "tests/support/fixture.hh"

namespace {

// Items are letters: a pointer into this text.
const char kItems[] = "abcdefghijklmnopqrstuvwxyz";

void* Item(char letter) { return const_cast<char*>(kItems + (letter - 'a')); }

char Letter(const void* item) { return item == nullptr ? '-' : *static_cast<const char*>(item); }

// The letters from head to tail, after the queue's invariants were checked.
std::string Contents(const Queue* q) {
  std::string letters;
  const QueueEntry* last = nullptr;
  for (const QueueEntry* entry = q->head; entry != nullptr; entry = entry->next) {
    letters += Letter(entry->item);
    last = entry;
  }
  EXPECT_EQ(q->tail, last);
  EXPECT_EQ(q->count, static_cast<int>(letters.size()));
  return letters;
}

class QueueTest : public Fixture {
 protected:
  QueueTest() : q_(Qalloc()) {}
  ~QueueTest() override {
    while (Qdepth(q_) > 0) Qget(q_);
    Qfree(&q_);
  }

  // +x Qput, ^x QputHigh, <x Qputhead, -x Qremove, . Qget. Returns what the gets gave.
  std::string Run(std::string_view script) {
    std::string gets;
    for (size_t i = 0; i < script.size(); ++i) {
      switch (script[i]) {
        case '+':
          Qput(q_, Item(script[++i]));
          break;
        case '^':
          QputHigh(q_, Item(script[++i]));
          break;
        case '<':
          Qputhead(q_, Item(script[++i]));
          break;
        case '-':
          Qremove(q_, Item(script[++i]));
          break;
        default:
          gets += Letter(Qget(q_));
      }
      Contents(q_);
    }
    return gets;
  }

  Queue* q_;
};

TEST_F(QueueTest, OrderOfWhatGoesInAndComesOut) {
  const struct {
    const char *script, *gets, *left;
  } rows[] = {
      {".", "-", ""},
      {"+a+b<c...", "cab", ""},
      {"+b^a.", "b", "a"},
      {"<a+b", "", "ab"},
      {"<a<b<c", "", "cba"},
      {"+a.+b+c", "a", "bc"},
      {"+a..<b+c.", "a-b", "c"},
      // removals: head, middle, tail, the only one, twice in a row, all, none
      {"+a+b+c-a", "", "bc"},
      {"+a+b+c-b+d", "", "acd"},
      {"+a+b+c-c+d", "", "abd"},
      {"+a-a+b", "", "b"},
      {"+a+b+b+c-b+d", "", "acd"},
      {"+a+b+a+c+a-a", "", "bc"},
      {"+a+a-a.<b", "-", "b"},
      {"+a+b-c", "", "ab"},
      {"-a", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.script);
    EXPECT_EQ(Run(row.script), row.gets);
    EXPECT_EQ(Contents(q_), row.left);
    while (Qdepth(q_) > 0) Qget(q_);
  }
}

TEST_F(QueueTest, CursorWalksFromHeadToTailAndStaysAtTheEnd) {
  EXPECT_EQ(Qnext(q_), nullptr);
  Run("+a+b+c");
  EXPECT_EQ(Qnext(q_), nullptr) << "the cursor was never started";
  Qstart(q_);
  std::string seen;
  while (void* item = Qnext(q_)) seen += Letter(item);
  EXPECT_EQ(seen, "abc");
  Run("+d");
  EXPECT_EQ(Qnext(q_), nullptr) << "an item put after the walk ended is for the next walk";
  Qstart(q_);
  Run("<z+e");
  EXPECT_EQ(Letter(Qnext(q_)), 'a') << "puts do not move the cursor";
}

TEST_F(QueueTest, LimitOnlyAnswersIsQReady) {
  const struct {
    int limit, count, ready;
  } rows[] = {{-1, 0, 1}, {-1, 3, 1}, {0, 0, 1}, {0, 1, 0}, {2, 2, 1}, {2, 3, 0}, {-2, 0, 0}, {-2, 1, 0}};
  EXPECT_EQ(GetQLimit(q_), -1);
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "limit " << row.limit << ", count " << row.count);
    SetQLimit(q_, row.limit);
    EXPECT_EQ(GetQLimit(q_), row.limit);
    while (Qdepth(q_) < row.count) Qput(q_, Item('a'));
    EXPECT_EQ(IsQReady(q_), row.ready);
    while (Qdepth(q_) > 0) Qget(q_);
  }
}

TEST_F(QueueTest, NullQueue) {
  EXPECT_EQ(Printed([] {
              Qput(nullptr, Item('a'));
              QputHigh(nullptr, Item('a'));
              EXPECT_EQ(Qget(nullptr), nullptr);
              Qputhead(nullptr, Item('a'));
            }),
            "Qput: null Queue input\nQput: null Queue input\nQget: null Queue input\nQputhead: null Queue input\n");
  EXPECT_EQ(Printed([] {
              Qremove(nullptr, Item('a'));
              Qstart(nullptr);
              EXPECT_EQ(Qnext(nullptr), nullptr);
              EXPECT_EQ(Qdepth(nullptr), 0);
              SetQLimit(nullptr, 5);
              EXPECT_EQ(GetQLimit(nullptr), -1);
              EXPECT_EQ(IsQReady(nullptr), 1);
              Queue* none = nullptr;
              Qfree(&none);
              Qfree(nullptr);
            }),
            "");
}

TEST_F(QueueTest, EachRecordHasItsTagAndQfreeReleasesItems) {
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_TRUE(fNewMemory(&first, 40, "TESTITEM"));
  ASSERT_TRUE(fNewMemory(&second, 40, "TESTITEM"));
  Queue* q = Qalloc();
  Qput(q, first);
  Qput(q, nullptr);
  Qputhead(q, second);
  const std::map<std::string, uint64_t> filled = {{"QALLOC", 2}, {"QPUT", 2}, {"QPUTHEAD", 1}, {"TESTITEM", 2}};
  EXPECT_EQ(LiveBlocks(), filled);
  Qfree(&q);
  EXPECT_EQ(q, nullptr);
  Qfree(&q);
  const std::map<std::string, uint64_t> released = {{"QALLOC", 1}};
  EXPECT_EQ(LiveBlocks(), released);
}

}  // namespace
