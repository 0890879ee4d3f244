#include "log_consumer/qv_log_consumer_logger.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "tests/log_consumer/activity_log_fixture.h"

namespace {

using test_support::clear_journal;
using test_support::file_exists;
using test_support::gunzip;
using test_support::Journal;
using test_support::journal;
using test_support::kLog;
using test_support::kLogDir;
using test_support::kLogs;
using test_support::kNow;
using test_support::noise;
using test_support::read_file;
using test_support::TempDir;
using test_support::write_file;

constexpr std::time_t kMinute = 60;
constexpr std::time_t kHour = 60 * kMinute;
constexpr std::time_t kDay = 24 * kHour;
constexpr std::time_t kWeek = 604800;

// What activityLogTimestamp() and its neighbours make of a moment.

constexpr std::time_t k20260203T0905 = 1'770'109'500;

TEST(ActivityLogTimestamp, HasNoLeadingZeros) {
  EXPECT_EQ(activityLogTimestamp(k20260203T0905), "2026_2_3_9_5");
}

TEST(ActivityLogTimestamp, HasNoSeconds) {
  EXPECT_EQ(activityLogTimestamp(k20260203T0905 + 59), "2026_2_3_9_5");
  EXPECT_EQ(activityLogTimestamp(k20260203T0905 + 60), "2026_2_3_9_6");
}

TEST(ActivityLogTimestamp, CountsMonthsFromOne) {
  EXPECT_EQ(activityLogTimestamp(1'798'761'599), "2026_12_31_23_59");
  EXPECT_EQ(activityLogTimestamp(1'798'761'600), "2027_1_1_0_0");
}

TEST(ActivityLogTimestamp, IsUtcWhateverTheTimeZone) {
  setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(activityLogTimestamp(k20260203T0905), "2026_2_3_9_5");
  EXPECT_EQ(utcHour(k20260203T0905), 9);
  unsetenv("TZ");
  tzset();
}

TEST(ActivityLogTimestamp, StartsWithTheEpochOnADeviceWithoutAClock) {
  EXPECT_EQ(activityLogTimestamp(0), "1970_1_1_0_0");
}

TEST(ActivityLogArchive, NameHasADoubleUnderscoreAndOneBeforeTheEnding) {
  EXPECT_EQ(activityLogArchivePath(k20260203T0905),
            "/tarv/data/logs/logconsumer/logconsumer_log__2026_2_3_9_5_.log.gz");
}

TEST(ActivityLogArchive, ExpiresOneSecondAfterSevenDays) {
  EXPECT_FALSE(archiveExpired(kNow - kWeek + 1, kNow));
  EXPECT_FALSE(archiveExpired(kNow - kWeek, kNow));
  EXPECT_TRUE(archiveExpired(kNow - kWeek - 1, kNow));
}

TEST(ActivityLogArchive, FromTheFutureIsKept) {
  EXPECT_FALSE(archiveExpired(kNow + 1, kNow));
}

TEST(ActivityLogArchive, IsKeptWhileTheClockStandsNearTheEpoch) {
  EXPECT_FALSE(archiveExpired(0, 100)) << "now - retention is negative, not huge";
  EXPECT_FALSE(archiveExpired(0, kWeek));
  EXPECT_TRUE(archiveExpired(0, kWeek + 1));
}

TEST(ActivityLogHour, ChangesOnTheHour) {
  EXPECT_EQ(utcHour(kNow), 9);
  EXPECT_EQ(utcHour(kNow + 55 * kMinute - 1), 9);
  EXPECT_EQ(utcHour(kNow + 55 * kMinute), 10);
  EXPECT_EQ(utcHour(kDay - 1), 23);
  EXPECT_EQ(utcHour(kDay), 0);
}

class ActivityLog : public test_support::ActivityLogFixture {
 protected:
  void SetUp() override {
    ActivityLogFixture::SetUp();
    std::filesystem::remove_all(kLogDir);
  }

  /// A file in the log directory that was last modified `age` seconds before the clock's now.
  static std::string file_of_age(const std::string& name, std::time_t age) {
    std::filesystem::create_directories(kLogDir);
    std::string path = kLogDir + "/" + name;
    write_file(path, "old");
    set_age(path, age);
    return path;
  }

  static void set_age(const std::string& path, std::time_t age) {
    const struct timespec when = {time(nullptr) - age, 0};
    const struct timespec times[2] = {when, when};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  static std::string archive_of(std::time_t now) { return activityLogArchivePath(now); }
};

// Life of the object.

TEST_F(ActivityLog, StartsDisabledWithoutALog) {
  const LogConsumerLogger logger;
  EXPECT_FALSE(logger.logEnabled);
  EXPECT_FALSE(logger.currentLog.is_open());
  EXPECT_EQ(logger.logName, "");
  EXPECT_EQ(logger.currentHour, -1);
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(ActivityLog, CreatesItsDirectory) {
  const LogConsumerLogger logger;
  EXPECT_TRUE(std::filesystem::is_directory(kLogDir));
}

TEST_F(ActivityLog, LeavesAnExistingDirectoryAlone) {
  file_of_age("kept.txt", 0);
  testing::internal::CaptureStderr();
  const LogConsumerLogger logger;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "mkdir was run";
  EXPECT_TRUE(file_exists(kLogDir + "/kept.txt"));
}

TEST_F(ActivityLog, MissingParentLeavesItWithoutADirectoryAndSilent) {
  std::filesystem::remove_all(kLogs);
  testing::internal::CaptureStderr();
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logHeader("lost");
  EXPECT_NE(testing::internal::GetCapturedStderr(), "") << "mkdir did not complain";
  EXPECT_FALSE(file_exists(kLogDir));
  EXPECT_EQ(journal(), (Journal{"syslog 6 Enabling logging", "syslog 6 archiving log file ''",
                                "syslog 6 Starting log at " + kLog}));
}

TEST_F(ActivityLog, LogsFromTheNextStartOnceTheDirectoryIsThere) {
  std::filesystem::remove_all(kLogs);
  testing::internal::CaptureStderr();
  LogConsumerLogger logger;
  testing::internal::GetCapturedStderr();
  logger.enableLog();
  logger.logHeader("lost");
  std::filesystem::create_directories(kLogDir);
  logger.logHeader("lost too");
  EXPECT_FALSE(file_exists(kLog));
  clock_.advance(kHour);
  pass(logger);
  logger.logHeader("kept");
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_10_5kept\n");
}

TEST_F(ActivityLog, EnablingStartsALog) {
  LogConsumerLogger logger;
  logger.enableLog();
  EXPECT_TRUE(logger.logEnabled);
  EXPECT_EQ(logger.currentHour, 9);
  EXPECT_EQ(logger.logName, kLog);
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_9_5");
  EXPECT_EQ(journal(), (Journal{"syslog 6 Enabling logging", "syslog 6 archiving log file ''",
                                "syslog 6 Starting log at " + kLog}));
}

TEST_F(ActivityLog, DisablingArchivesAndStopsWriting) {
  LogConsumerLogger logger;
  logger.enableLog();
  clear_journal();
  logger.disableLog();
  EXPECT_FALSE(logger.logEnabled);
  EXPECT_FALSE(file_exists(kLog));
  EXPECT_EQ(gunzip(archive_of(kNow)), "Log Consumer log file time 2001_2_3_9_5");
  EXPECT_EQ(journal().front(), "syslog 6 archiving log file '" + kLog + "'");
  clear_journal();
  logger.logHeader("no");
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(ActivityLog, DisablingWhatNeverLoggedOnlySaysSo) {
  LogConsumerLogger logger;
  logger.disableLog();
  EXPECT_EQ(journal(), Journal{"syslog 6 archiving log file ''"});
  EXPECT_TRUE(std::filesystem::is_empty(kLogDir));
}

TEST_F(ActivityLog, DestructorClosesTheLogAndArchivesNothing) {
  {
    LogConsumerLogger logger;
    logger.enableLog();
    logger.logHeader("header");
    clear_journal();
  }
  EXPECT_EQ(journal(), Journal{});
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_9_5header\n");
  EXPECT_FALSE(file_exists(archive_of(kNow)));
}

TEST_F(ActivityLog, LogOfAPreviousRunIsEmptiedAndNotArchived) {
  file_of_age("logconsumer.log", 60);
  LogConsumerLogger logger;
  logger.enableLog();
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_9_5");
  EXPECT_FALSE(file_exists(archive_of(kNow)));
}

// Records.

TEST_F(ActivityLog, RecordsFollowTheStartLineOnItsOwnLine) {
  LogConsumerLogger logger;
  logger.enableLog();
  clear_journal();
  logger.logHeader("POST /v1/Upload HTTP/1.1");
  logger.logFilesize(4711);
  logger.logResponse("Success");
  EXPECT_EQ(read_file(kLog),
            "Log Consumer log file time 2001_2_3_9_5POST /v1/Upload HTTP/1.1\n"
            "Logged filesize: 4711\n"
            "Logged response: Success\n");
  EXPECT_EQ(journal(), (Journal{"syslog 7 Logging header", "syslog 7 Logging filesize",
                                "syslog 7 Logging response"}));
}

TEST_F(ActivityLog, EachRecordIsInTheFileAtOnce) {
  LogConsumerLogger logger;
  logger.enableLog();
  std::string expected = "Log Consumer log file time 2001_2_3_9_5";
  EXPECT_EQ(read_file(kLog), expected);
  logger.logHeader("a");
  EXPECT_EQ(read_file(kLog), expected += "a\n");
  logger.logFilesize(1);
  EXPECT_EQ(read_file(kLog), expected += "Logged filesize: 1\n");
  logger.logResponse("b");
  EXPECT_EQ(read_file(kLog), expected += "Logged response: b\n");
}

TEST_F(ActivityLog, TextsAreWrittenUnchanged) {
  const std::string bytes = noise(10'000) + std::string("\0\n\r%s", 5);
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logHeader(bytes);
  logger.logResponse("");
  EXPECT_TRUE(read_file(kLog) ==
              "Log Consumer log file time 2001_2_3_9_5" + bytes + "\nLogged response: \n");
}

TEST_F(ActivityLog, SizesAreSignedAndLong) {
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logFilesize(-1);
  logger.logFilesize(0);
  logger.logFilesize(2'147'483'647);
  EXPECT_EQ(read_file(kLog),
            "Log Consumer log file time 2001_2_3_9_5Logged filesize: -1\n"
            "Logged filesize: 0\nLogged filesize: 2147483647\n");
}

TEST_F(ActivityLog, NothingIsWrittenWhileOff) {
  LogConsumerLogger logger;
  logger.startNewLog();
  logger.logHeader("header");
  logger.logFilesize(1);
  logger.logResponse("response");
  EXPECT_EQ(journal(), Journal{});
  EXPECT_TRUE(std::filesystem::is_empty(kLogDir));
}

TEST_F(ActivityLog, NothingIsWrittenWhileTheFileIsNotOpen) {
  LogConsumerLogger logger;
  logger.enableLog();
  logger.archiveLog();
  clear_journal();
  logger.logHeader("header");
  logger.logFilesize(1);
  logger.logResponse("response");
  EXPECT_EQ(journal(), Journal{});
  EXPECT_FALSE(file_exists(kLog));
}

TEST_F(ActivityLog, OpenLogIsNotWrittenWhileOff) {
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logEnabled = false;
  clear_journal();
  logger.logHeader("header");
  logger.logFilesize(1);
  logger.logResponse("response");
  EXPECT_EQ(journal(), Journal{});
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_9_5");
}

TEST_F(ActivityLog, TimestampIsOfTheCurrentTime) {
  LogConsumerLogger logger;
  EXPECT_EQ(logger.getTimestamp(), "2001_2_3_9_5");
  clock_.advance(kDay);
  EXPECT_EQ(logger.getTimestamp(), "2001_2_4_9_5");
}

// Rotation.

TEST_F(ActivityLog, HourChangeArchivesTheLogAndStartsANewOne) {
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logHeader("first hour");
  clear_journal();
  clock_.advance(kHour);
  pass(logger);
  logger.logHeader("second hour");

  const std::string archive = archive_of(kNow + kHour);
  EXPECT_EQ(gunzip(archive), "Log Consumer log file time 2001_2_3_9_5first hour\n");
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_10_5second hour\n");
  EXPECT_EQ(logger.currentHour, 10);
  EXPECT_EQ(journal(), (Journal{"syslog 6 archiving log file '" + kLog + "'", "sync",
                                "syslog 6 File system sync'd",
                                "syslog 6 Removed current log file '" + kLog +
                                    "' after archiving to '" + archive + "'",
                                "syslog 6 Starting log at " + kLog, "syslog 7 Logging header"}));
}

TEST_F(ActivityLog, NothingRotatesWithinTheHour) {
  LogConsumerLogger logger;
  logger.enableLog();
  clear_journal();
  clock_.advance(54 * kMinute + 59);
  pass(logger);
  EXPECT_EQ(journal(), Journal{});
  clock_.advance(1);
  pass(logger);
  EXPECT_TRUE(file_exists(archive_of(kNow + 55 * kMinute)));
}

TEST_F(ActivityLog, HourWithoutUploadsLeavesOnlyTheStartLine) {
  LogConsumerLogger logger;
  logger.enableLog();
  clock_.advance(kHour);
  pass(logger);
  EXPECT_EQ(gunzip(archive_of(kNow + kHour)), "Log Consumer log file time 2001_2_3_9_5");
}

TEST_F(ActivityLog, HourChangeWhileOffWritesNothingAndFollowsTheClock) {
  LogConsumerLogger logger;
  pass(logger);
  EXPECT_EQ(logger.currentHour, 9);
  clock_.advance(kHour);
  pass(logger);
  EXPECT_EQ(logger.currentHour, 10);
  EXPECT_EQ(journal(), Journal{});
  EXPECT_TRUE(std::filesystem::is_empty(kLogDir));
}

TEST_F(ActivityLog, SecondArchiveOfAMinuteOverwritesTheFirst) {
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logHeader("first, and longer");
  clock_.advance(10);
  logger.startNewLog();
  logger.logHeader("second");
  clock_.advance(10);
  logger.startNewLog();
  EXPECT_EQ(gunzip(archive_of(kNow)), "Log Consumer log file time 2001_2_3_9_5second\n");
  const std::filesystem::directory_iterator all(kLogDir);
  EXPECT_EQ(std::distance(begin(all), end(all)), 2) << "one archive and the current log";
}

TEST_F(ActivityLog, EnablingTwiceArchivesTheFirst) {
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logHeader("first");
  logger.enableLog();
  EXPECT_EQ(gunzip(archive_of(kNow)), "Log Consumer log file time 2001_2_3_9_5first\n");
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_9_5");
}

TEST_F(ActivityLog, ArchiveWaitsForUpload) {
  LogConsumerLogger logger;
  logger.enableLog();
  clock_.advance(kHour);
  umask(022);
  pass(logger);
  EXPECT_EQ(test_support::file_mode(archive_of(kNow + kHour)), 0644);
}

TEST_F(ActivityLog, DeletedLogIsStartedAnewAtTheNextHour) {
  LogConsumerLogger logger;
  logger.enableLog();
  std::filesystem::remove(kLog);
  logger.logHeader("into the void");
  clear_journal();
  clock_.advance(kHour);
  pass(logger);
  logger.logHeader("back");
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_10_5back\n");
  EXPECT_FALSE(file_exists(archive_of(kNow + kHour)));
  EXPECT_EQ(journal(), (Journal{"syslog 6 archiving log file '" + kLog + "'",
                                "syslog 6 Starting log at " + kLog, "syslog 7 Logging header"}));
}

TEST_F(ActivityLog, LogIsLostWhenItsArchiveCannotBeWritten) {
  LogConsumerLogger logger;
  logger.enableLog();
  std::filesystem::create_directory(archive_of(kNow));  // in the archive's place
  clear_journal();
  logger.archiveLog();
  EXPECT_FALSE(file_exists(kLog));
  EXPECT_EQ(journal().back(), "syslog 6 Removed current log file '" + kLog +
                                  "' after archiving to '" + archive_of(kNow) + "'");
}

TEST_F(ActivityLog, LogThatCannotBeRemovedIsReported) {
  LogConsumerLogger logger;
  logger.logName = "/proc/self/stat";  // reads like a file, and nobody can remove it
  const std::string expired = file_of_age("old.gz", kWeek + 1);
  logger.archiveLog();
  EXPECT_EQ(journal(),
            (Journal{"syslog 6 archiving log file '/proc/self/stat'", "sync",
                     "syslog 6 File system sync'd", "syslog 3 Failed to remove /proc/self/stat",
                     "syslog 6 removing log archive file '" + expired + "'"}));
  EXPECT_TRUE(file_exists(archive_of(kNow)));
}

// A clock that jumps.

TEST_F(ActivityLog, ClockThatJumpsForwardAndBackRotatesEachTime) {
  LogConsumerLogger logger;
  logger.enableLog();
  logger.logHeader("a");
  clock_.set_wall(kNow + 30 * kDay + 5 * kHour);
  pass(logger);
  logger.logHeader("b");
  clock_.set_wall(kNow - 2 * kHour);
  pass(logger);
  logger.logHeader("c");
  clock_.set_wall(kNow);
  pass(logger);

  EXPECT_EQ(gunzip(archive_of(kNow + 30 * kDay + 5 * kHour)),
            "Log Consumer log file time 2001_2_3_9_5a\n");
  EXPECT_EQ(gunzip(archive_of(kNow - 2 * kHour)), "Log Consumer log file time 2001_3_5_14_5b\n");
  EXPECT_EQ(gunzip(archive_of(kNow)), "Log Consumer log file time 2001_2_3_7_5c\n");
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_9_5");
}

TEST_F(ActivityLog, ClockThatJumpsToTheSameHourOfAnotherDayDoesNotRotate) {
  LogConsumerLogger logger;
  logger.enableLog();
  clear_journal();
  clock_.advance(3 * kDay);
  pass(logger);
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(ActivityLog, ArchivesSurviveAClockSetBackAndExpireWhenItJumpsForward) {
  LogConsumerLogger logger;
  logger.enableLog();
  const std::string archive = file_of_age("logconsumer_log__2001_2_3_9_0_.log.gz", 300);
  clock_.set_wall(0);  // a device that lost its clock
  pass(logger);
  EXPECT_TRUE(file_exists(archive));
  clock_.set_wall(kNow - 300 + kWeek + 12 * kHour);
  pass(logger);
  EXPECT_FALSE(file_exists(archive));
}

// Expiry.

TEST_F(ActivityLog, ArchiveOfExactlySevenDaysIsKept) {
  LogConsumerLogger logger;
  const std::string archive = file_of_age("a.gz", kWeek);
  logger.removeOldArchives();
  EXPECT_TRUE(file_exists(archive));
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(ActivityLog, ArchiveOneSecondOlderIsRemoved) {
  LogConsumerLogger logger;
  const std::string archive = file_of_age("a.gz", kWeek + 1);
  logger.removeOldArchives();
  EXPECT_FALSE(file_exists(archive));
  EXPECT_EQ(journal(), Journal{"syslog 6 removing log archive file '" + archive + "'"});
}

TEST_F(ActivityLog, AnyGzipNameExpiresAndNothingElse) {
  LogConsumerLogger logger;
  const std::string second = file_of_age("sent long ago.gz", kWeek + 1);
  const std::string first = file_of_age("any thing'.gz", 10 * kWeek);
  const std::string read_only = file_of_age("zz.gz", 2 * kWeek);
  ASSERT_EQ(chmod(read_only.c_str(), 0400), 0);
  const std::string plain = file_of_age("notes.txt", 10 * kWeek);
  const std::string partial = file_of_age("a.gz.tmp", 10 * kWeek);
  const std::string young = file_of_age("young.gz", kDay);
  logger.removeOldArchives();
  EXPECT_EQ(journal(), (Journal{"syslog 6 removing log archive file '" + first + "'",
                                "syslog 6 removing log archive file '" + second + "'",
                                "syslog 6 removing log archive file '" + read_only + "'"}));
  EXPECT_FALSE(file_exists(first) || file_exists(second) || file_exists(read_only));
  EXPECT_TRUE(file_exists(plain) && file_exists(partial) && file_exists(young));
}

TEST_F(ActivityLog, RotationExpiresOldArchives) {
  LogConsumerLogger logger;
  logger.enableLog();
  const std::string archive = file_of_age("a.gz", kWeek);
  clock_.advance(kHour);
  pass(logger);
  EXPECT_FALSE(file_exists(archive));
  EXPECT_TRUE(file_exists(archive_of(kNow + kHour)));
}

TEST_F(ActivityLog, ArchiveThatCannotBeExaminedIsSkipped) {
  LogConsumerLogger logger;
  std::filesystem::create_symlink("nowhere", kLogDir + "/a.gz");
  const std::string archive = file_of_age("b.gz", kWeek + 1);
  logger.removeOldArchives();
  EXPECT_TRUE(file_exists(kLogDir + "/a.gz"));
  EXPECT_EQ(journal(), Journal{"syslog 6 removing log archive file '" + archive + "'"});
}

TEST_F(ActivityLog, ArchiveThatCannotBeRemovedStaysAndTheOthersGo) {
  LogConsumerLogger logger;
  const std::string folder = kLogDir + "/a.gz";
  std::filesystem::create_directories(folder + "/not empty");
  set_age(folder, kWeek + 1);
  const std::string archive = file_of_age("b.gz", kWeek + 1);
  logger.removeOldArchives();
  EXPECT_TRUE(file_exists(folder));
  EXPECT_FALSE(file_exists(archive));
  EXPECT_EQ(journal(), (Journal{"syslog 6 removing log archive file '" + folder + "'",
                                "syslog 6 removing log archive file '" + archive + "'"}));
}

TEST_F(ActivityLog, ExpiryWithoutADirectoryDoesNothing) {
  LogConsumerLogger logger;
  std::filesystem::remove_all(kLogDir);
  logger.removeOldArchives();
  EXPECT_EQ(journal(), Journal{});
}

TEST_F(ActivityLog, ExpiryInADirectoryThatCannotBeReadDoesNothing) {
  if (std::getenv("LOG_CONSUMER_EMULATED") != nullptr) {
    GTEST_SKIP() << "the emulator's namespace knows of no other user";
  }
  LogConsumerLogger logger;
  const std::string archive = file_of_age("a.gz", kWeek + 1);
  ASSERT_EQ(chmod(kLogDir.c_str(), 0300), 0);
  {
    const test_support::OrdinaryFilePermissions permissions;
    logger.removeOldArchives();
  }
  ASSERT_EQ(chmod(kLogDir.c_str(), 0700), 0);
  EXPECT_TRUE(file_exists(archive));
  EXPECT_EQ(journal(), Journal{});
}

// exists() and makeDirectory().

struct Object {
  const char* what;
  bool without_directories;
  bool with_directories;
};

class ActivityLogExists : public testing::TestWithParam<Object> {
 protected:
  static void bind_socket(const std::string& path) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
    close(descriptor);
  }
};

TEST_P(ActivityLogExists, LooksAtTheTypesBits) {
  const TempDir dir;
  write_file(dir / "file", "");
  std::filesystem::create_directory(dir / "folder");
  std::filesystem::create_symlink("file", dir / "link to file");
  std::filesystem::create_symlink("folder", dir / "link to folder");
  std::filesystem::create_symlink("missing", dir / "link to nothing");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  bind_socket(dir / "socket");
  std::filesystem::create_symlink("/dev/null", dir / "device");

  LogConsumerLogger logger;
  const std::string path = dir / GetParam().what;
  EXPECT_EQ(logger.exists(path.c_str(), false), GetParam().without_directories);
  EXPECT_EQ(logger.exists(path.c_str(), true), GetParam().with_directories);
}

INSTANTIATE_TEST_SUITE_P(
    Objects, ActivityLogExists,
    testing::Values(Object{"file", true, true}, Object{"folder", false, true},
                    Object{"missing", false, false}, Object{"file/below", false, false},
                    Object{"link to file", true, true}, Object{"link to folder", false, true},
                    Object{"link to nothing", false, false}, Object{"pipe", false, false},
                    Object{"socket", true, true}, Object{"device", false, false}),
    [](const auto& object) {
      std::string name = object.param.what;
      for (char& letter : name) {
        if (letter == ' ' || letter == '/') letter = '_';
      }
      return name;
    });

TEST_F(ActivityLog, MakesOneDirectory) {
  const TempDir dir;
  LogConsumerLogger logger;
  logger.makeDirectory((dir / "new").c_str());
  EXPECT_TRUE(std::filesystem::is_directory(dir / "new"));
}

TEST_F(ActivityLog, MakesNoParentsAndFailsSilently) {
  const TempDir dir;
  LogConsumerLogger logger;
  testing::internal::CaptureStderr();
  logger.makeDirectory((dir / "parent/new").c_str());
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(file_exists(dir / "parent"));
  EXPECT_EQ(journal(), Journal{});
}

}  // namespace
