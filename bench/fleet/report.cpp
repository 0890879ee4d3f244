#include "bench/fleet/report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <ostream>
#include <vector>

namespace fleet {
namespace {

using nlohmann::ordered_json;
using Series = std::vector<std::uint64_t>;

constexpr std::size_t kWaveSeconds = 600;

Series series(const Load& load, Event event) {
  Series result;
  result.reserve(load.seconds().size());
  for (const Second& second : load.seconds())
    result.push_back(second.events[event]);
  return result;
}

Series bytes(const Load& load) {
  Series result;
  result.reserve(load.seconds().size());
  for (const Second& second : load.seconds())
    result.push_back(second.bytes);
  return result;
}

// What stands at the end of each second: what came so far less what went.
Series level(const Load& load, Event come, Event gone) {
  Series result;
  result.reserve(load.seconds().size());
  std::uint64_t now = 0;
  for (const Second& second : load.seconds())
    result.push_back(now = now + second.events[come] - second.events[gone]);
  return result;
}

ordered_json most(const Series& series, std::size_t from, std::size_t until) {
  const auto first = series.begin() + static_cast<std::ptrdiff_t>(from);
  const auto last = series.begin() + static_cast<std::ptrdiff_t>(std::min(until, series.size()));
  const auto found = std::max_element(first, last);
  if (found == last) return nullptr;
  return {{"most", *found}, {"at", clock_text(static_cast<std::size_t>(found - series.begin()))}};
}

double mean(const Series& series, std::size_t from, std::size_t until) {
  until = std::min(until, series.size());
  double sum = 0;
  for (std::size_t i = from; i < until; ++i)
    sum += static_cast<double>(series[i]);
  return until > from ? sum / static_cast<double>(until - from) : 0;
}

ordered_json distribution(const Series& series) {
  Series sorted = series;
  std::sort(sorted.begin(), sorted.end());
  const auto part = [&](std::size_t percent) {
    return sorted[(sorted.size() - 1) * percent / 100];
  };
  ordered_json result = {
      {"mean", mean(series, 0, series.size())}, {"median", part(50)}, {"p99", part(99)}};
  result.update(most(series, 0, series.size()));
  return result;
}

std::string fault_name(Fault fault) {
  static const std::array<std::string, 4> kNames = {"refuse", "drop", "error", "silent"};
  return kNames[static_cast<std::size_t>(fault)];
}

ordered_json outage_summary(const Load& load, const Outage& outage) {
  const auto from = static_cast<std::size_t>(outage.span.from / kSecond);
  const auto until = static_cast<std::size_t>(outage.span.until / kSecond);
  const Series attempts = series(load, kAttempt);
  const Series waiting = level(load, kGenerated, kMarked);
  ordered_json result = {{"from", clock_text(from)},
                         {"until", clock_text(until)},
                         {"fault", fault_name(outage.fault)}};
  if (until >= attempts.size() || from == 0) return result;
  const auto during = [&](const char* name, const Series& of) {
    result[name] = {{"mean", mean(of, from, until)}};
    result[name].update(most(of, from, until));
  };
  during("attempts_a_second", attempts);
  during("requests_a_second", series(load, kRequest));
  during("bytes_a_second", bytes(load));
  ordered_json wave;
  wave["attempts_a_second"] = most(attempts, until, until + kWaveSeconds);
  wave["established_a_second"] = most(series(load, kEstablished), until, until + kWaveSeconds);
  wave["requests_a_second"] = most(series(load, kRequest), until, until + kWaveSeconds);
  wave["bytes_a_second"] = most(bytes(load), until, until + kWaveSeconds);
  result["wave"] = wave;
  result["waiting_before"] = waiting[from - 1];
  result["waiting_at_its_end"] = waiting[until];
  const auto start = waiting.begin() + static_cast<std::ptrdiff_t>(until);
  // Little waits in quiet times, and how little is chance: a tenth above it is as before.
  const double usual = 1.1 * mean(waiting, from > kWaveSeconds ? from - kWaveSeconds : 0, from);
  const auto done = std::find_if(start, waiting.end(), [usual](std::uint64_t files) {
    return static_cast<double>(files) <= usual;
  });
  if (done != waiting.end()) result["seconds_until_as_before"] = done - start;
  return result;
}

}  // namespace

std::string clock_text(std::size_t second) {
  constexpr std::size_t kBase = 60;
  std::array<char, 32> text = {};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%02zu:%02zu:%02zu",
                                  second / kBase / kBase, second / kBase % kBase, second % kBase));
  return text.data();
}

ordered_json summary(const Scenario& scenario, const Result& result) {
  const Load& load = result.load;
  ordered_json report = {
      {"devices", scenario.devices}, {"seed", scenario.seed}, {"hours", scenario.end / kHour}};
  ordered_json& totals = report["totals"];
  for (std::size_t event = 0; event < kEvents; ++event)
    totals[kEventNames[event]] = load.total(static_cast<Event>(event));
  totals["bytes"] = load.total_bytes();
  totals["waiting"] = result.waiting;
  ordered_json& rates = report["a_second"];
  for (const Event event : {kStart, kAttempt, kEstablished, kRequest, kAccepted, kFailed})
    rates[kEventNames[event]] = distribution(series(load, event));
  rates["bytes"] = distribution(bytes(load));
  report["open_connections"] = distribution(level(load, kEstablished, kClosed));
  report["waiting_files"] = distribution(level(load, kGenerated, kMarked));
  for (const Outage& outage : scenario.outages)
    report["outages"].push_back(outage_summary(load, outage));
  for (const Span& cut : scenario.power_cuts) {
    const auto until = static_cast<std::size_t>(cut.until / kSecond);
    report["power_cuts"].push_back(
        {{"until", clock_text(until)},
         {"attempts_a_second", most(series(load, kAttempt), until, until + kWaveSeconds)}});
  }
  return report;
}

void write_csv(std::ostream& out, const Result& result, std::size_t bin) {
  const std::vector<Second>& seconds = result.load.seconds();
  const Series open = level(result.load, kEstablished, kClosed);
  const Series waiting = level(result.load, kGenerated, kMarked);
  out << "second";
  for (const char* name : kEventNames)
    out << ',' << name;
  out << ",bytes,most_attempts,most_requests,open,waiting\n";
  for (std::size_t from = 0; from < seconds.size(); from += bin) {
    const std::size_t until = std::min(from + bin, seconds.size());
    std::array<std::uint64_t, kEvents> sums = {};
    std::uint64_t sum_of_bytes = 0;
    std::uint32_t most_attempts = 0;
    std::uint32_t most_requests = 0;
    for (std::size_t i = from; i < until; ++i) {
      for (std::size_t event = 0; event < kEvents; ++event)
        sums[event] += seconds[i].events[event];
      sum_of_bytes += seconds[i].bytes;
      most_attempts = std::max(most_attempts, seconds[i].events[kAttempt]);
      most_requests = std::max(most_requests, seconds[i].events[kRequest]);
    }
    out << from;
    const auto rate = [&](std::uint64_t sum) {
      return static_cast<double>(sum) / static_cast<double>(until - from);
    };
    for (const std::uint64_t sum : sums)
      out << ',' << rate(sum);
    out << ',' << rate(sum_of_bytes) << ',' << most_attempts << ',' << most_requests << ','
        << open[until - 1] << ',' << waiting[until - 1] << '\n';
  }
}

}  // namespace fleet
