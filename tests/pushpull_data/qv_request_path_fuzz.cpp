// Any text as a request path, checked against the rules written out a second time.
#include <algorithm>
#include <vector>

#include "pushpull_data/qv_pushpull_utilities.h"
#include "tests/support/fuzz.h"
#include "tests/support/journal.h"

namespace {

using test_support::must_hold;

struct Judgement {
  bool result = false;
  std::string node;          // when the result is true
  std::size_t dangling = 0;  // empty segments on the way
  std::size_t errors = 0;    // lines of error priority
};

std::vector<std::string> segments_of(const std::string& path) {
  std::vector<std::string> segments(1);
  for (std::size_t i = 1; i < path.size(); ++i) {
    if (path[i] == '/') {
      segments.emplace_back();
    } else {
      segments.back() += path[i];
    }
  }
  return segments;
}

bool is_number(const std::string& text) {
  const std::size_t digits = text[0] == '-' ? 1 : 0;
  return text.size() > digits && text.find_first_not_of("0123456789", digits) == std::string::npos;
}

Judgement judge(const std::string& path) {
  Judgement judgement;
  if (path.empty()) return {false, "", 0, 2};  // not even the "/" that is passed over
  std::string before;
  for (const std::string& segment : segments_of(path)) {
    if (segment.empty()) {
      ++judgement.dangling;
    } else if (segment != "size" || before.empty()) {
      before = segment;
    } else if (is_number(before)) {
      judgement.errors = 1;
      return judgement;
    } else {
      judgement.result = true;
      judgement.node = path.substr(0, path.find("/size"));
      return judgement;
    }
  }
  return judgement;
}

std::size_t lines_with(const std::string& text) {
  const test_support::Journal lines = test_support::journal();
  return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
    return line.find(text) != std::string::npos;
  }));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = test_support::fuzz_text(data, size);
  test_support::clear_journal();
  std::string node = "untouched";
  const bool result = CheckSizeRequested(path, &node);
  const Judgement expected = judge(path);
  must_hold(result == expected.result, "whether a size is asked for");
  must_hold(node == (result ? expected.node : "untouched"), "of which node");
  must_hold(lines_with("Root path or dangling") == expected.dangling, "a line for each empty name");
  must_hold(test_support::journal("syslog 3 ").size() == expected.errors, "error lines");
  return 0;
}
