#include "tools/lctimeline/drawing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tools/lctimeline/run.h"
#include "tools/lctimeline/summary.h"

using lctimeline::kSecond;
using lctimeline::Microseconds;
using lctimeline::Timeline;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string golden(const std::string& name) {
  std::ostringstream text;
  text << std::ifstream(std::string(GOLDEN_DIR "/") + name).rdbuf();
  return text.str();
}

Timeline read(const std::string& log) {
  std::istringstream input(log);
  lctimeline::TimelineBuilder builder;
  lctimeline::read_log(input, 0, builder);
  return builder.finish();
}

std::string stamped(long second, const std::string& text) {
  std::string time = lctimeline::date_and_time((1770109500 + second) * kSecond);
  time[10] = 'T';
  return time + "Z box LogConsumer[1]: " + text + "\n";
}

// A service that finds and sends a file every six seconds.
std::string long_log(int files) {
  std::string log = stamped(0, "Build@ x y");
  for (int file = 0; file < files; ++file) {
    const std::string path = "/tarv/data/logs/debug/" + std::to_string(file) + ".gz";
    const long at = 6L * file;
    log += stamped(at, "Filename " + path + " is not read only");
    log += stamped(at, "Sleeping 5 seconds before next file send");
    log += stamped(at + 5, "Writing file to mg_write");
    log += stamped(at + 6, "Got 200 good resp from server");
    log += stamped(at + 6, "Sending " + path + " went okay");
  }
  return log;
}

std::size_t times(const std::string& text, const std::string& word) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos; ++at)
    ++count;
  return count;
}

}  // namespace

// The golden files are what `lctimeline -s failures.svg golden/failures.jsonl` writes and prints.
TEST(Drawing, ARecordWithFailuresGivesThisPicture) {
  EXPECT_EQ(golden("failures.svg"), lctimeline::svg_picture(read(golden("failures.jsonl"))));
}

TEST(Drawing, ARecordWithFailuresGivesThisSummary) {
  EXPECT_EQ(golden("failures.txt"), lctimeline::summary(read(golden("failures.jsonl"))));
}

TEST(Drawing, ThePageNeedsNothingFromOutside) {
  const std::string page = lctimeline::html_page(read(golden("failures.jsonl")));
  EXPECT_THAT(page, HasSubstr("<title>measurements_0905.gz: pause before a file\n"));
  for (const char* foreign : {"<script", "src=", "href=", "url(", "@import"}) {
    EXPECT_THAT(page, Not(HasSubstr(foreign)));
  }
  EXPECT_EQ(times(page, "<svg "), times(page, "://")) << "an address besides SVG's own name";
}

TEST(Drawing, EveryBarTellsItsTimes) {
  const std::string svg = lctimeline::svg_picture(read(long_log(1)));
  EXPECT_THAT(svg, HasSubstr("<title>0.gz: pause before a file\n"
                             "09:05:00.000 to 09:05:05.000, 5.000 s</title>"));
  EXPECT_THAT(svg, HasSubstr("<title>09:05:06.000 0.gz sent</title>"));
}

TEST(Drawing, NothingOfTheServiceIsSaidAndStillAPicture) {
  const Timeline nothing = read("Feb  3 09:05:00 box sshd: x\nnoise\n");
  EXPECT_EQ("Nothing of the service in 2 lines, 1 of them not readable.\n",
            lctimeline::summary(nothing));
  EXPECT_THAT(lctimeline::html_page(nothing), HasSubstr("Nothing of the log consumer"));
  EXPECT_THAT(lctimeline::svg_picture(nothing), HasSubstr("</svg>"));
}

TEST(Drawing, ForeignLinesInBetweenChangeNothing) {
  const std::string log = long_log(3);
  std::string mixed;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    mixed += "Feb  3 09:05:00 box kernel: x\n" + line + "\r\n\nnoise \xff\n";
  EXPECT_EQ(lctimeline::svg_picture(read(log)), lctimeline::svg_picture(read(mixed)));
  EXPECT_THAT(lctimeline::summary(read(mixed)), HasSubstr("16 of others, 16 not readable"));
}

TEST(Drawing, APictureOfAnyLengthStaysSmall) {
  constexpr int kDaysOfFiles = 20000;
  const Timeline timeline = read(long_log(kDaysOfFiles));
  EXPECT_EQ(kDaysOfFiles, timeline.kind_totals.at(5).sent);
  const std::string svg = lctimeline::svg_picture(timeline);
  EXPECT_LT(svg.size(), 4U << 20U);
  EXPECT_NE(std::string::npos,
            svg.find("<title>pause before a file, 16 times, together 1:20 min\n"));
  EXPECT_NE(std::string::npos, svg.find(" 3.gz sent\nand 13 more</title>"));
  EXPECT_LT(times(svg, "text-anchor"), 200U) << "labels that would lie over each other";
}

TEST(Drawing, TextIsSafeInMarkup) {
  EXPECT_EQ("a&lt;b&gt;&amp;&quot;", lctimeline::xml_text("a<b>&\""));
  EXPECT_EQ("\uFFFD\uFFFD\n", lctimeline::xml_text("\xff\x01\n"));
  EXPECT_EQ("gr\u00fc\u00df", lctimeline::xml_text("gr\u00fc\u00df"));
}

TEST(Drawing, AFileNameCannotBecomeMarkup) {
  const std::string evil = "/tarv/data/logs/debug/<script>alert(1)</script>.gz";
  const Timeline timeline = read(stamped(0, "Filename " + evil + " is not read only") +
                                 stamped(6, "Sending " + evil + " went okay"));
  EXPECT_THAT(lctimeline::html_page(timeline), Not(HasSubstr("<script")));
}

TEST(Summary, LengthsOfTimeReadWell) {
  EXPECT_EQ("0.000 s", lctimeline::duration(0));
  EXPECT_EQ("9.999 s", lctimeline::duration(10 * kSecond - 1000));
  EXPECT_EQ("10.0 s", lctimeline::duration(10 * kSecond));
  EXPECT_EQ("1:00 min", lctimeline::duration(60 * kSecond));
  EXPECT_EQ("59:59 min", lctimeline::duration(3599 * kSecond));
  EXPECT_EQ("1:00:00 h", lctimeline::duration(3600 * kSecond));
}
