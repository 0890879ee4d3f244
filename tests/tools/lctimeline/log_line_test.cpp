#include "tools/lctimeline/log_line.h"

#include <gtest/gtest.h>

#include <string>

using lctimeline::kSecond;
using lctimeline::LineKind;
using lctimeline::LogLine;
using lctimeline::Microseconds;
using lctimeline::parse_iso_time;
using lctimeline::parse_line;

namespace {

constexpr Microseconds kDay = 86400 * kSecond;
constexpr Microseconds kThirdOfFebruary = 1770109500 * kSecond;  // 2026-02-03 09:05:00 UTC
constexpr Microseconds kWritten = kThirdOfFebruary + kDay;

void expect_service(const std::string& line, Microseconds time, const std::string& text) {
  const LogLine parsed = parse_line(line, kWritten);
  EXPECT_EQ(LineKind::kService, parsed.kind) << line;
  EXPECT_EQ(time, parsed.time) << line;
  EXPECT_EQ(text, parsed.text) << line;
}

void expect_kind(LineKind kind, const std::string& line) {
  EXPECT_EQ(kind, parse_line(line, kWritten).kind) << line;
}

}  // namespace

TEST(LogLine, ReadsJournalctlShortIsoPrecise) {
  expect_service("2026-02-03T09:05:00.123456+0000 box LogConsumer[12]: Send error",
                 kThirdOfFebruary + 123456, "Send error");
}

TEST(LogLine, ReadsJournalctlShortIsoAndTakesItsZoneAway) {
  expect_service("2026-02-03T10:05:00+0100 box LogConsumer[12]: Send error", kThirdOfFebruary,
                 "Send error");
  expect_service("2026-02-03T04:35:00-04:30 box LogConsumer[12]: Send error", kThirdOfFebruary,
                 "Send error");
}

TEST(LogLine, ReadsRsyslogsRfc3339) {
  expect_service("2026-02-03T09:05:00.123456+00:00 box LogConsumer: Send error",
                 kThirdOfFebruary + 123456, "Send error");
}

TEST(LogLine, ReadsTheJournalsJson) {
  expect_service(R"({"__REALTIME_TIMESTAMP":"1770109500000007","SYSLOG_IDENTIFIER":"LogConsumer",)"
                 R"("_PID":"12","PRIORITY":"6","MESSAGE":"Send error"})",
                 kThirdOfFebruary + 7, "Send error");
}

TEST(LogLine, ReadsAMessageThatTheJournalWroteAsBytes) {
  expect_service(R"({"__REALTIME_TIMESTAMP":"1770109500000000","SYSLOG_IDENTIFIER":"LogConsumer",)"
                 R"("MESSAGE":[83,101,110,255]})",
                 kThirdOfFebruary, "Sen\xff");
}

TEST(LogLine, ReadsPlainSyslog) {
  expect_service("Feb  3 09:05:00 box LogConsumer: Send error", kThirdOfFebruary, "Send error");
  expect_service("Feb 13 09:05:00 box LogConsumer[7]: Send error",
                 kThirdOfFebruary + 10 * kDay - 365 * kDay, "Send error");
}

TEST(LogLine, ReadsBusyBoxSyslog) {
  expect_service("Feb  3 09:05:00 box user.info LogConsumer: Send error", kThirdOfFebruary,
                 "Send error");
}

TEST(LogLine, ReadsTheLabsRecord) {
  expect_service(
      R"({"time":"2026-02-03T09:05:00.123Z","priority":6,"facility":1,"ident":"LogConsumer",)"
      R"("pid":0,"text":"Send error"})",
      kThirdOfFebruary + 123000, "Send error");
}

TEST(LogLine, KnowsTheServiceBeforeItOpensSyslog) {
  expect_service("Feb  3 09:05:00 box log_consumer: [ST]:BT installed for x", kThirdOfFebruary,
                 "[ST]:BT installed for x");
}

TEST(LogLine, TakesTheLineEndOffAMessage) {
  expect_service(R"({"time":"2026-02-03T09:05:00Z","ident":"LogConsumer","text":"a b\n"})",
                 kThirdOfFebruary, "a b");
}

TEST(LogLine, PutsADateWithoutAYearIntoTheLatestThatFits) {
  const std::string line = "Feb  3 09:05:00 box LogConsumer: x";
  EXPECT_EQ(kThirdOfFebruary, parse_line(line, kThirdOfFebruary).time);
  EXPECT_EQ(kThirdOfFebruary, parse_line(line, kThirdOfFebruary - kDay).time);
  EXPECT_EQ(kThirdOfFebruary - 365 * kDay, parse_line(line, kThirdOfFebruary - kDay - 1).time);
}

TEST(LogLine, KnowsLeapYears) {
  EXPECT_EQ(1709164800 * kSecond, *parse_iso_time("2024-02-29T00:00:00Z"));
  EXPECT_EQ(1709251200 * kSecond, *parse_iso_time("2024-03-01T00:00:00Z"));
  EXPECT_EQ(951782400 * kSecond, *parse_iso_time("2000-02-29 00:00:00"));
}

TEST(LogLine, LeavesOtherProgramsLinesAlone) {
  expect_kind(LineKind::kForeign, "2026-02-03T09:05:00+0000 box sshd[1]: LogConsumer: no");
  expect_kind(LineKind::kForeign, "Feb  3 09:05:00 box kernel: usb 1-1: new device");
  expect_kind(LineKind::kForeign, "Feb  3 09:05:00 box last message repeated 3 times");
  expect_kind(LineKind::kForeign, "-- Boot 9e3f --");
  expect_kind(LineKind::kForeign,
              R"({"__REALTIME_TIMESTAMP":"1","SYSLOG_IDENTIFIER":"cron","MESSAGE":"x"})");
  expect_kind(LineKind::kForeign, R"({"event":"ready","path":"/dev/log"})");
  expect_kind(LineKind::kForeign, R"({"time":"2026-02-03T09:05:00Z","raw":"noise"})");
}

TEST(LogLine, CallsWhatItCannotReadBroken) {
  expect_kind(LineKind::kBroken, "no log line");
  expect_kind(LineKind::kBroken, "2026-02-03T09:05");
  expect_kind(LineKind::kBroken, "2026-13-03T09:05:00Z box LogConsumer: x");
  expect_kind(LineKind::kBroken, "2026-02-03T25:05:00Z box LogConsumer: x");
  expect_kind(LineKind::kBroken, "2026-02-03T09:05:00. box LogConsumer: x");
  expect_kind(LineKind::kBroken, "2026-02-03T09:05:00+1 box LogConsumer: x");
  expect_kind(LineKind::kBroken, "Foo  3 09:05:00 box LogConsumer: x");
  expect_kind(LineKind::kBroken, "Feb  3 09:05 box LogConsumer: x");
  expect_kind(LineKind::kBroken, R"({"time":)");
  expect_kind(LineKind::kBroken, R"({"time":"yesterday","ident":"LogConsumer","text":"x"})");
  expect_kind(LineKind::kBroken,
              R"({"__REALTIME_TIMESTAMP":"soon","SYSLOG_IDENTIFIER":"LogConsumer"})");
  expect_kind(LineKind::kBroken,
              R"({"__REALTIME_TIMESTAMP":"-1","SYSLOG_IDENTIFIER":"LogConsumer"})");
}

TEST(LogLine, KnowsBlankLines) {
  expect_kind(LineKind::kBlank, "");
  expect_kind(LineKind::kBlank, " \t\r");
}
