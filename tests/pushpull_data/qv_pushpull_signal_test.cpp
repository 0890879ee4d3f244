#include "pushpull_data/qv_pushpull_signal.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <system_error>
#include <thread>

#include "gtest/gtest.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

namespace {

// A mutex that reports a second lock by the same thread instead of waiting for ever.
class CheckedMutex : public QvPushpullMutex {
 public:
  CheckedMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_destroy(get_reference());
    pthread_mutex_init(get_reference(), &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
};

int lock_error(CheckedMutex& mutex) {
  try {
    mutex.lock();
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  return 0;
}

TEST(QvPushpullMutex, GetReferenceGivesItsOneMutex) {
  QvPushpullMutex mutex;
  EXPECT_EQ(mutex.get_reference(), &mutex._mutex);
}

TEST(QvPushpullMutex, KeepsOthersOutUntilUnlocked) {
  QvPushpullMutex mutex;
  mutex.lock();
  EXPECT_EQ(pthread_mutex_trylock(mutex.get_reference()), EBUSY);
  mutex.unlock();
  EXPECT_EQ(pthread_mutex_trylock(mutex.get_reference()), 0);
  mutex.unlock();
}

TEST(QvPushpullMutex, AFailedLockRaisesSystemError) {
  CheckedMutex mutex;
  ASSERT_EQ(lock_error(mutex), 0);
  EXPECT_EQ(lock_error(mutex), EDEADLK);
  mutex.unlock();
}

TEST(QvPushpullMutex, AFailedTimedLockRaisesSystemError) {
  CheckedMutex mutex;
  ASSERT_EQ(lock_error(mutex), 0);
  const struct timespec deadline = qv_deadline_after(CLOCK_REALTIME, 60);
  EXPECT_THROW(mutex.lock_until(deadline), std::system_error);
  mutex.unlock();
}

TEST(QvPushpullMutex, LockUntilGivesUpAtItsDeadline) {
  QvPushpullMutex mutex;
  mutex.lock();
  bool locked = true;
  std::thread other([&] { locked = mutex.lock_until(qv_deadline_after(CLOCK_REALTIME, 0)); });
  other.join();
  EXPECT_FALSE(locked);
  mutex.unlock();
  EXPECT_TRUE(mutex.lock_until(qv_deadline_after(CLOCK_REALTIME, 60)));
  mutex.unlock();
}

TEST(Deadline, IsSoManySecondsFromNow) {
  const test_support::FakeTime clock(5000, 70);
  EXPECT_EQ(qv_deadline_after(CLOCK_REALTIME, 3).tv_sec, 5003);
  EXPECT_EQ(qv_deadline_after(CLOCK_MONOTONIC, 3).tv_sec, 73);
  EXPECT_EQ(qv_deadline_after(CLOCK_MONOTONIC, -71).tv_sec, -1);
}

TEST(Deadline, StaysAtTheEndOfTime) {
  constexpr time_t kEnd = std::numeric_limits<time_t>::max();
  constexpr time_t kLastFakeSecond = kEnd / 1'000'000;
  const test_support::FakeTime clock(5000, kLastFakeSecond);
  EXPECT_LE(qv_deadline_after(CLOCK_MONOTONIC, std::numeric_limits<int>::max()).tv_sec, kEnd);
  EXPECT_GE(qv_deadline_after(CLOCK_MONOTONIC, std::numeric_limits<int>::max()).tv_sec,
            kLastFakeSecond);
}

TEST(QvPushpullSignal, StartsWithTheValueOfNothing) {
  QvPushpullSignal<int> numbers;
  QvPushpullSignal<bool> flags;
  EXPECT_EQ(numbers.get_value(), 0);
  EXPECT_FALSE(flags.get_value());
  EXPECT_FALSE(numbers.test_proceed());
}

TEST(QvPushpullSignal, WaitsOnTheMonotonicClock) {
  QvPushpullSignal<int> signal;
  clockid_t clock = CLOCK_REALTIME;
  ASSERT_EQ(pthread_condattr_getclock(&signal._attributes, &clock), 0);
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
}

TEST(QvPushpullSignal, ABroadcastBeforeTheWaitEndsIt) {
  QvPushpullSignal<int> signal;
  signal.broadcast(7);
  int value = 0;
  EXPECT_EQ(signal.wait(value, false), 0);
  EXPECT_EQ(value, 7);
  EXPECT_EQ(signal.get_value(), 7);
}

TEST(QvPushpullSignal, ABroadcastDuringTheWaitEndsIt) {
  QvPushpullSignal<int> signal;
  int value = 0;
  std::thread waiting([&] { signal.wait(value, true); });
  signal.broadcast(9);
  waiting.join();
  EXPECT_EQ(value, 9);
  EXPECT_EQ(signal.get_value(), 0) << "the wait left nothing behind";
}

TEST(QvPushpullSignal, EachBroadcastEndsOneWait) {
  QvPushpullSignal<int> signal;
  signal.broadcast(1);
  int value = 0;
  ASSERT_EQ(signal.timedwait(60, value, false), 0);
  EXPECT_EQ(signal.timedwait(0, value, true), ETIMEDOUT);
}

TEST(QvPushpullSignal, SetValueEndsNoWait) {
  QvPushpullSignal<int> signal;
  signal.set_value(3);
  int value = 0;
  EXPECT_EQ(signal.timedwait(0, value, true), ETIMEDOUT);
  EXPECT_EQ(value, 3);
  EXPECT_EQ(signal.get_value(), 3) << "a time-out resets nothing";
}

TEST(QvPushpullSignal, TimedWaitTakesItsTime) {
  QvPushpullSignal<int> signal;
  struct timespec before = {};
  clock_gettime(CLOCK_MONOTONIC, &before);
  int value = 0;
  ASSERT_EQ(signal.timedwait(1, value, true), ETIMEDOUT);
  struct timespec after = {};
  clock_gettime(CLOCK_MONOTONIC, &after);
  const std::int64_t milliseconds =
      (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000;
  EXPECT_GE(milliseconds, 999);
}

TEST(QvPushpullSignal, TimedWaitOfNegativeLengthEndsAtOnce) {
  QvPushpullSignal<int> signal;
  int value = 0;
  EXPECT_EQ(signal.timedwait(std::numeric_limits<int>::min(), value, true), ETIMEDOUT);
}

TEST(QvPushpullSignal, TestProceedUsesTheBroadcastUp) {
  QvPushpullSignal<bool> signal;
  signal.broadcast(true);
  EXPECT_TRUE(signal.test_proceed());
  EXPECT_FALSE(signal.test_proceed());
  EXPECT_TRUE(signal.get_value());
}

TEST(QvPushpullSignal, ConditionalWaitDoesNotWaitForWhatIsThere) {
  QvPushpullSignal<bool> signal;
  signal.set_value(true);
  bool value = false;
  EXPECT_EQ(signal.conditionalwait(true, value, true), 0);
  EXPECT_TRUE(value);
  EXPECT_FALSE(signal.get_value());
}

TEST(QvPushpullSignal, ConditionalWaitUsesUpTheBroadcastOfWhatIsThere) {
  QvPushpullSignal<bool> signal;
  signal.broadcast(true);
  bool value = false;
  signal.conditionalwait(true, value, true);
  EXPECT_TRUE(value);
  EXPECT_FALSE(signal.test_proceed());
}

TEST(QvPushpullSignal, ConditionalWaitEndsWithAnyBroadcast) {
  QvPushpullSignal<bool> signal;
  std::atomic<bool> ended = false;
  bool value = true;
  std::thread waiting([&] {
    signal.conditionalwait(true, value, true);
    ended = true;
  });
  test_support::wait_a_little();
  EXPECT_FALSE(ended);
  signal.broadcast(false);
  waiting.join();
  EXPECT_FALSE(value);
}

// A broadcast that comes before its wait begins must end it: nobody would send another.
TEST(QvPushpullSignal, ConditionalWaitEndsWithABroadcastThatCameBefore) {
  QvPushpullSignal<bool> signal;
  signal.broadcast(false);
  bool value = true;
  EXPECT_EQ(signal.conditionalwait(true, value, true), 0);
  EXPECT_FALSE(value);
}

// Values handed over in the very instant of time-outs: each is taken exactly once.
TEST(QvPushpullSignal, AValueInTheInstantOfATimeOutIsTakenOnce) {
  QvPushpullSignal<int> signal;
  constexpr int kValues = 3000;
  std::atomic<int> taken = 0;
  std::thread giving([&] {
    for (int i = 1; i <= kValues; ++i) {
      signal.broadcast(i);
      while (taken < i)
        std::this_thread::yield();
    }
  });
  int expected = 1;
  while (expected <= kValues) {
    int value = 0;
    const int error = signal.timedwait(0, value, true);
    if (value == 0) continue;
    ASSERT_EQ(error, 0);
    ASSERT_EQ(value, expected);
    ASSERT_EQ(signal.get_value(), 0);
    taken = expected++;
  }
  giving.join();
}

}  // namespace
