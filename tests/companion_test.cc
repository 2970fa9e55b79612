// The companion runtime: the contract that the library relies on, and what hosts call.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "companion/host.h"
#include "sockutil/text.hh"
#include "tests/support/sender.hh"

// The system as the companion finds it: another time of day, a user without an entry or with this name, an iconv that
// knows no EBCDIC, files that cannot be read or written at once.
struct System {
  const timespec* time = nullptr;
  bool has_user = true;
  const char* user = nullptr;
  int user_code = 0;
  bool has_ebcdic = true;
  std::optional<int> transfer;  // what the next read or write fails with; 0: it moves nothing
};
static System host_system;

template <typename Function>
static Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

extern "C" int clock_gettime(clockid_t clock, timespec* out) noexcept {
  if (host_system.time == nullptr || clock != CLOCK_REALTIME) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, out));
  }
  *out = *host_system.time;
  return 0;
}

extern "C" int getpwuid_r(uid_t uid, passwd* entry, char* place, size_t size, passwd** found) {
  const int result = Next<decltype(getpwuid_r)>("getpwuid_r")(uid, entry, place, size, found);
  if (!host_system.has_user) *found = nullptr;
  if (host_system.user_code != 0) return host_system.user_code;
  if (host_system.user != nullptr && *found != nullptr) entry->pw_name = const_cast<char*>(host_system.user);
  return result;
}

static ssize_t Transfer(long number, int fd, void* data, size_t size) {
  const auto code = std::exchange(host_system.transfer, std::nullopt);
  if (!code) return syscall(number, fd, data, size);
  errno = *code;
  return *code != 0 ? -1 : 0;
}
extern "C" ssize_t read(int fd, void* data, size_t size) { return Transfer(SYS_read, fd, data, size); }
extern "C" ssize_t write(int fd, const void* data, size_t size) {
  return Transfer(SYS_write, fd, const_cast<void*>(data), size);
}

extern "C" iconv_t iconv_open(const char* to, const char* from) {
  if (!host_system.has_ebcdic) return reinterpret_cast<iconv_t>(-1);
  return Next<decltype(iconv_open)>("iconv_open")(to, from);
}

namespace {

using Bytes = std::vector<uint8_t>;

void ExpectSays(const std::string& text, const char* part) {
  EXPECT_NE(text.find(part), std::string::npos) << '"' << text << "\" does not say \"" << part << '"';
}

// Runs a disabled test in a process of its own, with one more variable in its environment.
void RunAlone(const std::string& test, const char* variable = "MQ_NONE", const std::string& value = "") {
  const pid_t child = fork();
  if (child == 0) {
    setenv(variable, value.c_str(), 1);
    execl(program_invocation_name, "companion_test", ("--gtest_filter=" + test).c_str(),
          "--gtest_also_run_disabled_tests", "--gtest_brief=1", nullptr);
    _exit(127);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

MqcMemory Account(const char* tag) {
  MqcMemory memory;
  mqc_memory(tag, &memory);
  return memory;
}

// A host's record whose raw area is exactly as large as what it holds, so that a sanitizer sees one byte too far.
class Exact {
 public:
  explicit Exact(const Bytes& raw) : area_(new uint8_t[raw.size()]) {
    mqc_message_init(&msg_);
    std::copy(raw.begin(), raw.end(), area_.get());
    msg_.raw.data = area_.get();
    msg_.raw.capacity = msg_.raw.length = static_cast<uint32_t>(raw.size());
  }
  PcfMessage* get() { return &msg_; }
  // What a plain read does with a message that has arrived.
  bool Read() { return AlienToNative(&msg_.raw) && AlienPcfToNative(&msg_) && RawToPcf(&msg_); }
  Bytes raw() const { return Bytes(msg_.raw.data, msg_.raw.data + msg_.raw.length); }

 private:
  std::unique_ptr<uint8_t[]> area_;
  PcfMessage msg_;
};

struct Freer {
  void operator()(PcfMessage* msg) const { mqc_message_free(msg); }
  void operator()(MqcSigner* signer) const { mqc_signer_free(signer); }
};
using Message = std::unique_ptr<PcfMessage, Freer>;
using Signer = std::unique_ptr<MqcSigner, Freer>;

// What the library writes into a header before it sends.
void FillHeader(PcfMessage* msg, const char* user) {
  auto* header = reinterpret_cast<MsgHeader*>(msg->raw.data);
  header->bodyLength = msg->raw.length - 136;
  mq::CopyPadded(header->userId, sizeof(header->userId), user, sizeof(header->userId));
  mq::CopyPadded(header->applName, sizeof(header->applName), "foreign sender", sizeof(header->applName));
  msg->secHeader = {32, 1, 0, 1, msg->raw.length, {}};
  memcpy(msg->secHeader.userId, header->userId, sizeof(header->userId));
}

Bytes RawOf(const PcfMessage* msg) { return Bytes(msg->raw.data, msg->raw.data + msg->raw.length); }

void AddSample(PcfMessage* msg) {
  ASSERT_TRUE(mqc_begin(msg, 77));
  ASSERT_TRUE(mqc_add_int32(msg, 1, -5));
  ASSERT_TRUE(mqc_add_text(msg, 2, "four"));
  ASSERT_TRUE(mqc_add_int64(msg, 3, INT64_MIN + 1));
  ASSERT_TRUE(mqc_add_bytes(msg, 4, "\x00\x01\xfe\xff", 4));
  ASSERT_TRUE(mqc_add_text(msg, 2, ""));
  ASSERT_TRUE(mqc_add_bytes(msg, 5, nullptr, 0));
  FillHeader(msg, "alice");
}

// ---- The same from a sender of any byte order and character set ----

using sender::Encoder;
using sender::Form;
const Form kForms[] = {{false, false}, {false, true}, {true, false}, {true, true}};

Bytes Raw(const std::string& bytes) { return Bytes(bytes.begin(), bytes.end()); }

constexpr uint32_t kSampleBody = 8 + 16 + 20 + 20 + 16 + 16 + 12;

Bytes SampleFrom(Form form) {
  Encoder body(form);
  body.Word(77).Word(6).Word(1).Word(1).Word(4).Word(static_cast<uint32_t>(-5)).Word(2).Word(3).Word(4).Text("four", 8);
  body.Word(3).Word(2).Word(8).Number(static_cast<uint64_t>(INT64_MIN) + 1, 8);
  body.Word(4).Word(4).Word(4).Raw(std::string("\x00\x01\xfe\xff", 4));
  body.Word(2).Word(3).Word(0).Word(0).Word(5).Word(4).Word(0);
  return Raw(sender::Plain(form, body.bytes, "alice"));
}

void PutWord(Bytes* raw, size_t at, uint32_t value, bool big) {
  for (size_t i = 0; i < 4; ++i) raw->at(at + i) = static_cast<uint8_t>(value >> 8 * (big ? 3 - i : i));
}

// The first size bytes, or all of them and zeros.
Bytes Resized(const Bytes& bytes, size_t size) {
  Bytes out(size);
  std::copy_n(bytes.begin(), std::min(size, bytes.size()), out.begin());
  return out;
}

// ---- Memory ----

// Takes its place among the tags before a test fills them up.
const bool tag_taken = [] {
  void* block;
  const bool got = fNewMemory(&block, 1, "T1");
  FreeMemory(block);
  return got;
}();

TEST(Memory, TagsAreListedAndOverflowIntoOther) {
  static char names[100][8];
  const uint64_t before = Account(nullptr).total_blocks;
  for (int i = 0; i < 100; ++i) {
    snprintf(names[i], sizeof(names[i]), "tag %d", i);
    void* block;
    ASSERT_TRUE(fNewMemory(&block, 1, names[i]));
    FreeMemory(block);
  }
  uint64_t listed = 0;
  uint32_t count = 0;
  while (const char* tag = mqc_memory_tag(count)) {
    listed += Account(tag).total_blocks;
    ++count;
  }
  EXPECT_EQ(count, 64u);
  MqcMemory memory;
  EXPECT_TRUE(mqc_memory("tag 0", &memory));
  EXPECT_GE(memory.total_blocks, 1u);
  EXPECT_FALSE(mqc_memory("never used", &memory));
  EXPECT_EQ(memory.total_blocks, 0u);
  EXPECT_GT(Account("(other)").total_blocks, 0u);
  EXPECT_EQ(listed, Account(nullptr).total_blocks);
  EXPECT_EQ(listed, before + 100);
}

// More places than are remembered: each is told by its text then. No tag at all is one too.
TEST(Memory, TagsAreToldByTheirText) {
  static char places[300][4];
  const uint64_t before = Account("T1").total_blocks, none = Account("(none)").total_blocks;
  const auto allocate = [](const char* tag) {
    void* block;
    EXPECT_TRUE(fNewMemory(&block, 1, tag));
    FreeMemory(block);
  };
  for (char* const place : places) {
    strcpy(place, "T1");
    allocate(place);
    allocate(place);
  }
  EXPECT_EQ(Account("T1").total_blocks, before + 600);
  allocate(nullptr);
  EXPECT_EQ(Account("(none)").total_blocks, none + 1);
}

// Blocks are kept for reuse and lie in chunks: whatever the order of their release, none overlaps another.
TEST(Memory, BlocksStayApartInAnyOrderOfRelease) {
  struct Block {
    void* place;
    uint32_t size;
    uint8_t fill;
  };
  const MqcMemory before = Account("T2");
  std::vector<Block> blocks;
  std::mt19937 random(1);
  for (int step = 0; step < 20000; ++step) {
    if (blocks.size() < 150 && random() % 5 < 3) {
      const uint32_t size = random() % 3 == 0 ? 1944 : random() % 2300;
      Block block = {nullptr, size, static_cast<uint8_t>(step)};
      ASSERT_TRUE(fNewMemory(&block.place, size, "T2"));
      const auto* bytes = static_cast<const uint8_t*>(block.place);
      ASSERT_EQ(std::count(bytes, bytes + size, 0), size);
      memset(block.place, block.fill, size);
      blocks.push_back(block);
    } else if (!blocks.empty()) {
      Block& block = blocks[random() % blocks.size()];
      const auto* bytes = static_cast<const uint8_t*>(block.place);
      ASSERT_EQ(std::count(bytes, bytes + block.size, block.fill), block.size);
      FreeMemory(block.place);
      block = blocks.back();
      blocks.pop_back();
    }
  }
  for (const Block& block : blocks) FreeMemory(block.place);
  EXPECT_EQ(Account("T2").live_blocks, before.live_blocks);
  EXPECT_EQ(Account("T2").live_bytes, before.live_bytes);
}

// Everything that a host may do with memory, as one scenario that stops at the first failure.
bool Scenario(const char* ring_file, const char* secret_file) {
  mqc_ring_clear();
  unlink(secret_file);
  uint8_t secret[32] = {1}, open_key[32];
  if (!mqc_secret_file_write(secret_file, "alice", secret, nullptr, 0)) return false;
  Signer signer(mqc_signer_load(secret_file, nullptr, nullptr, 0));
  if (!signer) return false;
  mqc_signer_public_key(signer.get(), open_key);
  IoBuffer out = {};
  bool done = mqc_ring_add("alice", open_key, nullptr, 0) && mqc_ring_load(ring_file, nullptr, 0);
  Message msg(done ? mqc_message_new(0) : nullptr);
  done = msg && mqc_begin(msg.get(), 1) && mqc_add_bytes(msg.get(), 1, std::string(5000, 'x').data(), 5000);
  if (done) {
    FillHeader(msg.get(), "alice");
    done = mqc_sign(signer.get(), msg.get(), &out);
  }
  if (done) {
    SizeBuffer(&out, 9000);
    done = out.capacity == 9000;
  }
  DeleteBuffer(&out);
  mqc_ring_clear();
  return done;
}

class Folder {
 public:
  Folder() { EXPECT_NE(mkdtemp(place_), nullptr); }
  ~Folder() {
    for (const std::string& file : files_) unlink(file.c_str());
    rmdir(place_);
  }
  std::string Name(const std::string& name) {
    files_.push_back(std::string(place_) + "/" + name);
    return files_.back();
  }
  std::string File(const std::string& name, const std::string& text, mode_t mode = 0600) {
    const std::string path = Name(name);
    std::ofstream(path, std::ios::binary) << text;
    chmod(path.c_str(), mode);
    return path;
  }

 private:
  char place_[32] = "/tmp/companion_XXXXXX";
  std::vector<std::string> files_;
};

std::string Content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Keys {
  uint8_t secret[32], open[32];
  char secret_text[65], open_text[65];
  Keys() {
    EXPECT_TRUE(mqc_generate_key(secret, open));
    mqc_key_text(secret, secret_text);
    mqc_key_text(open, open_text);
  }
};

TEST(Memory, EveryAllocationMayFail) {
  Folder folder;
  const std::string ring = folder.File("ring", std::string("bob ") + Keys().open_text + "\n");
  const std::string secret = folder.Name("secret");
  ASSERT_TRUE(Scenario(ring.c_str(), secret.c_str()));
  for (const int onwards : {0, 1}) {
    const MqcMemory before = Account(nullptr);
    uint64_t failed = 0;
    for (;;) {
      const uint64_t attempts = mqc_allocations();
      mqc_fail_allocation(failed + 1, onwards);
      const bool done = Scenario(ring.c_str(), secret.c_str());
      mqc_fail_allocation(0, 0);
      ASSERT_EQ(Account(nullptr).live_blocks, before.live_blocks) << "allocation " << failed + 1;
      if (done) {
        EXPECT_EQ(mqc_allocations() - attempts, failed) << "an allocation that nobody looked at";
        break;
      }
      ++failed;
      ASSERT_TRUE(Scenario(ring.c_str(), secret.c_str())) << "after allocation " << failed;
    }
    EXPECT_GE(failed, 9u);
  }
}

// ---- Buffers ----

TEST(Buffers, KeepTheirContract) {
  IoBuffer buf = {};
  CreateBuffer(&buf, 16520);
  EXPECT_EQ(buf.length, 16520u);
  EXPECT_EQ(buf.capacity, 16520u);
  memset(buf.data, 7, 136);
  const IoBuffer copy = buf;
  buf.flags = 2;
  buf.received = buf.sent = 9;
  CreateBuffer(&buf, 100);  // the copy owns the first area now
  EXPECT_EQ(copy.data[135], 7);
  EXPECT_EQ(buf.flags + buf.received + buf.sent, 0u);
  buf.received = 100;
  buf.length = 10;
  buf.data[99] = 3;
  SizeBuffer(&buf, 200);
  EXPECT_EQ(buf.data[99], 3) << "what was received stays, whatever the length";
  DeleteBuffer(&buf);
  buf = copy;
  buf.flags = 2;
  ResetBuffer(&buf, 136);
  buf.received = 136;
  buf.sent = 3;
  SizeBuffer(&buf, 20000);
  EXPECT_EQ(buf.capacity, 20000u);
  EXPECT_EQ(Bytes(buf.data, buf.data + 136), Bytes(136, 7));
  EXPECT_EQ(buf.received + buf.length + buf.sent + buf.flags, 136u + 136 + 3 + 2);
  SizeBuffer(&buf, 10);
  EXPECT_EQ(buf.capacity, 20000u);
  const IoBuffer before = buf;
  mqc_fail_allocation(1, 0);
  SizeBuffer(&buf, 30000);
  EXPECT_EQ(memcmp(&before, &buf, sizeof(buf)), 0);
  ResetBuffer(&buf, 32);
  EXPECT_EQ(buf.capacity + buf.length + buf.received + buf.sent + buf.flags, 20000u + 32 + 2);
  for (int twice = 0; twice < 2; ++twice) {
    DeleteBuffer(&buf);
    EXPECT_EQ(buf.data, nullptr);
    EXPECT_EQ(buf.capacity + buf.length + buf.received + buf.sent, 0u);
  }
  SizeBuffer(&buf, 50);
  EXPECT_EQ(buf.capacity, 50u);
  memset(buf.data, 1, 50);
  DeleteBuffer(&buf);
  memset(static_cast<void*>(&buf), 0xff, sizeof(buf));  // what stands in the record is not looked at
  mqc_fail_allocation(1, 0);
  CreateBuffer(&buf, 50);
  EXPECT_EQ(buf.data, nullptr);
  EXPECT_EQ(buf.capacity + buf.length + buf.received + buf.sent + buf.flags, 0u);
}

TEST(Buffers, AreasStartAtMultiplesOf64) {
  for (uint32_t size = 1; size < 3000000; size += size / 3 + 1) {
    IoBuffer buf;
    CreateBuffer(&buf, size);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buf.data) % 64, 0u) << size;
    memset(buf.data, 1, size);
    SizeBuffer(&buf, size * 2);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buf.data) % 64, 0u) << size;
    memset(buf.data, 1, size * 2);
    DeleteBuffer(&buf);
  }
}

// ---- Text ----

TEST(Text, ChangesInPlace) {
  struct Row {
    void (*function)(char*);
    const char *in, *out;
  };
  const Row rows[] = {
      {strip_spaces, " a b\tc\n ", "abc"},
      {strip_spaces, "", ""},
      {strip_spaces, "   ", ""},
      {strupper, "a[z{\xe4Q9", "A[Z{\xe4Q9"},
      {trim_str, " \t a b \r\n", "a b"},
      {trim_str, "   ", ""},
      {trim_str, "x", "x"},
  };
  for (const Row& row : rows) {
    std::string text = row.in;
    row.function(text.data());
    EXPECT_STREQ(text.c_str(), row.out) << "from \"" << row.in << '"';
  }
  EXPECT_EQ(bwlong(0x88000000), 136u);
  EXPECT_TRUE(IsLtEndian() && IsAscText());
}

TEST(Text, UserNameFitsOrIsRefused) {
  char name[256];
  int length = sizeof(name);
  ASSERT_TRUE(GetUserName(name, &length));
  EXPECT_EQ(static_cast<size_t>(length), strlen(name));
  int exact = length + 1;
  EXPECT_TRUE(GetUserName(name, &exact));
  EXPECT_EQ(exact, length);
  EXPECT_FALSE(GetUserName(name, &length)) << "no room for the terminator";
  int none = 0;
  EXPECT_FALSE(GetUserName(name, &none));
  // Without an entry, as in many containers, LOGNAME tells.
  const struct {
    bool entry;
    const char *user, *logname;
    const char* name;  // null: cannot be told
  } rows[] = {{true, "entry", "logname", "entry"}, {true, "", "logname", nullptr},
              {true, nullptr, "failed", "failed"}, {false, nullptr, "logname", "logname"},
              {false, nullptr, "", nullptr},       {false, nullptr, nullptr, nullptr}};
  const char* const old = getenv("LOGNAME");
  const std::string kept = old != nullptr ? old : "";
  for (const auto& row : rows) {
    host_system = {.has_user = row.entry,
                   .user = row.user,
                   .user_code = row.entry && row.user == nullptr ? EIO : 0,
                   .transfer = {}};
    row.logname != nullptr ? setenv("LOGNAME", row.logname, 1) : unsetenv("LOGNAME");
    length = sizeof(name);
    ASSERT_EQ(GetUserName(name, &length), row.name != nullptr);
    if (row.name != nullptr) {
      EXPECT_STREQ(name, row.name);
    }
  }
  host_system = {};
  if (old != nullptr) setenv("LOGNAME", kept.c_str(), 1);
}

// ---- Messages ----

void ExpectSample(const PcfMessage* msg, const char* sender = "alice") {
  MqcParam param = {};
  EXPECT_EQ(mqc_command(msg), 77u);
  ASSERT_EQ(mqc_count(msg), 6u);
  ASSERT_TRUE(mqc_param(msg, 0, &param));
  EXPECT_EQ(param.number, -5);
  ASSERT_TRUE(mqc_find(msg, 3, &param));
  EXPECT_EQ(param.number, INT64_MIN + 1);
  ASSERT_TRUE(mqc_find(msg, 2, &param));
  EXPECT_STREQ(param.text, "four");
  ASSERT_TRUE(mqc_find(msg, 4, &param));
  EXPECT_EQ(Bytes(param.bytes, param.bytes + param.length), (Bytes{0, 1, 0xfe, 0xff}));
  ASSERT_TRUE(mqc_param(msg, 4, &param));
  EXPECT_STREQ(param.text, "");
  ASSERT_TRUE(mqc_param(msg, 5, &param));
  EXPECT_EQ(param.length, 0u);
  EXPECT_FALSE(mqc_param(msg, 6, &param));
  EXPECT_FALSE(mqc_find(msg, 99, &param));
  EXPECT_EQ(param.id + param.type + param.length, 0u);
  char user[13], application[49];
  mqc_user(msg, user);
  mqc_application(msg, application);
  EXPECT_STREQ(user, sender);
  EXPECT_STREQ(application, "foreign sender");
}

TEST(Message, EverySenderArrivesAsIfItWereTheHost) {
  Message built(mqc_message_new(0));
  AddSample(built.get());
  ExpectSample(built.get());
  EXPECT_TRUE(VerifyMessage(&built->raw));
  const Bytes native = RawOf(built.get());
  for (const Form form : kForms) {
    SCOPED_TRACE(testing::Message() << "big " << form.big << " ebcdic " << form.ebcdic);
    Exact arrived(SampleFrom(form));
    EXPECT_EQ(VerifyMessage(&arrived.get()->raw), !form.big && !form.ebcdic);
    ASSERT_EQ(!form.big && !form.ebcdic, RawToPcf(arrived.get())) << "nothing of a sender's form is parsed";
    ASSERT_TRUE(AlienToNative(&arrived.get()->raw)) << mqc_header_error();
    ASSERT_TRUE(AlienToNative(&arrived.get()->raw)) << "again";
    ASSERT_EQ(!form.big && !form.ebcdic, RawToPcf(arrived.get())) << "nor is a body behind a converted header";
    ASSERT_TRUE(AlienPcfToNative(arrived.get())) << mqc_message_error(arrived.get());
    ASSERT_TRUE(AlienPcfToNative(arrived.get())) << "again";
    ASSERT_TRUE(RawToPcf(arrived.get())) << mqc_message_error(arrived.get());
    ExpectSample(arrived.get());
    EXPECT_EQ(arrived.raw(), native);
  }
}

TEST(Message, ABrowsedHeaderIsJudgedByTheAreaAlone) {
  Message msg(mqc_message_new(0));
  memcpy(msg->raw.data, SampleFrom({true, true}).data(), 136);
  msg->raw.length = 0;
  ASSERT_TRUE(AlienToNative(&msg->raw));
  ASSERT_TRUE(SizePcfMessage(msg.get(), 100000));
  EXPECT_EQ(reinterpret_cast<MsgHeader*>(msg->raw.data)->bodyLength, kSampleBody) << "the header moves along";
  PcfRawData small = msg->raw;
  small.capacity = 135;
  EXPECT_FALSE(AlienToNative(&small));
  // The descriptor that a plain read builds over its buffer: two fields are not there to be used.
  Bytes raw = SampleFrom({true, false});
  PcfRawData view = {nullptr, raw.data(), raw.data() + 18496, static_cast<uint32_t>(raw.size()), 136};
  memset(&view.library0, 0x5a, sizeof(view.library0));
  EXPECT_TRUE(AlienToNative(&view));
}

// Records whose area, or what they say of it, can hold no message: no function reads it.
TEST(Message, RecordsWithoutAMessageAreRefused) {
  const Bytes sample = SampleFrom({false, false});
  const auto size = static_cast<uint32_t>(sample.size());
  const struct {
    bool data;
    uint32_t capacity, length;
  } rows[] = {{false, size, size}, {true, size - 1, size}, {true, size, 135}, {true, 135, 135}};
  for (const auto& row : rows) {
    Exact exact(sample);
    PcfMessage* const msg = exact.get();
    ASSERT_TRUE(exact.Read());
    uint8_t* const area = msg->raw.data;
    msg->raw = {nullptr, row.data ? area : nullptr, nullptr, row.capacity, row.length};
    MqcParam param;
    EXPECT_EQ(mqc_param(msg, 5, &param), row.data && row.length == size) << "the last parameter is within the length";
    EXPECT_FALSE(VerifyMessage(&msg->raw));
    EXPECT_EQ(AlienToNative(&msg->raw), row.data && row.capacity >= 136);
    char user[13], application[49];
    mqc_user(msg, user);
    mqc_application(msg, application);
    EXPECT_EQ(std::string(user) + application, row.data && row.length == size ? "aliceforeign sender" : "");
    EXPECT_FALSE(RawToPcf(msg));
    EXPECT_FALSE(AlienPcfToNative(msg));
    EXPECT_EQ(mqc_command(msg) + mqc_count(msg), 0u);
  }
  Bytes broken = sample;
  PutWord(&broken, 140, 7, false);
  EXPECT_FALSE(VerifyMessage(&Exact(broken).get()->raw)) << "a parameter more than there is";
  EXPECT_STRNE(mqc_header_error(), "");
  PutWord(&broken, 0, 135, false);
  Exact headless(broken);
  EXPECT_FALSE(VerifyMessage(&headless.get()->raw));
  EXPECT_FALSE(RawToPcf(headless.get()));
  ExpectSays(mqc_message_error(headless.get()), "the first word is 135");
  mqc_message_free(nullptr);
}

// Runs in a process of its own: the table is made once.
TEST(MessageChild, DISABLED_WithoutEbcdic) {
  struct Arriving {
    Form form;
    Bytes message, envelope;
  };
  std::vector<Arriving> all;
  for (const Form form : kForms) {
    all.push_back({form, SampleFrom(form), Raw(sender::Enveloped(form, "", "alice", ""))});
  }
  Bytes body = all[0].message;
  PutWord(&body, 68, 2, false);  // its text is still EBCDIC
  host_system.has_ebcdic = false;
  for (Arriving& arriving : all) {
    EXPECT_EQ(Exact(arriving.message).Read(), !arriving.form.ebcdic);
    const Bytes before = arriving.envelope;
    EXPECT_EQ(AlienToNativeExt(reinterpret_cast<SecureHeader*>(arriving.envelope.data())), !arriving.form.ebcdic);
    if (arriving.form.ebcdic) {
      EXPECT_EQ(arriving.envelope, before);
    }
  }
  ExpectSays(mqc_header_error(), "IBM1047");
  Exact record(body);
  EXPECT_FALSE(AlienPcfToNative(record.get()));
  ExpectSays(mqc_message_error(record.get()), "IBM1047");
}

TEST(Message, WithoutEbcdicOnlyAsciiArrives) { RunAlone("MessageChild.DISABLED_WithoutEbcdic"); }

TEST(Message, OnlyItsOwnAreaIsReleased) {
  const uint64_t live = Account("message").live_blocks;
  uint8_t area[200];
  PcfMessage msg = {};
  msg.raw.data = area;
  msg.raw.capacity = sizeof(area);
  ASSERT_TRUE(mqc_begin(&msg, 1));
  EXPECT_EQ(msg.raw.data, area);
  mqc_message_release(&msg);
  EXPECT_EQ(msg.raw.data, nullptr);
  ASSERT_TRUE(mqc_begin(&msg, 1)) << "a record without an area takes one";
  mqc_message_release(&msg);
  msg.raw.data = area;
  msg.raw.capacity = 100;
  ASSERT_TRUE(mqc_begin(&msg, 1));
  EXPECT_NE(msg.raw.data, area) << "too small for any message";
  mqc_message_release(&msg);
  msg.raw.data = area;
  msg.raw.capacity = sizeof(area);
  ASSERT_TRUE(mqc_begin(&msg, 1));
  ASSERT_TRUE(mqc_add_bytes(&msg, 1, std::string(300, 'x').data(), 300));
  EXPECT_NE(msg.raw.data, area);
  EXPECT_EQ(Account("message").live_blocks, live + 1);
  mqc_message_release(&msg);
  mqc_message_release(&msg);
  EXPECT_EQ(Account("message").live_blocks, live);
  EXPECT_FALSE(mqc_add_int32(&msg, 1, 1));
  EXPECT_STRNE(mqc_message_error(&msg), "");
}

TEST(Message, HeadersThatContradictThemselvesAreRefused) {
  struct Row {
    size_t at;
    uint32_t value;
    bool header;  // noticed with the header, else with the body
  };
  const Row rows[] = {{0, 135, true},
                      {0, 137, true},
                      {8, 2, true},
                      {12, 2, true},
                      {12, 0xffffffff, true},
                      {64, 0, false},
                      {64, 8, false},
                      {4, 0, false},
                      {64, 0xffffffff, false},
                      {4, 2, false},
                      {64, kSampleBody + 1, false},
                      {64, kSampleBody - 1, false}};
  for (const Form form : kForms) {
    for (const Row& row : rows) {
      Bytes raw = SampleFrom(form);
      PutWord(&raw, row.at, row.value, form.big);
      Exact arrived(raw);
      EXPECT_EQ(AlienToNative(&arrived.get()->raw), !row.header) << row.at << " = " << row.value;
      EXPECT_FALSE(arrived.Read()) << row.at << " = " << row.value;
      EXPECT_STRNE(row.header ? mqc_header_error() : mqc_message_error(arrived.get()), "");
    }
    Bytes raw = SampleFrom(form);
    PutWord(&raw, 8, !form.big, form.big);
    EXPECT_FALSE(Exact(raw).Read()) << "the flag contradicts the first word";
  }
  Bytes raw = SampleFrom({false, false});
  PutWord(&raw, 68, 4, false);
  EXPECT_FALSE(Exact(raw).Read()) << "an origin that does not exist";
}

// A record that was refused has no parameters, and its raw form was not half converted.
void ExpectRefused(const Bytes& raw, const testing::Message& what) {
  Exact arrived(raw);
  if (AlienToNative(&arrived.get()->raw)) {
    const Bytes before = arrived.raw();
    if (AlienPcfToNative(arrived.get())) {
      EXPECT_FALSE(RawToPcf(arrived.get())) << what;
    } else {
      EXPECT_EQ(arrived.raw(), before) << what;
    }
    EXPECT_STRNE(mqc_message_error(arrived.get()), "") << what;
  }
  EXPECT_EQ(mqc_count(arrived.get()), 0u) << what;
}

TEST(Message, EveryTruncationIsRefused) {
  for (const Form form : kForms) {
    const Bytes whole = SampleFrom(form);
    for (size_t size = 136; size < whole.size(); ++size) {
      Bytes cut = Resized(whole, size);
      ExpectRefused(cut, testing::Message() << "cut at " << size);
      PutWord(&cut, 64, static_cast<uint32_t>(size - 136), form.big);
      ExpectRefused(cut, testing::Message() << "cut and announced at " << size);
    }
    for (const size_t more : {1, 3, 4, 12}) {
      Bytes longer = Resized(whole, whole.size() + more);
      PutWord(&longer, 64, static_cast<uint32_t>(longer.size() - 136), form.big);
      ExpectRefused(longer, testing::Message() << more << " bytes behind");
    }
  }
}

TEST(Message, EveryWrongCountTypeAndLengthIsRefused) {
  const size_t counts[] = {140};
  const size_t types[] = {148, 164, 184, 204, 220, 236};
  const size_t lengths[] = {152, 168, 188, 208, 224, 240};
  const uint32_t wrong[] = {0x100, 0xfff0, MQ_MAX_MESSAGE, 0x7fffffff, 0x80000000, 0xfffffffc, 0xffffffff};
  for (const Form form : kForms) {
    const Bytes whole = SampleFrom(form);
    const auto refuse = [&](size_t at, uint32_t value) {
      Bytes raw = whole;
      PutWord(&raw, at, value, form.big);
      ExpectRefused(raw, testing::Message() << "word at " << at << " = " << value);
    };
    for (const uint32_t value : wrong) {
      for (const size_t at : counts) refuse(at, value);
      for (const size_t at : types) refuse(at, value);
      for (const size_t at : lengths) refuse(at, value);
    }
    for (const uint32_t value : {0u, 5u, 7u, MQC_MAX_PARAMS, MQC_MAX_PARAMS + 1}) refuse(140, value);
    for (const size_t at : types) refuse(at, 0), refuse(at, 5);
    for (const size_t at : lengths) {
      for (const uint32_t value : {1u, 2u, 3u, 5u, 7u, 9u, 12u, 16u, 20u}) refuse(at, value);
    }
  }
}

TEST(Message, OneParameterTooManyIsAnError) {
  Message msg(mqc_message_new(1006));  // the 54th parameter ends two bytes behind this area
  ASSERT_TRUE(mqc_begin(msg.get(), 1));
  for (uint32_t i = 0; i < MQC_MAX_PARAMS; ++i) {
    ASSERT_TRUE(mqc_add_int32(msg.get(), i, static_cast<int32_t>(i)));
    ASSERT_LE(msg->raw.length, msg->raw.capacity);
  }
  FillHeader(msg.get(), "alice");
  Bytes most = RawOf(msg.get());
  EXPECT_FALSE(mqc_add_int32(msg.get(), 1, 1));
  EXPECT_EQ(RawOf(msg.get()), most) << "a failed add leaves the message as it was";
  EXPECT_EQ(mqc_count(msg.get()), MQC_MAX_PARAMS);
  Exact arrived(most);
  ASSERT_TRUE(arrived.Read()) << mqc_message_error(arrived.get());
  MqcParam last;
  ASSERT_TRUE(mqc_param(arrived.get(), MQC_MAX_PARAMS - 1, &last));
  EXPECT_EQ(last.number, MQC_MAX_PARAMS - 1);
  most.insert(most.end(), most.end() - 16, most.end());
  PutWord(&most, 64, static_cast<uint32_t>(most.size() - 136), false);
  PutWord(&most, 140, MQC_MAX_PARAMS + 1, false);
  ExpectRefused(most, testing::Message() << "one too many");
}

TEST(Message, SizeIsBounded) {
  Message msg(mqc_message_new(0));
  const std::string half(MQ_MAX_MESSAGE / 2, 'x');
  ASSERT_TRUE(mqc_begin(msg.get(), 1));
  ASSERT_TRUE(mqc_add_bytes(msg.get(), 1, half.data(), static_cast<uint32_t>(half.size())));
  EXPECT_FALSE(mqc_add_bytes(msg.get(), 1, half.data(), static_cast<uint32_t>(half.size())));
  EXPECT_FALSE(mqc_add_bytes(msg.get(), 1, half.data(), 0xffffffff)) << "the length is looked at before the bytes";
  EXPECT_EQ(mqc_count(msg.get()), 1u);
  EXPECT_FALSE(SizePcfMessage(msg.get(), MQ_MAX_MESSAGE + 1));
  EXPECT_EQ(mqc_message_new(MQ_MAX_MESSAGE + 1), nullptr);
}

// ---- Signatures ----

std::atomic<int64_t> clock_now{1700000000000};
int64_t TestClock() { return clock_now; }

class Security : public testing::Test {
 protected:
  void SetUp() override {
    mqc_set_clock(TestClock);
    mqc_reset_replay(0);
    mqc_ring_clear();
    ASSERT_TRUE(mqc_ring_add("alice", alice_.open, nullptr, 0));
    ASSERT_TRUE(mqc_ring_add("bob", bob_.open, nullptr, 0));
    signer_.reset(mqc_signer_new("alice", alice_.secret, nullptr, 0));
    AddSample(msg_.get());
  }
  void TearDown() override {
    mqc_set_window(300);
    mqc_set_replay_limit(262144);
    mqc_ring_clear();
    mqc_set_clock(nullptr);
  }
  Bytes Sign() {
    IoBuffer out = {};
    EXPECT_TRUE(mqc_sign(signer_.get(), msg_.get(), &out)) << mqc_sign_error();
    const Bytes wire(out.data, out.data + out.length);
    DeleteBuffer(&out);
    return wire;
  }
  // What a secure read does with the bytes of one message.
  static bool Receive(const Bytes& wire) {
    SecureHeader envelope;
    memcpy(&envelope, wire.data(), 32);
    if (envelope.hdrLength != 32 && envelope.hdrLength != bwlong(32)) return false;
    if (!AlienToNativeExt(&envelope) || wire.size() != 32u + envelope.msgLength) return false;
    Exact record(Bytes(wire.begin() + 32, wire.end()));
    Bytes signed_part(wire.begin() + 32, wire.end());
    const auto length = static_cast<uint32_t>(signed_part.size());
    IoBuffer part = {signed_part.data(), length, length, 0, length + 32, 0};
    PcfMessage* msg = record.get();
    msg->secHeader = envelope;
    if (!mqc_authenticate(&msg->secHeader, &part, msg)) {
      EXPECT_EQ(Names(msg), "") << "nobody is named";
      EXPECT_EQ(memcmp(&msg->secHeader, &envelope, sizeof envelope), 0);
      EXPECT_EQ(mqc_count(msg), 0u);
      return false;
    }
    EXPECT_EQ(msg->raw.length + 96, signed_part.size()) << "the trailer is no part of the message";
    const bool read = AlienToNative(&msg->raw) && AlienPcfToNative(msg) && RawToPcf(msg);
    EXPECT_TRUE(read) << mqc_message_error(msg);
    const std::string user(envelope.userId, strnlen(envelope.userId, 12));
    const std::string names = user + "foreign sender" + user;
    ExpectSample(msg, user.c_str());
    EXPECT_EQ(Names(msg), names);
    // Refused the second time: what was parsed from a message that is no longer believed is gone.
    msg->raw.length = length;
    EXPECT_FALSE(mqc_authenticate(&msg->secHeader, &part, msg));
    EXPECT_EQ(mqc_count(msg), 0u);
    EXPECT_EQ(Names(msg), "");
    msg->raw.length -= 96;  // the plain message, read next into the same record
    EXPECT_TRUE(AlienPcfToNative(msg) && RawToPcf(msg));
    EXPECT_EQ(Names(msg), names);
    return read;
  }
  static std::string Names(const PcfMessage* msg) {
    char user[13], application[49], sender[13];
    mqc_user(msg, user);
    mqc_application(msg, application);
    mqc_sender(msg, sender);
    return std::string(user) + application + sender;
  }
  static std::string Refusal(const Bytes& wire) { return Receive(wire) ? "" : mqc_authenticate_error(); }

  Keys alice_, bob_;
  Signer signer_;
  Message msg_{mqc_message_new(0)};
};

TEST_F(Security, EveryBitIsCoveredAndNothingIsAcceptedTwice) {
  const Bytes wire = Sign();
  ASSERT_EQ(wire.size(), 32 + msg_->raw.length + 96);
  for (size_t at = 0; at < wire.size(); ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes tampered = wire;
      tampered[at] = static_cast<uint8_t>(tampered[at] ^ 1 << bit);
      ASSERT_FALSE(Receive(tampered)) << "bit " << bit << " of byte " << at;
    }
  }
  EXPECT_TRUE(Receive(wire)) << mqc_authenticate_error() << ": a refused message must not be remembered";
  ExpectSays(Refusal(wire), "replay");
  EXPECT_NE(wire, Sign()) << "a nonce is used once";
}

TEST_F(Security, NobodySignsForAnother) {
  // bob signs well, then claims to be alice; carol is unknown; alice's key is replaced or taken away.
  signer_.reset(mqc_signer_new("bob", bob_.secret, nullptr, 0));
  AddSample(msg_.get());
  FillHeader(msg_.get(), "bob");
  Bytes wire = Sign();
  for (const size_t at : {size_t{20}, size_t{32 + 72}}) memcpy(wire.data() + at, "alice", 5);
  ExpectSays(Refusal(wire), "not user alice's");
  memcpy(wire.data() + 20, "bob\0", 5);
  ExpectSays(Refusal(wire), "different users");
  FillHeader(msg_.get(), "alice");
  signer_.reset(mqc_signer_new("alice", alice_.secret, nullptr, 0));
  wire = Sign();
  ASSERT_TRUE(mqc_ring_remove("alice"));
  EXPECT_FALSE(mqc_ring_remove("alice"));
  ExpectSays(Refusal(wire), "not in the ring");
  ASSERT_TRUE(mqc_ring_add("alice", bob_.open, nullptr, 0));
  EXPECT_FALSE(Receive(wire));
  ASSERT_TRUE(mqc_ring_add("alice", alice_.open, nullptr, 0));
  EXPECT_EQ(mqc_ring_count(), 2u);
  EXPECT_TRUE(Receive(wire)) << mqc_authenticate_error();
}

TEST_F(Security, KeysEndAndAreRevoked) {
  Folder folder;
  char error[300];
  const auto load = [&](const std::string& text) {
    ASSERT_TRUE(mqc_ring_load(folder.File("ring", text, 0644).c_str(), error, sizeof(error))) << error;
  };
  MqcKey key = {"alice", MQC_KEY_PUBLIC, 0, {}, clock_now};
  char line[MQC_KEY_LINE];
  memcpy(key.key, alice_.open, sizeof(key.key));
  mqc_key_write(&key, line);
  ASSERT_TRUE(mqc_key_read(line, &key));
  load(line);
  const std::string secret = folder.Name("secret");
  ASSERT_TRUE(mqc_secret_file_write_until(secret.c_str(), "alice", alice_.secret, key.until, error, sizeof(error)));
  signer_.reset(mqc_signer_load(secret.c_str(), nullptr, error, sizeof(error)));
  ASSERT_TRUE(signer_) << error;
  EXPECT_EQ(mqc_signer_until(signer_.get()), key.until);
  // The day to its last millisecond, on both sides.
  clock_now = key.until;
  EXPECT_TRUE(Receive(Sign())) << mqc_authenticate_error();
  const Bytes late = Sign();
  clock_now += 1;
  ExpectSays(Refusal(late), "ended on ");
  IoBuffer out = {};
  EXPECT_FALSE(mqc_sign(signer_.get(), msg_.get(), &out));
  ExpectSays(mqc_sign_error(), "ended on ");
  // A revoked key stays so, whatever comes before and after it; another key of the user is another matter.
  const std::string live = std::string("alice ") + alice_.open_text + "\n", revoked = line + std::string(" revoked\n");
  signer_.reset(mqc_signer_new("alice", alice_.secret, nullptr, 0));
  load(live);
  EXPECT_TRUE(Receive(Sign())) << mqc_authenticate_error();
  load(revoked);
  load(live + revoked);
  load(live);
  ExpectSays(Refusal(Sign()), "is revoked");
  EXPECT_FALSE(mqc_ring_add("alice", alice_.open, error, sizeof(error)));
  EXPECT_FALSE(mqc_ring_remove("alice"));
  EXPECT_EQ(mqc_ring_count(), 1u);
  load(std::string("alice ") + bob_.open_text);
  EXPECT_EQ(mqc_ring_count(), 2u);
  load(live);
  ExpectSays(Refusal(Sign()), "is not user alice's");
}

// The mapping that a signer lies in, by the kernel's own account.
TEST_F(Security, SignersAreLeftOutOfCoreDumpsAndSwap) {
  std::ifstream maps("/proc/self/smaps");
  const auto at = reinterpret_cast<uintptr_t>(signer_.get());
  uintptr_t begin = 0, end = 0;
  std::string flags;
  for (std::string line; std::getline(maps, line);) {
    uintptr_t from, to;
    if (sscanf(line.c_str(), "%zx-%zx ", &from, &to) == 2) begin = from, end = to;
    if (begin <= at && at < end && line.starts_with("VmFlags:")) flags = line + " ";
  }
  ExpectSays(flags, " dd ");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which make mlock do nothing
  rlimit lockable;
  getrlimit(RLIMIT_MEMLOCK, &lockable);
  if (lockable.rlim_cur > 65536) ExpectSays(flags, " lo ");
#endif
}

TEST_F(Security, SigningIsRefusedWithAReason) {
  struct Row {
    const char* says;
    std::function<void(PcfMessage*, void**)> spoil;
  };
  uint64_t no_signer[40] = {};
  Signer bob(mqc_signer_new("bob", bob_.secret, nullptr, 0));
  const Row rows[] = {
      {"no security context", [](PcfMessage*, void** context) { *context = nullptr; }},
      {"no signer", [&](PcfMessage*, void** context) { *context = no_signer; }},
      {"the key is that of bob", [&](PcfMessage*, void** context) { *context = bob.get(); }},
      {"node's user is al", [](PcfMessage* msg, void**) { msg->secHeader.userId[2] = 0; }},
      {"are no message", [](PcfMessage* msg, void**) { msg->raw.length = 136; }},
      {"passes the bound",
       [](PcfMessage* msg, void**) {
         ASSERT_TRUE(SizePcfMessage(msg, MQ_MAX_MESSAGE));
         msg->raw.length = MQ_MAX_MESSAGE - 127;
       }},
      {"are no message", [](PcfMessage* msg, void**) { msg->raw.length = msg->raw.capacity + 1; }},
      {"do not say", [](PcfMessage* msg, void**) { msg->secHeader.msgLength--; }},
      {"do not say", [](PcfMessage* msg, void**) { reinterpret_cast<MsgHeader*>(msg->raw.data)->bodyLength++; }},
      {"different users", [](PcfMessage* msg, void**) { msg->raw.data[72] = 'A'; }},
      {"no memory", [](PcfMessage*, void**) { mqc_fail_allocation(1, 0); }},
  };
  for (const Row& row : rows) {
    AddSample(msg_.get());
    void* context = signer_.get();
    IoBuffer out = {};
    row.spoil(msg_.get(), &context);
    EXPECT_FALSE(mqc_sign(context, msg_.get(), &out)) << row.says;
    ExpectSays(mqc_sign_error(), row.says);
    DeleteBuffer(&out);
  }
  PcfMessage empty;
  mqc_message_init(&empty);
  memcpy(empty.secHeader.userId, "alice", 5);
  IoBuffer out = {};
  EXPECT_FALSE(mqc_sign(signer_.get(), &empty, &out));
  ExpectSays(mqc_sign_error(), "are no message");
  AddSample(msg_.get());
  EXPECT_TRUE(Receive(Sign()));
}

// What a host may hand to the check without having looked at it.
TEST_F(Security, RecordsThatDoNotFitTheirEnvelopeAreRefused) {
  struct Row {
    const char* says;
    std::function<void(PcfMessage*, IoBuffer*)> spoil;
  };
  const auto shorten = [](PcfMessage* msg, IoBuffer* part, uint32_t length) {
    msg->raw.length = part->length = msg->secHeader.msgLength = length;
  };
  const Row rows[] = {
      {"an envelope of 33", [](PcfMessage* msg, IoBuffer*) { msg->secHeader.hdrLength = 33; }},
      {"version 2", [](PcfMessage* msg, IoBuffer*) { msg->secHeader.version = 2; }},
      {"the envelope says", [](PcfMessage* msg, IoBuffer*) { msg->secHeader.msgLength++; }},
      {"no room for a signature", [&](PcfMessage* msg, IoBuffer* part) { shorten(msg, part, 136 + 96); }},
      {"the header says", [&](PcfMessage* msg, IoBuffer* part) { shorten(msg, part, 136 + 96 + 1); }},
      {"does not hold", [](PcfMessage* msg, IoBuffer*) { msg->raw.data = nullptr; }},
      {"does not hold", [](PcfMessage*, IoBuffer* part) { part->data = nullptr; }},
      {"does not hold", [](PcfMessage* msg, IoBuffer*) { msg->raw.length--; }},
      {"does not hold", [](PcfMessage* msg, IoBuffer*) { msg->raw.capacity--; }},
      {"other bytes", [](PcfMessage* msg, IoBuffer*) { msg->raw.data[150] ^= 1; }},
      {"cannot be one",
       [](PcfMessage* msg, IoBuffer* part) {
         for (uint8_t* user : {msg->raw.data + 72, part->data + 72}) memcpy(user, "alice\0x", 7);
         memcpy(msg->secHeader.userId, "alice\0x", 7);
       }},
      {"", [](PcfMessage* msg, IoBuffer* part) { part->data = msg->raw.data; }},
  };
  for (const Row& row : rows) {
    const Bytes wire = Sign();
    Bytes bytes(wire.begin() + 32, wire.end());
    Exact record(bytes);
    PcfMessage* const msg = record.get();
    memcpy(&msg->secHeader, wire.data(), 32);
    const auto length = static_cast<uint32_t>(bytes.size());
    IoBuffer part = {bytes.data(), length, length, 0, length + 32, 0};
    row.spoil(msg, &part);
    EXPECT_EQ(mqc_authenticate(&msg->secHeader, &part, msg), row.says[0] == '\0');
    ExpectSays(mqc_authenticate_error(), row.says);
  }
}

TEST_F(Security, AgeIsJudgedByTheWindow) {
  struct Row {
    int64_t later;
    const char* says;
  };
  ASSERT_FALSE(mqc_set_window(0));
  ASSERT_FALSE(mqc_set_window(MQC_WINDOW_MAX + 1));
  ASSERT_TRUE(mqc_set_window(10));
  for (const Row& row :
       {Row{10000, ""}, Row{-10000, ""}, Row{10001, "before the present"}, Row{-10001, "after the present"}}) {
    clock_now += 100000;
    const Bytes wire = Sign();
    clock_now += row.later;
    ExpectSays(Refusal(wire) + row.says, row.says);
    EXPECT_EQ(Refusal(wire).find("replay") != std::string::npos, row.says[0] == '\0');
    clock_now += 100000;
  }
  const Bytes wire = Sign();
  mqc_refuse_before(clock_now);
  ExpectSays(Refusal(wire), "longer than accepted messages are remembered");
  clock_now += 1;
  EXPECT_TRUE(Receive(Sign()));
}

TEST_F(Security, AFullMemoryForgetsButNeverAcceptsTwice) {
  ASSERT_FALSE(mqc_set_replay_limit(1023));
  ASSERT_TRUE(mqc_set_replay_limit(1024));
  std::vector<Bytes> wires;
  for (int i = 0; i < 2500; ++i) {
    clock_now += 50;
    wires.push_back(Sign());
    ASSERT_TRUE(Receive(wires.back())) << i << ": " << mqc_authenticate_error();
  }
  EXPECT_LE(Account("replay").live_bytes, 1024u * 96);
  for (const Bytes& wire : wires) ASSERT_FALSE(Receive(wire));
  // All of one moment: the memory fills, and what does not fit in is refused.
  clock_now += 700000;
  wires.clear();
  std::string refusal;
  while (refusal.empty() && wires.size() < 1100) {
    wires.push_back(Sign());
    refusal = Refusal(wires.back());
  }
  EXPECT_EQ(wires.size(), 1025u);
  ExpectSays(refusal, "user alice has filled");
  for (const Bytes& wire : wires) ASSERT_FALSE(Receive(wire));
  // A wider window and a clock that goes back bring nothing back either.
  clock_now += 400000;
  EXPECT_TRUE(Receive(Sign()));
  ASSERT_TRUE(mqc_set_window(MQC_WINDOW_MAX));
  for (const Bytes& wire : wires) ASSERT_FALSE(Receive(wire));
  clock_now -= 400000;
  for (const Bytes& wire : wires) ASSERT_FALSE(Receive(wire));
  clock_now += 400000;
}

// bob fills the memory with messages that are as far ahead as they may be: his own later ones are refused, alice's are
// not, and nothing is accepted twice.
TEST_F(Security, NobodyFillsTheMemoryForOthers) {
  constexpr int kAhead = 290000;
  ASSERT_TRUE(mqc_set_replay_limit(1024));
  const auto sign_as = [&](const char* user, const Keys& keys, int ahead) {
    signer_.reset(mqc_signer_new(user, keys.secret, nullptr, 0));
    FillHeader(msg_.get(), user);
    clock_now += ahead;
    const Bytes wire = Sign();
    clock_now -= ahead;
    return wire;
  };
  std::vector<Bytes> wires;
  const Bytes first = sign_as("bob", bob_, kAhead);
  mqc_fail_allocation(1, 0);
  ExpectSays(Refusal(first), "no memory");
  for (int i = 0; i < 1024; ++i) {
    wires.push_back(sign_as("bob", bob_, kAhead));
    ASSERT_EQ(Refusal(wires.back()), "");
  }
  ExpectSays(Refusal(sign_as("bob", bob_, kAhead)), "user bob has filled");
  for (int i = 0; i < 2000; ++i) {
    clock_now += 10;
    wires.push_back(sign_as("alice", alice_, 0));
    ASSERT_EQ(Refusal(wires.back()), "") << i;
  }
  ExpectSays(Refusal(sign_as("bob", bob_, 0)), "longer than accepted messages are remembered");
  EXPECT_LE(Account("replay").live_blocks, 1024u + 2) << "and a block for each user";
  for (const Bytes& wire : wires) ASSERT_FALSE(Receive(wire));
  clock_now += kAhead + 1;
  EXPECT_EQ(Refusal(sign_as("bob", bob_, 0)), "") << "when the time has come up to his messages";
}

// Both clocks were an hour ahead: what was accepted then is still refused, and nothing else is.
TEST_F(Security, AClockThatIsSetRightRefusesNothingNew) {
  constexpr int kAhead = 3600000;
  ASSERT_TRUE(mqc_set_replay_limit(1024));
  const Bytes before = Sign();
  ASSERT_TRUE(Receive(before));
  clock_now += kAhead;
  const Bytes ahead = Sign();
  ASSERT_TRUE(Receive(ahead));
  clock_now -= kAhead;
  EXPECT_TRUE(Receive(Sign())) << mqc_authenticate_error();
  clock_now += kAhead;
  std::vector<Bytes> full = {ahead};
  while (full.size() < 1024) {
    full.push_back(Sign());
    ASSERT_TRUE(Receive(full.back()));
  }
  clock_now -= kAhead;
  ExpectSays(Refusal(Sign()), "longer than accepted messages are remembered");
  // Until the host says so: then the messages of the wrong hour, and no others, are accepted once more in that hour.
  const Bytes refused = Sign();
  mqc_refuse_before(clock_now + kAhead);
  mqc_reset_replay(clock_now);
  EXPECT_EQ(Account("replay").live_blocks, 0u);
  ExpectSays(Refusal(refused), "longer than accepted messages are remembered");
  ExpectSays(Refusal(before), "longer than accepted messages are remembered");
  clock_now += 1;
  EXPECT_TRUE(Receive(Sign())) << mqc_authenticate_error();
  clock_now += kAhead;
  EXPECT_TRUE(Receive(full.back())) << mqc_authenticate_error();
  EXPECT_FALSE(Receive(full.back()));
  // An hour after the window, two are forgotten for each that comes.
  clock_now += kAhead + 300001;
  ASSERT_TRUE(Receive(Sign()));
  EXPECT_EQ(Account("replay").live_blocks, 2u) << "the user and the last message";
}

// The memory grows with what it holds, obeys a limit that was lowered, and takes nothing when it cannot grow.
TEST_F(Security, TheMemoryGrowsAndShrinks) {
  std::vector<Bytes> wires;
  const auto accept = [&](int count) {
    for (int i = 0; i < count; ++i) {
      clock_now += 1;
      wires.push_back(Sign());
      ASSERT_EQ(Refusal(wires.back()), "");
    }
  };
  ASSERT_FALSE(mqc_set_replay_limit(16777217));
  accept(5000);
  const uint64_t grown = Account("replay").live_bytes;
  EXPECT_GE(grown, 5000u * 48);
  ASSERT_TRUE(mqc_set_replay_limit(1024));
  // One that was signed before those that are forgotten now comes too late, even if it is what they are forgotten for.
  const int64_t now = clock_now;
  clock_now = now - 4900;
  const Bytes late = Sign();
  clock_now = now;
  for (int i = 0; i < 2; ++i) {
    ExpectSays(Refusal(late), "longer than accepted messages are remembered");
    accept(1);
    EXPECT_LT(Account("replay").live_bytes, grown);
  }
  for (const Bytes& wire : wires) ASSERT_FALSE(Receive(wire));
  std::string refusal;
  for (int i = 0; i < 1024 && refusal.empty(); ++i) {
    clock_now += 1;
    wires.push_back(Sign());
    mqc_fail_allocation(1, 0);
    refusal = Refusal(wires.back());
    mqc_fail_allocation(0, 0);
  }
  ExpectSays(refusal, "no memory");
  EXPECT_TRUE(Receive(wires.back())) << "what was refused for want of memory was not remembered";
}

TEST_F(Security, OneOfManyThreadsAcceptsAMessage) {
  for (int round = 0; round < 20; ++round) {
    const Bytes wire = Sign();
    std::atomic<int> accepted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back([&] { accepted += Receive(wire); });
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(accepted, 1);
  }
}

// ---- Key files ----

TEST(KeyFiles, AreReadOrRefusedWithTheLine) {
  Folder folder;
  const Keys one, two;
  const std::string alice = std::string("alice ") + one.secret_text + "\n";
  const std::string bob = std::string("bob\t") + two.secret_text;
  struct Row {
    std::string text;
    mode_t mode;
    const char* user;
    const char* says;  // null: taken
  };
  const Row rows[] = {
      {"# keys\n\n  " + alice, 0600, nullptr, nullptr},
      {alice + bob, 0400, "bob", nullptr},
      {alice.substr(0, alice.size() - 1) + "\r\n" + bob + "\r", 0600, "alice", nullptr},
      {alice + bob + " # his", 0600, "bob", nullptr},
      {alice, 0640, nullptr, "chmod 600"},
      {alice, 0604, nullptr, "chmod 600"},
      {alice + bob, 0600, nullptr, "2 keys"},
      {alice + alice, 0600, "alice", "2 keys"},
      {alice, 0600, "carol", "no key of user carol"},
      {"# nothing\n", 0600, nullptr, "no key"},
      {"", 0600, nullptr, "no key"},
      {alice + "bob\n", 0600, "alice", ":2: expected"},
      {"\n\nbob 1234\n", 0600, "bob", ":3: expected"},
      {"abcdefghijklm" + bob.substr(3), 0600, nullptr, ":1: expected"},
      {bob + "0", 0600, nullptr, ":1: expected"},
      {bob.substr(0, 10) + "g" + bob.substr(11), 0600, nullptr, ":1: expected"},
      {bob + " more", 0600, nullptr, ":1: expected"},
      {bob + " until=2028-02-29\tsecret # his", 0600, nullptr, nullptr},
      {bob + " public", 0600, nullptr, ":1: a public key cannot sign"},
      {bob + " revoked", 0600, nullptr, ":1: this key is revoked"},
      {bob + std::string(1, '\0') + "\n", 0600, nullptr, ":1: expected"},
      {std::string(65537, '\n'), 0600, nullptr, "at most 65536"},
  };
  for (const Row& row : rows) {
    const std::string path = folder.File("secret", row.text, row.mode);
    char error[300] = "untouched";
    Signer signer(mqc_signer_load(path.c_str(), row.user, error, sizeof(error)));
    EXPECT_EQ(signer == nullptr, row.says != nullptr) << row.text << ": " << error;
    ExpectSays(error, row.says == nullptr ? "" : row.says);
    if (row.says != nullptr) ExpectSays(error, path.c_str());
    EXPECT_EQ(std::string(error).find(std::string(two.secret_text).substr(0, 10)), std::string::npos);
    EXPECT_EQ(signer != nullptr, error[0] == '\0');
    unlink(path.c_str());
  }
  char error[300];
  EXPECT_EQ(mqc_signer_load(folder.Name("missing").c_str(), nullptr, error, sizeof(error)), nullptr);
  ExpectSays(error, "No such file");
  EXPECT_EQ(mqc_signer_load("/tmp", nullptr, error, sizeof(error)), nullptr);
  const std::string theirs = folder.File("theirs", alice);
  if (chown(theirs.c_str(), 65534, 65534) == 0) {  // root alone can
    EXPECT_EQ(mqc_signer_load(theirs.c_str(), nullptr, error, sizeof(error)), nullptr);
    ExpectSays(error, "belongs to user id 65534");
  }
  char cut[8];
  EXPECT_EQ(mqc_signer_load("/", nullptr, cut, sizeof(cut)), nullptr);
  EXPECT_EQ(strlen(cut), 7u);
  EXPECT_EQ(mqc_signer_load("/", nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(mqc_signer_load("/", nullptr, cut, 0), nullptr);
  EXPECT_EQ(strlen(cut), 7u) << "a place of no size is not written to";
}

TEST(KeyFiles, WordsBehindAKeyAreTakenOnce) {
  const Keys keys;
  const std::string start = std::string("bob ") + keys.open_text + " ";
  MqcKey key;
  for (const char* words : {"public secret", "revoked revoked", "until=2027-01-30 until=2027-01-30", "until=", "Public",
                            "until=2027-1-30", "until=2027/01-30", "until=2027-01/30", "until=2o27-01-30",
                            "until=2027-x1-30", "until=2027-01-3x", "until=2027-02-29", "until=1969-12-31"}) {
    EXPECT_FALSE(mqc_key_read((start + words).c_str(), &key)) << words;
    EXPECT_EQ(std::count(key.key, key.key + 32, 0), 32) << words;
  }
  char line[MQC_KEY_LINE];
  for (const char* words : {"", "public", "secret until=1970-01-01", "public until=9999-12-31 revoked"}) {
    ASSERT_TRUE(mqc_key_read((start + words).c_str(), &key)) << words;
    mqc_key_write(&key, line);
    EXPECT_EQ(line + std::string(*words == '\0' ? " " : ""), start + words);
  }
  key.kind = 9;
  key.until = MQC_NO_END - 1;
  mqc_key_write(&key, line);
  EXPECT_EQ(line, start + "until=9999-12-31 revoked");
}

TEST(KeyFiles, ASecretIsWrittenForItsOwnerAndNeverOverwritten) {
  Folder folder;
  const Keys keys;
  const std::string path = folder.Name("secret");
  char error[300];
  ASSERT_TRUE(mqc_secret_file_write(path.c_str(), "alice", keys.secret, error, sizeof(error))) << error;
  struct stat about;
  ASSERT_EQ(stat(path.c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 07777, 0600u);
  EXPECT_FALSE(mqc_ring_load(path.c_str(), error, sizeof(error))) << "a secret key file is not a ring";
  ExpectSays(error, ":1: a secret key in a ring");
  EXPECT_FALSE(mqc_secret_file_write(path.c_str(), "bob", keys.secret, error, sizeof(error)));
  ExpectSays(error, "exists");
  Signer signer(mqc_signer_load(path.c_str(), nullptr, error, sizeof(error)));
  ASSERT_TRUE(signer) << error;
  EXPECT_STREQ(mqc_signer_user(signer.get()), "alice");
  uint8_t open[32];
  mqc_signer_public_key(signer.get(), open);
  EXPECT_EQ(memcmp(open, keys.open, 32), 0);
  // Interrupted transfers go on; others fail, and leave nothing behind.
  const std::string other = folder.Name("other");
  for (const auto& [code, says] : {std::pair{EINTR, ""}, {EIO, "Input/output error"}, {0, ""}}) {
    host_system.transfer = code;
    EXPECT_EQ(mqc_secret_file_write(other.c_str(), "alice", keys.secret, error, sizeof(error)), code == EINTR) << code;
    ExpectSays(error, says);
    EXPECT_EQ(unlink(other.c_str()) == 0, code == EINTR);
    host_system.transfer = code;
    signer.reset(mqc_signer_load(path.c_str(), nullptr, error, sizeof(error)));
    EXPECT_EQ(signer != nullptr, code == EINTR) << code;
    ExpectSays(error, code == 0 ? "expected" : says);
  }
  // A disk that takes no more leaves no part of a key behind.
  const std::string full = folder.Name("full");
  rlimit old;
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit small = {10, old.rlim_max};
  const auto before = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_FALSE(mqc_secret_file_write(full.c_str(), "alice", keys.secret, error, sizeof(error)));
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, before);
  ExpectSays(error, "File too large");
  EXPECT_NE(access(full.c_str(), F_OK), 0);
  for (const char* user : {"", "thirteen char", "a b", "a#b", "thirteenchars", "\x80", "\x7f"}) {
    EXPECT_EQ(mqc_signer_new(user, keys.secret, error, sizeof(error)), nullptr) << user;
    EXPECT_FALSE(mqc_ring_add(user, keys.open, error, sizeof(error))) << user;
  }
}

TEST(KeyFiles, ARingIsLoadedWholeOrNotAtAll) {
  Folder folder;
  const Keys one, two;
  mqc_ring_clear();
  ASSERT_TRUE(mqc_ring_add("m", one.open, nullptr, 0));
  const std::string good = std::string("z ") + one.open_text + "\na " + two.open_text + "\nm " + two.open_text + "\n";
  struct Row {
    std::string more;
    const char* says;
  };
  const Row rows[] = {{"bad line\n", ":4: expected"},
                      {std::string("# again\na ") + one.open_text, ":5: user a has a key in line 2 already"},
                      {"q " + std::string(64, 'f'), ":4: not a valid public key"},
                      {"q " + std::string(64, '0') + " revoked", ":4: not a valid public key"}};
  char error[300];
  for (const Row& row : rows) {
    EXPECT_FALSE(mqc_ring_load(folder.File("ring", good + row.more, 0644).c_str(), error, sizeof(error)));
    ExpectSays(error, row.says);
    EXPECT_EQ(mqc_ring_count(), 1u);
  }
  EXPECT_FALSE(mqc_ring_load(folder.File("ring", good, 0664).c_str(), error, sizeof(error)));
  ExpectSays(error, "chmod go-w");
  ASSERT_TRUE(mqc_ring_load(folder.File("ring", good, 0644).c_str(), error, sizeof(error))) << error;
  ASSERT_TRUE(mqc_ring_load(folder.File("ring", good, 0644).c_str(), error, sizeof(error))) << error;
  EXPECT_EQ(mqc_ring_count(), 3u);
  for (const char* user : {"a", "m", "z"}) EXPECT_TRUE(mqc_ring_remove(user)) << user;
  // More users than the first area holds, around those of the file, in any order.
  ASSERT_FALSE(mqc_ring_add("n", reinterpret_cast<const uint8_t*>(std::string(32, '\xff').data()), nullptr, 0));
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(mqc_ring_add(("zz" + std::to_string(i * 7 % 40)).c_str(), one.open, nullptr, 0));
  }
  ASSERT_TRUE(mqc_ring_load(folder.File("ring", good, 0644).c_str(), error, sizeof(error))) << error;
  EXPECT_EQ(mqc_ring_count(), 43u);
  for (int i = 0; i < 40; ++i) EXPECT_TRUE(mqc_ring_remove(("zz" + std::to_string(i)).c_str()));
  for (const char* user : {"a", "m", "z"}) EXPECT_TRUE(mqc_ring_remove(user)) << user;
  mqc_ring_clear();
}

// ---- Log ----

class Log : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(mqc_log_to(path_.c_str())); }
  void TearDown() override { mqc_log_to(nullptr); }
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    std::istringstream in(Content(path_));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  Folder folder_;
  std::string path_ = folder_.Name("log");
};

TEST_F(Log, WritesOneLineFromASignalHandler) {
  struct sigaction action = {}, before;
  action.sa_handler = [](int) { LOGMSG("1158I from a handler", 1); };
  sigaction(SIGUSR1, &action, &before);
  errno = 1234;
  raise(SIGUSR1);
  EXPECT_EQ(errno, 1234);
  sigaction(SIGUSR1, &before, nullptr);
  LOGMSG("0106W two\nlines\x1b[2J\x7f", 1);
  LOGMSG(std::string(5000, 'x').c_str(), 1);
  for (const int code : {EINTR, EIO, EIO}) {
    host_system.transfer = code;
    LOGMSG("0106W interrupted, or lost", 1);
  }
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 4u);
  const std::string shape = "dddd-dd-ddTdd:dd:dd.dddZ ";
  for (const std::string& line : lines) {
    std::string start = line.substr(0, shape.size());
    for (char& c : start) c = isdigit(static_cast<unsigned char>(c)) ? 'd' : c;
    EXPECT_EQ(start, shape);
  }
  EXPECT_EQ(lines[0].substr(shape.size()), "1158I from a handler");
  EXPECT_EQ(lines[1].substr(shape.size()), "0106W two.lines.[2J.");
  tm date = {};
  strptime(lines[0].c_str(), "%Y-%m-%dT%H:%M:%S", &date);
  EXPECT_LT(std::abs(difftime(timegm(&date), time(nullptr))), 5);
  EXPECT_LE(lines[2].size(), 1023u);
}

TEST_F(Log, FallsBackToStandardError) {
  ASSERT_TRUE(mqc_log_to("/nowhere/at/all"));
  EXPECT_FALSE(mqc_log_to(std::string(1024, 'x').c_str()));
  testing::internal::CaptureStderr();
  errno = 1234;
  LOGMSG("1157I one", 1);
  EXPECT_EQ(errno, 1234);
  mqc_log_to("");
  LOGMSG("1157I two", 1);
  const std::string seen = testing::internal::GetCapturedStderr();
  ExpectSays(seen, " 1157I one\n");
  ExpectSays(seen, " 1157I two\n");
  EXPECT_TRUE(Lines().empty());
}

// Standard error, for as long as this lives.
class StandardError {
 public:
  explicit StandardError(int fd) { dup2(fd, STDERR_FILENO); }
  ~StandardError() {
    dup2(kept_, STDERR_FILENO);
    close(kept_);
  }

 private:
  int kept_ = dup(STDERR_FILENO);
};

// What can be read now.
std::string Taken(int fd) {
  std::string text(1 << 20, ' ');
  const ssize_t got = syscall(SYS_read, fd, text.data(), text.size());
  text.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return text;
}

// A pipe that is full, the wrong end of one, a socket, nothing: no line waits, none goes to a peer, and each is
// counted.
TEST_F(Log, WaitsForNobody) {
  int pipe_ends[2], sockets[2];
  ASSERT_EQ(pipe2(pipe_ends, 0), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sockets), 0);
  LOGMSG("1157I counted from here", 1);
  mqc_log_to(nullptr);
  for (const int fd : {sockets[0], pipe_ends[1], pipe_ends[0], -1}) {
    const StandardError there(fd);
    if (fd == -1) close(STDERR_FILENO);
    const std::string page(4096, 'x');
    if (fd == pipe_ends[1]) {
      fcntl(fd, F_SETFL, O_NONBLOCK);
      while (write(fd, page.data(), page.size()) > 0) continue;
      fcntl(fd, F_SETFL, 0);
    }
    for (int i = 0; i < 3; ++i) LOGMSG("1157I lost", 1);
  }
  EXPECT_EQ(Taken(sockets[1]), "");
  EXPECT_EQ(Taken(pipe_ends[0]).find_first_not_of('x'), std::string::npos);
  {
    const StandardError there(pipe_ends[1]);
    for (const char* line : {"1157I first", "1157I second"}) LOGMSG(line, 1);
    EXPECT_EQ(fcntl(pipe_ends[1], F_GETFL) & O_NONBLOCK, 0) << "others have the descriptor too";
    const std::string text = Taken(pipe_ends[0]);
    ExpectSays(text, " 1903W lines lost before this one: 12\n");
    EXPECT_LT(text.find("first\n"), text.find("second\n"));
    close(pipe_ends[0]);
    LOGMSG("1157I and no signal", 1);
  }
  mqc_log_to(path_.c_str());
  LOGMSG("1157I third", 1);
  ASSERT_GE(Lines().size(), 3u);
  ExpectSays(Lines()[Lines().size() - 2], " 1903W lines lost before this one: 1");
  for (const int fd : {pipe_ends[1], sockets[0], sockets[1]}) close(fd);
}

TEST_F(Log, DumpsAreBoundedWhateverTheyShow) {
  Message big(mqc_message_new(0));
  ASSERT_TRUE(mqc_begin(big.get(), 1) && mqc_add_bytes(big.get(), 1, std::string(100000, 'x').data(), 100000));
  AlienPcfToNative(big.get());
  DumpPcfMessage(big.get());
  EXPECT_EQ(Lines().size(), 7u);
  ExpectSays(Lines()[0], "message of 100156 bytes");
  ExpectSays(Lines()[1], "dump 000: 88000000");
  for (const std::string& line : Lines()) EXPECT_LT(line.size(), 400u);
  PcfMessage empty;
  mqc_message_init(&empty);
  DumpPcfMessage(&empty);
  EXPECT_EQ(Lines().size(), 8u);
  Exact small(Bytes(10, 0xff));
  memset(small.get()->secHeader.userId, '\n', 12);
  DumpPcfMessage(small.get());
  EXPECT_EQ(Lines().size(), 10u);
  EXPECT_FALSE(RawToPcf(small.get()));
  DumpPcfMessage(small.get());
  ExpectSays(Lines()[10], mqc_message_error(small.get()));
}

// Runs in a process of its own, which loads the companion with the variable set.
TEST(LogChild, DISABLED_Writes) { LOGMSG("1157I child", 1); }

TEST(LogChild, TheEnvironmentNamesTheFile) {
  Folder folder;
  const std::string path = folder.Name("log");
  RunAlone("LogChild.DISABLED_Writes", "MQCOMPANION_LOG", path);
  ExpectSays(Content(path), " 1157I child\n");
  // A pipe that is read, a link, a folder, another user's file, a path that is too long: the line goes to standard
  // error.
  const std::string link = folder.Name("link");
  const std::string fifo = folder.Name("fifo");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()) + mkfifo(fifo.c_str(), 0600), 0);
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  int sockets[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sockets), 0);
  std::vector<std::string> refused = {link, fifo, "/tmp", std::string(1024, 'x')};
  const std::string theirs = folder.File("theirs", "", 0666);
  if (chown(theirs.c_str(), geteuid() + 1, getegid()) == 0) refused.push_back(theirs);
  for (const std::string& other : refused) {
    const std::string seen = folder.File("seen", "");
    const int file = open(seen.c_str(), O_WRONLY);
    const StandardError there(file);
    close(file);
    RunAlone("LogChild.DISABLED_Writes", "MQCOMPANION_LOG", other);
    ExpectSays(Content(seen), " 1157I child\n");
  }
  EXPECT_EQ(Taken(reader) + Content(theirs), "");
  EXPECT_EQ(Content(path).find('\n'), Content(path).size() - 1) << "no second line";
  // The journal's socket is named in the environment, and the only one that is written to.
  struct stat about;
  fstat(sockets[0], &about);
  const StandardError there(sockets[0]);
  const std::string journal = std::to_string(about.st_dev) + ":" + std::to_string(about.st_ino);
  for (const std::string& stream : {journal + "1", "1" + journal, std::string("nothing"), journal}) {
    EXPECT_EQ(Taken(sockets[1]), "");
    RunAlone("LogChild.DISABLED_Writes", "JOURNAL_STREAM", stream);
  }
  ExpectSays(Taken(sockets[1]), " 1157I child\n");
  for (const int fd : {reader, sockets[0], sockets[1]}) close(fd);
}

// The last second of every day until 2105.
TEST_F(Log, WritesTheDateOfAnyDay) {
  std::string expected;
  for (time_t last = 86399; last < time_t{135} * 366 * 86400; last += 86400) {
    const timespec at = {last, 7000000};
    host_system.time = &at;
    LOGMSG("x", 1);
    host_system.time = nullptr;
    char line[64];
    tm date;
    strftime(line, sizeof(line), "%Y-%m-%dT%H:%M:%S.007Z x\n", gmtime_r(&last, &date));
    expected += line;
  }
  EXPECT_TRUE(Content(path_) == expected);
}

}  // namespace
