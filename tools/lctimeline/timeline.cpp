#include "tools/lctimeline/timeline.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace lctimeline {

namespace {

std::size_t lane_of(Server server) {
  return server == Server::kRelay ? kRelayLane : kDataUploadLane;
}

std::size_t index_of(Style style) {
  return static_cast<std::size_t>(style);
}

std::size_t kind_of_type(const std::string& type) {
  const long number = std::strtol(type.c_str(), nullptr, 10);
  const auto& all = kinds();
  const auto* const found = std::find_if(
      all.begin(), all.end(), [number](const Kind& kind) { return kind.type == number; });
  return static_cast<std::size_t>(found - all.begin());
}

// kKindCount for a path outside all directories.
std::size_t kind_of_path(const std::string& path) {
  const auto& all = kinds();
  const auto* const found = std::find_if(all.begin(), all.end(), [&path](const Kind& kind) {
    return path.rfind(std::string(kind.directory) + "/", 0) == 0;
  });
  return static_cast<std::size_t>(found - all.begin());
}

std::string bare_name(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

bool about_a_file(Style style) {
  return style >= Style::kPause && style <= Style::kBackOff;
}

}  // namespace

const std::array<Kind, kKindCount>& kinds() {
  static constexpr std::array<Kind, kKindCount> kTable = {{
      {"perf", 9, "/tarv/data/logs/reports", Server::kRelay},
      {"measmin", 8, "/tarv/data/logs/measurements", Server::kDataUpload},
      {"ireport", 10, "/tarv/data/logs/history/installation", Server::kRelay},
      {"clp", 11, "/tarv/data/logs/clp", Server::kDataUpload},
      {"Test", 2, "\\nuv\\logs\\test\\", Server::kDataUpload},
      {"Debug", 0, "/tarv/data/logs/debug", Server::kDataUpload},
      {"TLink", 1, "/tarv/data/logs/tlink", Server::kDataUpload},
      {"UI", 3, "/tarv/data/logs/UI", Server::kDataUpload},
      {"Demand", 4, "/tarv/data/logs/demand", Server::kDataUpload},
      {"TComp", 5, "/tarv/data/logs/tcomp", Server::kDataUpload},
      {"lg", 6, "/tarv/data/logs/wg", Server::kDataUpload},
      {"rg", 7, "/tarv/data/logs/rg", Server::kDataUpload},
      {"pushpull", 12, "/tarv/data/logs/ppstat", Server::kDataUpload},
      {"diagnostics", 13, "/tarv/data/logs/diagnostics", Server::kDataUpload},
      {"logconsumer", 14, "/tarv/data/logs/logconsumer", Server::kDataUpload},
  }};
  return kTable;
}

std::string lane_name(std::size_t lane) {
  switch (lane) {
    case kServiceLane:
      return "service";
    case kDataUploadLane:
      return "connection: data upload";
    case kRelayLane:
      return "connection: relay";
    case kConfigurationLane:
      return "configuration";
    default:
      return kinds().at(lane - kFirstKindLane).name;
  }
}

std::string style_name(Style style) {
  constexpr std::array<const char*, kStyleCount> kNames = {
      "starting",
      "no connection: pause, next try",
      "looking for files",
      "pause before a file",
      "waiting for the connection's thread",
      "waiting for the answer",
      "answered, not yet looked at",
      "reconnecting",
      "back-off after a failure",
      "ending",
      "not running",
      "connecting",
      "connected",
      "request and answer",
      "Wi-Fi associated",
  };
  return kNames.at(index_of(style));
}

// A clock that is set back would lay later lines over earlier ones: what follows is moved on.
// Threads that overtake each other on their way to the log are no such case.
Microseconds TimelineBuilder::on_the_picture(Microseconds time) {
  if (!any_) timeline_.begin = timeline_.end = time;
  any_ = true;
  time += shift_;
  if (time < timeline_.end) {
    if (timeline_.end - time > kSecond) {
      ++timeline_.clock_jumps;
      shift_ += timeline_.end - time;
    }
    time = timeline_.end;
  }
  timeline_.end = time;
  return time;
}

void TimelineBuilder::add(const LogLine& line) {
  if (line.kind == LineKind::kForeign) ++timeline_.foreign_lines;
  if (line.kind == LineKind::kBroken) ++timeline_.broken_lines;
  if (line.kind != LineKind::kService) return;
  ++timeline_.service_lines;
  const bool first = !any_;
  last_ = timeline_.end;
  const Microseconds time = on_the_picture(line.time);
  if (first) last_ = activity_begin_ = time;
  const Event event = interpret(line.text);
  if (life(event, time)) return;
  just_started_ = false;
  if (pass(event, time) || file(event, time) || connection(event, time) || request(event, time))
    return;
  configuration(event, line.text, time);
}

Timeline TimelineBuilder::finish() {
  close_all(timeline_.end);
  return std::move(timeline_);
}

void TimelineBuilder::add_span(std::size_t lane, Style style, Microseconds begin, Microseconds end,
                               std::string label) {
  if (end > begin) timeline_.spans.push_back({lane, style, begin, end, std::move(label)});
}

void TimelineBuilder::mark(std::size_t lane, MarkStyle style, Microseconds time,
                           std::string label) {
  timeline_.marks.push_back({lane, style, time, std::move(label)});
}

void TimelineBuilder::open(std::size_t lane, Style style, Microseconds time, std::string label) {
  close(lane, time);
  open_.at(lane) = OpenSpan{style, time, std::move(label)};
}

void TimelineBuilder::close(std::size_t lane, Microseconds time) {
  auto& span = open_.at(lane);
  if (span) add_span(lane, span->style, span->begin, time, span->label);
  span.reset();
}

void TimelineBuilder::close_all(Microseconds time) {
  close_activity(time);
  connection_closed(Server::kDataUpload, time);
  connection_closed(Server::kRelay, time);
  close(kConfigurationLane, time);
}

void TimelineBuilder::close_activity(Microseconds time) {
  const bool of_file = about_a_file(activity_) && kind_ < kKindCount;
  const std::size_t lane = of_file ? kFirstKindLane + kind_ : kServiceLane;
  const auto book = [&](Style style, Microseconds begin, Microseconds end) {
    const std::string what = of_file ? bare_name(file_) : std::string();
    add_span(lane, style, begin, end, what);
    timeline_.spent.at(index_of(style)) += end - begin;
    if (of_file) timeline_.kind_totals.at(kind_).busy += end - begin;
  };
  // No message tells when the pause before a file is over: it has the length that was announced.
  const Microseconds end_of_pause = std::min(pause_ends_, time);
  if (activity_ == Style::kPause && end_of_pause > activity_begin_) {
    book(Style::kPause, activity_begin_, end_of_pause);
    book(Style::kHandOver, end_of_pause, time);
  } else {
    book(activity_, activity_begin_, time);
  }
  activity_begin_ = time;
}

void TimelineBuilder::enter(Style style, Microseconds time) {
  close_activity(time);
  activity_ = style;
}

void TimelineBuilder::leave_file() {
  file_.clear();
  attempt_ = 0;
  request_bytes_ = 0;
  cause_.clear();
}

// Two messages tell of a start. Where none told of the end before, the service was killed after its
// last line.
void TimelineBuilder::start(Microseconds time) {
  if (just_started_) return;
  just_started_ = true;
  if (activity_ != Style::kDown) stop(last_);
  close_activity(time);
  leave_file();
  kind_ = kKindCount;
  not_connected_.reset();
  activity_ = Style::kStarting;
  ++timeline_.starts;
  mark(kServiceLane, MarkStyle::kNote, time, "started");
}

void TimelineBuilder::stop(Microseconds time) {
  close_all(time);
  activity_ = Style::kDown;
}

bool TimelineBuilder::life(const Event& event, Microseconds time) {
  switch (event.what) {
    case What::kStarted:
      start(time);
      return true;
    case What::kSignal:
      just_started_ = false;
      mark(kServiceLane, MarkStyle::kFailed, time, "ended by signal " + event.fields.at(0));
      stop(time);
      return true;
    case What::kCrashed:
      ++timeline_.crashes;
      mark(kServiceLane, MarkStyle::kFailed, time, "crashed, stack trace in the log");
      return true;
    case What::kExited:
      just_started_ = false;
      mark(kServiceLane, MarkStyle::kNote, time, "main thread has ended");
      stop(time);
      return true;
    default:
      return false;
  }
}

bool TimelineBuilder::pass(const Event& event, Microseconds time) {
  switch (event.what) {
    case What::kNotConnected:
      // The pass is given up only when both are missing.
      if (not_connected_ && not_connected_ != event.server) enter(Style::kNoServer, time);
      not_connected_ = event.server;
      return true;
    case What::kKindReached:
      not_connected_.reset();
      if (activity_ == Style::kLooking) return true;
      enter(Style::kLooking, time);
      leave_file();
      return true;
    case What::kListed:
      kind_ = kind_of_type(event.fields.at(1));
      if (kind_ < kKindCount && event.fields.at(0) != "0") {
        mark(kFirstKindLane + kind_, MarkStyle::kNote, time, event.fields.at(0) + " waiting");
      }
      return true;
    case What::kResetting:
      ++timeline_.passes;
      enter(Style::kEnding, time);
      leave_file();
      return true;
    case What::kInactive:
      enter(Style::kEnding, time);
      leave_file();
      mark(kServiceLane, MarkStyle::kFailed, time, "exit: nothing was sent for too long");
      return true;
    default:
      return false;
  }
}

bool TimelineBuilder::file(const Event& event, Microseconds time) {
  if (event.what == What::kFileChosen) {
    enter(Style::kPause, time);
    leave_file();
    file_ = event.fields.at(0);
    if (kind_of_path(file_) < kKindCount) kind_ = kind_of_path(file_);
    pause_ends_ = time;
    return true;
  }
  KindTotals none;
  KindTotals& totals = kind_ < kKindCount ? timeline_.kind_totals.at(kind_) : none;
  const std::size_t lane = kind_ < kKindCount ? kFirstKindLane + kind_ : kServiceLane;
  switch (event.what) {
    case What::kPause:
      pause_ends_ = time + std::strtol(event.fields.at(0).c_str(), nullptr, 10) * kSecond;
      return true;
    case What::kStillOpen: {
      const std::size_t kind = kind_of_path(event.fields.at(0));
      mark(kind < kKindCount ? kFirstKindLane + kind : kServiceLane, MarkStyle::kNote, time,
           bare_name(event.fields.at(0)) + " is held open, waits");
      return true;
    }
    case What::kSent:
    case What::kNotMarked:
      mark(lane, event.what == What::kSent ? MarkStyle::kSent : MarkStyle::kFailed, time,
           bare_name(event.fields.at(0)) +
               (event.what == What::kSent ? " sent" : " sent, but not marked: goes out again"));
      ++totals.sent;
      totals.bytes += request_bytes_;
      enter(Style::kLooking, time);
      leave_file();
      return true;
    case What::kNoMemory:
      cause_ = "no memory for the request";
      return true;
    case What::kSendError:
      ++attempt_;
      ++timeline_.failures[cause_.empty() ? "no answer" : cause_];
      mark(lane, MarkStyle::kFailed, time,
           bare_name(file_) + ", attempt " + std::to_string(attempt_) + ": " +
               (cause_.empty() ? "no answer" : cause_));
      cause_.clear();
      enter(Style::kHandOver, time);
      return true;
    case What::kGivenUp:
      if (attempt_ == 0) ++timeline_.failures[cause_.empty() ? "file not readable" : cause_];
      ++totals.failed;
      mark(lane, MarkStyle::kFailed, time, bare_name(event.fields.at(0)) + " given up for now");
      enter(Style::kBackOff, time);
      attempt_ = 0;
      return true;
    default:
      return false;
  }
}

void TimelineBuilder::connection_closed(Server server, Microseconds time) {
  close(lane_of(server), time);
  if (request_ && kind_ < kKindCount && kinds().at(kind_).server == server) {
    add_span(lane_of(server), Style::kRequest, request_->begin, time, request_->label);
    request_.reset();
  }
}

// After its own end of a pass the service hears of the close that it asked for.
void TimelineBuilder::closed(Server server, Microseconds time) {
  const auto& span = open_.at(lane_of(server));
  if (!span) return mark(lane_of(server), MarkStyle::kNote, time, "closed");
  const std::string what = span->style == Style::kOpen ? "connection closed" : "no connection";
  mark(lane_of(server), MarkStyle::kFailed, time, what);
  connection_closed(server, time);
  if (kind_ == kKindCount || kinds().at(kind_).server != server) return;
  cause_ = what;
  if (activity_ == Style::kAnswer) enter(Style::kNotice, time);
}

bool TimelineBuilder::connection(const Event& event, Microseconds time) {
  const std::size_t lane = event.server ? lane_of(*event.server) : kServiceLane;
  switch (event.what) {
    case What::kConnecting:
      if (!file_.empty()) {
        ++timeline_.reconnects;
        enter(Style::kReconnect, time);
      }
      return true;
    case What::kConnectSent:
      open(lane, Style::kConnecting, time, "");
      if (activity_ == Style::kReconnect) enter(Style::kHandOver, time);
      return true;
    case What::kConnectFailed:
      mark(lane, MarkStyle::kFailed, time, "no connection begun: the host does not resolve");
      if (activity_ == Style::kReconnect) enter(Style::kHandOver, time);
      return true;
    case What::kNotStarted:
      mark(kServiceLane, MarkStyle::kFailed, time, "a connection could not be begun");
      if (activity_ == Style::kReconnect) enter(Style::kHandOver, time);
      return true;
    case What::kConnected:
      open(lane, Style::kOpen, time, "");
      return true;
    case What::kClosed:
      closed(*event.server, time);
      return true;
    case What::kTerminating:
      connection_closed(*event.server, time);
      return true;
    case What::kServerStarted:
      return true;
    default:
      return false;
  }
}

bool TimelineBuilder::request(const Event& event, Microseconds time) {
  const auto answered = [&](const std::string& label) {
    if (request_ && kind_ < kKindCount) {
      add_span(lane_of(kinds().at(kind_).server), Style::kRequest, request_->begin, time,
               request_->label + ": " + label);
    }
    request_.reset();
    if (activity_ == Style::kAnswer) enter(Style::kNotice, time);
  };
  switch (event.what) {
    case What::kWriting:
      enter(Style::kAnswer, time);
      request_ = OpenSpan{Style::kRequest, time, bare_name(file_)};
      cause_.clear();
      return true;
    case What::kWritten:
      request_bytes_ = std::strtoll(event.fields.at(1).c_str(), nullptr, 10);
      return true;
    case What::kGoodStatus:
      answered("200");
      return true;
    case What::kBadStatus:
      cause_ = "answered " + event.fields.at(0) + " " + event.fields.at(1);
      answered(event.fields.at(0) + " " + event.fields.at(1));
      return true;
    case What::kNoAnswer:
      cause_ = "bytes that are no answer";
      answered("no answer");
      return true;
    case What::kTimeout:
      cause_ = "no answer in time";
      answered("no answer in time");
      return true;
    case What::kVerdict:
      return true;
    default:
      return false;
  }
}

void TimelineBuilder::configuration(const Event& event, const std::string& text,
                                    Microseconds time) {
  const bool trouble = event.what == What::kTrouble || event.what == What::kWifiDown;
  switch (event.what) {
    case What::kWifiUp:
      open(kConfigurationLane, Style::kWifi, time, "");
      return;
    case What::kConfigurationEnded:
      close(kConfigurationLane, time);
      return;
    case What::kWifiDown:
      close(kConfigurationLane, time);
      [[fallthrough]];
    case What::kConfiguration:
    case What::kTrouble:
      mark(kConfigurationLane, trouble ? MarkStyle::kFailed : MarkStyle::kNote, time,
           text.substr(text.find(": ") == std::string::npos ? 0 : text.find(": ") + 2));
      return;
    default:
      return;
  }
}

}  // namespace lctimeline
