// host_test.cc - host services: label, processor count, waiting for the network stack, alarm guard.
#include <signal.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "tests/support/fixture.hh"

namespace {

class HostTest : public Fixture {
 protected:
  ~HostTest() override {
    unsetenv("TEVRA_CPU_COUNT");
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    pSavedAlarm = nullptr;
  }
};

TEST_F(HostTest, SysInfoIsTheSystemsOrAllZero) {
  Platform::SetNodeName("testnode");
  Platform::Fail("uname", 2, EFAULT);
  utsname info, zero = {};
  EXPECT_EQ(GetSysInfo(&info), 1);
  EXPECT_EQ(format("{} {}", info.nodename, info.sysname), "testnode Linux");
  EXPECT_EQ(GetSysInfo(&info), 0);
  EXPECT_EQ(memcmp(&info, &zero, sizeof info), 0);
}

TEST_F(HostTest, LabelAppendsWhatFits) {
  // The fields: name, version, release, machine.
  using Fields = std::array<std::string, 4>;
  const auto label = [](const Fields& fields, int room, int with_machine = 1, const std::string& before = "") {
    utsname info = {};
    char* const places[] = {info.sysname, info.version, info.release, info.machine};
    for (size_t i = 0; i < fields.size(); ++i) fields[i].copy(places[i], sizeof info.sysname);
    std::string text = before + '\0' + std::string(400, '?');
    GetSysLabel(&info, text.data(), room, with_machine);
    EXPECT_EQ(text[strlen(text.c_str()) + 1], '?') << "nothing behind the terminator";
    return std::string(text.c_str());
  };
  const std::string v47(47, 'v'), v48(48, 'v'), a65(65, 'a'), a48(48, 'a');
  const Fields plain = {"S", "5", "3", "M"};
  EXPECT_EQ(label({"  Linux\t", " #1 SMP ", "6.1 ", "\n M"}, 100, 7, "old "), "old Linux::V#1 SMP.R6.1::M::");
  EXPECT_EQ(label({}, 100), "::V.R::::");
  // Costs are 4, 8 and 4. A piece must cost less than the space left; one that does not fit does not stop the next.
  for (const auto& [room, text] :
       {std::pair{-1, ""}, {4, ""}, {5, "S::"}, {9, "S::M::"}, {13, "S::V5.R3::"}, {17, "S::V5.R3::M::"}}) {
    EXPECT_EQ(label(plain, room), text) << room;
    EXPECT_TRUE(room <= 4 || label(plain, room - 1) != text) << room;
  }
  // Cut to 48 characters, then trimmed; fields without a terminator.
  EXPECT_EQ(label({"S", v47 + " vv", v48 + "vv", "M"}, 200, 0), "S::V" + v47 + ".R" + v48 + "::");
  EXPECT_EQ(label({a65, a65, a65, a65}, 400), a65 + "::V" + a48 + ".R" + a48 + "::" + a65 + "::");
}

TEST_F(HostTest, ProcessorCount) {
  for (const auto& [text, count] : {std::pair{"8x", 8}, {" 12", 12}, {"1", 1}, {"0", 1}, {"abc", 1}, {"", 1}}) {
    setenv("TEVRA_CPU_COUNT", text, 1);
    EXPECT_EQ(GetProcessorCount(), count) << text;
  }
  unsetenv("TEVRA_CPU_COUNT");
  EXPECT_EQ(GetProcessorCount(), sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_EQ(errno, ENOSYS) << "for platforms that do not set errno";
}

// ---- Waiting for the network stack ----

// The first `down` checks, including the one before the wait, find the network down. Every 60th check logs a line, and
// prints one as well; the first check of a later cycle is number 62. A name that does not fit is cut.
TEST_F(HostTest, NetworkWait) {
  const time_t now = 1700000000;
  const auto printout = [](const std::string& date) {
    return "Date: " + date + "SOCKSIN: bTcpipNotActive() = ITRUE; gethostname() RC(-1) errno(5) nodename()\n";
  };
  const auto check = [&](int down, int verbose, int prints, size_t who = 4, size_t shown = 4, size_t active = 4) {
    Platform::Reset();
    Platform::SetTime(now);
    Platform::Fail("gethostname", 1, EIO, down);
    const std::string name(who, 'w');
    std::string printed, calls;
    for (int i = 0; i < prints; ++i) printed += printout(ctime(&now));
    for (int i = 0; i <= down; ++i) {
      calls += i < down ? "gethostname(255) = -1 EIO; " : "gethostname(255) = 0; ";
      if (i == down) {
        calls += "LOGMSG(1158I TCP/IP now active, initialization will proceed for " + name.substr(0, active);
      } else if (i % 60 == 0) {
        calls += "LOGMSG(1157I " + name.substr(0, shown) + " Waiting for TCP/IP to become active";
      }
      calls += i == down || i % 60 == 0 ? ", 1) = 0; sleep(5) = 0; " : "sleep(5) = 0; ";
    }
    EXPECT_EQ(Printed([&] { EXPECT_EQ(bWaitForTcpip(verbose, name.c_str()), 0); }), printed) << down;
    EXPECT_EQ(Take() + "; ", calls) << down;
  };
  check(61, 0, 1, 454, 454, 454);
  check(62, 1, 62);
  check(122, 0, 3, 2000, 469, 454);
  EXPECT_EQ(Printed([] { EXPECT_EQ(bTcpipNotActive(1) + bWaitForTcpip(1, "host"), 0); }), "");
  EXPECT_EQ(Take(), "gethostname(255) = 0; gethostname(255) = 0");
  Platform::SetTime(kNoDate);
  Platform::Fail("gethostname", 1, EIO);
  EXPECT_EQ(Printed([] { EXPECT_EQ(bTcpipNotActive(1), 1); }), printout("\n"));
}

// ---- The alarm guard ----

void OwnHandler(int) {}
std::string Handler(AlarmFn handler) {
  return handler == OwnHandler ? "own" : handler == AlarmHandler ? "guard" : handler == SIG_DFL ? "default" : "?";
}
std::string Installed() {
  struct sigaction action;
  sigaction(SIGALRM, nullptr, &action);
  return Handler(action.sa_handler) + " over " + Handler(pSavedAlarm);
}

TEST_F(HostTest, AlarmArmsAndRestores) {
  signal(SIGALRM, OwnHandler);
  alarm(200);
  EXPECT_EQ(enable_alarm(100), 200u) << "what was left of an earlier alarm";
  EXPECT_EQ(alarm(50), 100u);
  EXPECT_EQ(Installed(), "guard over own");
  disable_alarm();
  EXPECT_EQ(alarm(0), 0u);
  EXPECT_EQ(Installed(), "own over own");
  // The guard does not nest.
  enable_alarm(100);
  enable_alarm(100);
  disable_alarm();
  EXPECT_EQ(Installed(), "guard over guard");
  pSavedAlarm = nullptr;
  disable_alarm();
  EXPECT_EQ(Installed(), "default over default");
}

TEST_F(HostTest, AlarmGoesOffInABlockedCallAndKeepsErrno) {
  enable_alarm(100);
  const itimerval soon = {{0, 0}, {0, 10000}};  // alarm has no finer unit than seconds
  setitimer(ITIMER_REAL, &soon, nullptr);
  Take();
  EXPECT_EQ(poll(nullptr, 0, 10000), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(Take(), "LOGMSG(0106W Timeout received, possible unreachable host, 1) = 0");
  EXPECT_EQ(Installed(), "guard over default") << "the handler stays";
  EXPECT_EQ(alarm(0), 0u) << "and the alarm is not armed again";
  errno = ENOTTY;
  AlarmHandler(SIGALRM);
  EXPECT_EQ(errno, ENOTTY);
}

}  // namespace
