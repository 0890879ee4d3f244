// The scheduler over real files, real `find` and `fuser`; the servers and the clock are the test's.
#include "log_consumer/qv_log_consumer_socket_thread.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_mg.h"
#include "log_consumer/qv_log_consumer_schedule.h"
#include "tests/log_consumer/fake_connection.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

// The linker turns calls of LogConsumer::setReadOnly() into calls of its __wrap_ form, which marks
// nothing: the scheduler marks by itself.
extern "C" int
__wrap__ZN11LogConsumer11setReadOnlyENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    LogConsumer* engine, std::string path);

extern "C" int
__wrap__ZN11LogConsumer11setReadOnlyENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(
    LogConsumer* /*engine*/, std::string /*path*/) {
  return -1;
}

namespace {

namespace fs = std::filesystem;
using Shared = logConsumerSharedStruct;
using test_support::count;
using test_support::fake_servers;
using test_support::FakeTime;
using test_support::journal;
using test_support::Journal;
using test_support::Sent;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::time_t kNineOClock = 1770109200;  // 2026-02-03 09:00:00 UTC
constexpr std::time_t kMinute = 60;
constexpr char kClp[] = "/tarv/data/logs/clp";
constexpr char kDebug[] = "/tarv/data/logs/debug";
constexpr char kReports[] = "/tarv/data/logs/reports";

mode_t modeOf(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::string makeLog(const std::string& directory, const std::string& name, mode_t mode = 0644) {
  fs::create_directories(directory);
  std::string path = directory + "/" + name;
  std::ofstream(path) << "log " << name;
  chmod(path.c_str(), mode);
  return path;
}

// The journal without what stands before and after: only the lines that begin so.
Journal linesFrom(const std::string& first) {
  Journal lines = journal();
  lines.erase(lines.begin(), std::find(lines.begin(), lines.end(), first));
  return lines;
}

class Scheduler : public testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all("/tarv/data");  // in the sandbox
    // The device's find, see the lab's README.
    fs::create_directories("/tmp/find");
    if (!fs::exists("/tmp/find/find")) fs::create_symlink("/usr/bin/busybox", "/tmp/find/find");
    setenv("PATH", "/tmp/find:/usr/bin:/bin", 1);
    storeSharedDefaults();
    shared_set(&Shared::wifiAssociated, true);
    fake_servers() = {};
    table_ = buildLogTypeTable();
    test_support::clear_journal();
  }

  // The engine as start-up leaves it, with `server` as option -s.
  LogConsumer& engine(const std::string& server = "logs.example", int port = 443) {
    shared_set(&Shared::wifiAssociated, false);  // no start-up probe
    engine_.init(table_, 5, server, port);
    shared_set(&Shared::wifiAssociated, true);
    test_support::clear_journal();
    return engine_;
  }

  void keepOnlyKind(logFileTypes filetype) {
    table_.erase(
        std::remove_if(table_.begin(), table_.end(),
                       [&](const logConsumerType& kind) { return kind.filetype != filetype; }),
        table_.end());
  }

  // Switches the slots on: neither of the two bypasses.
  void waitForSlots() {
    shared_set(&Shared::alwaysBypassRandomDelay, false);
    shared_set(&Shared::initialLogSending, false);
  }

  FakeTime time_{kNineOClock};
  std::vector<logConsumerType> table_;
  LogConsumer engine_;
};

TEST_F(Scheduler, InitStoresThePairForBothServers) {
  shared_set(&Shared::wifiAssociated, false);
  engine_.init(table_, 7, "10.0.0.5", 8080);
  EXPECT_EQ(logConsumerShared.sleepSeconds, 7);
  EXPECT_EQ(logConsumerShared.dataUploadServerAddr, "10.0.0.5");
  EXPECT_EQ(logConsumerShared.relayServerAddr, "10.0.0.5");
  EXPECT_EQ(logConsumerShared.dataUploadServerPort, 8080);
  EXPECT_EQ(logConsumerShared.relayServerPort, 8080);
  EXPECT_EQ(engine_.logInfo.size(), 15U);
  EXPECT_THAT(journal("syslog"), ElementsAre("syslog 7 wifi not associated",
                                             "syslog 7 Starting. server = 10.0.0.5, ip = 8080"));
}

TEST_F(Scheduler, InitProbesBothServersOnlyWithWifi) {
  engine_.init(table_, 5, "10.0.0.5", 8080);
  EXPECT_EQ(count("syslog 7 wifi not associated"), 0U);
  EXPECT_EQ(
      count("syslog 7 Might be NUV not registered = 0 or sysid with default = NUVSerialNumber"),
      2U);
}

TEST_F(Scheduler, StartsDataUploadFirstAndStopsInTheSameOrder) {
  engine().execute();
  const Journal lines = journal();
  EXPECT_THAT(Journal(lines.begin(), lines.begin() + 4),
              ElementsAre("init data", "exec data", "init relay", "exec relay"));
  EXPECT_THAT(linesFrom("terminate data"),
              ElementsAre("terminate data", "terminate relay", "usleep 5000000",
                          "syslog 6 Exiting socket thread"));
}

TEST_F(Scheduler, TypicalUploadWaitsSendsMarksAndReports) {
  keepOnlyKind(kClpType);
  const std::string path = makeLog(kClp, "a.gz");
  time_.set_monotonic(5000);
  engine().execute();
  EXPECT_THAT(
      linesFrom("syslog 6 Bypassing random delay values for all log types\n"),
      ElementsAre(
          "syslog 6 Bypassing random delay values for all log types\n",
          "syslog 7 1 not read only files found for filetype 11 at directory " + std::string(kClp),
          "syslog 6 Filename " + path + " is not read only",
          "syslog 7 Sleeping 5 seconds before next file send", "sleep 5", "send data",
          "syslog 6 Sending " + path + " went okay", "syslog 6 No files found in debug! Resetting",
          "terminate data", "terminate relay", "usleep 5000000", "syslog 6 Exiting socket thread"));
  EXPECT_EQ(modeOf(path), 0400U);
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 5005);
  EXPECT_FALSE(logConsumerShared.initialLogSending) << "a file was sent";
  EXPECT_TRUE(logConsumerShared.resetLogConsumer);
}

TEST_F(Scheduler, EachKindGoesToItsServerUnderItsName) {
  for (const logConsumerType& kind : table_) {
    if (kind.filetype != kTestFileType) makeLog(kind.filepath, "a.gz");
  }
  engine().execute();
  std::vector<std::string> names;
  for (const Sent& sent : fake_servers().received) {
    const std::string marker = "name=\"LogType\"\r\n\r\n";
    const auto start = sent.bytes.find(marker);
    if (sent.server == kRelaySrv) {
      names.push_back("relay: " + sent.bytes);
    } else {
      const auto name = start + marker.size();
      names.push_back(sent.bytes.substr(name, sent.bytes.find("\r\n", name) - name));
    }
  }
  EXPECT_THAT(names, ElementsAre("relay: log a.gz", "measmin", "relay: log a.gz", "clp", "Debug",
                                 "TLink", "UI", "Demand", "TComp", "lg", "rg", "pushpull",
                                 "diagnostics", "logconsumer"));
}

TEST_F(Scheduler, OnePassPerStartWithTheDefaults) {
  engine().execute();
  EXPECT_EQ(count("syslog 6 No files found in debug! Resetting"), 1U);
  EXPECT_EQ(count("syslog 6 Bypassing random delay values for all log types\n"), 15U);
  EXPECT_TRUE(logConsumerShared.initialLogSending) << "nothing was sent";
}

TEST_F(Scheduler, WithoutServerItNeverConnectsAndNeverStopsByItself) {
  shared_set(&Shared::resetLogConsumer, true);  // not looked at while no server is there
  shared_set(&Shared::inactivityExit, true);
  int pauses = 0;
  LogConsumer& subject = engine("", 0);
  time_.on_sleep([&](std::int64_t) {
    if (++pauses == 3) shared_set(&Shared::dataUploadServerAddr, std::string("late.example"));
  });
  subject.execute();
  const Journal expected = {"syslog 7 data upload connection not done con = 0",
                            "syslog 7 relay server connection not done con = 0", "usleep 5000000"};
  const Journal lines = journal();
  for (std::size_t pass = 0; pass < 3; ++pass) {
    const auto from = lines.begin() + 4 + static_cast<std::ptrdiff_t>(pass * 3);
    EXPECT_EQ(Journal(from, from + 3), expected) << "pass " << pass;
  }
  EXPECT_EQ(lines[14], "connect data late.example:0");
}

TEST_F(Scheduler, PortMinusOneMeansNotConfigured) {
  shared_set(&Shared::relayServerConnectDone, true);
  engine("logs.example", -1).execute();
  EXPECT_THAT(journal("connect"), IsEmpty());
}

TEST_F(Scheduler, WithoutWifiNoConnectionIsAttempted) {
  LogConsumer& subject = engine();
  shared_set(&Shared::wifiAssociated, false);
  time_.on_sleep([](std::int64_t) { shared_set(&Shared::wifiAssociated, true); });
  subject.execute();
  const Journal lines = journal();
  EXPECT_THAT(Journal(lines.begin() + 4, lines.begin() + 11),
              ElementsAre("syslog 7 Data upload mongoose connection not done",
                          "syslog 7 wifi not associated",
                          "syslog 7 Relay server socket connection not done",
                          "syslog 7 wifi not associated",
                          "syslog 7 data upload connection not done con = 0",
                          "syslog 7 relay server connection not done con = 0", "usleep 5000000"));
  EXPECT_EQ(count("connect data logs.example:443"), 1U);
  EXPECT_EQ(count("connect relay logs.example:443"), 1U);
}

TEST_F(Scheduler, AStandingConnectionIsLeftAlone) {
  shared_set(&Shared::dataUploadConnectDone, true);
  shared_set(&Shared::relayServerConnectDone, true);
  engine().execute();
  EXPECT_THAT(journal("connect"), IsEmpty());
  EXPECT_EQ(count("syslog 7 Data upload mongoose connection not done"), 0U);
}

TEST_F(Scheduler, KindsOfAnUnavailableServerAreSkipped) {
  fake_servers().relayAnswers = false;
  const std::string report = makeLog(kReports, "r.gz");
  const std::string clp = makeLog(kClp, "c.gz");
  engine().execute();
  EXPECT_EQ(count("syslog 7 relay server connection not done con = 0"), 1U);
  EXPECT_EQ(modeOf(report), 0644U);
  EXPECT_EQ(modeOf(clp), 0400U);
  EXPECT_EQ(count("syslog 7 0 not read only files found for filetype 9 at directory " +
                  std::string(kReports)),
            0U)
      << "not even listed";
}

TEST_F(Scheduler, KindsOfTheDataUploadServerAreSkippedToo) {
  fake_servers().dataUploadAnswers = false;
  const std::string report = makeLog(kReports, "r.gz");
  const std::string clp = makeLog(kClp, "c.gz");
  engine().execute();
  EXPECT_EQ(modeOf(report), 0400U);
  EXPECT_EQ(modeOf(clp), 0644U);
}

TEST_F(Scheduler, TwentyFiveFilesTwentyInThisPassTheRestLater) {
  keepOnlyKind(kDemandType);
  std::vector<std::string> paths;
  paths.reserve(25);
  for (int index = 0; index < 25; ++index) {
    paths.push_back(makeLog("/tarv/data/logs/demand", "d" + std::to_string(index) + ".gz"));
  }
  const auto marked = [&] {
    return std::count_if(paths.begin(), paths.end(),
                         [](const std::string& path) { return modeOf(path) == 0400; });
  };
  LogConsumer& subject = engine();
  subject.execute();
  EXPECT_EQ(marked(), 20);
  EXPECT_EQ(
      count("syslog 7 Ending sending of files for type Demand, max number attempted sent = 20"),
      1U);
  EXPECT_EQ(
      count("syslog 6 Backlog of over 5 unsent logs found for filetype 4, using short delays."),
      1U);
  EXPECT_EQ(count("sleep 5"), 20U) << "the backlog changes nothing";
  shared_set(&Shared::resetLogConsumer, false);
  subject.execute();
  EXPECT_EQ(marked(), 25);
}

TEST_F(Scheduler, BacklogIsReportedAboveFiveOnly) {
  keepOnlyKind(kClpType);
  for (int index = 0; index < 5; ++index)
    makeLog(kClp, std::to_string(index) + ".gz");
  engine().execute();
  EXPECT_EQ(
      count("syslog 6 Backlog of over 5 unsent logs found for filetype 11, using short delays."),
      0U);
}

TEST_F(Scheduler, AFailedSendEndsTheKindAndSparesTheNext) {
  const std::string first = makeLog("/tarv/data/logs/tlink", "a.gz");
  const std::string second = makeLog("/tarv/data/logs/tlink", "b.gz");
  const std::string other = makeLog("/tarv/data/logs/UI", "u.gz");
  fake_servers().answer = [](const Sent& sent) {
    return sent.bytes.find("TLink") == std::string::npos;
  };
  engine().execute();
  EXPECT_EQ(journal("send data").size(), 3U) << "two tries of one file, then the other kind";
  EXPECT_EQ(count("sleep 10"), 1U);
  EXPECT_EQ(modeOf(first), 0644U);
  EXPECT_EQ(modeOf(second), 0644U);
  EXPECT_EQ(modeOf(other), 0400U);
  EXPECT_EQ(journal("syslog 3 ").size(), 1U);
  EXPECT_TRUE(count("syslog 3 Send " + first + " failed. Sleeping 10 seconds.") == 1 ||
              count("syslog 3 Send " + second + " failed. Sleeping 10 seconds.") == 1);
}

TEST_F(Scheduler, AFileThatVanishesBeforeTheSendFailsItsKind) {
  keepOnlyKind(kClpType);
  const std::string path = makeLog(kClp, "a.gz");
  time_.on_sleep([&](std::int64_t microseconds) {
    if (microseconds == 5'000'000) fs::remove(path);
  });
  engine().execute();
  EXPECT_THAT(journal("send"), IsEmpty());
  EXPECT_EQ(count("syslog 3 Send " + path + " failed. Sleeping 10 seconds."), 1U);
}

TEST_F(Scheduler, AFileThatCannotBeMarkedStaysWaiting) {
  keepOnlyKind(kClpType);
  const std::string path = makeLog(kClp, "a.gz");
  fake_servers().answer = [&](const Sent&) { return fs::remove(path); };
  engine().execute();
  EXPECT_EQ(count("syslog 4 Failed to make " + path + " read-only"), 1U);
  EXPECT_TRUE(logConsumerShared.initialLogSending) << "does not count as sent";
  EXPECT_NE(logConsumerShared.lastActivityTime.tv_sec, 0) << "yet it was activity";
}

TEST_F(Scheduler, AFailingClockLeavesTheActivityTimeAlone) {
  keepOnlyKind(kClpType);
  makeLog(kClp, "a.gz");
  time_.fail_monotonic(EINVAL);
  engine().execute();
  EXPECT_EQ(count("syslog 3 socket thread: clock_gettime() failed 22"), 1U);
  EXPECT_EQ(logConsumerShared.lastActivityTime.tv_sec, 0);
}

TEST_F(Scheduler, DebugKindReportsItsCounters) {
  keepOnlyKind(kDebugFileType);
  makeLog(kDebug, "a.gz");
  makeLog(kDebug, "b.gz", 0400);
  makeLog(kDebug, "c.gz", 0664);
  makeLog(kDebug, "notes.txt");
  engine().execute();
  EXPECT_EQ(
      count("syslog 7 Debug type found 4 files, 2 read only, 1 wrong extension, 1 attempted sent"),
      1U);
}

TEST_F(Scheduler, DebugKindReportsAnEmptyListToo) {
  keepOnlyKind(kDebugFileType);
  engine().execute();
  EXPECT_EQ(
      count("syslog 7 Debug type found 0 files, 0 read only, 0 wrong extension, 0 attempted sent"),
      1U);
}

class Slots : public Scheduler {
 protected:
  // Ends the loop behind the first pass that pauses for a further one.
  void stopAfterOnePass() {
    time_.on_sleep([](std::int64_t microseconds) {
      if (microseconds == 1'000'000) shared_set(&Shared::resetLogConsumer, true);
    });
  }
};

TEST_F(Slots, WithDelaysGeneratedNothingIsSentAtMinutesZeroAndSix) {
  for (const int minute : {0, 6}) {
    waitForSlots();
    shared_set(&Shared::setDelayMinutes, true);
    time_.set_wall(kNineOClock + minute * kMinute);
    const std::string path = makeLog(kClp, "a.gz");
    LogConsumer& subject = engine();
    stopAfterOnePass();
    subject.execute();
    EXPECT_EQ(modeOf(path), 0644U) << "minute " << minute;
    EXPECT_EQ(count("sleep 1"), 1U) << "no reset in the first pass: the debug kind was skipped";
    shared_set(&Shared::resetLogConsumer, false);
  }
}

TEST_F(Slots, WithDelaysGeneratedEveryKindSendsAtMinutesOneToFive) {
  for (const int minute : {1, 5}) {
    storeSharedDefaults();
    waitForSlots();
    shared_set(&Shared::setDelayMinutes, true);
    time_.set_wall(kNineOClock + minute * kMinute);
    const std::string path = makeLog("/tarv/data/logs/UI", "u" + std::to_string(minute) + ".gz");
    engine().execute();
    EXPECT_EQ(modeOf(path), 0400U) << "minute " << minute;
    EXPECT_EQ(count("syslog 7 Time is good for log type 3, checking to send, delay 1 curr " +
                    std::to_string(minute) + "\n"),
              1U);
    EXPECT_EQ(count("syslog 6 No files found in debug! Resetting"), 1U);
  }
}

TEST_F(Slots, BeforeDelaysAreGeneratedTheSlotIsMinutesZeroToFour) {
  waitForSlots();
  const std::string path = makeLog(kClp, "a.gz");
  engine().execute();
  EXPECT_EQ(modeOf(path), 0400U);
  EXPECT_EQ(count("syslog 7 Time is good for log type 11, checking to send, delay 0 curr 0\n"), 1U);
}

TEST_F(Slots, KindsWithoutRandomDelayAreSentOnEveryPass) {
  waitForSlots();
  keepOnlyKind(kClpType);
  table_[0].useRandomDelay = false;
  time_.set_wall(kNineOClock + 30 * kMinute);
  const std::string path = makeLog(kClp, "a.gz");
  engine().execute();
  EXPECT_EQ(modeOf(path), 0400U);
  EXPECT_EQ(count("syslog 7 Bypassing random delay values for log type 11\n"), 1U);
}

TEST_F(Slots, TheTestExitFileEndsTheServiceEvenWhenTheDebugKindWasSkipped) {
  waitForSlots();
  time_.set_wall(kNineOClock + 30 * kMinute);
  const auto clp = std::find_if(table_.begin(), table_.end(), [](const logConsumerType& kind) {
    return kind.filetype == kClpType;
  });
  clp->useRandomDelay = false;
  makeLog(kClp, "test_debug_exit.txt.gz", 0400);  // sent long ago: seen is enough
  engine().execute();
  EXPECT_EQ(count("syslog 6 No files found in debug! Resetting"), 1U);
  EXPECT_THAT(journal("send"), IsEmpty());
}

// Of a process that starts anew, initialLogSending alone keeps every kind from waiting: the pass
// that ends initial sending ends the process, too.
TEST_F(Slots, WithoutTheFlagTheFirstPassOfAStartStillServesEveryKindAndIsItsLast) {
  shared_set(&Shared::alwaysBypassRandomDelay, false);
  shared_set(&Shared::setDelayMinutes, true);
  time_.set_wall(kNineOClock + 30 * kMinute);
  const std::string path = makeLog("/tarv/data/logs/UI", "a.gz");
  engine().execute();
  EXPECT_EQ(modeOf(path), 0400U);
  EXPECT_EQ(count("syslog 6 No files found in debug! Resetting"), 1U);
}

TEST_F(Slots, SuccessClearsInitialSending) {
  keepOnlyKind(kDebugFileType);
  shared_set(&Shared::alwaysBypassRandomDelay, false);
  time_.set_wall(kNineOClock + 30 * kMinute);
  makeLog(kDebug, "a.gz");
  engine().execute();
  EXPECT_FALSE(logConsumerShared.initialLogSending);
}

TEST_F(Slots, InactivityEndsTheEngineAtTheEndOfAPass) {
  waitForSlots();
  time_.set_wall(kNineOClock + 30 * kMinute);
  shared_set(&Shared::inactivityExit, true);
  engine().execute();
  EXPECT_EQ(count("syslog 4 LC thread: exit due to no activity 1"), 1U);
  EXPECT_EQ(count("sleep 1"), 0U);
  EXPECT_FALSE(logConsumerShared.resetLogConsumer);
}

TEST_F(Slots, WithoutSkippingThePauseBetweenPassesIsTheSharedSleep) {
  waitForSlots();
  time_.set_wall(kNineOClock + 30 * kMinute);
  shared_set(&Shared::skipPerFileDelay, false);
  LogConsumer& subject = engine();
  time_.on_sleep([](std::int64_t) { shared_set(&Shared::resetLogConsumer, true); });
  subject.execute();
  EXPECT_EQ(count("sleep 1"), 0U);
  EXPECT_EQ(count("usleep 5000000"), 2U) << "one between the passes, one at the end";
}

TEST_F(Slots, DelayGenerationLogsRandomValuesAndStoresMinuteOne) {
  shared_set(&Shared::setDelayMinutes, true);
  shared_set(&Shared::sysId, std::string("AB12345678"));
  LogConsumer& subject = engine();
  subject.execute();
  const unsigned seed = delaySeed("AB12345678", kNineOClock);
  EXPECT_EQ(count("syslog 6 Generating random delay values with a seed value of " +
                  std::to_string(static_cast<int>(seed))),
            1U);
  srand(seed);
  for (const logConsumerType& kind : subject.logInfo) {
    EXPECT_EQ(count("syslog 6 Log type " + std::to_string(kind.filetype) + " set to delay " +
                    std::to_string(rand() % 55)),
              1U);
    EXPECT_EQ(kind.delayMinutes, 1);
  }
  EXPECT_FALSE(logConsumerShared.setDelayMinutes);
}

TEST_F(Scheduler, WithoutARequestDelaysStayAsTheyAre) {
  LogConsumer& subject = engine();
  subject.execute();
  EXPECT_THAT(journal("syslog 6 Generating"), IsEmpty());
  EXPECT_EQ(subject.logInfo[0].delayMinutes, 0);
}

TEST_F(Scheduler, EachPassStoresTheRegisteredStatesText) {
  shared_set(&Shared::aapStateStr, std::string("bound"));
  engine().execute();
  EXPECT_EQ(logConsumerShared.aapStateStr, "registered");
}

// The one store without the lock. Whoever reads meanwhile copies a text of at most 15 characters.
TEST_F(Scheduler, TheUnlockedStoreOfTheStatesTextHarmsNoReader) {
  std::atomic<bool> done{false};
  std::size_t longest = 0;
  std::thread reader([&] {
    while (!done)
      longest = std::max(longest, shared_get(&Shared::aapStateStr).size());
  });
  keepOnlyKind(kTestFileType);
  LogConsumer& subject = engine();
  for (int pass = 0; pass < 100; ++pass) {
    shared_set(&Shared::aapStateStr, std::string("unregistered"));
    subject.execute();
  }
  done = true;
  reader.join();
  EXPECT_LE(longest, 15U);
}

TEST_F(Scheduler, TheActivityLogIsEnabledOnRequestAndFollowsTheHour) {
  fs::create_directories("/tarv/data/logs/logconsumer");
  shared_set(&Shared::loggingEnabled, true);
  LogConsumer& subject = engine();
  subject.execute();
  EXPECT_EQ(count("syslog 6 Enabling logging"), 1U);
  EXPECT_EQ(count("syslog 6 Starting log at /tarv/data/logs/logconsumer/logconsumer.log"), 1U)
      << "same hour: no second log";
  EXPECT_EQ(subject.logger.currentHour, 9);

  time_.set_wall(kNineOClock + 3600);
  subject.logger.disableLog();
  shared_set(&Shared::loggingEnabled, false);
  shared_set(&Shared::resetLogConsumer, false);
  subject.execute();
  EXPECT_EQ(subject.logger.currentHour, 10) << "follows the clock while logging is off";
}

TEST_F(Scheduler, AnHourChangeStartsANewActivityLog) {
  fs::create_directories("/tarv/data/logs/logconsumer");
  shared_set(&Shared::loggingEnabled, true);
  keepOnlyKind(kClpType);
  waitForSlots();
  time_.set_wall(kNineOClock + 59 * kMinute + 59);
  LogConsumer& subject = engine();
  table_.clear();
  subject.logInfo[0].useRandomDelay = false;
  subject.logInfo.push_back({kDebug, kDebugFileType, 0, kDataUploadSrv, false, true});
  time_.on_sleep([passes = 0](std::int64_t) mutable {
    if (++passes == 2) shared_set(&Shared::resetLogConsumer, true);
  });
  subject.execute();
  EXPECT_EQ(count("syslog 6 Starting log at /tarv/data/logs/logconsumer/logconsumer.log"), 2U);
  EXPECT_TRUE(fs::exists("/tarv/data/logs/logconsumer/logconsumer_log__2026_2_3_10_0_.log.gz"));
}

TEST_F(Scheduler, SharedSleepIsInSeconds) {
  shared_set(&Shared::sleepSeconds, 7);
  engine_.sleepSharedSeconds();
  EXPECT_EQ(journal(), Journal{"usleep 7000000"});
}

TEST_F(Scheduler, PauseOfMoreThanAnHourIsSleptWhole) {
  shared_set(&Shared::sleepSeconds, 4294);
  engine_.sleepSharedSeconds();
  shared_set(&Shared::sleepSeconds, 4295);
  engine_.sleepSharedSeconds();
  shared_set(&Shared::sleepSeconds, 86400);
  engine_.sleepSharedSeconds();
  EXPECT_EQ(time(nullptr) - kNineOClock, 4294 + 4295 + 86400);
}

TEST_F(Scheduler, TerminateDoesNothing) {
  engine_.terminate();
  EXPECT_THAT(journal(), IsEmpty());
}

}  // namespace
