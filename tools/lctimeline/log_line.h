// One line of a log, in whatever form it came.
//
// Known forms, told apart line by line, so that files may be mixed:
//  - journalctl -o short-iso, short-iso-precise, and what rsyslog writes with its RFC 3339 format:
//    2026-02-03T09:05:00.123456+0000 host LogConsumer[12]: text
//  - journalctl -o json: one object a line, __REALTIME_TIMESTAMP, SYSLOG_IDENTIFIER, MESSAGE
//  - plain syslog files, with or without BusyBox's "user.info":
//    Feb  3 09:05:00 host LogConsumer: text
//  - the desk lab's record: {"time":"2026-02-03T09:05:00.123Z","ident":"LogConsumer","text":"..."}
#ifndef TOOLS_LCTIMELINE_LOG_LINE_H
#define TOOLS_LCTIMELINE_LOG_LINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lctimeline {

/// A moment, microseconds since 1970-01-01 UTC, or a length of time.
using Microseconds = std::int64_t;

inline constexpr Microseconds kSecond = 1'000'000;

enum class LineKind {
  kService,  ///< of the log consumer
  kForeign,  ///< of somebody else, or what journalctl says about its boots
  kBroken,   ///< no line of a known form
  kBlank,
};

struct LogLine {
  LineKind kind = LineKind::kBroken;
  Microseconds time = 0;  ///< kService only, as is the text
  std::string text;       ///< without the line ends that some messages close with
};

/// Reads one line, without its newline. Never throws for what the bytes are.
/// @param written  a moment at which the line existed, for dates without a year: they are put into
///                 the year that makes them no later than a day after it
LogLine parse_line(std::string_view line, Microseconds written);

/// "2026-02-03T09:05:00", with or without a fraction, "Z" or an offset; without one it is UTC.
/// @return nothing for any other text.
std::optional<Microseconds> parse_iso_time(std::string_view text);

}  // namespace lctimeline

#endif
