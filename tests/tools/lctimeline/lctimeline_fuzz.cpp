// Any bytes as a log.
#include <sstream>

#include "tests/support/fuzz.h"
#include "tools/lctimeline/drawing.h"
#include "tools/lctimeline/run.h"
#include "tools/lctimeline/summary.h"

using test_support::must_hold;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = test_support::fuzz_text(data, size);
  std::istringstream input(text);
  lctimeline::TimelineBuilder builder;
  lctimeline::read_log(input, 1770109500 * lctimeline::kSecond, builder);
  const lctimeline::Timeline timeline = builder.finish();
  long lines = 0;
  std::istringstream again(text);
  for (std::string line; std::getline(again, line);) {
    if (line.find_first_not_of(" \t\r\n") != std::string::npos) ++lines;
  }
  must_hold(lines == timeline.service_lines + timeline.foreign_lines + timeline.broken_lines,
            "every line is counted once");
  lctimeline::Microseconds spent = 0;
  for (const lctimeline::Microseconds part : timeline.spent)
    spent += part;
  must_hold(spent == timeline.end - timeline.begin, "no time is missing");
  constexpr std::size_t kPictures = 16;  // drawing costs more than all the rest
  if (size % kPictures != 0) return 0;
  must_hold(!lctimeline::summary(timeline).empty(), "there is always a summary");
  must_hold(lctimeline::html_page(timeline).find("<script") == std::string::npos,
            "nothing of the log becomes markup");
  return 0;
}
