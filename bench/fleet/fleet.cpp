#include "bench/fleet/fleet.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "bench/fleet/device.h"

namespace fleet {

namespace {

// So many devices at a time, and so much of their day: their memory and that of the counters that
// they touch then fit into a processor's own cache, which about halves the time.
constexpr std::uint64_t kPortion = 256;
constexpr Moment kStretch = 15 * kMinute;

std::uint64_t live(const Rules& rules, std::uint64_t first, std::uint64_t last, Load& load) {
  std::deque<Device> devices;
  for (std::uint64_t number = first; number < last; ++number)
    devices.emplace_back(rules, number, load);
  for (Moment until = kStretch; until < rules.scenario().end + kStretch; until += kStretch) {
    for (Device& device : devices)
      device.live_until(until);
  }
  std::uint64_t waiting = 0;
  for (Device& device : devices)
    waiting += device.waiting();
  return waiting;
}

}  // namespace

Result simulate(const Scenario& scenario, unsigned threads) {
  const Rules rules(scenario);
  const auto devices = static_cast<std::uint64_t>(scenario.devices);
  Result result = {Load(scenario.end), 0};
  std::mutex mutex;  // guards `result`
  std::atomic<std::uint64_t> next{0};
  const auto work = [&] {
    Load load(scenario.end);
    std::uint64_t waiting = 0;
    for (std::uint64_t first = 0; (first = next.fetch_add(kPortion)) < devices;)
      waiting += live(rules, first, std::min(first + kPortion, devices), load);
    const std::lock_guard<std::mutex> lock(mutex);
    result.load.add(load);
    result.waiting += waiting;
  };
  std::vector<std::thread> workers;
  for (unsigned i = 1; i < threads; ++i)
    workers.emplace_back(work);
  work();
  for (std::thread& worker : workers)
    worker.join();
  return result;
}

Result follow(const Scenario& scenario, Load::Trace trace) {
  const Rules rules(scenario);
  Result result = {Load(scenario.end), 0};
  result.load.trace(std::move(trace));
  result.waiting = live(rules, 0, 1, result.load);
  result.load.trace({});
  return result;
}

}  // namespace fleet
