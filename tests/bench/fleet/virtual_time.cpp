#include "tests/bench/fleet/virtual_time.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace test_support {
namespace {

constexpr std::int64_t kNano = 1'000'000'000;
// A sleep takes a little longer than it was asked to.
constexpr std::int64_t kOverSleep = 10;

struct Sleeper {
  std::condition_variable awake;
  bool called = false;
};

VirtualTime::State* the_time = nullptr;

}  // namespace

struct VirtualTime::State {
  std::int64_t wall = 0;
  std::mutex mutex;  // guards what follows
  std::int64_t now = 0;
  std::uint64_t order = 0;
  std::map<std::pair<std::int64_t, std::uint64_t>, Sleeper*> sleepers;
  std::vector<std::thread> threads;

  void lie_down(Sleeper& sleeper, std::int64_t until) {
    sleepers.emplace(std::make_pair(std::max(until, now), ++order), &sleeper);
  }
  static void wait(Sleeper& sleeper, std::unique_lock<std::mutex>& lock) {
    sleeper.awake.wait(lock, [&] { return sleeper.called; });
  }
  void call_next() {
    if (sleepers.empty()) return;
    const auto first = sleepers.begin();
    now = first->first.first;
    first->second->called = true;
    first->second->awake.notify_one();
    sleepers.erase(first);
  }
};

VirtualTime::VirtualTime(std::time_t wall) : state_(std::make_unique<State>()) {
  state_->wall = wall * kNano;
  the_time = state_.get();
}

VirtualTime::~VirtualTime() {
  const auto alone = [this] {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->sleepers.empty();
  };
  while (!alone())
    sleep_until(now() + kNano);
  for (std::thread& thread : state_->threads)
    thread.join();
  the_time = nullptr;
}

std::int64_t VirtualTime::now() {
  const std::lock_guard<std::mutex> lock(the_time->mutex);
  return the_time->now;
}

void VirtualTime::sleep_until(std::int64_t moment) {
  Sleeper self;
  std::unique_lock<std::mutex> lock(the_time->mutex);
  the_time->lie_down(self, moment);
  the_time->call_next();
  State::wait(self, lock);
}

void VirtualTime::start(std::function<void()> body) {
  State* const state = the_time;
  const std::lock_guard<std::mutex> lock(state->mutex);
  auto self = std::make_shared<Sleeper>();
  state->lie_down(*self, state->now);
  state->threads.emplace_back([state, self, body = std::move(body)] {
    {
      std::unique_lock<std::mutex> begin(state->mutex);
      State::wait(*self, begin);
    }
    body();
    const std::lock_guard<std::mutex> end(state->mutex);
    state->call_next();
  });
}

}  // namespace test_support

// The replacements. A definition in the program goes before the C library's.

using test_support::kNano;
using test_support::kOverSleep;
using test_support::the_time;
using test_support::VirtualTime;

extern "C" {

int nanosleep(const struct timespec* duration, struct timespec* left) {
  if (the_time == nullptr) return static_cast<int>(syscall(SYS_nanosleep, duration, left));
  VirtualTime::sleep_until(VirtualTime::now() + duration->tv_sec * kNano + duration->tv_nsec +
                           kOverSleep);
  return 0;
}

unsigned sleep(unsigned seconds) {
  const struct timespec duration = {static_cast<std::time_t>(seconds), 0};
  nanosleep(&duration, nullptr);
  return 0;
}

int usleep(useconds_t microseconds) {
  constexpr useconds_t kMicros = 1'000'000;
  const struct timespec duration = {microseconds / kMicros,
                                    std::int64_t{microseconds % kMicros} * 1000};
  return nanosleep(&duration, nullptr);
}

int clock_gettime(clockid_t clock, struct timespec* result) noexcept {
  if (the_time == nullptr || (clock != CLOCK_REALTIME && clock != CLOCK_MONOTONIC)) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, result));
  }
  const std::int64_t now = the_time->wall + VirtualTime::now();
  *result = {now / kNano, now % kNano};
  return 0;
}

time_t time(time_t* result) noexcept {
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) *result = now.tv_sec;
  return now.tv_sec;
}

}  // extern "C"
