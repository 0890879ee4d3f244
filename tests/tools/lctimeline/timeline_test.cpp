#include "tools/lctimeline/timeline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

using lctimeline::kSecond;
using lctimeline::LineKind;
using lctimeline::MarkStyle;
using lctimeline::Microseconds;
using lctimeline::Span;
using lctimeline::Style;
using lctimeline::Timeline;
using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr std::size_t kDebugLane = lctimeline::kFirstKindLane + 5;
constexpr std::size_t kDebug = 5;
constexpr char kFile[] = "/tarv/data/logs/debug/a.gz";

// Lines at seconds after the start of the log.
class Log {
 public:
  Log& at(double seconds, const std::string& text) {
    builder_.add({LineKind::kService, kBegin + static_cast<Microseconds>(seconds * kSecond), text});
    return *this;
  }
  Log& line(LineKind kind) {
    builder_.add({kind, 0, ""});
    return *this;
  }
  /// A start, both connections, the debug kind reached at second 4.
  Log& connected() {
    at(0, "[ST]:BT installed for /usr/sbin/log_consumer");
    at(0, "Build@ Feb  3 2026 09:05:00");
    at(0, "data upload connection not done con = 0");
    at(0, "relay server connection not done con = 0");
    at(2, "Connecting to 127.0.0.1:80");
    at(2, "Data upload client connection sent");
    at(3, "Connect event from data upload srv");
    at(4, "Bypassing random delay values for all log types");
    return at(4, "1 not read only files found for filetype 0 at directory /tarv/data/logs/debug");
  }
  /// The file is handed over at second 9 and written at 10.
  Log& chosen() {
    connected();
    at(4, std::string("Filename ") + kFile + " is not read only");
    return at(4, "Sleeping 5 seconds before next file send");
  }
  Log& written() {
    chosen();
    at(10, "Writing file to mg_write");
    return at(10, "mg_write returned 77, file length is 77");
  }
  Timeline finish() { return builder_.finish(); }

 private:
  static constexpr Microseconds kBegin = 1770109500 * kSecond;
  lctimeline::TimelineBuilder builder_;
};

Microseconds spent(const Timeline& timeline, Style style) {
  return timeline.spent.at(static_cast<std::size_t>(style));
}

std::vector<std::pair<Style, double>> bars(const Timeline& timeline, std::size_t lane) {
  std::vector<std::pair<Style, double>> found;
  for (const Span& span : timeline.spans) {
    if (span.lane == lane)
      found.emplace_back(span.style, static_cast<double>(span.end - span.begin) / kSecond);
  }
  return found;
}

std::vector<std::string> marks(const Timeline& timeline, std::size_t lane, MarkStyle style) {
  std::vector<std::string> labels;
  for (const lctimeline::Mark& mark : timeline.marks) {
    if (mark.lane == lane && mark.style == style) labels.push_back(mark.label);
  }
  return labels;
}

void expect_no_time_missing(const Timeline& timeline) {
  EXPECT_EQ(timeline.end - timeline.begin,
            std::accumulate(timeline.spent.begin(), timeline.spent.end(), Microseconds{0}));
}

}  // namespace

TEST(Timeline, AFileThatIsSentPausesWaitsIsAnsweredAndSeen) {
  const Timeline timeline = Log()
                                .written()
                                .at(12, "Got 200 good resp from server")
                                .at(13, "Good response for send")
                                .at(13, std::string("Sending ") + kFile + " went okay")
                                .at(14, "No files found in debug! Resetting")
                                .at(20, "Exiting socket thread")
                                .finish();
  EXPECT_THAT(bars(timeline, kDebugLane),
              ElementsAre(Pair(Style::kPause, 5), Pair(Style::kHandOver, 1),
                          Pair(Style::kAnswer, 2), Pair(Style::kNotice, 1)));
  EXPECT_THAT(
      bars(timeline, lctimeline::kDataUploadLane),
      ElementsAre(Pair(Style::kConnecting, 1), Pair(Style::kRequest, 2), Pair(Style::kOpen, 17)));
  EXPECT_EQ(1, timeline.kind_totals.at(kDebug).sent);
  EXPECT_EQ(77, timeline.kind_totals.at(kDebug).bytes);
  EXPECT_EQ(9 * kSecond, timeline.kind_totals.at(kDebug).busy);
  EXPECT_EQ(1, timeline.passes);
  EXPECT_EQ(1, timeline.starts);
  EXPECT_THAT(marks(timeline, kDebugLane, MarkStyle::kSent), ElementsAre("a.gz sent"));
  EXPECT_EQ(4 * kSecond, spent(timeline, Style::kNoServer));
  EXPECT_EQ(6 * kSecond, spent(timeline, Style::kEnding));
  expect_no_time_missing(timeline);
}

TEST(Timeline, AServerThatRefusesIsCountedByItsAnswer) {
  const Timeline timeline =
      Log()
          .written()
          .at(11, "Got bad code from server: 503 Service Unavailable")
          .at(12, "Bad response for send")
          .at(12, "Send error")
          .at(13, "Writing file to mg_write")
          .at(14, "Got bad code from server: 503 Service Unavailable")
          .at(14, "Send error")
          .at(14, std::string("Send ") + kFile + " failed. Sleeping 10 seconds.")
          .at(24, "Bypassing random delay values for all log types")
          .finish();
  EXPECT_THAT(timeline.failures, ElementsAre(Pair("answered 503 Service Unavailable", 2)));
  EXPECT_EQ(1, timeline.kind_totals.at(kDebug).failed);
  EXPECT_EQ(0, timeline.kind_totals.at(kDebug).sent);
  EXPECT_EQ(10 * kSecond, spent(timeline, Style::kBackOff));
  EXPECT_THAT(
      marks(timeline, kDebugLane, MarkStyle::kFailed),
      ElementsAre("a.gz, attempt 1: answered 503 Service Unavailable",
                  "a.gz, attempt 2: answered 503 Service Unavailable", "a.gz given up for now"));
  expect_no_time_missing(timeline);
}

TEST(Timeline, ALostConnectionIsMadeAgainBeforeTheSecondAttempt) {
  const Timeline timeline = Log()
                                .written()
                                .at(11, "Data upload connection closed")
                                .at(12, "Bad response for send")
                                .at(12, "Send error")
                                .at(12, "Connecting to 127.0.0.1:80")
                                .at(15, "Mongoose server started.")
                                .at(15, "Data upload client connection sent")
                                .at(16, "Writing file to mg_write")
                                .at(16, "mg_write returned 77, file length is 77")
                                .at(16, "Connect event from data upload srv")
                                .at(17, "Got 200 good resp from server")
                                .at(17, std::string("Sending ") + kFile + " went okay")
                                .finish();
  EXPECT_THAT(timeline.failures, ElementsAre(Pair("connection closed", 1)));
  EXPECT_EQ(1, timeline.reconnects);
  EXPECT_EQ(3 * kSecond, spent(timeline, Style::kReconnect));
  EXPECT_THAT(marks(timeline, lctimeline::kDataUploadLane, MarkStyle::kFailed),
              ElementsAre("connection closed"));
  expect_no_time_missing(timeline);
}

TEST(Timeline, EachCauseOfAFailureHasItsName) {
  const auto cause_of = [](const std::string& message) {
    return Log().written().at(11, message).at(12, "Send error").finish().failures;
  };
  EXPECT_THAT(cause_of("Invalid URI in server response"),
              ElementsAre(Pair("bytes that are no answer", 1)));
  EXPECT_THAT(cause_of("Timeout for send. serverType = 0"),
              ElementsAre(Pair("no answer in time", 1)));
  EXPECT_THAT(cause_of("Bad response for send"), ElementsAre(Pair("no answer", 1)));
  const std::string given_up = std::string("Send ") + kFile + " failed. Sleeping 10 seconds.";
  EXPECT_THAT(Log().chosen().at(9, given_up).finish().failures,
              ElementsAre(Pair("file not readable", 1)));
  EXPECT_THAT(Log()
                  .chosen()
                  .at(9, std::string("Not enough memory to send ") + kFile)
                  .at(9, given_up)
                  .finish()
                  .failures,
              ElementsAre(Pair("no memory for the request", 1)));
}

TEST(Timeline, AFileThatCannotBeMarkedIsSaidToGoOutAgain) {
  const Timeline timeline = Log()
                                .written()
                                .at(11, "Got 200 good resp from server")
                                .at(12, std::string("Failed to make ") + kFile + " read-only")
                                .finish();
  EXPECT_THAT(marks(timeline, kDebugLane, MarkStyle::kFailed),
              ElementsAre("a.gz sent, but not marked: goes out again"));
}

TEST(Timeline, AHeldFileIsNotedInItsKindsLane) {
  const Timeline timeline =
      Log()
          .connected()
          .at(5, std::string("Attempt to upload ") + kFile + " still in Access")
          .finish();
  EXPECT_THAT(marks(timeline, kDebugLane, MarkStyle::kNote),
              ElementsAre("1 waiting", "a.gz is held open, waits"));
}

TEST(Timeline, TheCloseThatThePassAskedForIsNoFailure) {
  const Timeline timeline = Log()
                                .connected()
                                .at(5, "Terminating LogConsumer client - DataUpLoad")
                                .at(6, "Data upload connection closed")
                                .finish();
  EXPECT_THAT(marks(timeline, lctimeline::kDataUploadLane, MarkStyle::kFailed), ElementsAre());
  EXPECT_THAT(marks(timeline, lctimeline::kDataUploadLane, MarkStyle::kNote),
              ElementsAre("closed"));
}

TEST(Timeline, AConnectionThatIsNotBegunIsMarked) {
  const Timeline timeline = Log()
                                .connected()
                                .at(5, "Relay server client connection failed")
                                .at(6, "Serving thread has not stopped, not connecting.")
                                .finish();
  EXPECT_THAT(marks(timeline, lctimeline::kRelayLane, MarkStyle::kFailed),
              ElementsAre("no connection begun: the host does not resolve"));
  EXPECT_THAT(marks(timeline, lctimeline::kServiceLane, MarkStyle::kFailed),
              ElementsAre("a connection could not be begun"));
}

TEST(Timeline, TheTimeBetweenTwoRunsIsNobodys) {
  const Timeline timeline = Log()
                                .at(0, "Build@ x y")
                                .at(1, "Exiting socket thread")
                                .at(4, "[ST]:BT installed for x")
                                .at(4, "Build@ x y")
                                .at(5, "Exiting socket thread")
                                .finish();
  EXPECT_EQ(2, timeline.starts);
  EXPECT_EQ(3 * kSecond, spent(timeline, Style::kDown));
  EXPECT_EQ(2 * kSecond, spent(timeline, Style::kStarting));
}

TEST(Timeline, AServiceThatWasKilledIsDownSinceItsLastLine) {
  const Timeline timeline = Log().written().at(60, "Build@ x y").finish();
  EXPECT_EQ(50 * kSecond, spent(timeline, Style::kDown));
  EXPECT_EQ(0, spent(timeline, Style::kAnswer));
  EXPECT_EQ(2, timeline.starts);
  expect_no_time_missing(timeline);
}

TEST(Timeline, ASignalAndACrashEndARun) {
  const Timeline timeline = Log()
                                .connected()
                                .at(5, "[ST]:----- stack trace start 1770109505------")
                                .at(5, "[ST]: signal received 11")
                                .at(9, "Build@ x y")
                                .finish();
  EXPECT_EQ(1, timeline.crashes);
  EXPECT_EQ(4 * kSecond, spent(timeline, Style::kDown));
  EXPECT_THAT(marks(timeline, lctimeline::kServiceLane, MarkStyle::kFailed),
              ElementsAre("crashed, stack trace in the log", "ended by signal 11"));
}

TEST(Timeline, TheExitForInactivityIsMarked) {
  const Timeline timeline =
      Log().connected().at(5, "LC thread: exit due to no activity 1").at(8, "x").finish();
  EXPECT_EQ(3 * kSecond, spent(timeline, Style::kEnding));
  EXPECT_THAT(marks(timeline, lctimeline::kServiceLane, MarkStyle::kFailed),
              ElementsAre("exit: nothing was sent for too long"));
}

TEST(Timeline, TheConfigurationThreadsNewsAreMarkedAndWifiIsABar) {
  const Timeline timeline = Log()
                                .at(0, "Build@ x y")
                                .at(1, "PushpullLC thread: Setting system id AB")
                                .at(1, "PushpullLC thread: wifi now associated")
                                .at(4, "PushpullLC thread: wifi is not associated")
                                .at(5, "PushpullLC thread: Unable to register with pushpull")
                                .at(6, "PushpullLC thread: wifi now associated")
                                .at(8, "PushpullLC thread: Exiting thread")
                                .finish();
  EXPECT_THAT(bars(timeline, lctimeline::kConfigurationLane),
              ElementsAre(Pair(Style::kWifi, 3), Pair(Style::kWifi, 2)));
  EXPECT_THAT(marks(timeline, lctimeline::kConfigurationLane, MarkStyle::kNote),
              ElementsAre("Setting system id AB"));
  EXPECT_THAT(marks(timeline, lctimeline::kConfigurationLane, MarkStyle::kFailed),
              ElementsAre("wifi is not associated", "Unable to register with pushpull"));
}

TEST(Timeline, WithoutDebugMessagesAFileStillFindsItsLane) {
  const Timeline timeline = Log()
                                .at(0, std::string("Filename ") + kFile + " is not read only")
                                .at(6, std::string("Sending ") + kFile + " went okay")
                                .finish();
  EXPECT_EQ(1, timeline.kind_totals.at(kDebug).sent);
  EXPECT_EQ(6 * kSecond, timeline.kind_totals.at(kDebug).busy);
}

TEST(Timeline, AKindThatNobodyKnowsIsDrawnInTheServicesLane) {
  const Timeline timeline =
      Log()
          .at(0, "1 not read only files found for filetype 99 at directory /x")
          .at(0, "Filename /x/a.gz is not read only")
          .at(6, "Sending /x/a.gz went okay")
          .finish();
  EXPECT_THAT(marks(timeline, lctimeline::kServiceLane, MarkStyle::kSent),
              ElementsAre("a.gz sent"));
}

TEST(Timeline, AClockThatGoesBackMovesTheRestOn) {
  const Timeline timeline = Log()
                                .at(0, "Build@ x y")
                                .at(10, "Bypassing random delay values for all log types")
                                .at(-3600, "x")
                                .at(-3595, "Exiting socket thread")
                                .finish();
  EXPECT_EQ(1, timeline.clock_jumps);
  EXPECT_EQ(15 * kSecond, timeline.end - timeline.begin);
  expect_no_time_missing(timeline);
}

TEST(Timeline, ThreadsThatOvertakeEachOtherAreNoJump) {
  const Timeline timeline = Log().at(0, "Build@ x y").at(5, "x").at(4.5, "y").at(6, "z").finish();
  EXPECT_EQ(0, timeline.clock_jumps);
  EXPECT_EQ(6 * kSecond, timeline.end - timeline.begin);
}

TEST(Timeline, ForeignAndBrokenLinesAreCounted) {
  const Timeline timeline = Log()
                                .line(LineKind::kForeign)
                                .line(LineKind::kBroken)
                                .line(LineKind::kBroken)
                                .line(LineKind::kBlank)
                                .finish();
  EXPECT_EQ(0, timeline.service_lines);
  EXPECT_EQ(1, timeline.foreign_lines);
  EXPECT_EQ(2, timeline.broken_lines);
}

TEST(Timeline, AnyOrderOfTheServicesMessagesIsTaken) {
  const std::vector<std::string> texts = [] {
    std::vector<std::string> all;
    for (std::string text : lctimeline::known_formats()) {
      for (std::size_t at = 0; (at = text.find('%', at)) != std::string::npos;)
        text.replace(at, 2, "1");
      all.push_back(text);
    }
    return all;
  }();
  Log log;
  double now = 0;
  unsigned state = 1;
  constexpr int kLines = 20000;
  for (int line = 0; line < kLines; ++line) {
    state = state * 1103515245U + 12345U;
    log.at(now += 0.5, texts.at((state >> 16U) % texts.size()));
  }
  const Timeline timeline = log.finish();
  EXPECT_EQ(kLines, timeline.service_lines);
  expect_no_time_missing(timeline);
  for (const Span& span : timeline.spans) {
    EXPECT_LT(span.begin, span.end);
    EXPECT_LT(span.lane, std::size_t{lctimeline::kLaneCount});
  }
}
