// attacks.cc - each attack is one function over connections that never block.
// Not here: the honest clients meanwhile (exchange.cc), whether the server came out well (main.cc).
#include "tests/hostile/attacks.hh"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>

#include "runtime/message.h"

namespace hostile {
namespace {

constexpr auto kPatience = std::chrono::seconds(30);  // for what must come about, on any machine, however busy

}  // namespace

bool Arena::Goes(int microseconds) {
  usleep(static_cast<useconds_t>(microseconds));
  const auto passed = Clock::now() - began_;
  if (passed < seconds_) return true;
  if (!before_) before_ = served_();
  if (served_() >= *before_ + 2) return false;  // the first of them may have come earlier
  if (passed < seconds_ + kPatience) return true;
  faults.push_back("no newcomer is served while it lasts");
  return false;
}

void Arena::Fill(size_t count, int receiveBuffer) {
  std::erase_if(peers, [](const Peer& peer) { return !peer.is_open(); });
  while (peers.size() < count) peers.emplace_back(port_, datagrams_, receiveBuffer);
}

size_t Arena::Open() const {
  return static_cast<size_t>(std::ranges::count_if(peers, [](const Peer& peer) { return peer.is_open(); }));
}

void Arena::Await(const std::string& what, const std::function<bool()>& act) {
  const auto deadline = Clock::now() + kPatience;
  while (!act()) {
    if (Clock::now() > deadline) return faults.push_back(what);
    usleep(1000);
  }
}

void Arena::AwaitDropped() {
  Await("a connection that the server does not end", [this] {
    for (Peer& peer : peers) peer.Receive();
    return Open() == 0;
  });
}

namespace {

constexpr size_t kSmall = 200;
constexpr size_t kLarge = 16 << 10;
constexpr int kSmallBuffer = 2048;

bool AllAnswered(Arena& arena, size_t bytes) {
  for (Peer& peer : arena.peers) {
    if (peer.received() < bytes) peer.Receive();
  }
  return std::ranges::all_of(arena.peers, [=](const Peer& peer) { return peer.received() >= bytes; });
}

void SendAByteAtATime(Arena& arena) {
  const Bytes question = Question(kSmall);
  arena.Fill(20);
  size_t turns = 0;
  while (arena.Goes(200) || turns < question.size()) {
    ++turns;
    for (Peer& peer : arena.peers) {
      peer.Send(question, 1);
      peer.Receive();
    }
  }
  arena.Await("no answer to a question that came a byte at a time", [&] {
    for (Peer& peer : arena.peers) peer.SendUntil(question, question.size());
    return AllAnswered(arena, question.size());
  });
}

// Every other one asks at once, more than sockets hold, and reads the answers too slowly.
void NeverFinish(Arena& arena) {
  const Bytes question = Question(kLarge);
  arena.Fill(20, kSmallBuffer);
  arena.Await("who sends or reads too slowly is not dropped", [&] {
    for (size_t i = 0; i < arena.peers.size(); ++i) {
      const size_t asked = arena.peers[i].sent();
      arena.peers[i].SendUntil(question, i % 2 ? asked + 1 : 12 * question.size());
      arena.peers[i].Receive(64);
    }
    usleep(50000);
    return arena.Open() == 0;
  });
}

// More than sockets hold is asked before an answer is taken, so that the server has to queue; less than may wait.
void FloodWithQuestions(Arena& arena) {
  constexpr size_t kUnread = 224 << 10;
  const Bytes questions[] = {Question(kSmall), Question(kLarge)};
  std::vector<size_t> asked(16);
  arena.Fill(asked.size(), 32 << 10);
  do {
    for (size_t i = 0; i < asked.size(); ++i) asked[i] += kUnread - kUnread % questions[i % 2].size();
    arena.Await("questions that cannot be sent", [&] {
      bool all = true;
      for (size_t i = 0; i < asked.size(); ++i) all = arena.peers[i].SendUntil(questions[i % 2], asked[i]) && all;
      return all;
    });
    arena.Await("an answer is missing", [&] {
      bool all = true;
      for (size_t i = 0; i < asked.size(); ++i) {
        arena.peers[i].Receive();
        all = all && arena.peers[i].received() == asked[i];
      }
      return all;
    });
  } while (arena.faults.empty() && arena.Goes(100));
}

void FloodWithGarbage(Arena& arena) {
  std::minstd_rand random(1);
  Bytes garbage(kLarge);
  for (uint8_t& byte : garbage) byte = static_cast<uint8_t>(random() >> 8);
  while (arena.Goes(1000)) {
    arena.Fill(20);
    for (Peer& peer : arena.peers) {
      peer.Send(garbage, kLarge);
      peer.Receive();
    }
  }
  arena.Await("garbage is not refused", [&] {
    for (Peer& peer : arena.peers) {
      peer.SendUntil(garbage, kLarge);
      peer.Receive();
    }
    return arena.Open() == 0;
  });
}

// How far a peer goes before it leaves: nothing, half a header, half a body, a question, many questions.
size_t HowFar(size_t state, size_t question) {
  const size_t lengths[] = {0, sizeof(MsgHeader) / 2, question / 2, question, 64 * question};
  return lengths[state % 5];
}

// The pauses grow: first they leave faster than the server reads, in the end it has read what they sent on any machine.
void LeaveInEveryState(Arena& arena, void (Peer::*leave)()) {
  const Bytes question = Question(kLarge);
  useconds_t pause = 1000;
  do {
    arena.peers.clear();
    arena.Fill(40, kSmallBuffer);
    for (int turn = 0; turn < 3; ++turn) {
      for (size_t i = 0; i < arena.peers.size(); ++i) {
        arena.peers[i].SendUntil(question, HowFar(i, question.size()));
      }
      usleep(pause);
    }
    for (Peer& peer : arena.peers) (peer.*leave)();
    arena.AwaitDropped();
    pause = std::min<useconds_t>(pause * 2, 100000);
  } while (arena.Goes(1000));
}

void ResetInEveryState(Arena& arena) { LeaveInEveryState(arena, &Peer::Reset); }

void CloseHalfInEveryState(Arena& arena) { LeaveInEveryState(arena, &Peer::EndSending); }

void AskAndCloseHalf(Arena& arena) {
  const Bytes question = Question(kSmall);
  do {
    arena.peers.clear();
    arena.Fill(20);
    arena.Await("a question that cannot be sent", [&] {
      return std::ranges::all_of(arena.peers, [&](Peer& peer) { return peer.SendUntil(question, question.size()); });
    });
    for (Peer& peer : arena.peers) peer.EndSending();
    arena.Await("no answer to who closed half", [&] { return AllAnswered(arena, question.size()); });
    arena.AwaitDropped();
  } while (arena.Goes(1000));
}

void ConnectAndLeave(Arena& arena) {
  for (int turn = 0; arena.Goes(1000); ++turn) {
    arena.Fill(8);
    arena.peers.front().Close();  // the others do not leave a port behind that is taken for a minute
    for (Peer& peer : arena.peers) peer.Reset();
  }
}

void NeverSpeak(Arena& arena) {
  arena.Fill(2500);
  arena.Await("who never speaks is not dropped, though others want the place", [&] {
    for (Peer& peer : arena.peers) peer.Receive();
    return arena.Open() < arena.peers.size() - 500;
  });
  while (arena.Goes(1000)) continue;
}

// Each asks about twice a second.
void AskAndStay(Arena& arena, size_t count) {
  const Bytes question = Question(kSmall);
  for (size_t turn = 0; arena.Goes(1000); ++turn) {
    arena.Fill(count);
    for (size_t i = 0; i < count; ++i) {
      arena.peers[i].Receive();
      const size_t questions = arena.peers[i].sent() / question.size();
      if (questions == 0 || i % 512 == turn % 512)
        arena.peers[i].SendUntil(question, (questions + 1) * question.size());
    }
  }
}

void FillTheTable(Arena& arena) { AskAndStay(arena, 1200); }

void TakeAllDescriptors(Arena& arena) { AskAndStay(arena, 150); }

void NeverRead(Arena& arena) {
  const Bytes question = Question(kLarge);
  do {
    arena.Fill(8, kSmallBuffer);
    for (Peer& peer : arena.peers) peer.Send(question, Peer::kTurn);
  } while (arena.Goes(1000));
}

// A question whose header announces another length.
Bytes Announce(uint32_t length) {
  Bytes bytes = Question(kLarge);
  memcpy(bytes.data() + offsetof(MsgHeader, bodyLength), &length, sizeof length);
  return bytes;
}

void SendGiants(Arena& arena) {
  const Bytes giant = Announce(60u << 20);
  size_t most = 0;
  do {
    arena.Fill(16);
    arena.Await("a giant is taken in", [&] {
      for (Peer& peer : arena.peers) {
        peer.Send(giant, Peer::kTurn);
        most = std::max(most, peer.sent());
      }
      return arena.Open() == 0 || most > (32u << 20);
    });
  } while (arena.Goes(1000) && most <= (32u << 20));
  if (most > (32u << 20)) arena.faults.push_back("the server takes in half of a message of 60 MiB");
}

void SendOutOfBandBytes(Arena& arena) {
  const Bytes question = Question(kSmall);
  const size_t places[] = {1, sizeof(MsgHeader), question.size() / 2, question.size(), 2 * question.size()};
  arena.Fill(std::size(places) * 4);
  std::vector<bool> urgent(arena.peers.size());
  arena.Await("questions with bytes out of band cannot be sent", [&] {
    bool all = true;
    for (size_t i = 0; i < arena.peers.size(); ++i) {
      Peer& peer = arena.peers[i];
      const size_t place = places[i % std::size(places)];
      if (peer.SendUntil(question, place) && !urgent[i]) {
        urgent[i] = true;  // once: of two that were not read yet only the last is out of band
        peer.SendOutOfBand();
      }
      all = peer.sent() >= place && urgent[i] && peer.SendUntil(question, 2 * question.size()) && all;
    }
    return all;
  });
  arena.Await("a byte out of band spoils a message", [&] { return AllAnswered(arena, 2 * question.size()); });
  for (Peer& peer : arena.peers) peer.SendOutOfBand();  // and nothing after it
  while (arena.Goes(1000)) continue;
}

void SendGarbageDatagrams(Arena& arena) {
  std::minstd_rand random(1);
  arena.Fill(8);
  while (arena.Goes(100)) {
    Bytes garbage = Question(kSmall);
    garbage.resize(1 + random() % 40000);
    for (int i = 0; i < 4; ++i) garbage[random() % garbage.size()] = static_cast<uint8_t>(random() >> 8);
    for (Peer& peer : arena.peers) peer.Send(garbage, garbage.size());
    arena.Fill(8);
  }
}

// As a forged sender's address makes another server do it.
void MirrorAnswers(Arena& arena) {
  const Bytes question = Question(kSmall);
  size_t mirrored = 0;
  arena.Fill(1);
  arena.peers[0].Send(question, question.size());
  while (arena.Goes(0)) mirrored += arena.peers[0].Mirror();
  if (mirrored > 1) arena.faults.push_back("answers are answered: " + std::to_string(mirrored));
}

void FloodWithDatagrams(Arena& arena) {
  constexpr size_t kMostAnswers = 2000;  // a second, to one address
  const Bytes question = Question(kSmall);
  arena.Fill(8);
  const auto began = std::chrono::steady_clock::now();
  while (arena.Goes(100)) {
    for (Peer& peer : arena.peers) {
      peer.Send(question, question.size());
      peer.Receive();
    }
  }
  size_t bytes = 0;
  for (const Peer& peer : arena.peers) bytes += peer.received();
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - began;
  const double rate = static_cast<double>(bytes) / static_cast<double>(question.size()) / (seconds.count() + 1);
  if (rate > kMostAnswers) arena.faults.push_back("answers a second to one address: " + std::to_string(rate));
}

// One question each, again and again, until the connection is ended: answered once.
void Replay(Arena& arena) {
  do {
    arena.peers.clear();
    arena.Fill(8);
    const size_t plain = Question(1).size();  // an answer is not signed
    for (Peer& peer : arena.peers) {
      const Bytes question = SignedQuestion(kHostile, kHostile);
      arena.Await("a question that cannot be sent", [&] { return peer.SendUntil(question, 20 * question.size()); });
    }
    arena.Await("no answer to a signed question", [&] { return AllAnswered(arena, plain); });
    usleep(100000);
    AllAnswered(arena, plain + 1);
    for (const Peer& peer : arena.peers) {
      if (peer.received() > plain) return arena.faults.push_back("a replay is answered");
    }
  } while (arena.Goes(1000));
}

// In the name of another, of somebody unknown, at another time, altered in the header, the text, the signature.
void Forge(Arena& arena) {
  do {
    std::vector<Bytes> questions = {SignedQuestion(kHonest, kHostile), SignedQuestion("eve", "eve"),
                                    SignedQuestion(kHostile, kHostile, -400), SignedQuestion(kHostile, kHostile, 400)};
    for (const size_t from_end : {97, 100, 240, 96, 60, 1}) {
      questions.push_back(SignedQuestion(kHostile, kHostile));
      questions.back()[questions.back().size() - from_end] ^= 1;
    }
    arena.peers.clear();
    arena.Fill(questions.size());
    for (size_t i = 0; i < questions.size(); ++i) {
      arena.Await("a question that cannot be sent", [&] {
        return arena.peers[i].SendUntil(questions[i], questions[i].size()) || !arena.peers[i].is_open();
      });
    }
    usleep(100000);
    for (Peer& peer : arena.peers) {
      peer.Receive();
      if (peer.received() != 0) return arena.faults.push_back("a forged question is answered");
    }
  } while (arena.Goes(1000));
}

// More accepted messages than a server remembers, by one user, dated as late as is accepted.
void Hoard(Arena& arena) {
  constexpr size_t kMessages = 270000;
  arena.Fill(1);
  Peer& peer = arena.peers.front();
  for (size_t i = 1; i <= kMessages && peer.is_open(); ++i) {
    const Bytes question = SignedQuestion(kHostile, kHostile, 290);
    arena.Await("a question that cannot be sent", [&] {
      peer.Receive();
      return peer.SendUntil(question, i * question.size()) || !peer.is_open();
    });
  }
  while (arena.Goes(1000)) peer.Receive();
}

constexpr unsigned kStreams = kExample | kMqcat;

constexpr Attack kAttacks[] = {
    {"drip", "20 send questions a byte at a time, and get answers", SendAByteAtATime, kStreams},
    {"crawl", "20 send a question a byte at a time or read answers too slowly", NeverFinish, kExample, "too slow"},
    {"flood", "16 ask as fast as they can, read late, and count the answers", FloodWithQuestions, kStreams},
    {"garbage", "20 at a time send 16 KiB of garbage, over and over", FloodWithGarbage, kStreams, "MQ_BAD_MESSAGE"},
    {"reset", "40 at a time reset, in every state", ResetInEveryState, kStreams, "left"},
    {"half_close", "40 at a time close their side, in every state", CloseHalfInEveryState, kStreams, "left"},
    {"ask_and_close", "20 at a time ask, close their side, and get the answer", AskAndCloseHalf, kStreams},
    {"storm", "connections that are closed or reset at once, 8000 a second", ConnectAndLeave, kStreams},
    {"silent", "2500 connect and never speak", NeverSpeak, kExample, "its place is needed"},
    {"squat", "1200 ask twice a second and stay: more than the table has places", FillTheTable, kExample, "needed"},
    {"descriptors", "150 connect to a server that has 64 descriptors", TakeAllDescriptors, kStreams, "EMFILE", 64},
    {"never_read", "8 ask on and never read an answer", NeverRead, kStreams, "takes no answers"},
    {"giants", "16 send a message of 60 MiB", SendGiants, kStreams, "too long"},
    {"out_of_band", "20 send bytes out of band, in every state", SendOutOfBandBytes, kStreams},
    {"datagrams", "8 send broken datagrams of up to 40000 bytes", SendGarbageDatagrams, kDatagrams},
    {"mirror", "one sends each answer back, as a forged sender makes another server do", MirrorAnswers, kDatagrams},
    {"datagram_flood", "8 of one address ask in datagrams as fast as they can", FloodWithDatagrams, kDatagrams},
    {"replay", "8 send a signed question 20 times, and get one answer", Replay, kSigned},
    {"forge", "questions of others, unknown, old and early ones, altered ones", Forge, kSigned},
    {"hoard", "a user signs 270000 questions that are dated 290 seconds ahead", Hoard, kSigned},
};

}  // namespace

std::span<const Attack> Attacks() { return kAttacks; }

}  // namespace hostile
