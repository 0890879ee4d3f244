// What a log's lines say about the passes: who did what from when to when.
//
// The service's main thread does one thing at a time, so its time is cut into activities without
// gaps or overlaps, and the totals add up to the whole. The connections and the configuration
// thread have lanes of their own beside it.
#ifndef TOOLS_LCTIMELINE_TIMELINE_H
#define TOOLS_LCTIMELINE_TIMELINE_H

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/lctimeline/event.h"
#include "tools/lctimeline/log_line.h"

namespace lctimeline {

/// A log kind, as the service's table has it.
struct Kind {
  const char* name;  ///< upload name
  int type;          ///< number in the messages
  const char* directory;
  Server server;
};

inline constexpr std::size_t kKindCount = 15;

/// In the order of a pass.
const std::array<Kind, kKindCount>& kinds();

/// Lanes: the service, the kinds in the order of a pass, the connections, the configuration.
enum Lane : std::size_t {
  kServiceLane = 0,
  kFirstKindLane = 1,
  kDataUploadLane = kFirstKindLane + kKindCount,
  kRelayLane,
  kConfigurationLane,
  kLaneCount,
};

std::string lane_name(std::size_t lane);

/// What a span shows. The first ones are what the main thread does; they make up its whole time.
enum class Style {
  kStarting,    ///< up to the first look at the connections
  kNoServer,    ///< no connection: the pass is given up, a pause, the next one
  kLooking,     ///< listing, find, fuser, marking
  kPause,       ///< the pause before each file
  kHandOver,    ///< the request lies ready, the connection's thread has not come round yet
  kAnswer,      ///< the request is out, no answer yet
  kNotice,      ///< answered, and the sender has not looked yet
  kReconnect,   ///< the connection's thread is stopped and started again
  kBackOff,     ///< the pause after a failure
  kEnding,      ///< from the end of the pass to the last message
  kDown,        ///< no service
  kConnecting,  ///< from here on: lanes of connections and configuration
  kOpen,
  kRequest,
  kWifi,
};

inline constexpr std::size_t kActivityCount = static_cast<std::size_t>(Style::kDown) + 1;
inline constexpr std::size_t kStyleCount = static_cast<std::size_t>(Style::kWifi) + 1;

/// A few words for legend and totals.
std::string style_name(Style style);

struct Span {
  std::size_t lane = 0;
  Style style = Style::kLooking;
  Microseconds begin = 0;
  Microseconds end = 0;
  std::string label;  ///< what hovering shows besides the times
};

enum class MarkStyle { kSent, kFailed, kNote };

struct Mark {
  std::size_t lane = 0;
  MarkStyle style = MarkStyle::kNote;
  Microseconds time = 0;
  std::string label;
};

struct KindTotals {
  long sent = 0;
  long long bytes = 0;  ///< of the requests that were answered well
  long failed = 0;      ///< files given up, for this pass
  Microseconds busy = 0;
};

struct Timeline {
  std::vector<Span> spans;
  std::vector<Mark> marks;
  std::array<Microseconds, kActivityCount> spent = {};
  std::array<KindTotals, kKindCount> kind_totals = {};
  std::map<std::string, long> failures;  ///< failed attempts by cause
  Microseconds begin = 0;                ///< first and last line of the service
  Microseconds end = 0;
  long starts = 0;
  long passes = 0;   ///< that reached their end
  long crashes = 0;  ///< stack traces
  long reconnects = 0;
  long clock_jumps = 0;  ///< backwards by more than a second: the rest is moved on
  long service_lines = 0;
  long foreign_lines = 0;
  long broken_lines = 0;
};

/// Takes lines in the order of the log.
class TimelineBuilder {
 public:
  void add(const LogLine& line);
  /// Closes what is open. The builder is used up.
  Timeline finish();

 private:
  struct OpenSpan {
    Style style;
    Microseconds begin;
    std::string label;
  };

  Microseconds on_the_picture(Microseconds time);
  void enter(Style style, Microseconds time);
  void close_activity(Microseconds time);
  void add_span(std::size_t lane, Style style, Microseconds begin, Microseconds end,
                std::string label);
  void open(std::size_t lane, Style style, Microseconds time, std::string label);
  void close(std::size_t lane, Microseconds time);
  void close_all(Microseconds time);
  void mark(std::size_t lane, MarkStyle style, Microseconds time, std::string label);
  void leave_file();

  void start(Microseconds time);
  void stop(Microseconds time);
  bool life(const Event& event, Microseconds time);
  bool pass(const Event& event, Microseconds time);
  bool file(const Event& event, Microseconds time);
  bool connection(const Event& event, Microseconds time);
  bool request(const Event& event, Microseconds time);
  void configuration(const Event& event, const std::string& text, Microseconds time);
  void closed(Server server, Microseconds time);
  void connection_closed(Server server, Microseconds time);

  Timeline timeline_;
  bool any_ = false;
  Microseconds shift_ = 0;

  bool just_started_ = false;
  Microseconds last_ = 0;  // time of the line before
  Style activity_ = Style::kStarting;
  Microseconds activity_begin_ = 0;
  Microseconds pause_ends_ = 0;

  std::size_t kind_ = kKindCount;  // that is being served
  std::string file_;               // that is being sent; empty: none
  int attempt_ = 0;
  long long request_bytes_ = 0;
  std::string cause_;  // of the failure that will be reported
  std::optional<Server> not_connected_;
  std::array<std::optional<OpenSpan>, kLaneCount> open_;
  std::optional<OpenSpan> request_;
};

}  // namespace lctimeline

#endif
