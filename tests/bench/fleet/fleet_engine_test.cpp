// The simulated device against the real upload engine: one device through the same scenario in
// both, and every moment compared, to the millisecond.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench/fleet/fleet.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/bench/fleet/real_device.h"
#include "tests/support/files.h"

namespace {

using namespace fleet;
using namespace test_support;

std::vector<std::string> texts(const Day& day, Event event, Moment end) {
  std::vector<Moment> moments;
  for (const Observed& seen : day) {
    if (seen.event == event && seen.moment < end) moments.push_back(seen.moment);
  }
  std::sort(moments.begin(), moments.end());
  std::vector<std::string> result;
  result.reserve(moments.size());
  for (const Moment moment : moments) {
    result.push_back(std::to_string(moment / kSecond) + "." + std::to_string(moment % kSecond));
  }
  return result;
}

class SimulatedDevice : public testing::Test {
 protected:
  SimulatedDevice() {
    // A process for each look at a file; that nobody holds it is not at stake here.
    std::filesystem::create_symlink("/bin/true", folder_ / "fuser");
    setenv("PATH", (folder_.path() + ":/usr/bin:/bin").c_str(), 1);
    std::filesystem::create_directories("/tarv/data/logs/logconsumer");
    scenario_.devices = 1;
    scenario_.end = 2 * kHour;
    // Nothing of the network's and nothing of the engine's falls on the same millisecond: which of
    // the two is first then is chance.
    scenario_.resolve = 23;
    scenario_.round_trip = 58;
    scenario_.answer = 107;
    scenario_.bytes_a_second = 1'000'000'000;  // sizes are not at stake either
    for (logConsumerType& kind : scenario_.kinds) {
      kind.filepath = folder_ / std::to_string(kind.filetype);
      kind.useLogFinder = false;
      std::filesystem::create_directories(kind.filepath);
    }
  }

  // Whatever can be seen from outside happens at the same moments.
  void compare(std::vector<Event> events = {kGivenUp, kConnect, kAttempt, kEstablished, kClosed,
                                            kRequest, kAccepted, kFailed, kMarked}) {
    Day simulated;
    follow(scenario_, [&](Event event, Moment moment, std::int64_t detail) {
      simulated.push_back({event, moment, detail});
    });
    std::stable_sort(simulated.begin(), simulated.end(),
                     [](const auto& one, const auto& other) { return one.moment < other.moment; });
    const Day real = live_with_the_engine(scenario_, simulated);
    // What begins just before the end may be counted by one of them only.
    const Moment end = scenario_.end - 10 * kMinute;
    if (!scenario_.waits_for_slot) events.push_back(kPass);
    for (const Event event : events) {
      const std::vector<std::string> ours = texts(simulated, event, end);
      const std::vector<std::string> theirs = texts(real, event, end);
      const auto [our, their] =
          std::mismatch(ours.begin(), ours.end(), theirs.begin(), theirs.end());
      EXPECT_TRUE(our == ours.end() && their == theirs.end())
          << kEventNames[event] << " " << our - ours.begin() << " of " << ours.size()
          << " simulated and " << theirs.size() << " real: " << (our == ours.end() ? "none" : *our)
          << " simulated, " << (their == theirs.end() ? "none" : *their) << " real";
      counts_[event] = theirs.size();
    }
    compare_starts(simulated);
  }

  // The service manager's pause, and a whole number of seconds of the random one.
  void compare_starts(const Day& simulated) {
    std::vector<Moment> starts;
    for (const Observed& seen : simulated) {
      if (seen.event == kStart) starts.push_back(seen.moment);
    }
    ASSERT_GE(exits().size() + 1, starts.size());
    for (std::size_t i = 1; i < starts.size(); ++i) {
      const Moment random = starts[i] - exits()[i - 1] - scenario_.restart;
      EXPECT_EQ(random % kSecond, 0) << "start " << i;
      EXPECT_TRUE(random >= 0 && random <= std::max(0L, scenario_.restart_random - 1) * kSecond)
          << "start " << i << ": " << random;
    }
  }

  TempDir folder_;
  Scenario scenario_;
  std::map<Event, std::size_t> counts_;
};

TEST_F(SimulatedDevice, IdlesAsTheEngineDoes) {
  scenario_.files_a_day = 0;
  scenario_.end = kHour;
  compare();
  EXPECT_GE(counts_[kPass], 50U);
  EXPECT_EQ(counts_[kRequest], 0U);
}

TEST_F(SimulatedDevice, SendsAsTheEngineDoes) {
  scenario_.files_a_day = 120;
  compare();
  EXPECT_GE(counts_[kMarked], 100U);
}

TEST_F(SimulatedDevice, SendsAFullHourAsTheEngineDoes) {
  scenario_.files_a_day = 24;
  scenario_.together = true;
  scenario_.tls = false;
  scenario_.sleep_seconds = 7;
  scenario_.answer = 1733;
  compare();
  EXPECT_GE(counts_[kMarked], 28U);
}

TEST_F(SimulatedDevice, OverflowsTwentyFilesAPassAsTheEngineDoes) {
  scenario_.files_a_day = 2880;
  scenario_.end = 30 * kMinute;
  compare();
  EXPECT_GE(counts_[kMarked], 100U);
}

TEST_F(SimulatedDevice, MeetsServersThatRefuseAsTheEngineDoes) {
  scenario_.files_a_day = 240;
  scenario_.outages = {{{20 * kMinute, 50 * kMinute}, Fault::kRefuse},
                       {{70 * kMinute + 1234, 71 * kMinute}, Fault::kRefuse}};
  compare();
  EXPECT_GE(counts_[kFailed], 2U);
  EXPECT_GE(counts_[kConnect], 150U);
}

TEST_F(SimulatedDevice, MeetsErrorsAsTheEngineDoes) {
  scenario_.files_a_day = 240;
  scenario_.outages = {{{20 * kMinute, 50 * kMinute}, Fault::kError}};
  compare();
  EXPECT_GE(counts_[kFailed], 20U);
}

TEST_F(SimulatedDevice, MeetsSilenceAsTheEngineDoes) {
  scenario_.files_a_day = 240;
  scenario_.outages = {{{20 * kMinute, 50 * kMinute}, Fault::kSilent}};
  compare();
  EXPECT_GE(counts_[kFailed], 4U);
}

TEST_F(SimulatedDevice, WaitsForItsSlotAsTheEngineDoes) {
  scenario_.files_a_day = 48;
  scenario_.waits_for_slot = true;
  scenario_.end = 3 * kHour + 30 * kMinute;
  compare();
  EXPECT_GE(counts_[kMarked], 40U);
}

TEST_F(SimulatedDevice, LosesItsServersBetweenSlotsAsTheEngineDoes) {
  scenario_.files_a_day = 24;
  scenario_.waits_for_slot = true;
  scenario_.end = 3 * kHour + 30 * kMinute;
  scenario_.outages = {{{90 * kMinute, 100 * kMinute}, Fault::kRefuse}};
  compare();
  EXPECT_GE(counts_[kMarked], 20U);
}

TEST_F(SimulatedDevice, KeepsOtherRestartDelaysAsTheEngineDoes) {
  scenario_.files_a_day = 48;
  scenario_.restart = 61'000;
  scenario_.restart_random = 0;
  scenario_.seed = 7;
  compare();
}

}  // namespace
