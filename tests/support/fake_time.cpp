#include "tests/support/fake_time.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "tests/support/journal.h"

namespace test_support {
namespace {

struct FakeClock {
  std::int64_t wall_us;
  std::int64_t monotonic_us;
  int monotonic_error = 0;
  std::function<void(std::int64_t)> hook;
};

// Leaked on purpose: threads may sleep while the process ends.
struct State {
  std::mutex mutex;
  std::optional<FakeClock> clock;
};
State& state() {
  static State* const instance = new State;
  return *instance;
}

constexpr std::int64_t kMicro = 1'000'000;

// The one whose result has 64-bit seconds.
#ifdef SYS_clock_gettime64
constexpr long kClockGettime = SYS_clock_gettime64;
#else
constexpr long kClockGettime = SYS_clock_gettime;
#endif

bool clock_is_fake() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().clock.has_value();
}

// Notes the call and moves the clock. False when no fake clock stands.
bool fake_sleep(const char* name, std::int64_t amount, std::int64_t microseconds) {
  if (!clock_is_fake()) return false;
  note(std::string(name) + " " + std::to_string(amount));
  std::function<void(std::int64_t)> hook;
  {
    const std::lock_guard<std::mutex> lock(state().mutex);
    if (!state().clock) return true;  // the test has ended meanwhile
    state().clock->wall_us += microseconds;
    state().clock->monotonic_us += microseconds;
    hook = state().clock->hook;
  }
  if (hook) hook(microseconds);
  return true;
}

void real_sleep(std::int64_t microseconds) {
  std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

}  // namespace

FakeTime::FakeTime(std::time_t wall, std::time_t monotonic) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().clock = FakeClock{wall * kMicro, monotonic * kMicro, 0, {}};
}

FakeTime::~FakeTime() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().clock.reset();
}

void FakeTime::set_wall(std::time_t wall) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().clock->wall_us = wall * kMicro;
}

void FakeTime::set_monotonic(std::time_t monotonic) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().clock->monotonic_us = monotonic * kMicro;
}

void FakeTime::advance(std::time_t seconds) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().clock->wall_us += seconds * kMicro;
  state().clock->monotonic_us += seconds * kMicro;
}

void FakeTime::on_sleep(std::function<void(std::int64_t)> hook) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().clock->hook = std::move(hook);
}

void FakeTime::fail_monotonic(int error) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().clock->monotonic_error = error;
}

}  // namespace test_support

// The replacements. A definition in the program goes before the C library's.

using test_support::kClockGettime;
using test_support::state;

extern "C" {

unsigned sleep(unsigned seconds) {
  const std::int64_t microseconds = std::int64_t{seconds} * test_support::kMicro;
  if (!test_support::fake_sleep("sleep", seconds, microseconds)) {
    test_support::real_sleep(microseconds);
  }
  return 0;
}

int usleep(useconds_t microseconds) {
  if (!test_support::fake_sleep("usleep", microseconds, microseconds)) {
    test_support::real_sleep(microseconds);
  }
  return 0;
}

int clock_gettime(clockid_t clock, struct timespec* result) noexcept {
  {
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto& fake = state().clock;
    if (fake && (clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC)) {
      if (clock == CLOCK_MONOTONIC && fake->monotonic_error != 0) {
        errno = fake->monotonic_error;
        return -1;
      }
      const std::int64_t now = clock == CLOCK_REALTIME ? fake->wall_us : fake->monotonic_us;
      result->tv_sec = now / test_support::kMicro;
      result->tv_nsec = static_cast<int>(now % test_support::kMicro * 1000);
      return 0;
    }
  }
  return static_cast<int>(syscall(kClockGettime, clock, result));
}

time_t time(time_t* result) noexcept {
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

}  // extern "C"
