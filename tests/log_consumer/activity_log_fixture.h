// What the tests of the activity log share: the real log directory (in the sandbox), a clock of
// their own, and sync() noted instead of done.
#ifndef TESTS_LOG_CONSUMER_ACTIVITY_LOG_FIXTURE_H
#define TESTS_LOG_CONSUMER_ACTIVITY_LOG_FIXTURE_H

#include <ctime>
#include <filesystem>
#include <string>

#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_logger.h"
#include "log_consumer/qv_log_consumer_schedule.h"
#include "tests/support/fake_time.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"

namespace test_support {

inline const std::string kLogs = "/tarv/data/logs";
inline const std::string kLogDir = kLogs + "/logconsumer";
inline const std::string kLog = kLogDir + "/logconsumer.log";

// 3 February 2001, 09:05 UTC. Before any real modification time, so that nothing expires unless
// the test gives it an age itself.
inline constexpr std::time_t kNow = 981'191'100;

/// What a gzip file holds.
std::string gunzip(const std::string& path);

class ActivityLogFixture : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(kLogs);
    clear_journal();
  }

  /// What the scheduler does at the start of each pass.
  static void pass(LogConsumerLogger& logger) {
    const int hour = utcHour(time(nullptr));
    if (hour == logger.currentHour) return;
    logger.startNewLog();
    logger.currentHour = hour;
  }

  FakeTime clock_{kNow};
};

}  // namespace test_support

#endif
