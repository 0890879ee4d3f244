// The fakes themselves: a test double that lies makes every test above it worthless.
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "gtest/gtest.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

namespace {

using test_support::FakeTime;
using test_support::Journal;

class Fakes : public testing::Test {
 protected:
  void SetUp() override { test_support::clear_journal(); }
};

TEST_F(Fakes, SyslogIsNotedWithPriorityAndText) {
  syslog(LOG_ERR, "%s failed: %d", "open", 7);
  EXPECT_EQ(test_support::journal(), Journal{"syslog 3 open failed: 7"});
}

TEST_F(Fakes, SleepMovesTheClocksAndTakesNoTime) {
  FakeTime time_double(1000, 50);
  sleep(3600);
  usleep(2'000'000);
  EXPECT_EQ(time(nullptr), 4602);
  struct timespec now = {};
  ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
  EXPECT_EQ(now.tv_sec, 3652);
  EXPECT_EQ(test_support::journal(), (Journal{"sleep 3600", "usleep 2000000"}));
}

TEST_F(Fakes, WithoutAFakeTheClockIsReal) {
  EXPECT_GT(time(nullptr), 1'700'000'000);
}

TEST_F(Fakes, MonotonicClockCanFail) {
  FakeTime time_double;
  time_double.fail_monotonic(EINVAL);
  struct timespec now = {};
  EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), -1);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
