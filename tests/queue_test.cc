// queue_test.cc - the queue, driven by short scripts; its content is compared as seen by a walk from head to tail.
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
  for (const QueueEntry* entry = q->head; entry != nullptr; last = entry, entry = entry->next) {
    letters += Letter(entry->item);
  }
  EXPECT_EQ(q->tail, last);
  EXPECT_EQ(q->count, static_cast<int>(letters.size()));
  return letters;
}

// +x Qput, ^x QputHigh, <x Qputhead, -x Qremove, . Qget, s Qstart, n Qnext, ? IsQReady. Returns their results.
std::string Play(Queue* q, std::string_view script) {
  std::string given;
  for (size_t i = 0; i < script.size(); ++i) {
    const char action = script[i];
    if (action == '.') given += Letter(Qget(q));
    if (action == 's') Qstart(q);
    if (action == 'n') given += Letter(Qnext(q));
    if (action == '?') given += static_cast<char>('0' + IsQReady(q));
    if (action == '+') Qput(q, Item(script[++i]));
    if (action == '^') QputHigh(q, Item(script[++i]));
    if (action == '<') Qputhead(q, Item(script[++i]));
    if (action == '-') Qremove(q, Item(script[++i]));
    if (q != nullptr) Contents(q);
  }
  return given;
}

class QueueTest : public Fixture {};

TEST_F(QueueTest, Scripts) {
  const struct {
    const char *script, *given, *left;
    int limit = -1;
  } rows[] = {
      {"+b^a.", "b", "a"},
      {"<a+b<c", "", "cab"},
      {"+a..<b+c.", "a-b", "c"},
      // removals: the only one; middle, twice in a row; head, tail, all
      {"-a+a-a+b", "", "b"},
      {"+a+b+b+c-b+d", "", "acd"},
      {"+a+b+a+c+a-a+d", "", "bcd"},
      // the cursor: never started, at the end, not moved by puts
      {"n+a+bs<z+cnnnn+dn", "-abc--", "zabcd"},
      {"+as.sn", "a-", ""},
      // the limit only answers IsQReady
      {"?+a+b?", "11", "ab"},
      {"?+a?+b?", "110", "ab", 1},
      {"?", "0", "", -2},
  };
  for (const auto& row : rows) {
    Queue* q = Qalloc();
    SetQLimit(q, row.limit);
    EXPECT_EQ(GetQLimit(q), row.limit);
    EXPECT_EQ(Play(q, row.script), row.given) << row.script;
    EXPECT_EQ(Contents(q), row.left) << row.script;
    while (Qdepth(q) > 0) Qget(q);
    Qfree(&q);
  }
}

TEST_F(QueueTest, NullQueue) {
  EXPECT_EQ(Printed([] {
              EXPECT_EQ(Play(nullptr, "+a^a.<a-asn?"), "--1");
              SetQLimit(nullptr, 5);
              EXPECT_EQ(format("{} {}", Qdepth(nullptr), GetQLimit(nullptr)), "0 -1");
              Queue* none = nullptr;
              Qfree(&none);
              Qfree(nullptr);
            }),
            "Qput: null Queue input\nQput: null Queue input\nQget: null Queue input\nQputhead: null Queue input\n");
}

TEST_F(QueueTest, EachRecordHasItsTagAndQfreeReleasesItems) {
  void *first = nullptr, *second = nullptr;
  ASSERT_TRUE(fNewMemory(&first, 40, "TESTITEM") && fNewMemory(&second, 40, "TESTITEM"));
  Queue* q = Qalloc();
  EXPECT_EQ(GetQLimit(q), -1);
  Qput(q, first);
  Qput(q, nullptr);
  Qputhead(q, second);
  using Blocks = std::map<std::string, uint64_t>;
  EXPECT_EQ(LiveBlocks(), (Blocks{{"QALLOC", 1}, {"QPUT", 2}, {"QPUTHEAD", 1}, {"TESTITEM", 2}}));
  Qfree(&q);
  EXPECT_EQ(q, nullptr);
  EXPECT_EQ(LiveBlocks(), Blocks());
}

}  // namespace
