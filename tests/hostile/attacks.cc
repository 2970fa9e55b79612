// attacks.cc - each attack is one function over connections that never block.
// Not here: the honest clients meanwhile (exchange.cc), whether the server came out well (main.cc).
#include "tests/hostile/attacks.hh"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <string_view>

#include "runtime/message.h"

namespace hostile {

bool Arena::Goes(int microseconds) {
  usleep(static_cast<useconds_t>(microseconds));
  return Clock::now() - began_ < seconds_;
}

void Arena::Fill(size_t count, int receiveBuffer) {
  std::erase_if(peers, [](const Peer& peer) { return !peer.is_open(); });
  while (peers.size() < count) peers.emplace_back(port_, receiveBuffer);
}

size_t Arena::Open() const {
  return static_cast<size_t>(std::ranges::count_if(peers, [](const Peer& peer) { return peer.is_open(); }));
}

void Arena::Await(const std::string& what, const std::function<bool()>& act) {
  constexpr auto kPatience = std::chrono::seconds(30);
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
  arena.Await("no answer to a question that came a byte at a time",
              [&] { return AllAnswered(arena, question.size()); });
}

void NeverFinish(Arena& arena) {
  const Bytes question = Question(kLarge);
  arena.Fill(20);
  arena.Await("who sends too slowly is not dropped", [&] {
    for (Peer& peer : arena.peers) {
      peer.Send(question, 1);
      peer.Receive();
    }
    usleep(50000);
    return arena.Open() == 0;
  });
}

void FloodWithQuestions(Arena& arena) {
  const Bytes small = Question(kSmall);
  const Bytes large = Question(kLarge);
  arena.Fill(16);
  while (arena.Goes(100)) {
    for (size_t i = 0; i < arena.peers.size(); ++i) {
      arena.peers[i].Receive();
      arena.peers[i].Send(i % 2 ? small : large, kLarge);
    }
  }
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
  arena.AwaitDropped();
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

void AskOnceAndStay(Arena& arena, size_t count) {
  const Bytes question = Question(kSmall);
  do {
    arena.Fill(count);
    for (Peer& peer : arena.peers) {
      peer.SendUntil(question, question.size());
      peer.Receive();
    }
  } while (arena.Goes(1000));
}

void FillTheTable(Arena& arena) { AskOnceAndStay(arena, 1200); }

void TakeAllDescriptors(Arena& arena) { AskOnceAndStay(arena, 150); }

void NeverRead(Arena& arena) {
  const Bytes question = Question(kLarge);
  do {
    arena.Fill(32, kSmallBuffer);
    arena.Await("who never reads is not dropped", [&] {
      for (Peer& peer : arena.peers) peer.Send(question, kLarge);
      return arena.Open() == 0;
    });
  } while (arena.Goes(1000));
}

void ReadAByteAtATime(Arena& arena) {
  const Bytes question = Question(kLarge);
  const size_t enough = 24 * question.size();  // more than sockets hold, fewer answers than the write limit
  arena.Fill(8, kSmallBuffer);
  arena.Await("who reads too slowly is not dropped", [&] {
    for (Peer& peer : arena.peers) {
      peer.SendUntil(question, enough);
      peer.Receive(1);
    }
    return arena.Open() == 0;
  });
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

Bytes Text(std::string_view text, size_t length = 0) {
  Bytes bytes(text.begin(), text.end());
  bytes.resize(std::max(length, bytes.size()), ' ');
  return bytes;
}

void GreetInOtherTongues(Arena& arena) {
  using namespace std::string_view_literals;
  const Bytes greetings[] = {
      Text("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
      Text("GET / HTTP/1.1\r\nHost: localhost\r\nUser-Agent: ", 600),
      Text("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"sv, 517),  // the first message of TLS
      Text("SSH-2.0-client\r\n"),
      Text("\x88\0\0\0"sv, 136),  // a header's length, then blanks
      Text("\0"sv),
      Text(""sv, 4096),
      Announce(0),
      Announce(0xffffffff),
      Announce(0x7fffffff),
      Announce((64u << 20) - 135),  // one byte more than a message may have
  };
  do {
    arena.peers.clear();
    arena.Fill(std::size(greetings));
    for (size_t i = 0; i < arena.peers.size(); ++i) {
      arena.Await("a greeting that cannot be sent", [&] {
        return arena.peers[i].SendUntil(greetings[i], greetings[i].size()) || !arena.peers[i].is_open();
      });
    }
    arena.AwaitDropped();
  } while (arena.Goes(1000));
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

constexpr Attack kAttacks[] = {
    {"drip", "20 send questions a byte at a time, and get answers", SendAByteAtATime, ""},
    {"crawl", "20 send a question a byte at a time, too slowly", NeverFinish, "too slow"},
    {"flood", "16 ask as fast as they can", FloodWithQuestions, ""},
    {"garbage", "20 at a time send 16 KiB of garbage, over and over", FloodWithGarbage, "MQ_BAD_MESSAGE"},
    {"reset", "40 at a time reset, in every state", ResetInEveryState, "left"},
    {"half_close", "40 at a time close their side, in every state", CloseHalfInEveryState, "left"},
    {"ask_and_close", "20 at a time ask, close their side, and get the answer", AskAndCloseHalf, ""},
    {"storm", "connections that are closed or reset at once, 8000 a second", ConnectAndLeave, ""},
    {"silent", "2500 connect and never speak", NeverSpeak, "too slow", true},
    {"squat", "1200 ask once and stay: more than there is room for", FillTheTable, "", true},
    {"descriptors", "150 connect to a server that has 64 descriptors", TakeAllDescriptors, "EMFILE", true, 64},
    {"never_read", "32 ask on and never read an answer", NeverRead, "MQ_WRITE_LIMIT"},
    {"slow_read", "8 read their answers a byte at a time", ReadAByteAtATime, ""},
    {"giants", "16 send a message of 60 MiB", SendGiants, "too long"},
    {"greetings", "11 other protocols and impossible headers", GreetInOtherTongues, "MQ_BAD_MESSAGE"},
    {"out_of_band", "20 send bytes out of band, in every state", SendOutOfBandBytes, ""},
};

}  // namespace

std::span<const Attack> Attacks() { return kAttacks; }

}  // namespace hostile
