#include "log_consumer/qv_log_consumer_schedule.h"

#include "gtest/gtest.h"

namespace {

TEST(Slot, OpensAtItsMinuteAndSpansFive) {
  EXPECT_FALSE(slotIsOpen(9, 10));
  EXPECT_TRUE(slotIsOpen(10, 10));
  EXPECT_TRUE(slotIsOpen(14, 10));
  EXPECT_FALSE(slotIsOpen(15, 10));
}

TEST(Slot, BeforeDelaysAreGeneratedItIsMinutesZeroToFour) {
  EXPECT_TRUE(slotIsOpen(0, 0));
  EXPECT_TRUE(slotIsOpen(4, 0));
  EXPECT_FALSE(slotIsOpen(5, 0));
}

TEST(DelaySeed, SumsTheBytesOfTheIdAndTheTime) {
  EXPECT_EQ(delaySeed("AB", 1000), 1000U + 65 + 66);
  EXPECT_EQ(delaySeed("", 7), 7U);
}

TEST(DelaySeed, BytesCountUnsigned) {
  EXPECT_EQ(delaySeed("\xff", 0), 255U);
}

TEST(UtcMinute, IsOfTheHour) {
  constexpr std::time_t kFebruary3At0905 = 1770109500;  // 2026-02-03 09:05:00 UTC
  EXPECT_EQ(utcMinute(kFebruary3At0905), 5);
  EXPECT_EQ(utcMinute(kFebruary3At0905 - 1), 4);
}

TEST(ArchiveName, GzMayStandAnywhere) {
  EXPECT_TRUE(isArchiveName("a.gz"));
  EXPECT_TRUE(isArchiveName("a.gz.tmp"));
  EXPECT_FALSE(isArchiveName("a.GZ"));
  EXPECT_FALSE(isArchiveName("agz"));
}

TEST(Locate, FindersEntriesAreFullPaths) {
  const LogFilePath file = locate("/logs/reports/sub/a.gz", "/logs/reports", true);
  EXPECT_EQ(file.fullPath, "/logs/reports/sub/a.gz");
  EXPECT_EQ(file.fileName, "a.gz");
}

TEST(Locate, DirectoryEntriesAreNames) {
  const LogFilePath file = locate("a.gz", "/logs/clp", false);
  EXPECT_EQ(file.fullPath, "/logs/clp/a.gz");
  EXPECT_EQ(file.fileName, "a.gz");
}

TEST(Locate, PathWithoutSlashIsItsOwnName) {
  EXPECT_EQ(locate("a.gz", "", true).fileName, "a.gz");
}

}  // namespace
