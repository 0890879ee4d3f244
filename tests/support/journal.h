// What the code under test did to the outside, in order.
//
// Test programs that link `test_fakes` replace syslog(), openlog(), sleep(), usleep(), time() and
// clock_gettime() for every object linked into them. The fakes write into one journal, so that a
// test can compare texts, priorities, pauses and their order.
//
// Fuzz targets link `test_journal`, which leaves the clock alone: libFuzzer sleeps on a thread of
// its own and reads the clock in a signal handler, where a lock may be held already.
#ifndef TESTS_SUPPORT_JOURNAL_H
#define TESTS_SUPPORT_JOURNAL_H

#include <functional>
#include <string>
#include <vector>

namespace test_support {

/// One line of the journal: "syslog 6 Enabling logging", "sleep 5", "usleep 1000000",
/// "openlog LogConsumer 4 8", or whatever a test's own double notes.
using Journal = std::vector<std::string>;

/// Appends a line. Any thread.
void note(std::string line);

/// A copy of all lines so far. Any thread.
Journal journal();

/// The lines that begin with `prefix`, e.g. "syslog " or "sleep ".
Journal journal(const std::string& prefix);

/// How many lines are exactly `line`.
std::size_t count(const std::string& line);

/// Forgets all lines; fixtures call it in SetUp.
void clear_journal();

/// Called with each line that is noted, afterwards and on the thread that noted it; lets a test act
/// between two lines. An empty function ends it.
void on_note(std::function<void(const std::string& line)> hook);

/// Waits in real time until `condition` holds, looking every 2 ms.
/// @return false when it does not hold within `seconds` (generous: a busy machine is no failure).
template <typename Condition>
bool eventually(Condition condition, int seconds = 60);

bool wait_a_little();  // 2 ms of real time; always true

}  // namespace test_support

template <typename Condition>
bool test_support::eventually(Condition condition, int seconds) {
  constexpr int kLooksPerSecond = 500;  // counted, not timed: the clocks may be replaced ones
  for (int looks = seconds * kLooksPerSecond; looks > 0; --looks) {
    if (condition()) return true;
    wait_a_little();
  }
  return condition();
}

#endif
