#include <fcntl.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

namespace test_support {
namespace {

struct FakeClock {
  std::int64_t wall_us;
  std::int64_t monotonic_us;
  int monotonic_error = 0;
  std::function<void(std::int64_t)> hook;
};

// Leaked on purpose: threads may sleep and log while the process ends.
struct State {
  std::mutex mutex;
  Journal lines;
  std::optional<FakeClock> clock;
  std::function<void(const std::string&)> note_hook;
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

// Notes the call and moves the clock. False when no fake clock stands.
bool fake_sleep(const char* name, std::int64_t amount, std::int64_t microseconds) {
  std::function<void(std::int64_t)> hook;
  {
    const std::lock_guard<std::mutex> lock(state().mutex);
    if (!state().clock) return false;
    state().lines.push_back(std::string(name) + " " + std::to_string(amount));
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

#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the formats are the callers'

std::string format_text(const char* format, va_list arguments) {
  const int saved_errno = errno;
  va_list again;
  va_copy(again, arguments);
  const int size = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(size < 0 ? 0 : static_cast<std::size_t>(size) + 1, '\0');
  if (!text.empty()) {
    static_cast<void>(vsnprintf(text.data(), text.size(), format, arguments));
    text.pop_back();
  }
  errno = saved_errno;
  return text;
}

}  // namespace

void note(std::string line) {
  std::function<void(const std::string&)> hook;
  {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().lines.push_back(line);
    hook = state().note_hook;
  }
  if (hook) hook(line);
}

void on_note(std::function<void(const std::string&)> hook) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().note_hook = std::move(hook);
}

Journal journal() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return state().lines;
}

Journal journal(const std::string& prefix) {
  Journal result;
  for (std::string& line : journal()) {
    if (line.compare(0, prefix.size(), prefix) == 0) result.push_back(std::move(line));
  }
  return result;
}

std::size_t count(const std::string& line) {
  std::size_t result = 0;
  for (const std::string& entry : journal()) {
    if (entry == line) ++result;
  }
  return result;
}

void clear_journal() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().lines.clear();
}

bool wait_a_little() {
  real_sleep(2000);
  return true;
}

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

void openlog(const char* ident, int option, int facility) {
  test_support::note("openlog " + std::string(ident) + " " + std::to_string(option) + " " +
                     std::to_string(facility));
}

void vsyslog(int priority, const char* format, va_list arguments) {
  test_support::note("syslog " + std::to_string(priority) + " " +
                     test_support::format_text(format, arguments));
}

void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsyslog(priority, format, arguments);
  va_end(arguments);
}

}  // extern "C"
