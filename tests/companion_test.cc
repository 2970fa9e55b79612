// companion_test.cc - the companion runtime: memory, buffers, text, messages and the log.
// Not here: keys and signatures (companion_security_test.cc).
#include <fcntl.h>
#include <fmt/ranges.h>
#include <pwd.h>
#include <sys/socket.h>

#include <random>
#include <regex>

#include "tests/support/records.hh"

// The time of day that the companion sees; null: the system's.
static const timespec* present;

extern "C" int clock_gettime(clockid_t clock, timespec* out) noexcept {
  if (present == nullptr || clock != CLOCK_REALTIME) return static_cast<int>(syscall(SYS_clock_gettime, clock, out));
  *out = *present;
  return 0;
}

namespace {

class CompanionTest : public Fixture {};

// ---- Memory ----

std::string Text(const MqcMemory& it) {
  return format("{} of {}, peak {}, {} bytes", it.live_blocks, it.total_blocks, it.peak_blocks, it.live_bytes);
}

// In any order of release: blocks do not overlap, records are zeroed, areas are aligned to 64 bytes.
TEST_F(CompanionTest, BlocksStayApartAndAreCounted) {
  struct Block {
    bool is_record;
    int fill;
    IoBuffer area;  // for a record, only data is used
    bool IsFilled(int byte) const { return std::count(area.data, area.data + area.length, byte) == area.length; }
  };
  std::vector<Block> blocks;
  std::mt19937 random(1);
  MqcMemory records = {};
  for (int step = 0; step < 8000 || !blocks.empty(); ++step) {
    if (step < 8000 && blocks.size() < 60 && random() % 5 < 3) {
      const auto size = static_cast<uint32_t>(random() % 2 != 0 ? 32 : random() % (random() % 40 == 0 ? 100000 : 2300));
      Block block = {random() % 2 != 0, (step | 1) & 0xff, {nullptr, size, size, 0, 0, 0}};
      if (block.is_record) {
        ASSERT_TRUE(fNewMemory(reinterpret_cast<void**>(&block.area.data), size, "block") && block.IsFilled(0));
        records.peak_blocks = std::max(++records.live_blocks, records.peak_blocks);
        records.total_blocks += 1, records.live_bytes += size;
      } else {
        CreateBuffer(&block.area, size);
      }
      ASSERT_EQ(reinterpret_cast<uintptr_t>(block.area.data) % (block.is_record ? 16 : 64), 0u) << size;
      memset(block.area.data, block.fill, size);
      blocks.push_back(block);
    } else if (!blocks.empty()) {
      std::swap(blocks[random() % blocks.size()], blocks.back());
      Block block = blocks.back();
      blocks.pop_back();
      ASSERT_TRUE(block.IsFilled(block.fill));
      if (block.is_record) records.live_blocks -= 1, records.live_bytes -= block.area.length;
      block.is_record ? FreeMemory(block.area.data) : DeleteBuffer(&block.area);
    }
    ASSERT_EQ(Text(Account("block")), Text(records));
  }
}

// More tag pointers than are cached, identified by their text; null tags; more tags than are counted separately.
TEST_F(CompanionTest, TagsAreToldByTheirTextUpToSixtyFour) {
  static char names[400][8];
  MqcMemory none, all;
  uint64_t sum = 0;
  for (int i = 0; i < 400; ++i) {
    void* block;
    strcpy(names[i], i < 300 ? "T1" : format("tag {}", i).c_str());
    for (const char* tag : {names[i], names[i], static_cast<char*>(nullptr)}) {
      ASSERT_TRUE(fNewMemory(&block, 1, tag));
      FreeMemory(block);
    }
  }
  EXPECT_EQ(Text(Account("T1")), "0 of 600, peak 1, 0 bytes");
  EXPECT_EQ(Account("(none)").total_blocks, 400u);
  EXPECT_GT(Account("(other)").total_blocks, 60u);
  EXPECT_TRUE(mqc_memory("T1", &all) && mqc_memory(nullptr, &all) && !mqc_memory("never used", &none));
  EXPECT_EQ(Text(none), "0 of 0, peak 0, 0 bytes");
  uint32_t count = 0;
  for (; mqc_memory_tag(count) != nullptr; ++count) sum += Account(mqc_memory_tag(count)).total_blocks;
  EXPECT_EQ(count, 64u);
  EXPECT_EQ(sum, all.total_blocks);
}

TEST_F(CompanionTest, BuffersKeepTheirContract) {
  const std::pair<void (*)(IoBuffer*), const char*> steps[] = {
      // What is done; length, capacity, flags, received and sent afterwards.
      {[](IoBuffer* buf) { mqc_fail_allocation(1, 0), CreateBuffer(buf, 50); }, "0 0 0 0 0"},
      {[](IoBuffer* buf) { CreateBuffer(buf, 16520); }, "16520 16520 0 0 0"},
      {[](IoBuffer* buf) { *buf = {buf->data, 10, 16520, 2, 136, 3}, SizeBuffer(buf, 20000); }, "10 20000 2 136 3"},
      {[](IoBuffer* buf) { SizeBuffer(buf, 10); }, "10 20000 2 136 3"},
      {[](IoBuffer* buf) { buf->length = 200, SizeBuffer(buf, 30000); }, "200 30000 2 136 3"},
      {[](IoBuffer* buf) { mqc_fail_allocation(1, 0), SizeBuffer(buf, 40000); }, "200 30000 2 136 3"},
      {[](IoBuffer* buf) { ResetBuffer(buf, 32); }, "32 30000 2 0 0"},
      {[](IoBuffer* buf) { buf->received = buf->sent = 1, DeleteBuffer(buf), DeleteBuffer(buf); }, "0 0 2 0 0"},
      {[](IoBuffer* buf) { SizeBuffer(buf, 50); }, "0 50 2 0 0"},
  };
  IoBuffer buf;
  memset(static_cast<void*>(&buf), 0xff, sizeof buf);  // ignored by the first step
  for (const auto& [act, state] : steps) {
    act(&buf);
    EXPECT_EQ(format("{} {} {} {} {}", buf.length, buf.capacity, buf.flags, buf.received, buf.sent), state);
    ASSERT_EQ(buf.data == nullptr, buf.capacity == 0);
    // Received bytes and bytes to be sent are preserved.
    const uint32_t held = buf.received != 0 ? std::max(buf.received, buf.length) : 0;
    EXPECT_EQ(std::count(buf.data, buf.data + held, 7), held) << state;
    if (buf.data != nullptr) memset(buf.data, 7, buf.capacity);
  }
  IoBuffer copy = buf;
  CreateBuffer(&buf, 50);  // the copy owns the first area now
  EXPECT_NE(copy.data, buf.data);
  for (IoBuffer* each : {&copy, &buf}) DeleteBuffer(each);
}

TEST_F(CompanionTest, TheUserNameFitsOrIsRefused) {
  const passwd* const entry = getpwuid(geteuid());
  const char* const logname = getenv("LOGNAME");
  const std::string name = entry != nullptr ? entry->pw_name : logname != nullptr ? logname : "";
  char text[256];
  int length = static_cast<int>(name.size());
  EXPECT_FALSE(GetUserName(text, &length));
  EXPECT_EQ(GetUserName(text, &++length), !name.empty());
  EXPECT_TRUE(name.empty() || (text == name && length == static_cast<int>(name.size())));
}

// ---- Messages ----

// The results of the functions for received messages, called in turn.
std::string Results(PcfMessage* msg) {
  const auto results = {VerifyMessage(&msg->raw), RawToPcf(msg), AlienToNative(&msg->raw), RawToPcf(msg),
                        AlienPcfToNative(msg),    RawToPcf(msg)};
  return format("{}", fmt::join(results, ""));
}

// Neither an unconverted message nor an unconverted body is parsed. A second conversion changes nothing.
TEST_F(CompanionTest, EverySenderArrivesAsIfItWereTheHost) {
  const auto built = mqnode::Message::create();
  ASSERT_TRUE(built.begin(77) && built.add(1, "four") && built.add(2, -5) && built.add(3, INT64_MIN + 1));
  ASSERT_TRUE(built.add(4, mqnode::Bytes("\0\xfe\xff", 3)) && built.add(1, ""));
  auto* const header = reinterpret_cast<MsgHeader*>(built.record().raw.data);
  strcpy(header->userId, "alice");  // as the library does when it sends
  strcpy(header->applName, "foreign sender");
  EXPECT_EQ(Show(built), format("{}alice, foreign sender, ", kSample));
  for (const Form form : kForms) {
    Exact arrived(SampleFrom(form));
    EXPECT_EQ(Results(arrived.get()), form.big || form.ebcdic ? "001011" : "111111");
    EXPECT_EQ(Results(arrived.get()), "111111");
    EXPECT_EQ(Show(arrived), format("{}alice, foreign sender, ", kSample));
    EXPECT_EQ(RawOf(arrived), RawOf(built));
    EXPECT_FALSE(arrived.params()[5] || arrived.find(99));
  }
}

// Why a message is refused; empty if it is accepted. A refused message is unchanged except for a converted header, and
// has no parameters.
std::string Refusal(const Bytes& raw) {
  Exact arrived(raw);
  const bool has_header = AlienToNative(&arrived->raw);
  const Bytes before = RawOf(arrived);
  EXPECT_TRUE(has_header || before == raw);
  if (!has_header) return mqc_header_error();
  const bool converted = AlienPcfToNative(arrived.get());
  EXPECT_TRUE(converted || RawOf(arrived) == before);
  if (converted && RawToPcf(arrived.get())) return "";
  EXPECT_EQ(arrived.command() + arrived.params().size(), 0u);
  return mqc_message_error(arrived.get());
}

// Offsets of words in the sample: the heads of its five parameters are at 144, 164, 180, 200 and 216 of 232 bytes.
TEST_F(CompanionTest, BrokenMessagesAreRefusedWithTheReason) {
  const std::tuple<size_t, uint32_t, const char*> rows[] = {
      {0, 135, "not the length 136"},
      {8, 2, "the byte order flag is 2"},
      {12, 2, "the character set flag is 2"},
      {4, 0, "the body's encoding is version 0, not 1"},
      {64, 0, "the header says 0 bytes of body, the message has 96"},
      {64, 0xffffffff, "the header says 4294967295 bytes"},
      {140, 4, "16 bytes follow the last parameter"},
      {140, 6, "parameter 5 of 6: the body ends in its head"},
      {140, MQC_MAX_PARAMS + 1, "3741 parameters, at most 3740"},
      {148, 0, "parameter 0 (id 1, type 0): unknown type, length 4"},
      {152, 77, "longer than the body, bytes left: 76"},
      {152, 76, "padding beyond the body, bytes left: 76"},
      {152, 3, "padding is not zero after 3"},
      {152, 5, "text with a zero byte among its 5"},
      {168, 2, "parameter 1 (id 2, type 2): an integer of length 4"},
      {172, 3, "parameter 1 (id 2, type 1): an integer of length 3"},
  };
  for (const Form form : kForms) {
    const Bytes whole = SampleFrom(form);
    EXPECT_EQ(Refusal(whole), "");
    for (const auto& [at, word, says] : rows) ExpectSays(Refusal(With(whole, at, word, form.big)), says);
    ExpectSays(Refusal(With(whole, 8, !form.big, form.big)), "the byte order flag contradicts the first word");
    for (uint32_t size = 136; size < whole.size() + 13; ++size) {
      Bytes other = With(whole, 64, size - 136, form.big);
      other.resize(size);
      EXPECT_EQ(Refusal(other).empty(), size == whole.size()) << size;
    }
  }
  ExpectSays(Refusal(With(SampleFrom({}), 68, 4)), "the origin word is 4");
  Exact broken(With(SampleFrom({}), 140, 6));
  EXPECT_FALSE(VerifyMessage(&broken->raw));
  ExpectSays(mqc_header_error(), "the body ends in its head");
}

// No function reads a record whose area, or whose lengths, cannot contain a message. After a browse the length is still
// 0, so a header is validated against the area alone; it is preserved when the area grows.
TEST_F(CompanionTest, RecordsWithoutAMessageAreRefused) {
  const Bytes sample = SampleFrom({});
  const auto size = static_cast<uint32_t>(sample.size());
  const std::tuple<bool, uint32_t, uint32_t, const char*> rows[] = {
      // Whether there is an area; capacity, length; whether the last parameter is found; results; names.
      {false, size, size, "0 000000; , , "},
      {true, size - 1, size, "1 001000; alice, foreign sender, "},
      {true, size, 135, "0 001000; , , "},
      {true, 135, 135, "0 000000; , , "}};
  for (const auto& [has_area, capacity, length, shown] : rows) {
    Exact exact(sample);
    ASSERT_TRUE(exact.Read());
    exact->raw = {nullptr, has_area ? exact->raw.data : nullptr, nullptr, capacity, length};
    const bool is_there{exact.params()[4]};
    const std::string results = Results(exact.get());
    EXPECT_EQ(format("{:d} {}{}", is_there, results, Show(exact).substr(2)), shown);
  }
  const auto browsed = mqnode::Message::create();
  memcpy(browsed.record().raw.data, SampleFrom({true, true}).data(), 136);
  browsed.record().raw.length = 0;
  ASSERT_TRUE(AlienToNative(&browsed.record().raw) && SizePcfMessage(browsed.get(), 100000));
  EXPECT_EQ(reinterpret_cast<MsgHeader*>(browsed.record().raw.data)->bodyLength, kSampleBody);
}

TEST_F(CompanionTest, MessagesAreBounded) {
  const auto msg = mqnode::Message::create(1006);  // the 54th parameter would end two bytes beyond this area
  ASSERT_TRUE(msg.begin(1));
  for (uint32_t i = 0; i < MQC_MAX_PARAMS; ++i) {
    ASSERT_TRUE(msg.add(i, static_cast<int32_t>(i)));
    ASSERT_LE(msg.record().raw.length, msg.record().raw.capacity);
  }
  const Bytes most = RawOf(msg);
  EXPECT_FALSE(msg.add(1, 1));
  EXPECT_EQ(msg.error(), "a message has at most 3740 parameters");
  Exact arrived(most);
  EXPECT_TRUE(RawOf(msg) == most && arrived.Read()) << "a failed add leaves the message as it was";
  EXPECT_EQ(arrived.params()[MQC_MAX_PARAMS - 1].number(), MQC_MAX_PARAMS - 1);

  const std::string half(MQ_MAX_MESSAGE / 2, 'x');
  ASSERT_TRUE(msg.begin(1) && msg.add(1, half));
  EXPECT_FALSE(msg.add(1, half));
  EXPECT_FALSE(mqc_add_bytes(msg.get(), 1, half.data(), 0xffffffff))
      << "the length is checked before the bytes are read";
  EXPECT_EQ(msg.error(), "4328521900 bytes would pass the bound of 67108864");
  EXPECT_EQ(msg.params().size(), 1u);
  EXPECT_FALSE(SizePcfMessage(msg.get(), MQ_MAX_MESSAGE + 1) || mqnode::Message::create(MQ_MAX_MESSAGE + 1));
}

// ---- Log ----

// Removes the time from each line.
std::string Untimed(const std::string& text) {
  return std::regex_replace(text, std::regex("\\d{4}-\\d\\d-\\d\\dT[0-9:.]{12}Z "), "");
}

class LogTest : public CompanionTest {
 protected:
  LogTest() { mqc_log_to(path_.c_str()); }
  ~LogTest() override {
    dup2(standard_error_, STDERR_FILENO);
    close(standard_error_);
  }
  std::string Logged() const { return Untimed(Content(path_)); }
  const int standard_error_ = dup(STDERR_FILENO);
  const Folder folder_;
  const std::string path_ = folder_.Name("log");
};

TEST_F(LogTest, WritesOneLineFromASignalHandler) {
  signal(SIGUSR1, [](int) { LOGMSG("1158I from a handler", 1); });
  errno = 1234;
  raise(SIGUSR1);
  EXPECT_EQ(errno, 1234);
  LOGMSG("0106W two\nlines\x1b[2J\x7f", 1);
  LOGMSG(std::string(5000, 'x').c_str(), 1);
  for (const int code : {EINTR, EIO, EIO}) {
    next_transfer = code;
    LOGMSG("0106W interrupted, or lost", 1);
  }
  LOGMSG("0106W last", 1);
  EXPECT_EQ(Logged(), format("1158I from a handler\n0106W two.lines.[2J.\n{}\n0106W interrupted, or lost\n"
                             "1903W lines lost before this one: 2\n0106W last\n",
                             std::string(1023 - 25, 'x')));
  EXPECT_EQ(std::filesystem::status(path_).permissions() & ~std::filesystem::perms(022), std::filesystem::perms(0640));
}

// Logs in the last second of every day until 2105.
TEST_F(LogTest, WritesTheDateOfAnyDay) {
  std::string expected;
  timespec at = {0, 7000000};
  present = &at;
  for (at.tv_sec = 86399; at.tv_sec < time_t{135} * 366 * 86400; at.tv_sec += 86400) {
    LOGMSG("x", 1);
    char line[64];
    strftime(line, sizeof line, "%Y-%m-%dT%H:%M:%S.007Z x\n", gmtime(&at.tv_sec));
    expected += line;
  }
  present = nullptr;
  EXPECT_TRUE(Content(path_) == expected);
}

// What can be read now, without blocking.
std::string Taken(int fd) {
  std::string text(1 << 20, ' ');
  const ssize_t got = syscall(SYS_read, fd, text.data(), text.size());
  text.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return text;
}

// A socket, a full pipe, the read end of a pipe, no descriptor: no line blocks or reaches a peer, and each is counted.
TEST_F(LogTest, WaitsForNobody) {
  int ends[2], sockets[2];
  ASSERT_EQ(pipe(ends) + socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sockets), 0);
  EXPECT_TRUE(mqc_log_to("/nowhere/at/all"));
  EXPECT_FALSE(mqc_log_to(std::string(1024, 'x').c_str()));
  const std::string page(static_cast<size_t>(fcntl(ends[1], F_GETPIPE_SZ)), 'x');
  ASSERT_EQ(write(ends[1], page.data(), page.size()), static_cast<ssize_t>(page.size()));
  for (const int fd : {sockets[0], ends[1], ends[0], -1}) {
    fd == -1 ? close(STDERR_FILENO) : dup2(fd, STDERR_FILENO);
    for (int i = 0; i < 3; ++i) LOGMSG("1157I lost", 1);
  }
  EXPECT_EQ(Taken(sockets[1]) + Taken(ends[0]), page);
  dup2(ends[1], STDERR_FILENO);
  LOGMSG("1157I first", 1);
  mqc_log_to("");
  LOGMSG("1157I second", 1);
  EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0) << "others have the descriptor too";
  EXPECT_EQ(Untimed(Taken(ends[0])), "1903W lines lost before this one: 12\n1157I first\n1157I second\n");
  close(ends[0]);
  LOGMSG("1157I and no signal", 1);
  mqc_log_to(path_.c_str());
  LOGMSG("1157I third", 1);
  EXPECT_EQ(Logged(), "1903W lines lost before this one: 1\n1157I third\n");
  for (const int fd : {ends[1], sockets[0], sockets[1]}) close(fd);
}

TEST_F(LogTest, DumpsAreBoundedWhateverTheyShow) {
  const auto big = mqnode::Message::create();
  ASSERT_TRUE(big.begin(1) && big.add(1, std::string(100000, 'x')));
  DumpPcfMessage(big.get());
  const std::string logged = Logged();
  EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 7);
  ExpectSays(logged, "\n1902W dump 160: 78787878 ");
  Exact small(Bytes(10, '\xff'));
  memset(small->secHeader.userId, '\n', 12);
  EXPECT_FALSE(RawToPcf(small.get()));
  DumpPcfMessage(small.get());
  EXPECT_EQ(Logged().substr(logged.size()), format("1901W message of 10 bytes, area 10, sender \"............\": {}\n"
                                                   "1902W dump 000: ffffffff ffffffff ffff\n",
                                                   small.error()));
}

// Run in a process of its own, which loads the companion with an environment variable set.
TEST(LogChild, DISABLED_Writes) { LOGMSG("1157I child", 1); }

// With a link, a pipe with a reader, a folder, too long a path, another user's file, lines go to standard error.
TEST_F(LogTest, TheEnvironmentNamesTheFile) {
  const std::string link = folder_.Name("link"), fifo = folder_.Name("fifo"), theirs = folder_.File("theirs", "", 0666);
  ASSERT_EQ(symlink(path_.c_str(), link.c_str()) + mkfifo(fifo.c_str(), 0600), 0);
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  std::vector<std::string> names = {path_, link, fifo, "/tmp", std::string(1024, 'x')};
  if (chown(theirs.c_str(), geteuid() + 1, getegid()) == 0) names.push_back(theirs);  // requires root
  const char* const child = "--gtest_filter=LogChild.DISABLED_Writes --gtest_also_run_disabled_tests --gtest_brief=1";
  for (const std::string& name : names) {
    const std::string seen = folder_.File("seen", "");
    EXPECT_EQ(system(format("2>{} MQCOMPANION_LOG={} {} {}", seen, name, program_invocation_name, child).c_str()), 0);
    ExpectSays(Content(name == path_ ? path_ : seen), " 1157I child\n");
  }
  EXPECT_EQ(Taken(reader) + Content(theirs), "");
  EXPECT_EQ(Content(path_).find('\n'), Content(path_).size() - 1) << "no second line";
  close(reader);
}

}  // namespace
