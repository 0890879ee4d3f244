// The simulation against what can be worked out on paper.
#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bench/fleet/device.h"
#include "bench/fleet/fleet.h"
#include "bench/fleet/report.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "log_consumer/qv_log_consumer_main.h"
#include "log_consumer/qv_log_consumer_schedule.h"
#include "tests/lab/program.h"
#include "tests/support/files.h"

namespace {

using namespace fleet;
using test_support::Program;
using test_support::TempDir;
using testing::AllOf;
using testing::Each;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::SizeIs;

constexpr Moment kResolveBoth = 2 * 20;

// 5 s before Wi-Fi is noticed, 5 s for the connections, the pass, 1 s for each connection, 5 s.
constexpr Moment kIdleProcess = Moment{5 + 5 + 1 + 1 + 5} * kSecond + kResolveBoth;

using Moments = std::map<Event, std::vector<Moment>>;

Moments moments_of(const Scenario& scenario) {
  Moments moments;
  follow(scenario, [&](Event event, Moment moment, std::int64_t /*detail*/) {
    moments[event].push_back(moment);
  });
  for (auto& [event, list] : moments)
    std::sort(list.begin(), list.end());
  return moments;
}

std::vector<Moment> gaps(const std::vector<Moment>& moments) {
  std::vector<Moment> result;
  for (std::size_t i = 1; i < moments.size(); ++i)
    result.push_back(moments[i] - moments[i - 1]);
  return result;
}

Scenario one_device() {
  Scenario scenario;
  scenario.devices = 1;
  scenario.files_a_day = 0;
  scenario.restart_random = 0;
  return scenario;
}

void expect_all_accounted_for(const Scenario& scenario) {
  const Result result = simulate(scenario, 1);
  const Load& load = result.load;
  EXPECT_EQ(load.total(kGenerated), load.total(kMarked) + result.waiting);
  EXPECT_GE(load.total(kAccepted), load.total(kMarked));
  EXPECT_GE(load.total(kRequest), load.total(kAccepted));
  EXPECT_GE(load.total(kAttempt), load.total(kEstablished));
  EXPECT_GE(load.total(kEstablished), load.total(kClosed));
  EXPECT_LE(load.total(kEstablished) - load.total(kClosed),
            2 * static_cast<std::uint64_t>(scenario.devices));
}

TEST(Fleet, EveryFileIsSentOrWaits) {
  Scenario scenario;
  scenario.devices = 50;
  scenario.end = 6 * kHour;
  scenario.files_a_day = 100;
  expect_all_accounted_for(scenario);
  for (const Fault fault : {Fault::kRefuse, Fault::kDrop, Fault::kError, Fault::kSilent}) {
    SCOPED_TRACE(static_cast<int>(fault));
    scenario.outages = {{{kHour, 3 * kHour}, fault}};
    scenario.power_cuts = {{4 * kHour, 4 * kHour + kMinute}};
    expect_all_accounted_for(scenario);
    scenario.waits_for_slot = !scenario.waits_for_slot;
  }
}

TEST(Fleet, SendsAllWhenThereIsTime) {
  Scenario scenario;
  scenario.devices = 20;
  scenario.files_a_day = 24;
  scenario.together = true;
  const Result result = simulate(scenario, 1);
  EXPECT_EQ(result.load.total(kGenerated), 20U * 14U * 24U);
  EXPECT_EQ(result.load.total(kMarked), 20U * 14U * 24U);
  EXPECT_EQ(result.load.total(kRequest), 20U * 14U * 24U) << "each of them once";
  EXPECT_EQ(result.waiting, 0U);
}

TEST(Fleet, BytesAreTheFilesAndTheirFraming) {
  Scenario scenario;
  scenario.devices = 20;
  scenario.files_a_day = 24;
  scenario.file_bytes = 2;
  const Result result = simulate(scenario, 1);
  const double mean = static_cast<double>(result.load.total_bytes()) /
                      static_cast<double>(result.load.total(kRequest));
  // 12 of the 14 kinds are framed: 430 bytes and a header of 147, the id's and the time's 10 each,
  // the kind's name (4 to 11) and the file's (17 longer).
  EXPECT_NEAR(mean, 2 + 12.0 / 14 * (430 + 147 + 20 + 2 * 6 + 17), 10);
}

TEST(Fleet, ThreadsChangeNothing) {
  Scenario scenario;
  scenario.devices = 700;
  scenario.end = 2 * kHour;
  const std::string alone = summary(scenario, simulate(scenario, 1)).dump();
  EXPECT_EQ(alone, summary(scenario, simulate(scenario, 3)).dump());
  EXPECT_EQ(alone, summary(scenario, simulate(scenario, 1)).dump());
  scenario.seed = 2;
  EXPECT_NE(alone, summary(scenario, simulate(scenario, 1)).dump());
}

TEST(OneDevice, IdleDayIsACountOfEqualCycles) {
  const Scenario scenario = one_device();
  Moments moments = moments_of(scenario);
  const Moment cycle = kIdleProcess + scenario.restart;
  EXPECT_THAT(gaps(moments[kStart]), Each(cycle));
  const Moment first = moments[kStart].front();
  EXPECT_EQ(moments[kStart].size(), static_cast<std::size_t>((kDay - first + cycle - 1) / cycle));
  EXPECT_LT(first, cycle);
  EXPECT_THAT(moments[kEstablished], SizeIs(2 * moments[kPass].size()));
}

// 20 s and 0 to 9 more.
TEST(OneDevice, RandomPauseLengthensTheCycleByAWholeNumberOfSeconds) {
  Scenario scenario = one_device();
  scenario.restart_random = 10;
  Moments moments = moments_of(scenario);
  std::set<Moment> random;
  for (const Moment gap : gaps(moments[kStart]))
    random.insert(gap - kIdleProcess - scenario.restart);
  std::set<Moment> all;
  for (Moment second = 0; second < 10; ++second)
    all.insert(second * kSecond);
  EXPECT_EQ(random, all);
}

// 5 s of pause, up to 2 s to the next poll, up to 1 s until the answer is looked at.
TEST(OneDevice, FileTakesSixToEightSeconds) {
  Scenario scenario = one_device();
  scenario.files_a_day = 86400;  // one a second, of each kind: there is always one
  scenario.end = kHour;
  Moments moments = moments_of(scenario);
  const std::vector<Moment>& marked = moments[kMarked];
  const auto end = std::lower_bound(marked.begin(), marked.end(), moments[kStart].at(1));
  const std::vector<Moment> of_one_process = gaps({marked.begin(), end});
  ASSERT_GE(of_one_process.size(), 200U);
  EXPECT_THAT(of_one_process, Each(AllOf(Ge(6 * kSecond), Le(8 * kSecond))));
}

TEST(OneDevice, TwentyFilesOfAKindAPass) {
  Scenario scenario = one_device();
  scenario.files_a_day = 86400;
  scenario.end = 2 * kHour;
  Moments moments = moments_of(scenario);
  std::vector<Moment> starts = moments[kStart];
  ASSERT_GE(starts.size(), 3U);
  const auto in_second_start =
      std::count_if(moments[kMarked].begin(), moments[kMarked].end(),
                    [&](Moment moment) { return moment >= starts[1] && moment < starts[2]; });
  EXPECT_EQ(in_second_start, 14 * static_cast<int>(kMaxFilesPerKind));
}

// Each pass asks for both connections, 3 s after the old one's thread was told to leave, finds
// neither, and pauses 5 s.
TEST(OneDevice, TriesDeadServersEveryElevenSeconds) {
  Scenario scenario = one_device();
  scenario.outages = {{{0, kDay}, Fault::kRefuse}};
  scenario.end = 3 * kHour;
  Moments moments = moments_of(scenario);
  const std::vector<Moment> given_up = gaps(moments[kGivenUp]);
  ASSERT_GE(given_up.size(), 900U);
  EXPECT_EQ(given_up[0], 5 * kSecond + kResolveBoth) << "the first needs no thread to leave";
  EXPECT_THAT(std::vector<Moment>(given_up.begin() + 1, given_up.end()),
              Each(11 * kSecond + kResolveBoth));
  EXPECT_THAT(moments[kStart], SizeIs(1));
  EXPECT_THAT(moments[kConnect], SizeIs(2 * (moments[kGivenUp].size() - 1)));
}

// The two attempts of a send, each 181 s, after 5 s and before 10 s.
TEST(OneDevice, SilentServerTakesSixMinutesOfEachKind) {
  Scenario scenario = one_device();
  scenario.files_a_day = 1;
  scenario.together = true;
  scenario.outages = {{{0, kDay}, Fault::kSilent}};
  scenario.end = kHour;
  Moments moments = moments_of(scenario);
  const std::vector<Moment> failures = moments[kFailed];
  ASSERT_GE(failures.size(), 8U);
  for (std::size_t i = 0; i + 2 < failures.size(); i += 2) {
    EXPECT_EQ(failures[i + 1] - failures[i], 181 * kSecond);
    EXPECT_EQ(failures[i + 2] - failures[i + 1], (10 + 5 + 181) * kSecond);
  }
}

TEST(OneDevice, WatchdogEndsItFourHoursAfterTheLastActivity) {
  Scenario scenario = one_device();
  scenario.outages = {{{0, kDay}, Fault::kRefuse}};
  Moments moments = moments_of(scenario);
  ASSERT_GE(moments[kKilled].size(), 5U);
  for (std::size_t i = 0; i < moments[kKilled].size(); ++i) {
    const Moment awake = moments[kStart][i] + scenario.wifi_known;
    Moment fed = awake;  // a turn of the configuration thread begins
    while (!inactiveTooLong(awake / kSecond, (fed + 5 * kSecond) / kSecond))
      fed += 5 * kSecond;
    EXPECT_EQ(moments[kKilled][i], fed + scenario.watchdog);
    if (i > 0) {
      EXPECT_EQ(moments[kStart][i], moments[kKilled][i - 1] + scenario.restart);
    }
  }
  scenario.watchdog = 0;
  EXPECT_THAT(moments_of(scenario)[kStart], SizeIs(1));
}

TEST(OneDevice, ConnectsAgainWhenPacketsArriveAgain) {
  Scenario scenario = one_device();
  scenario.outages = {{{kHour, 2 * kHour}, Fault::kDrop}};
  scenario.end = 3 * kHour;
  Moments moments = moments_of(scenario);
  const auto count = [&](Event event, Moment from, Moment until) {
    return std::count_if(moments[event].begin(), moments[event].end(),
                         [=](Moment moment) { return moment >= from && moment < until; });
  };
  EXPECT_EQ(count(kEstablished, kHour + kMinute, 2 * kHour), 0);
  EXPECT_GE(count(kAttempt, kHour + kMinute, 2 * kHour), 2 * 59 * 60 / 11 - 2);
  EXPECT_GE(count(kEstablished, 2 * kHour, 2 * kHour + 12 * kSecond), 1);
}

TEST(OneDevice, PowerCutEndsItAndPowerStartsIt) {
  Scenario scenario = one_device();
  scenario.power_cuts = {{kHour, kHour + 10 * kMinute}};
  Moments moments = moments_of(scenario);
  for (const auto& [event, list] : moments) {
    for (const Moment moment : list) {
      EXPECT_FALSE(moment > kHour && moment < kHour + 10 * kMinute + scenario.boot)
          << kEventNames[event] << " " << moment;
    }
  }
  EXPECT_THAT(moments[kStart], testing::Contains(kHour + 10 * kMinute + scenario.boot));
}

TEST(PowerCut, OfAFleetPutsItInStep) {
  Scenario scenario;
  scenario.devices = 500;
  scenario.files_a_day = 0;
  scenario.power_cuts = {{kHour, 2 * kHour}};
  scenario.end = 3 * kHour;
  scenario.restart_random = 0;
  const std::size_t second = static_cast<std::size_t>((2 * kHour + scenario.boot) / kSecond);
  EXPECT_EQ(simulate(scenario, 1).load.seconds()[second].events[kStart], 500U);
  scenario.restart_random = 10;
  const Result result = simulate(scenario, 1);
  std::uint32_t starts = 0;
  for (std::size_t i = 0; i < 10; ++i) {
    EXPECT_LT(result.load.seconds()[second + i].events[kStart], 100U);
    starts += result.load.seconds()[second + i].events[kStart];
  }
  EXPECT_EQ(starts, 500U);
}

TEST(SlotRule, IsTheServicesAtTheEdges) {
  const Scenario scenario;
  const Rules rules(scenario);
  for (const int delay : {0, 1}) {
    for (Moment hour = 0; hour < kDay; hour += 7 * kHour) {
      const Moment opens = hour + delay * kMinute;
      const Moment closes = opens + (kSlotMinutes + 1) * kMinute;
      EXPECT_FALSE(rules.slot_is_open(opens + kHour - 1, delay));
      EXPECT_TRUE(rules.slot_is_open(opens, delay));
      EXPECT_TRUE(rules.slot_is_open(closes - 1, delay));
      EXPECT_FALSE(rules.slot_is_open(closes, delay));
      EXPECT_EQ(rules.slot_is_open(closes, delay), slotIsOpen(utcMinute(closes / kSecond), delay));
    }
  }
}

// All kinds of all devices at once: what nobody wants of a fleet.
TEST(SlotRule, PutsAWholeFleetIntoFiveMinutesOfTheHour) {
  Scenario scenario;
  scenario.devices = 200;
  scenario.waits_for_slot = true;
  scenario.files_a_day = 12;
  const Result result = simulate(scenario, 1);
  std::array<std::uint64_t, 60> requests = {};
  for (std::size_t i = 0; i < result.load.seconds().size(); ++i)
    requests[i / 60 % 60] += result.load.seconds()[i].events[kRequest];
  EXPECT_EQ(requests[0], 0U);
  EXPECT_GT(requests[1], 10 * requests[4]);
  for (std::size_t minute = 9; minute < 60; ++minute)
    EXPECT_EQ(requests[minute], 0U) << minute;
}

// Every start of the program as it ships: one pass, and no kind waits.
TEST(Bypass, EveryProcessMakesOnePass) {
  Scenario scenario = one_device();
  scenario.files_a_day = 50;
  Moments moments = moments_of(scenario);
  EXPECT_NEAR(static_cast<double>(moments[kPass].size()),
              static_cast<double>(moments[kStart].size()), 1);
}

TEST(Report, RowsAddUpToTheTotals) {
  Scenario scenario;
  scenario.devices = 30;
  scenario.end = 2 * kHour;
  const Result result = simulate(scenario, 1);
  std::ostringstream csv;
  write_csv(csv, result, 60);
  std::istringstream lines(csv.str());
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line.substr(0, 30), "second,starts,given_up,passes,");
  double starts = 0;
  int rows = 0;
  for (; std::getline(lines, line); ++rows)
    starts += 60 * std::stod(line.substr(line.find(',') + 1));
  EXPECT_EQ(rows, 120);
  EXPECT_NEAR(starts, static_cast<double>(result.load.total(kStart)), 1);
}

TEST(Report, TellsAnOutageAndItsWave) {
  Scenario scenario;
  scenario.devices = 1000;
  scenario.end = 4 * kHour;
  scenario.outages = {{{kHour, 2 * kHour}, Fault::kRefuse}};
  const auto report = summary(scenario, simulate(scenario, 1));
  const auto& outage = report["outages"][0];
  EXPECT_EQ(outage["from"], "01:00:00");
  EXPECT_NEAR(outage["attempts_a_second"]["mean"].get<double>(), 1000 * 2 / 11.04, 12);
  EXPECT_GE(outage["wave"]["established_a_second"]["most"].get<int>(), 120);
  EXPECT_GT(outage["waiting_at_its_end"], outage["waiting_before"]);
  EXPECT_LE(outage["seconds_until_as_before"].get<int>(), 600);
}

// The packaged unit is what the defaults describe.
TEST(Defaults, AreThePackagesAndThePrograms) {
  const Scenario scenario;
  const std::string unit = test_support::read_file(UNIT_FILE);
  EXPECT_THAT(unit, HasSubstr("\nRestartSec=" + std::to_string(scenario.restart / kSecond) + "\n"));
  EXPECT_THAT(unit, HasSubstr(" % " + std::to_string(scenario.restart_random) + "))'"));
  EXPECT_THAT(unit,
              HasSubstr("\nWatchdogSec=" + std::to_string(scenario.watchdog / kSecond) + "\n"));
  EXPECT_EQ(scenario.sleep_seconds, LogConsumerOptions{}.sleepSeconds);
}

TEST(CommandLine, WrongOptionsAreOneLineAndStatusTwo) {
  const std::vector<std::vector<std::string>> wrong = {
      {"--devices", "0"},
      {"--devices", "1000001"},
      {"--no-such-thing"},
      {"--outage", "12:00,30"},
      {"--outage", "12:00,30,flood"},
      {"--outage", "12,30,refuse"},
      {"--outage", "12:00,30,refuse", "--outage", "12:20,30,drop"},
      {"--power-cut", "25:61,3"},
      {"--restart-delay", "soon"},
      {"--restart-delay", "1,2,3"},
      {"--uplink", "100"},
      {"--trace"},
      {"left over"}};
  for (const std::vector<std::string>& arguments : wrong) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    Program program("fleet", arguments);
    const std::string text = program.rest();
    EXPECT_EQ(program.wait(), 2);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_THAT(text, testing::StartsWith("fleet: "));
  }
}

TEST(CommandLine, HelpSummaryAndCsv) {
  Program help("fleet", {"--help"});
  EXPECT_THAT(help.rest(), HasSubstr("--restart-delay"));
  EXPECT_EQ(help.wait(), 0);
  const TempDir folder;
  Program program("fleet", {"--devices", "3", "--hours", "1", "--csv", folder / "load.csv"});
  const auto report = nlohmann::json::parse(program.rest());
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(report["devices"], 3);
  const std::string csv = test_support::read_file(folder / "load.csv");
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 1 + 3600);
  Program unwritable("fleet", {"--devices", "3", "--csv", "/no/such/folder/load.csv"});
  EXPECT_EQ(unwritable.rest(), "fleet: cannot write /no/such/folder/load.csv\n");
  EXPECT_EQ(unwritable.wait(), 1);
}

}  // namespace
