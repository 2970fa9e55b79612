// peer.cc - forks the second process, connects each contestant to it, and runs slices.
// Invariant: outside Run and the constructor, the peer waits for a command and uses no processor time.
#include "bench/peer.hh"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>

#include "bench/measure.hh"

namespace bench {
namespace {

// In a paced stream, the reader answers after each group of messages, and the writer is at most kAhead messages ahead.
constexpr size_t kGroup = 128;
constexpr size_t kAhead = 2 * kGroup;

}  // namespace

Duel::Duel(std::vector<Contestant> contestants, Pattern pattern, size_t body, unsigned layout)
    : contestants_(std::move(contestants)), pattern_(pattern), random_(layout) {
  int pair[2];
  Check(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
  fflush(stdout);
  peer_ = fork();
  Check(peer_ != -1, "fork");
  control_ = pair[peer_ == 0];
  close(pair[peer_ != 0]);
  if (peer_ == 0) Obey();
  for (size_t c = 0; c < size(); ++c) {
    MakeEnd(c);
    Tell({Order::kAccept, static_cast<uint32_t>(c), body});
    ends_[c]->Connect(static_cast<uint16_t>(Hear()));
    ends_[c]->Prepare(body);
    Hear();
  }
  for (size_t c = 0; c < size(); ++c) {
    const std::vector<uint8_t> sent(ends_[c]->Body().begin(), ends_[c]->Body().end());
    Run(c, 2);
    Check(std::equal(sent.begin(), sent.end(), ends_[c]->Body().begin(), ends_[c]->Body().end()), "message changed");
  }
}

void Duel::MakeEnd(size_t c) {
  constexpr size_t kPage = 4096;
  spacers_.emplace_back(1 + random_() % (2 * kPage));
  ends_.push_back(contestants_[c].make(pattern_));
}

Duel::~Duel() {
  ends_.clear();
  close(control_);
  waitpid(peer_, nullptr, 0);
}

Spent Duel::Now() const {
  const auto read = [](clockid_t clock) {
    timespec time = {};
    Check(clock_gettime(clock, &time) == 0, "clock_gettime");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  };
  clockid_t peer_clock;
  Check(clock_getcpuclockid(peer_, &peer_clock) == 0, "clock_getcpuclockid");
  return {Seconds(), read(CLOCK_PROCESS_CPUTIME_ID) + read(peer_clock)};
}

Spent Duel::Run(size_t c, size_t count) {
  End& end = *ends_[c];
  Tell({Order::kServe, static_cast<uint32_t>(c), count});
  Hear();
  const bool both_ways = pattern_ == Pattern::kRoundTrip;
  if (both_ways) {  // not counted: wakes the peer up
    end.Write();
    end.Read();
  }
  const Spent start = Now();
  for (size_t i = 0; i < count; ++i) {
    if (pattern_ == Pattern::kPacedOneWay && i >= kAhead && i % kGroup == 0) Hear();
    end.Write();
    if (both_ways) end.Read();
  }
  if (!both_ways) Hear();
  const Spent end_time = Now();
  return {end_time.elapsed - start.elapsed, end_time.processor - start.processor};
}

void Duel::Serve(End& end, size_t count) {
  Answer(0);
  if (pattern_ != Pattern::kRoundTrip) {
    for (size_t i = 0; i < count; ++i) {
      end.Read();
      if (pattern_ == Pattern::kPacedOneWay && (i + 1) % kGroup == 0 && i + 1 + kAhead - kGroup < count) Answer(0);
    }
    return Answer(0);
  }
  for (size_t i = 0; i < count + 1; ++i) {
    end.Read();
    end.Write();
  }
}

void Duel::Obey() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  random_.discard(size());  // so that the spacers differ from the parent's
  for (size_t c = 0; c < size(); ++c) MakeEnd(c);
  Command command;
  while (recv(control_, &command, sizeof command, MSG_WAITALL) == sizeof command) {
    End& end = *ends_.at(command.contestant);
    if (command.order == Order::kServe) {
      Serve(end, command.count);
      continue;
    }
    Answer(end.Listen());
    end.Accept();
    end.Prepare(command.count);
    Answer(0);
  }
  ends_.clear();
  _exit(0);
}

void Duel::Tell(const Command& command) {
  Check(send(control_, &command, sizeof command, MSG_NOSIGNAL) == sizeof command, "the peer is gone");
}

void Duel::Answer(uint32_t word) {
  if (send(control_, &word, sizeof word, MSG_NOSIGNAL) != sizeof word) _exit(1);
}

uint32_t Duel::Hear() {
  uint32_t word = 0;
  Check(recv(control_, &word, sizeof word, MSG_WAITALL) == sizeof word, "the peer is gone");
  return word;
}

}  // namespace bench
