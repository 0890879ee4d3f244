// The totals, as text for a terminal.
#ifndef TOOLS_LCTIMELINE_SUMMARY_H
#define TOOLS_LCTIMELINE_SUMMARY_H

#include <string>

#include "tools/lctimeline/timeline.h"

namespace lctimeline {

/// Several lines, the last one ends with a newline.
std::string summary(const Timeline& timeline);

/// "2026-02-03 09:05:00"
std::string date_and_time(Microseconds time);
/// "09:05:00.123"
std::string time_of_day(Microseconds time);
/// "0.123 s", "12.3 s", "1:48 min", "2:05:00 h"
std::string duration(Microseconds length);

}  // namespace lctimeline

#endif
