// The activity log on a disk of 64 KiB, which the sandbox mounts at its directory.
#include <sys/statvfs.h>

#include <cstdint>

#include "tests/log_consumer/activity_log_fixture.h"

namespace {

using test_support::clear_journal;
using test_support::gunzip;
using test_support::Journal;
using test_support::journal;
using test_support::kLog;
using test_support::kLogDir;
using test_support::kNow;
using test_support::noise;
using test_support::read_file;

constexpr std::size_t kDisk = 65536;
constexpr std::time_t kHour = 3600;

std::uint64_t free_bytes() {
  struct statvfs disk = {};
  EXPECT_EQ(statvfs(kLogDir.c_str(), &disk), 0);
  return disk.f_bavail * disk.f_frsize;
}

class ActivityLogOnAFullDisk : public test_support::ActivityLogFixture {
 protected:
  void SetUp() override {
    ActivityLogFixture::SetUp();
    struct statvfs disk = {};
    ASSERT_EQ(statvfs(kLogDir.c_str(), &disk), 0);
    ASSERT_EQ(disk.f_blocks * disk.f_frsize, kDisk) << "not on the small disk";
    for (const auto& entry : std::filesystem::directory_iterator(kLogDir)) {
      std::filesystem::remove(entry);
    }
    clear_journal();
  }

  /// Somebody else's file that takes all the room there is.
  static void fill() {
    std::ofstream(kFiller, std::ios::binary) << noise(kDisk) << std::flush;
    ASSERT_EQ(free_bytes(), 0U);
  }

  static inline const std::string kFiller = kLogDir + "/filler";
};

TEST_F(ActivityLogOnAFullDisk, RecordsBeyondTheEndAreDroppedAndNothingElseHappens) {
  LogConsumerLogger logger;
  logger.enableLog();
  clear_journal();
  for (std::uint32_t i = 0; i < 32; ++i)
    logger.logHeader(noise(4096, i));
  EXPECT_EQ(journal(), Journal(32, "syslog 7 Logging header"));
  const std::string log = read_file(kLog);
  EXPECT_LE(log.size(), kDisk);
  const std::string start = "Log Consumer log file time 2001_2_3_9_5";
  EXPECT_TRUE(log.compare(0, start.size() + 4096, start + noise(4096, 0)) == 0);
}

TEST_F(ActivityLogOnAFullDisk, FullLogIsGivenUpSoThatTheNextOneHasRoom) {
  LogConsumerLogger logger;
  logger.enableLog();
  for (std::uint32_t i = 0; i < 32; ++i)
    logger.logHeader(noise(4096, i));
  ASSERT_EQ(free_bytes(), 0U);
  clear_journal();
  clock_.advance(kHour);
  pass(logger);
  EXPECT_GT(free_bytes(), kDisk / 2) << "the log without room for its archive was kept";
  EXPECT_EQ(journal().at(3), "syslog 6 Removed current log file '" + kLog +
                                 "' after archiving to '" + activityLogArchivePath(kNow + kHour) +
                                 "'");
  logger.logHeader("there is room again");
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_10_5there is room again\n");
}

TEST_F(ActivityLogOnAFullDisk, RecoversAtTheNextStartWhenSpaceReturns) {
  LogConsumerLogger logger;
  fill();
  logger.enableLog();
  logger.logHeader("lost");
  logger.logFilesize(1);
  logger.logResponse("lost");
  EXPECT_EQ(read_file(kLog), "");

  std::filesystem::remove(kFiller);
  clock_.advance(kHour);
  pass(logger);
  logger.logHeader("kept");
  EXPECT_EQ(read_file(kLog), "Log Consumer log file time 2001_2_3_10_5kept\n");
  clock_.advance(kHour);
  pass(logger);
  EXPECT_EQ(gunzip(activityLogArchivePath(kNow + 2 * kHour)),
            "Log Consumer log file time 2001_2_3_10_5kept\n");
}

TEST_F(ActivityLogOnAFullDisk, SpaceThatReturnsWithinTheHourIsNotUsedBeforeTheNextStart) {
  LogConsumerLogger logger;
  fill();
  logger.enableLog();
  std::filesystem::remove(kFiller);
  logger.logHeader("dropped: the log has a hole already");
  EXPECT_EQ(read_file(kLog), "");
  EXPECT_TRUE(logger.currentLog.is_open());
}

TEST_F(ActivityLogOnAFullDisk, StaysFullForHoursWithoutHarm) {
  LogConsumerLogger logger;
  fill();
  logger.enableLog();
  for (int hour = 0; hour < 30; ++hour) {
    clock_.advance(kHour);
    pass(logger);
    logger.logHeader("lost");
  }
  EXPECT_EQ(logger.currentHour, (9 + 30) % 24);
  EXPECT_EQ(read_file(kLog), "");
}

}  // namespace
