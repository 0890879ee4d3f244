// What came out, for people (JSON) and for plots (CSV).
#ifndef BENCH_FLEET_REPORT_H
#define BENCH_FLEET_REPORT_H

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/fleet/fleet.h"

namespace fleet {

/// "HH:MM:SS" of a second of the day.
std::string clock_text(std::size_t second);

/// Totals, the load per second (mean, median, 99 %, most and when), each outage with its wave.
nlohmann::ordered_json summary(const Scenario& scenario, const Result& result);

/// A row for every `bin` seconds: the second it begins with, events and bytes per second as means
/// of the bin, the most connections that were asked for in one of its seconds, and at its end the
/// connections that stand and the files that wait.
void write_csv(std::ostream& out, const Result& result, std::size_t bin);

}  // namespace fleet

#endif
