#include "bench/fleet/load.h"

#include <numeric>

namespace fleet {

const std::array<const char*, kEvents> kEventNames = {
    "starts",   "given_up", "passes", "connects",  "attempts", "established", "closed",
    "requests", "accepted", "failed", "generated", "marked",   "killed"};

Load::Load(Moment end)
    : end_(end), seconds_(static_cast<std::size_t>((end + kSecond - 1) / kSecond)) {}

void Load::add(const Load& other) {
  for (std::size_t i = 0; i < seconds_.size(); ++i) {
    for (std::size_t event = 0; event < kEvents; ++event)
      seconds_[i].events[event] += other.seconds_[i].events[event];
    seconds_[i].bytes += other.seconds_[i].bytes;
  }
}

std::uint64_t Load::total(Event event) const {
  return std::accumulate(
      seconds_.begin(), seconds_.end(), std::uint64_t{0},
      [event](std::uint64_t sum, const Second& second) { return sum + second.events[event]; });
}

std::uint64_t Load::total_bytes() const {
  return std::accumulate(
      seconds_.begin(), seconds_.end(), std::uint64_t{0},
      [](std::uint64_t sum, const Second& second) { return sum + second.bytes; });
}

}  // namespace fleet
