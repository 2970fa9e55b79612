// host_test.cc - host services: label, processors, waiting for the network stack, the alarm guard.
#include <poll.h>
#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/support/fixture.hh"

namespace {

class HostTest : public Fixture {
 protected:
  ~HostTest() override { unsetenv("TEVRA_CPU_COUNT"); }
};

utsname System(const char* sysname, const char* version, const char* release, const char* machine) {
  utsname info = {};
  strcpy(info.sysname, sysname);
  strcpy(info.version, version);
  strcpy(info.release, release);
  strcpy(info.machine, machine);
  return info;
}

TEST_F(HostTest, SysInfoIsTheSystemsOrAllZero) {
  Platform::SetNodeName("testnode");
  utsname info;
  memset(&info, 0x5a, sizeof info);
  EXPECT_EQ(GetSysInfo(&info), 1);
  EXPECT_STREQ(info.nodename, "testnode");
  EXPECT_STREQ(info.sysname, "Linux");
  memset(&info, 0x5a, sizeof info);
  const utsname zero = {};
  Platform::Fail("uname", 1, EFAULT);
  EXPECT_EQ(GetSysInfo(&info), 0);
  EXPECT_EQ(memcmp(&info, &zero, sizeof info), 0);
}

TEST_F(HostTest, LabelAppendsWhatFits) {
  const utsname plain = System("S", "5", "3", "M");
  const utsname wide = System("  Linux\t", " #1 SMP ", "6.1 ", "\n x86_64");
  const std::string fifty(50, 'v');
  const utsname long_version = System("S", (std::string(47, 'v') + " vv").c_str(), fifty.c_str(), "M");
  const std::string sysname(64, 's');
  const utsname long_name = System(sysname.c_str(), "5", "3", "M");
  const utsname empty = System("", "", "", "");
  const std::string v47(47, 'v');
  const std::string v48(48, 'v');
  const struct {
    const utsname& info;
    const char* before;
    int room, with_machine;
    std::string after;
  } rows[] = {
      {plain, "", 100, 1, "S::V5.R3::M::"},
      {plain, "old ", 100, 7, "old S::V5.R3::M::"},
      {plain, "", 100, 0, "S::V5.R3::"},
      {wide, "", 100, 1, "Linux::V#1 SMP.R6.1::x86_64::"},
      // costs are 4, 8 and 4; a piece needs less than the room
      {plain, "x", 0, 1, "x"},
      {plain, "x", -1, 1, "x"},
      {plain, "x", 4, 1, "x"},
      {plain, "", 5, 1, "S::"},
      {plain, "", 8, 1, "S::"},
      {plain, "", 9, 1, "S::M::"},
      {plain, "", 12, 1, "S::M::"},
      {plain, "", 13, 1, "S::V5.R3::"},
      {plain, "", 16, 1, "S::V5.R3::"},
      {plain, "", 17, 1, "S::V5.R3::M::"},
      // a piece that does not fit does not stop the next
      {long_name, "", 60, 1, "V5.R3::M::"},
      {long_name, "", 67, 1, "V5.R3::M::"},
      {long_name, "", 68, 1, sysname + "::"},
      // 48 characters, then trimmed
      {long_version, "", 200, 0, "S::V" + v47 + ".R" + v48 + "::"},
      {empty, "", 100, 1, "::V.R::::"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.after << " in " << row.room);
    char label[400];
    memset(label, '?', sizeof label);
    strcpy(label, row.before);
    GetSysLabel(&row.info, label, row.room, row.with_machine);
    EXPECT_EQ(label, row.after);
    EXPECT_EQ(label[row.after.size() + 1], '?') << "nothing behind the terminator";
  }
}

TEST_F(HostTest, LabelTakesFieldsThatFillTheirPlace) {
  utsname info;
  memset(&info, 'a', sizeof info);
  char label[400] = "";
  GetSysLabel(&info, label, sizeof label, 1);
  const std::string field(65, 'a');
  EXPECT_EQ(label, field + "::V" + field.substr(0, 48) + ".R" + field.substr(0, 48) + "::" + field + "::");
}

TEST_F(HostTest, ProcessorCount) {
  const struct {
    const char* text;
    int count;
  } rows[] = {{"8", 8}, {"8x", 8}, {" 12", 12}, {"0", 1}, {"-3", 1}, {"abc", 1}, {"", 1}};
  for (const auto& row : rows) {
    setenv("TEVRA_CPU_COUNT", row.text, 1);
    EXPECT_EQ(GetProcessorCount(), row.count) << row.text;
  }
  unsetenv("TEVRA_CPU_COUNT");
  errno = 0;
  EXPECT_EQ(GetProcessorCount(), sysconf(_SC_NPROCESSORS_ONLN));

  Platform::Fail("sysconf", 1, 0);
  errno = 0;
  EXPECT_EQ(GetProcessorCount(), -1);
  EXPECT_EQ(errno, ENOSYS) << "the platform said nothing";
  Platform::Fail("sysconf", 1, EINVAL);
  EXPECT_EQ(GetProcessorCount(), -1);
  EXPECT_EQ(errno, EINVAL);
}

// ---- Waiting for the network stack ----

class NetworkTest : public HostTest {
 protected:
  NetworkTest() {
    Platform::SetTime(1700000000);
    const time_t now = 1700000000;
    lines_ = std::string("Date: ") + ctime(&now) +
             "SOCKSIN: bTcpipNotActive() = ITRUE; gethostname() RC(-1) errno(5) nodename()\n";
  }

  // The first checks checks find the network down.
  static void DownFor(int checks) {
    if (checks > 0) Platform::Fail("gethostname", 1, EIO, checks);
  }

  std::string lines_;  // what one check with printing on prints
};

TEST_F(NetworkTest, NotActiveIsPrintedWhenAskedFor) {
  const struct {
    int down, verbose, result;
    std::string printed;
  } rows[] = {{0, 1, 0, ""}, {0, 0, 0, ""}, {1, 0, 1, ""}, {1, 1, 1, lines_}, {1, -1, 1, lines_}};
  for (const auto& row : rows) {
    DownFor(row.down);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(bTcpipNotActive(row.verbose), row.result); }), row.printed);
  }
  EXPECT_EQ(Platform::Calls().front(), "gethostname(255) = 0");
  Platform::SetTime(kNoDate);
  DownFor(1);
  EXPECT_EQ(Printed([] { bTcpipNotActive(1); }), "Date: \n" + lines_.substr(lines_.find("SOCKSIN")));
}

const char kUp[] = "gethostname(255) = 0";
const char kDown[] = "gethostname(255) = -1 EIO";
const char kSleep[] = "sleep(5) = 0";
const char kWaiting[] = "LOGMSG(1157I host Waiting for TCP/IP to become active, 1) = 0";
const char kActive[] = "LOGMSG(1158I TCP/IP now active, initialization will proceed for host, 1) = 0";

// The calls of a wait in which the network is down for this many checks, the first test included.
Lines WaitCalls(int down) {
  Lines calls = {down > 0 ? kDown : kUp};
  if (down == 0) return calls;
  for (int check = 1; check <= down; ++check) {
    if (check % 60 == 1) calls.push_back(kWaiting);
    calls.push_back(kSleep);
    calls.push_back(check < down ? kDown : kUp);
  }
  calls.push_back(kActive);
  calls.push_back(kSleep);
  return calls;
}

TEST_F(NetworkTest, WaitsInCyclesAndSaysSo) {
  const struct {
    int down, verbose;
    int prints;  // how many checks print
  } rows[] = {
      {0, 0, 0},
      {0, 1, 0},
      {1, 0, 1},
      {3, 0, 1},
      {3, 1, 3},
      {60, 0, 1},
      {61, 0, 1},
      // the first check of a later cycle is number 62 of all, the first test included
      {62, 0, 2},
      {63, 0, 2},
      {62, 1, 62},
      {121, 0, 2},
      {122, 0, 3},
      {130, 0, 3},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "down for " << row.down << ", verbose " << row.verbose);
    Platform::Reset();
    Platform::SetTime(1700000000);
    DownFor(row.down);
    const std::string printed = Printed([&] { EXPECT_EQ(bWaitForTcpip(row.verbose, "host"), 0); });
    std::string expected;
    for (int i = 0; i < row.prints; ++i) expected += lines_;
    EXPECT_EQ(printed, expected);
    EXPECT_EQ(Platform::Calls(), WaitCalls(row.down));
  }
}

TEST_F(NetworkTest, LongNamesAreCutToTheLine) {
  const std::string fits(454, 'w');
  const std::string longer(2000, 'w');
  const std::string start1 = "1157I ";
  const std::string end1 = " Waiting for TCP/IP to become active";
  const std::string start2 = "1158I TCP/IP now active, initialization will proceed for ";
  for (const std::string& who : {fits, longer}) {
    DownFor(1);
    Printed([&] { bWaitForTcpip(0, who.c_str()); });
  }
  const Lines lines = LogLines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], start1 + fits + end1);
  EXPECT_EQ(lines[1], start2 + fits);
  for (const std::string& line : {lines[2], lines[3]}) EXPECT_LT(line.size(), 512u);
  EXPECT_EQ(lines[2].substr(0, 460), start1 + fits);
  EXPECT_EQ(lines[3].substr(0, start2.size() + 454), start2 + fits);
}

// ---- The alarm guard ----

volatile sig_atomic_t own_handler_ran;
void OwnHandler(int) { own_handler_ran = 1; }

AlarmFn CurrentHandler() {
  struct sigaction action;
  sigaction(SIGALRM, nullptr, &action);
  return action.sa_handler;
}

class AlarmTest : public HostTest {
 protected:
  ~AlarmTest() override {
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    pSavedAlarm = nullptr;
  }
};

TEST_F(AlarmTest, ArmsAndRestores) {
  signal(SIGALRM, OwnHandler);
  Platform::Forget();
  EXPECT_EQ(enable_alarm(100), 0u);
  EXPECT_EQ(pSavedAlarm, OwnHandler);
  EXPECT_EQ(CurrentHandler(), AlarmHandler);
  disable_alarm();
  EXPECT_EQ(CurrentHandler(), OwnHandler);
  EXPECT_EQ(Platform::Calls(), (Lines{"signal(14) = 0", "alarm(100) = 0", "alarm(0) = 100", "signal(14) = 0"}));
  EXPECT_EQ(alarm(0), 0u) << "no alarm is pending";
  EXPECT_EQ(LogLines(), Lines{});
}

TEST_F(AlarmTest, ReturnsWhatWasLeftOfAnEarlierAlarm) {
  alarm(200);
  EXPECT_EQ(enable_alarm(100), 200u);
  EXPECT_EQ(alarm(0), 100u);
}

TEST_F(AlarmTest, DoesNotNest) {
  signal(SIGALRM, OwnHandler);
  enable_alarm(100);
  enable_alarm(100);
  disable_alarm();
  EXPECT_EQ(pSavedAlarm, AlarmHandler);
  EXPECT_EQ(CurrentHandler(), AlarmHandler);
}

TEST_F(AlarmTest, DisableAloneInstallsTheDefaultAction) {
  signal(SIGALRM, OwnHandler);
  disable_alarm();
  EXPECT_EQ(CurrentHandler(), SIG_DFL);
}

TEST_F(AlarmTest, GoesOffInABlockedCallAndKeepsErrno) {
  enable_alarm(1);
  errno = ENOTTY;
  EXPECT_EQ(poll(nullptr, 0, 10000), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(LogLines(), Lines{"0106W Timeout received, possible unreachable host"});
  EXPECT_EQ(CurrentHandler(), AlarmHandler) << "the handler stays";
  EXPECT_EQ(alarm(0), 0u) << "and the alarm is not armed again";
  disable_alarm();

  errno = ENOTTY;
  AlarmHandler(SIGALRM);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_EQ(LogLines().size(), 2u);
}

}  // namespace
