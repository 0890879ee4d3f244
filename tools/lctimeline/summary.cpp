#include "tools/lctimeline/summary.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace lctimeline {

namespace {

std::string right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string left(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, text.size()), ' ');
}

std::string right(long long number, std::size_t width) {
  return right(std::to_string(number), width);
}

std::string rounded(double value, int digits) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(digits) << value;
  return text.str();
}

std::string two_digits(Microseconds number) {
  constexpr Microseconds kTwo = 10;
  return (number < kTwo ? "0" : "") + std::to_string(number);
}

template <typename Number>
std::string counted(Number number, const std::string& one, const std::string& several) {
  return std::to_string(number) + " " + (number == 1 ? one : several);
}

std::string counts(const Timeline& timeline) {
  std::ostringstream text;
  text << counted(timeline.starts, "start", "starts") << ", "
       << counted(timeline.passes, "whole pass", "whole passes") << ", "
       << counted(timeline.reconnects, "reconnect", "reconnects") << ", "
       << counted(timeline.crashes, "crash", "crashes") << "\n"
       << counted(timeline.service_lines, "line", "lines") << " of the service, "
       << timeline.foreign_lines << " of others, " << timeline.broken_lines << " not readable\n";
  if (timeline.clock_jumps != 0)
    text << "the clock went back " << counted(timeline.clock_jumps, "time", "times") << "\n";
  return text.str();
}

std::string time_spent(const Timeline& timeline) {
  Microseconds whole = 0;
  for (const Microseconds part : timeline.spent)
    whole += part;
  if (whole == 0) return "";
  std::string text = "\nWhere the time went\n";
  for (std::size_t index = 0; index < kActivityCount; ++index) {
    const Microseconds part = timeline.spent.at(index);
    if (part == 0) continue;
    const double share = static_cast<double>(part) / static_cast<double>(whole);
    constexpr double kBar = 30;
    constexpr double kHundred = 100;
    text += "  " + left(style_name(static_cast<Style>(index)), 36) + right(duration(part), 12) +
            right(rounded(share * kHundred, 1), 6) + " %  ";
    text += std::string(static_cast<std::size_t>(std::lround(share * kBar)), '#') + "\n";
  }
  return text;
}

std::string kinds_table(const Timeline& timeline) {
  std::string rows;
  for (std::size_t index = 0; index < kKindCount; ++index) {
    const KindTotals& totals = timeline.kind_totals.at(index);
    if (totals.sent == 0 && totals.failed == 0) continue;
    rows += "  " + left(kinds().at(index).name, 14) + right(totals.sent, 6) +
            right(totals.bytes, 13) + right(totals.failed, 10) + right(duration(totals.busy), 13) +
            "\n";
  }
  if (rows.empty()) return "\nNo file was sent.\n";
  return "\n  " + left("kind", 14) + right("sent", 6) + right("bytes", 13) + right("given up", 10) +
         right("time", 13) + "\n" + rows;
}

std::string failures(const Timeline& timeline) {
  std::string text;
  for (const auto& [cause, times] : timeline.failures) {
    text += right(times, 8) + "  ";
    text += cause + "\n";
  }
  return text.empty() ? "" : "\nFailed attempts\n" + text;
}

}  // namespace

std::string date_and_time(Microseconds time) {
  const std::time_t seconds = time / kSecond;
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text = {};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

std::string time_of_day(Microseconds time) {
  constexpr std::size_t kDate = 11;
  const std::string milliseconds = std::to_string(1000 + time % kSecond / 1000).substr(1);
  return date_and_time(time).substr(kDate) + "." + milliseconds;
}

std::string duration(Microseconds length) {
  constexpr Microseconds kMinute = 60;
  constexpr Microseconds kHour = 3600;
  const double seconds = static_cast<double>(length) / kSecond;
  const Microseconds whole = length / kSecond;
  const std::string rest = two_digits(whole % kMinute);
  if (length < 10 * kSecond) return rounded(seconds, 3) + " s";
  if (whole < kMinute) return rounded(seconds, 1) + " s";
  if (whole < kHour) return std::to_string(whole / kMinute) + ":" + rest + " min";
  return std::to_string(whole / kHour) + ":" + two_digits(whole % kHour / kMinute) + ":" + rest +
         " h";
}

std::string summary(const Timeline& timeline) {
  if (timeline.service_lines == 0)
    return "Nothing of the service in " +
           std::to_string(timeline.foreign_lines + timeline.broken_lines) + " lines, " +
           std::to_string(timeline.broken_lines) + " of them not readable.\n";
  return date_and_time(timeline.begin) + " to " + date_and_time(timeline.end) + ", " +
         duration(timeline.end - timeline.begin) + "\n" + counts(timeline) + time_spent(timeline) +
         kinds_table(timeline) + failures(timeline);
}

}  // namespace lctimeline
