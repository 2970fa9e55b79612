// peers.cc - each peer that breaks the rules is a function over non-blocking sockets, or a broken message.
// Not here: the honest clients (clients.cc), the verdict on the server (verdict.cc, siege.cc).
#include "demo/peers.hh"

#include <algorithm>
#include <cstring>
#include <random>

#include "demo/arena.hh"
#include "demo/child.hh"

namespace demo {
namespace {

constexpr size_t kSmall = 200;
constexpr size_t kLarge = 16 << 10;
constexpr int kSmallBuffer = 2048;

// ---- Broken messages ----

Bytes Garbage(const Keys&) {
  Bytes bytes(kLarge);
  std::minstd_rand random(1);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() >> 8);
  return bytes;
}

// A question with a wrong length in its header.
Bytes Announce(uint32_t length) {
  Bytes bytes = Question(kLarge);
  memcpy(bytes.data() + offsetof(MsgHeader, bodyLength), &length, sizeof length);
  return bytes;
}

Bytes Huge(const Keys&) { return Announce(0xfffffff0); }

Bytes Nonsense(const Keys&) {
  Bytes bytes = Question(kSmall);
  std::fill(bytes.begin() + sizeof(MsgHeader), bytes.end(), uint8_t{0x5a});
  return bytes;
}

Bytes Cut(Bytes bytes, size_t size) {
  bytes.resize(size);
  return bytes;
}

Bytes HalfHeader(const Keys&) { return Cut(Question(kSmall), sizeof(MsgHeader) / 2); }
Bytes HalfBody(const Keys&) { return Cut(Question(kLarge), kLarge / 2); }
Bytes Unsigned(const Keys&) { return Question(kSmall); }
Bytes UnknownKey(const Keys& keys) { return SignedQuestion(kHostile, keys.stranger); }
Bytes OtherUser(const Keys& keys) { return SignedQuestion(kHonest, keys.hostile); }
Bytes UnknownUser(const Keys& keys) { return SignedQuestion("eve", keys.stranger); }
Bytes TooOld(const Keys& keys) { return SignedQuestion(kHostile, keys.hostile, -400); }
Bytes TooEarly(const Keys& keys) { return SignedQuestion(kHostile, keys.hostile, 400); }

// Offsets in the signature, its time, the message's text, its user.
Bytes Flip(const Keys& keys, size_t fromEnd) {
  Bytes bytes = SignedQuestion(kHostile, keys.hostile);
  bytes[bytes.size() - fromEnd] ^= 1;
  return bytes;
}
Bytes ChangedSignature(const Keys& keys) { return Flip(keys, 1); }
Bytes ChangedTime(const Keys& keys) { return Flip(keys, 80); }
Bytes ChangedText(const Keys& keys) { return Flip(keys, 100); }

// Sends the peer's message, or all broken ones of the table for its port, one per socket, in a loop.
void SendBroken(Arena& arena) {
  const Peer& self = arena.peer();
  while (arena.Begins()) {
    std::vector<Bytes> messages;
    for (const Peer& peer : Peers()) {
      const bool isMeant = peer.port == self.port && (self.message == nullptr || peer.message == self.message);
      if (peer.message != nullptr && isMeant) messages.push_back(peer.message(arena.keys()));
    }
    const auto message = [&](size_t i) -> const Bytes& { return messages[i % messages.size()]; };
    arena.AwaitSent(message, [&](size_t i) { return message(i).size(); });
    if (!IsSigned(self.port) || arena.isAlone()) arena.AwaitEnd();
    if (IsSigned(self.port)) Sleep(0.1);
    if (arena.AnyHas(1)) arena.faults.push_back("a broken message is answered");
  }
}

// The system may drop some datagrams.
void SendBrokenDatagrams(Arena& arena) {
  const Bytes bytes = arena.peer().message(arena.keys());
  arena.Fill();
  for (int i = 0; i < 4; ++i) {
    arena.bares.front().Send(bytes, bytes.size());
    Sleep(0.1);
  }
}

// ---- Slow or silent peers ----

void SendAByteAtATime(Arena& arena) {
  const Bytes question = Question(kSmall);
  arena.Fill();
  for (size_t sent = 0; arena.Goes(0.001) || sent < question.size();) {
    arena.AwaitSent(question, ++sent);
    arena.AnyHas(1);
  }
  arena.Await("no answer to a question that came a byte at a time", [&] { return arena.AllHave(question.size()); });
  arena.seen.answers = arena.bares.front().received() / question.size();
  for (Bare& bare : arena.bares) bare.EndSending();
  arena.AwaitEnd();
}

// Every second peer asks more than the socket buffers hold, and reads the answers too slowly.
void NeverFinish(Arena& arena) {
  const Bytes question = Question(kLarge);
  arena.Fill(kSmallBuffer);
  arena.Await("a client that sends or reads too slowly is not dropped", [&] {
    for (size_t i = 0; i < arena.bares.size(); ++i) {
      const size_t asked = arena.bares[i].sent();
      arena.bares[i].SendUntil(question, i % 2 ? asked + 1 : 12 * question.size());
      arena.bares[i].Receive(64);
    }
    Sleep(0.05);
    return arena.Open() == 0;
  });
  while (arena.Goes(0.001)) continue;
}

void NeverSpeak(Arena& arena) {
  arena.Fill();
  arena.Await("silent clients are not dropped for new ones", [&] {
    for (Bare& bare : arena.bares) bare.Receive();
    return arena.Open() < arena.bares.size() * 4 / 5;
  });
  while (arena.Goes(0.001)) continue;
}

// Each asks about twice a second. Connecting may take long: the system retries while the server's accept queue is full.
void AskAndStay(Arena& arena) {
  const Bytes question = Question(kSmall);
  const double least = Now() + 4;
  for (size_t turn = 0; Now() < least || arena.Goes(0.001); ++turn) {
    arena.Fill();
    for (size_t i = 0; i < arena.bares.size(); ++i) {
      Bare& bare = arena.bares[i];
      bare.Receive();
      const size_t questions = bare.sent() / question.size();
      if (questions == 0 || i % 512 == turn % 512) bare.SendUntil(question, (questions + 1) * question.size());
    }
  }
}

void NeverRead(Arena& arena) {
  const Bytes question = Question(kLarge);
  do {
    arena.Fill(kSmallBuffer);
    for (Bare& bare : arena.bares) bare.Send(question, Bare::kTurn);
    if (arena.isAlone()) {
      arena.Await("a client that never reads is not dropped", [&] {
        arena.bares.front().Send(question, Bare::kTurn);
        return arena.Open() == 0;
      });
    }
  } while (arena.Goes(0.001));
  if (arena.isAlone()) arena.AwaitEnd(false);
}

void StopReading(Arena& arena) {
  const Bytes question = Question(1 << 20);
  arena.Fill(kSmallBuffer);
  arena.AwaitSent(question, question.size());
  arena.AwaitEnd(false);
}

// ---- Overload ----

// Asks more than the socket buffers hold before reading, so that the server must queue answers, within its limit.
void FloodWithQuestions(Arena& arena) {
  constexpr size_t kUnread = 224 << 10;
  const Bytes questions[] = {Question(kSmall), Question(kLarge)};
  const auto question = [&](size_t i) -> const Bytes& { return questions[i % 2]; };
  size_t rounds = 0;
  const auto asked = [&](size_t i) { return rounds * (kUnread - kUnread % question(i).size()); };
  arena.Fill(32 << 10);
  do {
    ++rounds;
    arena.AwaitSent(question, asked);
    arena.Await("an answer is missing", [&] {
      size_t answered = 0;
      for (size_t i = 0; i < arena.bares.size(); ++i) {
        arena.bares[i].Receive();
        answered += arena.bares[i].received() == asked(i);
      }
      return answered == arena.bares.size();
    });
  } while (arena.faults.empty() && arena.Goes(0.0001));
}

void ConnectAndLeave(Arena& arena) {
  while (arena.Goes(0.001)) {
    arena.Fill();
    arena.bares.front().Close();  // the others are reset, which leaves no port in TIME_WAIT
    for (Bare& bare : arena.bares) bare.Reset();
  }
}

void SendGiants(Arena& arena) {
  const Bytes giant = Announce(60u << 20);
  size_t most = 0;
  do {
    arena.Fill();
    arena.Await("a message beyond the limit is accepted", [&] {
      for (Bare& bare : arena.bares) {
        bare.Send(giant, Bare::kTurn);
        most = std::max(most, bare.sent());
      }
      return arena.Open() == 0 || most > (32u << 20);
    });
  } while (arena.Goes(0.001) && most <= (32u << 20));
  if (most > (32u << 20)) arena.faults.push_back("the server received half of a message of 60 MiB");
}

// One user signs more messages than a server can remember, dated as late as the server accepts.
void Hoard(Arena& arena) {
  constexpr size_t kMessages = 270000;
  arena.Fill();
  Bare& bare = arena.bares.front();
  for (size_t i = 1; i <= kMessages && bare.is_open() && !IsInterrupted(); ++i) {
    const Bytes question = SignedQuestion(kHostile, arena.keys().hostile, 290);
    arena.Await("a question that cannot be sent", [&] {
      bare.Receive();
      return bare.SendUntil(question, i * question.size()) || !bare.is_open();
    });
  }
  while (arena.Goes(0.001)) bare.Receive();
}

// ---- Disconnects and the rest ----

// How many bytes a peer sends before it leaves: half a question, nothing, half a header, a question, many questions.
size_t HowFar(size_t state, size_t question) {
  const size_t lengths[] = {question / 2, 0, sizeof(MsgHeader) / 2, question, 64 * question};
  return lengths[state % std::size(lengths)];
}

// The pauses grow: the first peers leave before the server has read their bytes, the last ones afterwards.
void LeaveInEveryState(Arena& arena, void (Bare::*leave)()) {
  const Bytes question = Question(kLarge);
  for (double pause = 0.001; arena.Begins(kSmallBuffer); pause = std::min(pause * 2, 0.1)) {
    for (int turn = 0; turn < 3; ++turn) {
      for (size_t i = 0; i < arena.bares.size(); ++i) {
        arena.bares[i].SendUntil(question, HowFar(i, question.size()));
      }
      Sleep(pause);
    }
    for (Bare& bare : arena.bares) (bare.*leave)();
    arena.AwaitEnd();
  }
}

void ResetInEveryState(Arena& arena) { LeaveInEveryState(arena, &Bare::Reset); }

void CloseHalfInEveryState(Arena& arena) { LeaveInEveryState(arena, &Bare::EndSending); }

void AskAndCloseHalf(Arena& arena) {
  const Bytes question = Question(kSmall);
  while (arena.Begins()) {
    arena.AwaitSent(question, question.size());
    for (Bare& bare : arena.bares) bare.EndSending();
    arena.Await("no answer to a client that has closed its side", [&] { return arena.AllHave(question.size()); });
    arena.AwaitEnd();
  }
}

void SendOutOfBandBytes(Arena& arena) {
  const Bytes question = Question(kSmall);
  const auto bytes = [&](size_t) -> const Bytes& { return question; };
  arena.Fill();
  arena.AwaitSent(bytes, [&](size_t i) {
    const size_t places[] = {1, sizeof(MsgHeader), question.size() / 2, question.size(), 2 * question.size()};
    return places[i % std::size(places)];
  });
  for (Bare& bare : arena.bares) bare.SendOutOfBand();  // once: a second byte would replace one that was not read
  arena.AwaitSent(question, 2 * question.size());
  arena.Await("an out-of-band byte corrupts a message", [&] { return arena.AllHave(2 * question.size()); });
  for (Bare& bare : arena.bares) bare.SendOutOfBand();  // the last byte
  while (arena.Goes(0.001)) continue;
}

// Each sends a signed question, gets the answer, and repeats the same bytes.
void Replay(Arena& arena) {
  const size_t answer = Question(1).size();  // signed answers are longer
  while (arena.Begins()) {
    std::vector<Bytes> questions(arena.bares.size());
    for (Bytes& question : questions) question = SignedQuestion(kHostile, arena.keys().hostile);
    const auto question = [&](size_t i) -> const Bytes& { return questions[i]; };
    arena.AwaitSent(question, [&](size_t i) { return questions[i].size(); });
    arena.Await("no answer to a signed question", [&] { return arena.AllHave(answer); });
    for (size_t i = 0; i < questions.size(); ++i) arena.bares[i].Send(questions[i], 20 * questions[i].size());
    Sleep(0.1);
    if (arena.AnyHas(2 * answer)) return arena.faults.push_back("a replay is answered");
    arena.seen.answers = 1;
    if (arena.isAlone()) arena.AwaitEnd();
  }
}

void SendGarbageDatagrams(Arena& arena) {
  std::minstd_rand random(1);
  while (arena.Goes(0.0001)) {
    Bytes garbage = Question(kSmall);
    garbage.resize(1 + random() % 40000);
    for (int i = 0; i < 4; ++i) garbage[random() % garbage.size()] = static_cast<uint8_t>(random() >> 8);
    arena.Fill();
    for (Bare& bare : arena.bares) bare.Send(garbage, garbage.size());
  }
}

// Does what another server would do after a datagram with a forged sender address.
void MirrorAnswers(Arena& arena) {
  const Bytes question = Question(kSmall);
  size_t mirrored = 0;
  arena.Fill();
  arena.bares.front().Send(question, question.size());
  while (arena.Goes(0.0001)) mirrored += arena.bares.front().Mirror();
  if (mirrored > 1) arena.faults.push_back("answers are answered: " + std::to_string(mirrored));
}

void FloodWithDatagrams(Arena& arena) {
  constexpr double kMostAnswers = 2000;  // per second, to one address
  const Bytes question = Question(kSmall);
  arena.Fill();
  const double began = Now();
  while (arena.Goes(0.0001)) {
    for (Bare& bare : arena.bares) {
      bare.Send(question, question.size());
      bare.Receive();
    }
  }
  size_t bytes = 0;
  for (const Bare& bare : arena.bares) bytes += bare.received();
  const double rate = static_cast<double>(bytes / question.size()) / (Now() - began + 1);
  if (rate > kMostAnswers) arena.faults.push_back("answers per second to one address: " + std::to_string(rate));
}

void Nothing(Arena& arena) {
  while (arena.Goes(0.01)) continue;
}

constexpr const char* kBad = "MQ_BAD_MESSAGE";
constexpr const char* kForged = "MQ_NOT_AUTHENTIC";
constexpr const char* kSlow = "too slow";
constexpr const char* kUnread = "takes no answers";
constexpr const char* kLong = "too long";
constexpr const char* kPlace = "its place is needed";
constexpr bool kMqcat = true;

constexpr Peer Broken(const char* name, Port port, const char* says, Bytes (*message)(const Keys&), const char* does) {
  return {name, port, says, IsDatagram(port) ? SendBrokenDatagrams : SendBroken, does, 0, message};
}

constexpr Peer Crowd(const char* name, Port port, const char* says, void (*act)(Arena&), size_t crowd, bool mqcat,
                     const char* attack, rlim_t descriptors = 0) {
  return {name, port, says, act, nullptr, 0, nullptr, crowd, attack, mqcat, descriptors};
}

// A rogue of the demonstration that is also used as an attack.
constexpr Peer Both(const char* does, size_t answers, Peer peer) {
  peer.does = does;
  peer.answers = answers;
  return peer;
}

constexpr Peer kPeers[] = {
    Crowd(kHonestOnly, kPlain, "", Nothing, 0, kMqcat, "no attack: the baseline"),
    Broken("half_header", kPlain, kSlow, HalfHeader, "stops in the middle of a header"),
    Broken("half_body", kPlain, kSlow, HalfBody, "stops in the middle of a body"),
    Broken("garbage", kPlain, kBad, Garbage, "sends garbage"),
    Broken("huge_length", kPlain, kLong, Huge, "announces a message of 4 GiB"),
    Broken("bad_body", kPlain, "MQ_BAD_BODY", Nonsense, "sends a header followed by nonsense"),
    Broken("unsigned", kSigned, kBad, Unsigned, "sends a plain message to a signed port"),
    Broken("unknown_key", kSigned, kForged, UnknownKey, "signs with a key unknown to the server"),
    Broken("unknown_user", kSigned, kForged, UnknownUser, "signs as a user unknown to the server"),
    Broken("other_user", kSigned, kForged, OtherUser, "signs in the name of another user"),
    Broken("too_old", kSigned, kForged, TooOld, "signs with a time 400 seconds ago"),
    Broken("too_early", kSigned, kForged, TooEarly, "signs with a time 400 seconds ahead"),
    Broken("changed_signature", kSigned, kForged, ChangedSignature, "changes one bit of a signature"),
    Broken("changed_time", kSigned, kForged, ChangedTime, "changes one bit of the time"),
    Broken("changed_text", kSigned, kForged, ChangedText, "changes one bit of a signed message"),
    Broken("garbage_datagram", kDatagram, kBad, Garbage, "sends a datagram of garbage"),
    Broken("half_datagram", kDatagram, kBad, HalfHeader, "sends half a message as a datagram"),
    Broken("forged_datagram", kSignedDatagram, kForged, UnknownKey, "signs a datagram with an unknown key"),
    {"stops_reading", kPlain, kUnread, StopReading, "stops reading"},
    Both("sends one byte at a time, slow but honest", 1,
         Crowd("drip", kPlain, "", SendAByteAtATime, 20, kMqcat, "20 ask a byte at a time and get answers")),
    Both("leaves in the middle of a body", 0,
         Crowd("half_close", kPlain, "left in the middle", CloseHalfInEveryState, 40, kMqcat,
               "40 at a time close their side, in every state")),
    Both("keeps asking and never reads", 0,
         Crowd("never_read", kPlain, kUnread, NeverRead, 8, kMqcat, "8 keep asking and never read an answer")),
    Both("sends a signed message twice", 1,
         Crowd("replay", kSigned, kForged, Replay, 8, kMqcat, "8 sign a question, send it 20 times, get one answer")),
    Crowd("broken", kPlain, kBad, SendBroken, 20, false, "the broken messages above, in a loop"),
    Crowd("crawl", kPlain, kSlow, NeverFinish, 20, false, "20 ask a byte at a time or read answers too slowly"),
    Crowd("flood", kPlain, "", FloodWithQuestions, 16, kMqcat, "16 ask as fast as they can and count the answers"),
    Crowd("reset", kPlain, "left", ResetInEveryState, 40, kMqcat, "40 at a time reset, in every state"),
    Crowd("ask_and_close", kPlain, "", AskAndCloseHalf, 20, kMqcat, "20 ask, close their side, and get the answer"),
    Crowd("storm", kPlain, "", ConnectAndLeave, 8, kMqcat, "connections that are closed at once, 8000 a second"),
    Crowd("silent", kPlain, "dropped", NeverSpeak, 2500, false, "2500 connect and never speak"),
    Crowd("squat", kPlain, kPlace, AskAndStay, 1200, false, "1200 ask and stay: more than the server has places"),
    Crowd("descriptors", kPlain, "EMFILE", AskAndStay, 150, kMqcat, "150 connect to a server of 64 descriptors", 64),
    Crowd("giants", kPlain, kLong, SendGiants, 16, kMqcat, "16 send a message of 60 MiB"),
    Crowd("out_of_band", kPlain, "", SendOutOfBandBytes, 20, kMqcat, "20 send bytes out of band, in every state"),
    Crowd("forge", kSigned, kForged, SendBroken, 20, kMqcat, "the broken signed messages above, in a loop"),
    Crowd("hoard", kSigned, "", Hoard, 1, kMqcat, "a user signs 270000 questions, dated 290 seconds ahead"),
    Crowd("datagrams", kDatagram, kBad, SendGarbageDatagrams, 8, kMqcat, "8 send broken datagrams"),
    Crowd("mirror", kDatagram, "", MirrorAnswers, 1, kMqcat, "one sends each answer back, like a server"),
    Crowd("datagram_flood", kDatagram, "", FloodWithDatagrams, 8, kMqcat, "8 of one address ask as fast as they can"),
};

static_assert(std::ranges::count_if(kPeers, [](const Peer& peer) { return peer.does != nullptr; }) <= kMostRogues);

}  // namespace

std::span<const Peer> Peers() { return kPeers; }

}  // namespace demo
