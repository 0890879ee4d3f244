#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

#include "bench/fleet/command_line.h"
#include "bench/fleet/fleet.h"
#include "bench/fleet/report.h"

namespace {

void print_trace(const fleet::Scenario& scenario) {
  std::vector<std::pair<fleet::Moment, fleet::Event>> events;
  fleet::follow(scenario, [&](fleet::Event event, fleet::Moment moment, std::int64_t /*detail*/) {
    events.emplace_back(moment, event);
  });
  std::stable_sort(events.begin(), events.end(),
                   [](const auto& one, const auto& other) { return one.first < other.first; });
  for (const auto& [moment, event] : events) {
    std::array<char, 8> thousandths = {};
    static_cast<void>(std::snprintf(thousandths.data(), thousandths.size(), "%03d",
                                    static_cast<int>(moment % fleet::kSecond)));
    std::cout << fleet::clock_text(static_cast<std::size_t>(moment / fleet::kSecond)) << '.'
              << thousandths.data() << ' ' << fleet::kEventNames[event] << '\n';
  }
}

}  // namespace

int main(int argc, char** argv) {
  const fleet::CommandLine line = fleet::read_command_line(argc, argv);
  if (line.trace) {
    print_trace(line.scenario);
    return EXIT_SUCCESS;
  }
  std::ofstream csv;
  if (!line.csv.empty()) {
    csv.open(line.csv);
    if (!csv) {
      std::cerr << "fleet: cannot write " << line.csv << std::endl;
      return EXIT_FAILURE;
    }
  }
  const fleet::Result result = fleet::simulate(line.scenario, line.threads);
  if (csv.is_open()) fleet::write_csv(csv, result, line.bin);
  std::cout << fleet::summary(line.scenario, result).dump(2) << std::endl;
  return EXIT_SUCCESS;
}
