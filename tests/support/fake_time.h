// A clock of the test's own for code that calls sleep(), usleep(), time() and clock_gettime().
//
// Without a FakeTime object all four are the real ones. While one lives, sleeping takes no time
// but moves the fake clocks on, and is noted in the journal ("sleep 5", "usleep 1000000").
// Not replaced, ever: nanosleep(), std::this_thread::sleep_for(), time-outs of condition variables
// and queues.
#ifndef TESTS_SUPPORT_FAKE_TIME_H
#define TESTS_SUPPORT_FAKE_TIME_H

#include <cstdint>
#include <ctime>
#include <functional>

namespace test_support {

class FakeTime {
 public:
  /// @param wall       seconds since the epoch that time() and CLOCK_REALTIME give
  /// @param monotonic  seconds that CLOCK_MONOTONIC gives
  explicit FakeTime(std::time_t wall = 1'770'109'500, std::time_t monotonic = 100'000);
  ~FakeTime();
  FakeTime(const FakeTime&) = delete;
  FakeTime& operator=(const FakeTime&) = delete;

  void set_wall(std::time_t wall);
  void set_monotonic(std::time_t monotonic);
  void advance(std::time_t seconds);  ///< moves both clocks

  /// Called at each sleep, after the clocks moved on, with the microseconds asked for; on the
  /// sleeping thread. Lets a test act "meanwhile" or slow a loop down with a short real pause.
  void on_sleep(std::function<void(std::int64_t microseconds)> hook);

  /// Makes clock_gettime(CLOCK_MONOTONIC) fail with this errno; 0 ends it.
  void fail_monotonic(int error);
};

}  // namespace test_support

#endif
