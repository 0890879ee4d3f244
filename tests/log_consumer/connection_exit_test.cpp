// The process ends while serving threads are in a poll: cleanly, with status 0 and without a word.
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>
#include <tuple>

#include "gtest/gtest.h"
#include "tests/support/scripted_server.h"

namespace {

using test_support::ScriptedServer;

struct Ending {
  int status;
  std::string output;
};

// What the sanitizers do at exit is not what is tested: ThreadSanitizer reports that a signal
// handler calls exit(), which the service's own does knowingly, and waits a second for more;
// LeakSanitizer takes the allocator's lock in that handler.
std::string sanitizerOptions(const std::string& how) {
  const std::string tsan =
      "TSAN_OPTIONS=\"$TSAN_OPTIONS report_signal_unsafe=0 atexit_sleep_ms=20\" ";
  return how == "signal" ? tsan + "ASAN_OPTIONS=\"$ASAN_OPTIONS detect_leaks=0\" " : tsan;
}

Ending runChild(int port, const std::string& when, const std::string& how) {
  const std::string command = sanitizerOptions(how) + "'" + CHILD_PROGRAM + "' " +
                              std::to_string(port) + " " + when + " " + how + " 2>&1";
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  std::array<char, 256> piece = {};
  while (fgets(piece.data(), static_cast<int>(piece.size()), pipe) != nullptr) {
    output += piece.data();
  }
  return {pclose(pipe), output};
}

using Moment = std::tuple<const char*, const char*>;  // when, how

class EndOfProcess : public testing::TestWithParam<Moment> {};

INSTANTIATE_TEST_SUITE_P(Moments, EndOfProcess,
                         testing::Values(Moment{"started", "main"}, Moment{"started", "thread"},
                                         Moment{"connecting", "main"},
                                         Moment{"connecting", "thread"},
                                         Moment{"connected", "main"}, Moment{"connected", "thread"},
                                         Moment{"connected", "signal"}, Moment{"stopping", "main"},
                                         Moment{"stopping", "thread"}),
                         [](const auto& moment) {
                           return std::string(std::get<0>(moment.param)) + "_" +
                                  std::get<1>(moment.param);
                         });

TEST_P(EndOfProcess, IsCleanUnderServingThreads) {
  constexpr int kRuns = 25;
  const auto [when, how] = GetParam();
  const ScriptedServer server({{test_support::read_to_end()}});
  for (int run = 0; run < kRuns; ++run) {
    const Ending ending = runChild(server.port(), when, how);
    ASSERT_TRUE(WIFEXITED(ending.status)) << ending.output;
    ASSERT_EQ(WEXITSTATUS(ending.status), 0) << ending.output;
    ASSERT_EQ(ending.output, "");
  }
}

}  // namespace
