// host_test.cc - host services: label, processors, waiting for the network stack, the alarm guard.
#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

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
  utsname info;
  memset(&info, 0x5a, sizeof info);
  EXPECT_EQ(GetSysInfo(&info), 1);
  EXPECT_EQ(format("{} {}", info.nodename, info.sysname), "testnode Linux");
  EXPECT_EQ(GetSysInfo(&info), 0);
  const utsname zero = {};
  EXPECT_EQ(memcmp(&info, &zero, sizeof info), 0);
}

TEST_F(HostTest, LabelAppendsWhatFits) {
  const auto system = [](std::string_view name, std::string_view version, std::string_view release,
                         std::string_view machine) {
    utsname info = {};
    name.copy(info.sysname, 65);
    version.copy(info.version, 65);
    release.copy(info.release, 65);
    machine.copy(info.machine, 65);
    return info;
  };
  const std::string v47(47, 'v'), v48(48, 'v'), s64(64, 's'), a65(65, 'a'), a48(48, 'a');
  const utsname plain = system("S", "5", "3", "M");
  const utsname long_name = system(s64, "5", "3", "M");
  const struct {
    utsname info;
    std::string before;
    int room, with_machine;
    std::string after;
  } rows[] = {
      {plain, "old ", 100, 7, "old S::V5.R3::M::"},
      {plain, "", 100, 0, "S::V5.R3::"},
      {system("  Linux\t", " #1 SMP ", "6.1 ", "\n x86_64"), "", 100, 1, "Linux::V#1 SMP.R6.1::x86_64::"},
      {system("", "", "", ""), "", 100, 1, "::V.R::::"},
      // costs are 4, 8 and 4; a piece needs less than the room
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
      {long_name, "", 67, 1, "V5.R3::M::"},
      {long_name, "", 68, 1, s64 + "::"},
      // 48 characters, then trimmed; fields that fill their place
      {system("S", v47 + " vv", std::string(50, 'v'), "M"), "", 200, 0, "S::V" + v47 + ".R" + v48 + "::"},
      {system(a65, a65, a65, a65), "", 400, 1, a65 + "::V" + a48 + ".R" + a48 + "::" + a65 + "::"},
  };
  for (const auto& row : rows) {
    std::string label = row.before + '\0' + std::string(400, '?');
    GetSysLabel(&row.info, label.data(), row.room, row.with_machine);
    EXPECT_EQ(label.substr(0, row.after.size() + 2), row.after + '\0' + '?') << row.room;
  }
}

TEST_F(HostTest, ProcessorCount) {
  for (const auto& [text, count] :
       {std::pair{"8", 8}, {"8x", 8}, {" 12", 12}, {"1", 1}, {"0", 1}, {"-3", 1}, {"abc", 1}, {"", 1}}) {
    setenv("TEVRA_CPU_COUNT", text, 1);
    EXPECT_EQ(GetProcessorCount(), count) << text;
  }
  unsetenv("TEVRA_CPU_COUNT");
  EXPECT_EQ(GetProcessorCount(), sysconf(_SC_NPROCESSORS_ONLN));
  // The platform may say nothing, not even why.
  for (const auto& [code, reported] : {std::pair{0, ENOSYS}, {EINVAL, EINVAL}}) {
    Platform::Fail("sysconf", 1, code);
    errno = 0;
    EXPECT_EQ(GetProcessorCount(), -1);
    EXPECT_EQ(errno, reported);
  }
}

// ---- Waiting for the network stack ----

// What one check with printing on prints while the network is down.
std::string Printout(const std::string& date) {
  return "Date: " + date + "SOCKSIN: bTcpipNotActive() = ITRUE; gethostname() RC(-1) errno(5) nodename()\n";
}
constexpr time_t kDay = 1700000000;

TEST_F(HostTest, NetworkNotActive) {
  const struct {
    int down, verbose;
    time_t now;
    std::string printed;
  } rows[] = {{0, 1, kDay, ""},
              {1, 0, kDay, ""},
              {1, 1, kDay, Printout(ctime(&kDay))},
              {1, -1, kDay, Printout(ctime(&kDay))},
              {1, 1, kNoDate, Printout("\n")}};
  for (const auto& row : rows) {
    Platform::SetTime(row.now);
    if (row.down != 0) Platform::Fail("gethostname", 1, EIO);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(bTcpipNotActive(row.verbose), row.down); }), row.printed);
  }
}

// A wait in which the first checks find the network down, the test before the wait included. A line every 60 checks,
// and what is printed with it; a name that does not fit is cut.
TEST_F(HostTest, NetworkWait) {
  const std::string w454(454, 'w');
  const struct {
    int down, verbose;
    int prints;  // how many checks print
    std::string who, shown, shown_active;
  } rows[] = {
      {0, 1, 0, "host", "host", "host"},
      {1, 0, 1, w454, w454, w454},
      {3, 0, 1, "host", "host", "host"},
      {3, 1, 3, "host", "host", "host"},
      {61, 0, 1, "host", "host", "host"},
      // the first check of a later cycle is number 62 of all
      {62, 0, 2, "host", "host", "host"},
      {62, 1, 62, "host", "host", "host"},
      {121, 0, 2, "host", "host", "host"},
      {122, 0, 3, std::string(2000, 'w'), std::string(469, 'w'), w454},
  };
  for (const auto& row : rows) {
    Platform::Reset();
    Platform::SetTime(kDay);
    Platform::Fail("gethostname", 1, EIO, row.down);
    std::string printed, calls = "gethostname(255) = 0";
    for (int i = 0; i < row.prints; ++i) printed += Printout(ctime(&kDay));
    if (row.down > 0) calls = "gethostname(255) = -1 EIO";
    for (int check = 1; check <= row.down; ++check) {
      const std::string line = format("; LOGMSG(1157I {} Waiting for TCP/IP to become active, 1) = 0", row.shown);
      calls += format("{}; sleep(5) = 0; gethostname(255) = {}", check % 60 == 1 ? line : "",
                      check < row.down ? "-1 EIO" : "0");
    }
    const std::string active = "1158I TCP/IP now active, initialization will proceed for " + row.shown_active;
    if (row.down > 0) calls += format("; LOGMSG({}, 1) = 0; sleep(5) = 0", active);
    EXPECT_EQ(Printed([&] { EXPECT_EQ(bWaitForTcpip(row.verbose, row.who.c_str()), 0); }), printed) << row.down;
    EXPECT_EQ(Take(), calls) << row.down;
  }
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
  Take();
  EXPECT_EQ(enable_alarm(100), 0u);
  EXPECT_EQ(Installed(), "guard over own");
  disable_alarm();
  EXPECT_EQ(Installed(), "own over own");
  EXPECT_EQ(Take(), "signal(14) = 0; alarm(100) = 0; alarm(0) = 100; signal(14) = 0");
  EXPECT_EQ(alarm(200), 0u) << "no alarm is pending";
  EXPECT_EQ(enable_alarm(100), 200u) << "what was left of an earlier alarm";
  // It does not nest.
  enable_alarm(100);
  disable_alarm();
  EXPECT_EQ(Installed(), "guard over guard");
  pSavedAlarm = nullptr;
  disable_alarm();
  EXPECT_EQ(Installed(), "default over default");
}

TEST_F(HostTest, AlarmGoesOffInABlockedCallAndKeepsErrno) {
  enable_alarm(1);
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
