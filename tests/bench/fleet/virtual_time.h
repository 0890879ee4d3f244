// Time for programs of several threads: it passes only while all of them sleep, and then at once up
// to the moment at which the first of them wakes.
//
// One thread runs at a time; sleepers that wake at the same moment run in the order in which they
// lay down. So a run takes the same course every time, to the nanosecond, and a day takes as long
// as what is done in it.
// As in the real world, sleep() and its like take a little longer than asked (10 ns): what happens
// at the very moment at which a sleeper was to wake has then happened.
//
// A program that links virtual_time.cpp has sleep(), usleep(), nanosleep(), time() and
// clock_gettime() replaced, for all objects linked into it. Without a VirtualTime they are the
// real ones. Nothing else may block for long: a thread that waits for another one in any other way
// holds everybody up.
#ifndef TESTS_BENCH_FLEET_VIRTUAL_TIME_H
#define TESTS_BENCH_FLEET_VIRTUAL_TIME_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>

namespace test_support {

/// One at a time. The thread that makes it takes part, as do those of start().
class VirtualTime {
 public:
  /// @param wall  what time() says at the beginning
  explicit VirtualTime(std::time_t wall);
  /// Sleeps until all other threads have ended.
  ~VirtualTime();
  VirtualTime(const VirtualTime&) = delete;
  VirtualTime& operator=(const VirtualTime&) = delete;

  /// Nanoseconds since the beginning.
  static std::int64_t now();
  static void sleep_until(std::int64_t moment);

  /// A thread that begins as soon as its maker sleeps.
  static void start(std::function<void()> body);

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace test_support

#endif
