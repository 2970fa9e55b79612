// companion_security_test.cc - keys, key files, the ring, signatures and the memory of accepted messages.
#include <dlfcn.h>
#include <sys/resource.h>

#include "tests/support/records.hh"

// All bytes that were wiped, while it has a value.
static std::optional<std::vector<Bytes>> wiped;

extern "C" void sodium_memzero(void* const place, const size_t size) {
  static const auto wipe = reinterpret_cast<void (*)(void*, size_t)>(dlsym(RTLD_NEXT, "sodium_memzero"));
  if (wiped) wiped->emplace_back(static_cast<const char*>(place), size);
  wipe(place, size);
}

namespace {

using mqnode::Signer;

int64_t clock_now;

struct Keys {
  uint8_t secret[32], open[32];
  char secret_text[65], open_text[65];
  Keys() {
    EXPECT_TRUE(mqc_generate_key(secret, open));
    mqc_key_text(secret, secret_text);
    mqc_key_text(open, open_text);
  }
};

// How messages are sent: milliseconds before each, lead of the sender's clock, and why the reader refuses them.
struct How {
  int64_t pace = 0, ahead = 0;
  const char* says = "";  // empty if accepted
};

// Changes a record, or the buffer passed with it, before it is signed or checked.
using Spoil = std::function<void(PcfMessage&, IoBuffer&)>;

class SecurityTest : public Fixture {
 protected:
  SecurityTest() {
    clock_now = 1700000000000;
    mqc_set_clock([] { return clock_now; });
    mqc_reset_replay(0);
    mqc_ring_clear();
    EXPECT_TRUE(Add("alice", alice_) && Add("bob", bob_));
  }
  ~SecurityTest() override {
    mqc_set_window(300);
    mqc_set_replay_limit(262144);
    mqc_set_opener(nullptr);
    mqc_set_sealing(MQC_SEAL_MAY);
  }
  static bool Add(const char* user, const Keys& keys) { return mqc_ring_add(user, keys.open, nullptr, 0) == 1; }
  bool Load(const std::string& ring, mode_t mode = 0644) {
    return mqc_ring_load(folder_.File("ring", ring, mode).c_str(), why_.text, sizeof why_.text);
  }

  // The sample, signed by this user after spoil has changed it; empty if signing is refused.
  Bytes Sign(const std::string& user, void* context, const Spoil& spoil = {}) {
    Exact msg(SampleFrom({}, user));
    IoBuffer out = {};
    msg->secHeader = {32, 1, 0, 1, msg->raw.length, {}};
    user.copy(msg->secHeader.userId, sizeof msg->secHeader.userId);
    if (spoil) spoil(msg.record(), out);
    mqc_sign(context, msg.get(), &out);
    const Bytes wire(reinterpret_cast<char*>(out.data), out.length);
    DeleteBuffer(&out);
    return wire;
  }
  Bytes Sign(const std::string& user = "alice") {
    return Sign(user, (user == "bob" ? bob_signer_ : alice_signer_).get());
  }
  // Processes the bytes of one message like a signed read. Returns why it was refused; empty if it was accepted.
  static std::string Refusal(const Bytes& wire, const Spoil& spoil = {}) {
    SecureHeader envelope;
    memcpy(&envelope, wire.data(), 32);
    if (!AlienToNativeExt(&envelope)) return "envelope";
    Bytes part = wire.substr(32);
    Exact record(part);
    const auto length = static_cast<uint32_t>(part.size());
    IoBuffer view = {reinterpret_cast<uint8_t*>(part.data()), length, length, 0, length, 0};
    record->secHeader = envelope;
    if (spoil) spoil(record.record(), view);
    const bool accepted = 1 == mqc_authenticate(&record->secHeader, &view, record.get());
    EXPECT_EQ(record.sealed(), accepted && envelope.version == 2);
    if (record.sealed()) DumpPcfMessage(record.get());
    if (accepted) {
      EXPECT_TRUE(record.Read());
      EXPECT_EQ(Show(record), format("{0}{1}, foreign sender, {1}", kSample, record.sender()));
      EXPECT_TRUE(record.Read() && !record.sealed()) << "a later plain read is not sealed";
    } else {
      EXPECT_TRUE(envelope.version != 2 || RawOf(record).find("foreign sender") == Bytes::npos);
      EXPECT_EQ(Show(record), "0:; , , ") << "a refused message must not be shown";
    }
    return accepted ? "" : mqc_authenticate_error();
  }
  // A message that alice sealed for bob and signed, made by the tests' own sender.
  Bytes Sealed(const Bytes& plain, const std::function<void(Bytes&)>& spoil = {}) const {
    mqc_reset_replay(0);  // all of them have the same time and nonce
    const auto now = static_cast<uint64_t>(clock_now);
    Bytes part = sender::Sealed(plain, "alice", "bob", bob_.open, now, "");
    if (spoil) spoil(part);
    return sender::Signed({true, true}, part, "alice", alice_.secret, now, "", 2);
  }
  void Send(const std::string& user, int count, How how = {}) {
    for (int i = 0; i < count && !HasFailure(); ++i) {
      clock_now += how.pace + how.ahead;
      const Bytes wire = Sign(user);
      clock_now -= how.ahead;
      const std::string refusal = Refusal(wire);
      ExpectSays(refusal, how.says);
      EXPECT_EQ(refusal.empty(), *how.says == '\0') << refusal << ", message " << i;
      if (refusal.empty()) accepted_.push_back(wire);
    }
  }
  void ExpectNothingIsAcceptedTwice() const {
    for (const Bytes& wire : accepted_) ASSERT_NE(Refusal(wire), "");
  }
  static uint64_t Remembered() { return Account("replay").live_blocks; }

  const Keys alice_, bob_;
  const Signer alice_signer_ = Signer::create("alice", alice_.secret), bob_signer_ = Signer::create("bob", bob_.secret);
  const Folder folder_;
  std::vector<Bytes> accepted_;
  mqnode::ErrorText why_;
};

constexpr char kForgotten[] = "longer than accepted messages are remembered";
constexpr int kHour = 3600000;

// ---- Signatures ----

Bytes Flip(Bytes bytes, size_t bit) {
  bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
  return bytes;
}

TEST_F(SecurityTest, EveryBitAndTheEndAreCovered) {
  const Signer seals = alice_signer_.sealing("bob");
  mqc_set_opener(bob_signer_.get());
  for (const auto& [signer, behind] : {std::pair{&alice_signer_, 96}, {&seals, 64 + 96}}) {
    const Bytes wire = Sign("alice", signer->get());
    ASSERT_EQ(wire.size(), 32 + 136 + kSampleBody + behind);
    for (size_t bit = 0; bit < 8 * wire.size(); ++bit) ASSERT_NE(Refusal(Flip(wire, bit)), "") << "bit " << bit;
    for (size_t size = 33; size < wire.size(); ++size) {
      ASSERT_NE(Refusal(With(wire.substr(0, size), 16, static_cast<uint32_t>(size - 32))), "") << size;
    }
    EXPECT_EQ(Refusal(wire), "") << "a refused message must not be remembered";
    ExpectSays(Refusal(wire), "replay");
    EXPECT_NE(wire, Sign("alice", signer->get())) << "a nonce is used once";
  }
}

// A message signed by bob that claims to be alice's; alice's key removed, or replaced by bob's.
TEST_F(SecurityTest, NobodySignsForAnother) {
  const Bytes bobs = Sign("bob"), good = Sign();
  Bytes claimed = Bytes(bobs).replace(20, 5, "alice");
  ExpectSays(Refusal(claimed), "different users");
  ExpectSays(Refusal(claimed.replace(32 + 72, 5, "alice")), "not user alice's");
  EXPECT_EQ(mqc_ring_remove("alice"), 1);
  EXPECT_EQ(mqc_ring_remove("alice"), 0);
  ExpectSays(Refusal(good), "not in the ring");
  EXPECT_TRUE(Add("alice", bob_));
  ExpectSays(Refusal(good), "not user alice's");
  EXPECT_TRUE(Add("alice", alice_));
  EXPECT_EQ(Refusal(good) + Refusal(bobs), "");
}

// A key is valid until the last millisecond of its day, for signers and readers. A revoked key stays revoked, whatever
// is loaded before or after; another key of the same user is not affected.
TEST_F(SecurityTest, KeysEndAndAreRevoked) {
  const std::string path = folder_.Name("secret"), line = format("alice {}", alice_.open_text);
  EXPECT_TRUE(mqc_secret_file_write_until(path.c_str(), "alice", alice_.secret, clock_now, nullptr, 0));
  const Signer signer = Signer::load(path.c_str());
  EXPECT_TRUE(Load(line + " until=2023-11-14"));
  clock_now = 1700006399999;
  EXPECT_EQ(mqc_signer_until(signer.get()), clock_now);
  EXPECT_EQ(Refusal(Sign("alice", signer.get())), "");
  const Bytes late = Sign();
  clock_now += 1;
  ExpectSays(Refusal(late), "the key of user alice ended on 2023-11-14");
  EXPECT_EQ(Sign("alice", signer.get()), "");
  ExpectSays(mqc_sign_error(), "the key of user alice ended on 2023-11-14");

  EXPECT_TRUE(Load(line) && Load(line + " revoked") && Load(format("{0}\n{0} revoked", line)) && Load(line));
  ExpectSays(Refusal(Sign()), "is revoked");
  EXPECT_FALSE(Add("alice", alice_) || mqc_ring_remove("alice"));
  EXPECT_EQ(mqc_ring_count(), 1u);
  EXPECT_TRUE(Load(format("alice {}", bob_.open_text)) && Load(line));
  EXPECT_EQ(mqc_ring_count(), 2u);
  ExpectSays(Refusal(Sign()), "is not user alice's");
}

// Reads the flags of the mapping that contains a signer.
TEST_F(SecurityTest, SignersAreLeftOutOfCoreDumpsAndSwap) {
  std::ifstream maps("/proc/self/smaps");
  const auto at = reinterpret_cast<uintptr_t>(alice_signer_.get());
  uintptr_t begin, end;
  bool within = false;
  std::string line;
  while (std::getline(maps, line) && !(within && line.starts_with("VmFlags:"))) {
    if (sscanf(line.c_str(), "%zx-%zx ", &begin, &end) == 2) within = begin <= at && at < end;
  }
  ExpectSays(line + " ", " dd ");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these disable mlock
  rlimit lockable;
  getrlimit(RLIMIT_MEMLOCK, &lockable);
  if (lockable.rlim_cur > 65536) ExpectSays(line + " ", " lo ");
#endif
}

TEST_F(SecurityTest, SigningIsRefusedWithAReason) {
  const Signer seals = alice_signer_.sealing("bob");
  void* const alice = alice_signer_.get();
  uint64_t no_signer[40] = {};
  const std::tuple<const char*, void*, Spoil> rows[] = {
      {"no security context", nullptr, {}},
      {"not a signer", no_signer, {}},
      {"the node's user is alice, the key is that of bob", bob_signer_.get(), {}},
      {"136 bytes in an area of 232 are not a message", alice, [](auto& msg, auto&) { msg.raw.length = 136; }},
      {"233 bytes in an area of 232 are not a message", alice, [](auto& msg, auto&) { msg.raw.length = 233; }},
      {"passes the bound", alice, [](auto& msg, auto&) { msg.raw.length = msg.raw.capacity = MQ_MAX_MESSAGE - 127; }},
      {"passes the bound", seals.get(),
       [](auto& msg, auto&) { msg.raw.length = msg.raw.capacity = MQ_MAX_MESSAGE - 191; }},
      {"do not say the message's length of 232", alice, [](auto& msg, auto&) { msg.secHeader.msgLength--; }},
      {"do not say", alice, [](auto& msg, auto&) { msg.raw.data[64]++; }},
      {"different users", alice, [](auto& msg, auto&) { msg.raw.data[72] = 'A'; }},
      {"no memory to sign", alice, [](auto&, auto&) { mqc_fail_allocation(1, 0); }},
  };
  for (const auto& [says, context, spoil] : rows) {
    EXPECT_EQ(Sign("alice", context, spoil), "");
    ExpectSays(mqc_sign_error(), says);
  }
}

TEST_F(SecurityTest, RecordsThatDoNotFitTheirEnvelopeAreRefused) {
  const auto resize = [](uint32_t length) -> Spoil {
    return [=](auto& msg, auto& part) { msg.raw.length = part.length = msg.secHeader.msgLength = length; };
  };
  const std::pair<const char*, Spoil> rows[] = {
      {"an envelope of 33", [](auto& msg, auto&) { msg.secHeader.hdrLength = 33; }},
      {"the envelope says 329 bytes", [](auto& msg, auto&) { msg.secHeader.msgLength++; }},
      {"232 bytes are too short", resize(136 + 96)},
      {"the header says 96", resize(136 + 96 + 1)},
      {"does not hold", [](auto& msg, auto&) { msg.raw.data = nullptr; }},
      {"does not hold", [](auto&, auto& part) { part.data = nullptr; }},
      {"does not hold", [](auto& msg, auto&) { msg.raw.length--; }},
      {"other bytes", [](auto& msg, auto&) { msg.raw.data[150] ^= 1; }},
      {"is not valid", [](auto& msg, auto& part) { msg.raw.data[78] = part.data[78] = msg.secHeader.userId[6] = 'x'; }},
  };
  for (const auto& [says, spoil] : rows) ExpectSays(Refusal(Sign(), spoil), says);
  EXPECT_EQ(Refusal(Sign(), [](auto& msg, auto& part) { part.data = msg.raw.data; }), "");
}

// ---- Sealed messages ----

// A message sealed for bob is changed, and signed again by alice.
TEST_F(SecurityTest, EveryBitOfASealedMessageIsBound) {
  const Bytes plain = SampleFrom({true, true});
  EXPECT_TRUE(mqc_set_opener(bob_signer_.get()));
  EXPECT_EQ(Refusal(Sealed(plain)), "");
  for (size_t bit = 0; bit < 8 * (plain.size() + 64); ++bit) {
    ASSERT_NE(Refusal(Sealed(plain, [bit](Bytes& part) { part = Flip(part, bit); })), "") << "bit " << bit;
  }
}

TEST_F(SecurityTest, ASealedMessageIsForOneReader) {
  const Signer other = Signer::create("bob", alice_.secret);
  const auto now = static_cast<uint64_t>(clock_now);
  const Bytes plain = SampleFrom({true, true}), part = sender::Sealed(plain, "alice", "bob", bob_.open, now, ""),
              weak = sender::Sealed(plain, "alice", "bob", bob_.open, now, "", true);
  const auto sealed = [&](size_t at, const Bytes& field) {
    return Sealed(plain, [&](Bytes& changed) { changed.replace(plain.size() + at, field.size(), field); });
  };
  const std::tuple<MqcSealing, const Signer*, Bytes, const char*> rows[] = {
      {MQC_SEAL_MAY, nullptr, Sealed(plain), "sealed for bob, and no key to open it is set"},
      {MQC_SEAL_MAY, &alice_signer_, Sealed(plain), "sealed for bob, this reader is alice"},
      {MQC_SEAL_MAY, &alice_signer_, sealed(0, {"alice", 5}), "the seal is broken"},
      {MQC_SEAL_MAY, &other, Sealed(plain), "the seal is broken, or was made for another key of user bob"},
      {MQC_SEAL_MAY, &bob_signer_, sealed(4, "x"), "is not valid"},
      {MQC_SEAL_MAY, &bob_signer_, sealed(15, "\1"), "the reserved bytes of the seal are not zero"},
      {MQC_SEAL_MAY, &bob_signer_, sender::Signed({}, weak, "alice", alice_.secret, now, "", 2), "the seal is broken"},
      // Signed by another user; signed as a message that is not sealed.
      {MQC_SEAL_MAY, &bob_signer_, sender::Signed({}, part, "bob", bob_.secret, now, "", 2), "the seal is broken"},
      {MQC_SEAL_MAY, &bob_signer_, sender::Signed({}, part, "alice", alice_.secret, now, ""), "the first word"},
      {MQC_SEAL_MAY, &bob_signer_, Sealed(SampleFrom({}, "bob")), "header and envelope name different users"},
      {MQC_SEAL_MAY, &bob_signer_, Sealed(With(plain, 64, 7, true)), "the header says 7 bytes of body, there are 96"},
      {MQC_SEAL_MUST, &bob_signer_, Sign(), "not sealed, and only sealed messages are accepted"},
      {MQC_SEAL_MUST, &bob_signer_, Sealed(plain), ""},
      {MQC_SEAL_NEVER, &bob_signer_, Sealed(plain), "sealed, and sealed messages are not accepted"},
      {MQC_SEAL_NEVER, &bob_signer_, Sign(), ""},
  };
  for (const auto& [setting, reader, wire, says] : rows) {
    ASSERT_TRUE(mqc_set_sealing(setting) && mqc_set_opener(reader != nullptr ? reader->get() : nullptr));
    mqc_reset_replay(0);
    const std::string refusal = Refusal(wire);
    ExpectSays(refusal, says);
    EXPECT_EQ(refusal.empty(), *says == '\0') << refusal;
  }
  EXPECT_FALSE(mqc_set_sealing(MQC_SEAL_NEVER + 1));
  // A nonce is that of an accepted message.
  uint8_t accepted[16], refused[16];
  ASSERT_TRUE(mqc_set_sealing(MQC_SEAL_MAY) && mqc_set_opener(bob_signer_.get()) && Refusal(Sign()).empty());
  mqc_nonce(accepted);
  ExpectSays(Refusal(Sealed(plain, [](Bytes& changed) { changed = Flip(changed, 0); })), "the seal is broken");
  mqc_nonce(refused);
  EXPECT_EQ(memcmp(accepted, refused, sizeof accepted), 0);
}

TEST_F(SecurityTest, ACapturedMessageIsOpenedByItsKey) {
  const auto now = static_cast<uint64_t>(clock_now);
  const Bytes plain = SampleFrom({true, true}), wire = Sealed(plain),
              weak = sender::Sealed(plain, "alice", "bob", bob_.open, now, "", true),
              cut = With(wire, 16, 296, true).substr(0, 328);
  const std::tuple<const Signer*, Bytes, const char*> rows[] = {
      {&bob_signer_, wire, ""},
      {&alice_signer_, wire, "sealed for bob, the key is that of alice"},
      {&bob_signer_, Flip(wire, 32 * 8), "the seal is broken"},
      {&bob_signer_, sender::Signed({true, true}, weak, "alice", alice_.secret, now, "", 2), "the seal is broken"},
      {&bob_signer_, Sign(), "not sealed"},
      {&bob_signer_, With(wire, 4, 3, true), "version 3"},
      {&bob_signer_, wire.substr(0, 31), "too short for an envelope"},
      {&bob_signer_, wire.substr(0, wire.size() - 1), "the envelope says"},
      {&bob_signer_, cut, "the envelope says 296 bytes, there are 296"},
  };
  for (const auto& [key, captured, says] : rows) {
    std::vector<uint8_t> bytes(captured.begin(), captured.end());  // lets a sanitizer detect overruns
    const bool opened = 1 == mqc_open_captured(key->get(), bytes.data(), static_cast<uint32_t>(bytes.size()), why_.text,
                                               sizeof why_.text);
    ExpectSays(why_.text, says);
    EXPECT_EQ(opened, *says == '\0') << says;
    const Bytes content = opened ? plain : Bytes(plain.size(), '\0');
    const bool changes = opened || strstr(says, "broken") != nullptr;
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()),
              changes ? Bytes(captured).replace(32, plain.size(), content) : captured);
  }
}

// Bob's key is used until its last millisecond, in alice's ring and in his own file. Then his next key replaces it.
TEST_F(SecurityTest, NothingIsSealedForAKeyThatIsOver) {
  const std::string path = folder_.Name("secret"), line = format("bob {}", bob_.open_text);
  EXPECT_TRUE(mqc_secret_file_write_until(path.c_str(), "bob", bob_.secret, clock_now, nullptr, 0));
  EXPECT_TRUE(Load(line + " until=2023-11-14") && mqc_set_opener(Signer::load(path.c_str()).get()));
  const Signer seals = alice_signer_.sealing("bob");
  const auto refused = [&](const char* says) {
    EXPECT_EQ(Sign("alice", seals.get()), "");
    ExpectSays(mqc_sign_error(), says);
    EXPECT_FALSE(alice_signer_.sealing("bob", &why_));
    ExpectSays(why_.text, says);
  };
  clock_now = 1700006399999;
  const Bytes last = Sign("alice", seals.get()), late = Sign("alice", seals.get());
  EXPECT_EQ(Refusal(last), "");
  clock_now += 1;
  refused("the key of user bob ended on 2023-11-14");
  ExpectSays(Refusal(late), "the key of user bob ended on 2023-11-14");
  EXPECT_TRUE(Load(line + " revoked"));
  refused("the key of user bob is revoked");
  EXPECT_TRUE(Add("bob", alice_) && mqc_set_opener(Signer::create("bob", alice_.secret).get()));
  EXPECT_EQ(Refusal(Sign("alice", seals.get())), "");
  mqc_ring_clear();
  refused("user bob is not in the ring");
  EXPECT_FALSE(alice_signer_.sealing("b b"));
}

// Both sides wipe the inputs of a message's key, and the reader the copy of its own key. A dump shows no byte of them.
TEST_F(SecurityTest, SealsLeaveNothingBehind) {
  const Signer seals = alice_signer_.sealing("bob");
  EXPECT_TRUE(mqc_set_opener(bob_signer_.get()) && mqc_log_to(folder_.Name("log").c_str()));
  wiped.emplace();
  const Bytes wire = Sign("alice", seals.get());
  EXPECT_EQ(Refusal(wire), "");
  const auto all = *std::exchange(wiped, std::nullopt);
  const auto count = [&](std::string_view start, size_t size) {
    return std::ranges::count_if(all, [&](const Bytes& it) { return it.starts_with(start) && it.size() == size; });
  };
  EXPECT_EQ(count("MQSEAL02", 8 + 3 * 32 + 32), 2);
  EXPECT_EQ(count("bob", 16 + 8 + 2 * 32), 1);
  const Bytes ephemeral = wire.substr(32 + 136 + kSampleBody + 16, 32);
  EXPECT_EQ(std::ranges::count_if(all,
                                  [&](const Bytes& it) {
                                    uint8_t open[32];
                                    if (it.size() == 32)
                                      crypto_scalarmult_base(open, reinterpret_cast<const uint8_t*>(it.data()));
                                    return it.size() == 32 && memcmp(open, ephemeral.data(), 32) == 0;
                                  }),
            1);
  ExpectSays(Content(folder_.Name("log")), "1901W message of 232 bytes");
  EXPECT_EQ(Content(folder_.Name("log")).find("1902W"), Bytes::npos);
  EXPECT_EQ(Sign("alice", seals.get()).find(ephemeral), Bytes::npos);
  mqc_log_to(nullptr);
}

// ---- Accepted messages ----

TEST_F(SecurityTest, AgeIsJudgedByTheWindow) {
  EXPECT_FALSE(mqc_set_window(0) || mqc_set_window(MQC_WINDOW_MAX + 1));
  ASSERT_TRUE(mqc_set_window(10));
  Send("alice", 1, {.ahead = 10000});
  Send("alice", 1, {.ahead = -10000});
  Send("alice", 1, {.ahead = 10001, .says = "signed 10001 ms after the present, the window is 10000 ms"});
  Send("alice", 1, {.ahead = -10001, .says = "signed 10001 ms before the present"});
}

// A message for which there was no memory is not remembered. A lower limit, and later messages, evict the oldest;
// messages of one moment fill the memory. No evicted one is accepted after a wider window or a clock set back.
TEST_F(SecurityTest, AFullMemoryForgetsButNeverAcceptsTwice) {
  EXPECT_FALSE(mqc_set_replay_limit(1023) || mqc_set_replay_limit(16777217));
  const Bytes first = Sign();
  for (const uint64_t nth : {1, 2}) {
    mqc_fail_allocation(nth, 0);
    ExpectSays(Refusal(first), "no memory");
  }
  EXPECT_EQ(Refusal(first), "");
  Send("alice", 1300, {.pace = 1});
  ASSERT_TRUE(mqc_set_replay_limit(1024));
  EXPECT_EQ(Remembered(), 1025u) << "the messages and the user";
  ExpectSays(Refusal(first), kForgotten);
  clock_now += 700000;
  Send("alice", 1024);
  Send("alice", 1, {.says = "user alice has filled"});
  clock_now += 400000;
  Send("alice", 1);
  ASSERT_TRUE(mqc_set_window(MQC_WINDOW_MAX));
  ExpectNothingIsAcceptedTwice();
  clock_now -= 400000;
  ExpectNothingIsAcceptedTwice();
}

// Bob fills the memory with messages dated as late as possible. His later ones are refused until that time is reached;
// alice's are not affected.
TEST_F(SecurityTest, NobodyFillsTheMemoryForOthers) {
  ASSERT_TRUE(mqc_set_replay_limit(1024));
  Send("bob", 1024, {.ahead = 290000});
  Send("bob", 1, {.ahead = 290000, .says = "user bob has filled"});
  Send("alice", 1000, {.pace = 10});
  const Bytes late = Sign();
  Send("alice", 200, {.pace = 10});
  EXPECT_EQ(Refusal(late), "") << "alice has a share of the memory";
  Send("bob", 1, {.says = kForgotten});
  EXPECT_EQ(Remembered(), 1024u + 2) << "and a block for each user";
  ExpectNothingIsAcceptedTwice();
  Send("bob", 1, {.pace = 290001});
}

// Both clocks were an hour ahead. What was accepted then remains refused, and nothing else is until the memory is full.
// After a reset by the application, messages of the wrong hour, and no others, are accepted again in that hour.
TEST_F(SecurityTest, AClockThatIsSetRightRefusesNothingNew) {
  ASSERT_TRUE(mqc_set_replay_limit(1024));
  for (const int step : {0, kHour, -kHour, kHour}) Send("alice", 1, {.pace = step});
  Send("alice", 1022);
  clock_now -= kHour;
  const Bytes refused = Sign();
  ExpectSays(Refusal(refused), kForgotten);
  mqc_refuse_before(clock_now + 1);
  mqc_refuse_before(0);
  Send("bob", 1, {.ahead = 1, .says = kForgotten});
  Send("bob", 1, {.ahead = 2});
  mqc_reset_replay(clock_now);
  EXPECT_EQ(Remembered(), 0u);
  for (const Bytes& wire : {refused, accepted_[0]}) ExpectSays(Refusal(wire), kForgotten);
  Send("alice", 1, {.pace = 1});
  clock_now += kHour;
  EXPECT_EQ(Refusal(accepted_[1000]), "");
  ExpectSays(Refusal(accepted_[1000]), "replay");
  // An hour after the window has passed, each new message evicts two old ones.
  Send("alice", 1, {.pace = kHour + 300001});
  EXPECT_EQ(Remembered(), 2u) << "the user and the last message";
}

// ---- Key files ----

TEST_F(SecurityTest, SecretKeyFilesAreReadOrRefusedWithTheLine) {
  const std::string alice = format("alice {}\n", alice_.secret_text), bob = format("bob\t{}", bob_.secret_text);
  const auto expect = [&](const std::string& path, const char* user, std::string_view says) {
    EXPECT_EQ(!Signer::load(path.c_str(), user, &why_), !says.empty());
    EXPECT_EQ(std::string(why_.text).substr(0, path.size() + says.size()),
              says.empty() ? "" : format("{}{}", path, says));
    EXPECT_EQ(std::string(why_.text).find(std::string(bob_.secret_text, 10)), std::string::npos);
  };
  const std::tuple<std::string, mode_t, const char*, const char*> rows[] = {
      // The file and its mode; the user asked for; why the file is refused.
      {"# keys\n\n  " + alice, 0400, nullptr, ""},
      {alice.substr(0, alice.size() - 1) + "\r\n" + bob + "\r", 0600, "alice", ""},
      {alice + bob + " until=2028-02-29\tsecret # his", 0600, "bob", ""},
      {alice, 0640, nullptr, ": its group or others have access to this secret key (mode 0640); chmod 600"},
      {alice + bob, 0600, nullptr, ": holds 2 keys, name the user"},
      {alice, 0600, "carol", ": contains no key of user carol"},
      {alice + "\nbob 1234\n", 0600, "alice", ":3: expected"},
      {bob.substr(0, 10) + "g" + bob.substr(11), 0600, nullptr, ":1: expected"},
      {bob + " public", 0600, nullptr, ":1: a public key cannot sign"},
      {bob + std::string(1, '\0') + "\n", 0600, nullptr, ":1: expected"},
      {std::string(65537, '\n'), 0600, nullptr, ": 65537 bytes, at most 65536"},
  };
  for (const auto& [text, mode, user, says] : rows) {
    const std::string path = folder_.File("secret", text, mode);
    expect(path, user, says);
    unlink(path.c_str());
  }
  expect(folder_.Name("missing"), nullptr, ": No such file or directory (ENOENT)");
  const std::string theirs = folder_.File("theirs", alice);
  if (chown(theirs.c_str(), 65534, 65534) == 0) expect(theirs, nullptr, ": belongs to user id 65534");  // requires root
  char cut[8] = "";
  for (const size_t size : {sizeof cut, size_t{0}}) EXPECT_FALSE(mqc_signer_load("/", nullptr, cut, size));
  EXPECT_STREQ(cut, "/: not ") << "a buffer of size 0 is not written to";
}

TEST_F(SecurityTest, WordsBehindAKeyAreTakenOnce) {
  const std::string start = format("~!twelvechrs {} ", bob_.open_text);
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
  for (const char* user : {"", "thirteenchars", "a b", "a#b", "\x80", "\x7f"}) {
    EXPECT_FALSE(Signer::create(user, bob_.secret) || Add(user, bob_)) << user;
    EXPECT_FALSE(mqc_key_read(format("{} {}", user, bob_.open_text).c_str(), &key)) << user;
  }
}

// Interrupted transfers are resumed; other failures leave no part of a key behind.
TEST_F(SecurityTest, ASecretIsWrittenForItsOwnerAndNeverOverwritten) {
  const std::string path = folder_.Name("secret");
  struct stat about;
  for (const auto& [code, says] : {std::pair{EIO, "Input/output error"}, {0, ": "}, {EINTR, ""}}) {
    next_transfer = code;
    EXPECT_EQ(mqc_secret_file_write(path.c_str(), "alice", alice_.secret, why_.text, sizeof why_.text), code == EINTR);
    ExpectSays(why_.text, says);
    EXPECT_EQ(stat(path.c_str(), &about) == 0, code == EINTR);
  }
  EXPECT_FALSE(mqc_secret_file_write(path.c_str(), "alice", bob_.secret, why_.text, sizeof why_.text));
  ExpectSays(why_.text, "File exists");
  EXPECT_EQ(about.st_mode & 07777, 0600u);
  EXPECT_EQ(Content(path), format("alice {} secret\n", alice_.secret_text));
  for (const auto& [code, says] : {std::pair{EIO, "Input/output error"}, {0, ":1: expected"}, {EINTR, ""}}) {
    next_transfer = code;
    const Signer signer = Signer::load(path.c_str(), nullptr, &why_);
    ExpectSays(why_.text, says);
    EXPECT_EQ(signer && Refusal(Sign("alice", signer.get())).empty(), code == EINTR);
  }
}

// Alone, then among more users than the first area of the ring can contain, added in any order.
TEST_F(SecurityTest, ARingIsLoadedWholeOrNotAtAll) {
  const char *one = alice_.open_text, *two = bob_.open_text;
  mqc_ring_clear();
  EXPECT_TRUE(Load(format("bob {}", two)) && Add("alice", alice_) && mqc_ring_remove("alice"));  // grown from one
  const std::string good = format("z {}\na {}\nm {}\n", one, two, two);
  const std::tuple<std::string, mode_t, const char*> rows[] = {
      {good + "bad line\n", 0644, ":4: expected"},
      {good + "# again\na " + one, 0644, ":5: user a has a key in line 2 already"},
      {good + "q " + std::string(64, 'f') + " revoked", 0644, ":4: not a valid public key"},
      {good + format("q {} secret", one), 0644, ":4: a secret key in a ring"},
      {good, 0664, "chmod go-w"},
  };
  for (const uint32_t users : {0u, 40u}) {
    for (uint32_t i = 0; i < users; ++i) ASSERT_TRUE(Add(format("zz{}", i * 7 % 40).c_str(), alice_));
    for (const auto& [text, mode, says] : rows) {
      EXPECT_FALSE(Load(text, mode));
      ExpectSays(why_.text, says);
      EXPECT_EQ(mqc_ring_count(), users + 1);
    }
    EXPECT_TRUE(Load(good) && Load(good)) << why_.text;
    EXPECT_EQ(mqc_ring_count(), users + 4);
    for (const char* user : {"a", "bob", "m", "z"}) EXPECT_TRUE(mqc_ring_remove(user));
    EXPECT_TRUE(Add("bob", bob_));
    for (uint32_t i = 0; i < users; ++i) EXPECT_TRUE(mqc_ring_remove(format("zz{}", i).c_str()));
  }
  constexpr uint8_t kNoKey[32] = {};
  EXPECT_FALSE(mqc_ring_add("n", kNoKey, nullptr, 0));
}

// Each of the twelve allocations for keys fails once. The fixture detects leaks.
TEST_F(SecurityTest, KeysNeedMemory) {
  const std::string secret = folder_.Name("secret"), ring = folder_.File("ring", format("bob {}\n", bob_.open_text));
  for (uint64_t nth = 1; nth <= 13; ++nth) {
    unlink(secret.c_str());
    mqc_ring_clear();
    mqc_fail_allocation(nth, 0);
    const bool done = mqc_secret_file_write(secret.c_str(), "alice", alice_.secret, nullptr, 0) &&
                      Signer::load(secret.c_str()) && Add("alice", alice_) && mqc_ring_load(ring.c_str(), nullptr, 0) &&
                      alice_signer_.sealing("bob") && mqc_set_opener(bob_signer_.get());
    EXPECT_EQ(done, nth == 13) << nth;
  }
}

}  // namespace
