#include "os/linux/backtrace/qv_backtrace.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "os/linux/backtrace/qv_backtrace_frame.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

namespace {

using test_support::clear_journal;
using test_support::Journal;
using test_support::journal;
using testing::Each;
using testing::ElementsAre;

// What the replaced backtrace() and backtrace_symbols() give; see below.
struct Stack {
  bool replaced = false;
  std::vector<std::string> lines;
  std::vector<std::uintptr_t> addresses;
};
Stack stack;

}  // namespace

// The linker puts these in place of the C library's for the code under test.
extern "C" {

int __real_sigaction(int signal, const struct sigaction* action, struct sigaction* before);
int __wrap_sigaction(int signal, const struct sigaction* action, struct sigaction* before) {
  if (action != nullptr) test_support::note("sigaction " + std::to_string(signal));
  return __real_sigaction(signal, action, before);
}

int __real_backtrace(void** addresses, int size);
int __wrap_backtrace(void** addresses, int size) {
  if (!stack.replaced) return __real_backtrace(addresses, size);
  test_support::note("backtrace " + std::to_string(size));
  const int count = std::min(size, static_cast<int>(stack.addresses.size()));
  for (int i = 0; i < count; ++i) {
    std::memcpy(&addresses[i], &stack.addresses[static_cast<std::size_t>(i)], sizeof(void*));
  }
  return count;
}

// One block, as from the C library: the pointers, then the texts.
char** __wrap_backtrace_symbols(void* const* /*addresses*/, int size) {
  const auto count = static_cast<std::size_t>(size);
  std::size_t bytes = count * sizeof(char*);
  for (std::size_t i = 0; i < count; ++i)
    bytes += stack.lines[i].size() + 1;
  auto* block = static_cast<char**>(std::malloc(bytes));
  char* text = reinterpret_cast<char*>(block + count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t size_with_end = stack.lines[i].size() + 1;
    block[i] = text;
    std::memcpy(text, stack.lines[i].c_str(), size_with_end);
    text += size_with_end;
  }
  return block;
}

}  // extern "C"

namespace {

constexpr int kNone[] = {-1};

void callback(int signal) {
  test_support::note("callback " + std::to_string(signal));
}

/// Gives the signals that the tests use their handlers back.
class Install : public testing::Test {
 protected:
  void SetUp() override {
    for (const int signal : kSignals)
      sigaction(signal, nullptr, &before_[index(signal)]);
    clear_journal();
  }
  void TearDown() override {
    for (const int signal : kSignals)
      sigaction(signal, &before_[index(signal)], nullptr);
  }

  static struct sigaction handler_of(int signal) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return action;
  }
  static bool is_installed(int signal) {
    const struct sigaction action = handler_of(signal);
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == qv_bt_signal_handler;
  }

  static constexpr std::array<int, 4> kSignals = {SIGUSR1, SIGUSR2, SIGWINCH, SIGURG};
  static std::size_t index(int signal) {
    return static_cast<std::size_t>(std::find(kSignals.begin(), kSignals.end(), signal) -
                                    kSignals.begin());
  }
  std::array<struct sigaction, 4> before_ = {};
};

TEST_F(Install, InstallsTraceSignalsFirstThenTheOthersInListOrder) {
  const int trace[] = {SIGUSR2, SIGUSR1, -1};
  const int call[] = {SIGWINCH, SIGURG, -1};
  EXPECT_EQ(qv_bt_install("./log_consumer", trace, call, callback), 0);
  EXPECT_EQ(journal(), (Journal{"sigaction 12", "sigaction 10", "sigaction 28", "sigaction 23",
                                "syslog 7 [ST]:BT installed for ./log_consumer\n"}));
}

TEST_F(Install, SignalOfBothListsIsInstalledOnce) {
  const int trace[] = {SIGUSR1, -1};
  const int call[] = {SIGUSR2, SIGUSR1, -1};
  EXPECT_EQ(qv_bt_install("x", trace, call, callback), 0);
  EXPECT_EQ(journal(),
            (Journal{"sigaction 10", "sigaction 12", "syslog 7 [ST]:BT installed for x\n"}));
}

TEST_F(Install, HandlerTakesThreeArgumentsRestartsCallsAndBlocksNothing) {
  const int trace[] = {SIGUSR1, -1};
  ASSERT_EQ(qv_bt_install("x", trace, nullptr, callback), 0);
  struct sigaction action = handler_of(SIGUSR1);
  EXPECT_TRUE(action.sa_sigaction == qv_bt_signal_handler);
  constexpr int kRestorer = 0x04000000;  // the C library's own, on some machines
  EXPECT_EQ(action.sa_flags & ~kRestorer, 0x10000004);
  for (int signal = 1; signal <= SIGSYS; ++signal) {
    EXPECT_EQ(sigismember(&action.sa_mask, signal), 0) << signal;
  }
}

TEST_F(Install, KeepsListsAndCallback) {
  const int trace[] = {SIGUSR1, -1, SIGURG};
  const int call[] = {SIGUSR2, SIGWINCH, -1};
  ASSERT_EQ(qv_bt_install("x", trace, call, callback), 0);
  EXPECT_THAT(btConfig.stackTraceSignals,
              ElementsAre(SIGUSR1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1));
  EXPECT_THAT(btConfig.callBackSignals,
              ElementsAre(SIGUSR2, SIGWINCH, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1));
  EXPECT_EQ(btConfig.callBackFunction, callback);
  EXPECT_FALSE(is_installed(SIGURG)) << "behind the end of its list";
}

TEST_F(Install, ListGivenAsNullLeavesItsEntriesAtMinusOne) {
  const int signals[] = {SIGUSR1, -1};
  ASSERT_EQ(qv_bt_install("x", signals, signals, callback), 0);
  ASSERT_EQ(qv_bt_install("x", nullptr, nullptr, nullptr), 0);
  EXPECT_THAT(btConfig.stackTraceSignals, Each(-1));
  EXPECT_THAT(btConfig.callBackSignals, Each(-1));
  EXPECT_EQ(btConfig.callBackFunction, nullptr);
}

TEST_F(Install, ListOfMoreThan15EntriesIsCut) {
  const std::vector<int> trace(15, SIGUSR1);
  std::vector<int> longer = trace;
  longer.push_back(SIGUSR2);  // the sixteenth, and no -1 behind it
  ASSERT_EQ(qv_bt_install("x", longer.data(), longer.data(), callback), 0);
  EXPECT_THAT(btConfig.stackTraceSignals, Each(SIGUSR1));
  EXPECT_THAT(btConfig.callBackSignals, Each(SIGUSR1));
  EXPECT_FALSE(is_installed(SIGUSR2));
}

TEST_F(Install, StopsAtASignalThatCannotBeHandled) {
  const int trace[] = {SIGUSR1, SIGKILL, SIGUSR2, -1};
  const int call[] = {SIGWINCH, -1};
  EXPECT_EQ(qv_bt_install("x", trace, call, callback), -1);
  EXPECT_EQ(journal(), (Journal{"sigaction 10", "sigaction 9",
                                "syslog 3 [ST]: error setting signal handler for 9 (Killed)\n"}));
  EXPECT_TRUE(is_installed(SIGUSR1));
  EXPECT_FALSE(is_installed(SIGUSR2));
  EXPECT_FALSE(is_installed(SIGWINCH));
}

TEST_F(Install, StopsAtACallbackSignalThatCannotBeHandled) {
  const int trace[] = {SIGUSR1, -1};
  const int call[] = {1000, SIGUSR2, -1};
  EXPECT_EQ(qv_bt_install("x", trace, call, callback), -1);
  EXPECT_EQ(journal().back(),
            "syslog 3 [ST]: error setting signal handler for 1000 (Unknown signal 1000)\n");
  EXPECT_TRUE(is_installed(SIGUSR1));
  EXPECT_FALSE(is_installed(SIGUSR2));
}

TEST_F(Install, TakesNoTrace) {
  stack = {true, {}, {}};
  ASSERT_EQ(qv_bt_install("x", kNone, kNone, callback), 0);
  stack = {};
  EXPECT_EQ(journal(), Journal{"syslog 7 [ST]:BT installed for x\n"});
}

TEST(SignalList, EndsAtMinusOneOrAfter15Entries) {
  std::vector<int> list(16, 3);
  list[14] = 5;
  list[15] = 6;
  EXPECT_TRUE(qv_bt_signal_in_list(3, list.data()));
  EXPECT_TRUE(qv_bt_signal_in_list(5, list.data()));
  EXPECT_FALSE(qv_bt_signal_in_list(6, list.data()));
  list[1] = -1;
  EXPECT_TRUE(qv_bt_signal_in_list(3, list.data()));
  EXPECT_FALSE(qv_bt_signal_in_list(5, list.data()));
  EXPECT_FALSE(qv_bt_signal_in_list(-1, list.data()));
  EXPECT_FALSE(qv_bt_signal_in_list(3, kNone));
}

// The parts of a frame's text.

struct Parsed {
  const char* line;
  bool has_name;
  const char* module;
  const char* name;
  const char* offset;
};

class StackFrameText : public testing::TestWithParam<Parsed> {};

TEST_P(StackFrameText, IsSplit) {
  const std::string line = GetParam().line;
  const auto marks = findStackFrameMarks(line);
  ASSERT_EQ(marks.has_value(), GetParam().has_name) << line;
  if (!marks) return;
  EXPECT_EQ(line.substr(0, marks->open), GetParam().module);
  EXPECT_EQ(line.substr(marks->open + 1, marks->plus - marks->open - 1), GetParam().name);
  EXPECT_EQ(line.substr(marks->plus + 1, marks->close - marks->plus - 1), GetParam().offset);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, StackFrameText,
    testing::Values(
        Parsed{"./log_consumer(_ZN3foo3barEv+0x1a) [0x55d0]", true, "./log_consumer",
               "_ZN3foo3barEv", "0x1a"},
        Parsed{"./log_consumer(main+0x1a) [0x55d0]", true, "./log_consumer", "main", "0x1a"},
        Parsed{"/lib/libc.so.6(+0x3c050) [0x7f12]", true, "/lib/libc.so.6", "", "0x3c050"},
        Parsed{"/usr/lib/libstdc++.so.6(f+0x1) [0x7f]", true, "/usr/lib/libstdc++.so.6", "f",
               "0x1"},
        Parsed{"module(f+)", true, "module", "f", ""}, Parsed{"(f+1)", true, "", "f", "1"},
        Parsed{"(+)", true, "", "", ""},
        // the last ones before the end count
        Parsed{"a (deleted)(f+1) [2]", true, "a (deleted)", "f", "1"},
        Parsed{"m(f(g+1)", true, "m(f", "g", "1"}, Parsed{"m(f+1+2)", true, "m", "f+1", "2"},
        Parsed{"m(f+1) [2] (g+3)", true, "m", "f", "1"}, Parsed{"(x) m+1)", true, "", "x) m", "1"},
        // a parenthesis closes only behind a plus sign, and the first that does ends the scan
        Parsed{"libstdc++.so (deleted)(f+1)", false, "", "", ""},
        Parsed{"m(f+1(g) (h+2)", false, "", "", ""},
        // something is missing
        Parsed{"", false, "", "", ""}, Parsed{"./log_consumer() [0x55d0]", false, "", "", ""},
        Parsed{"./log_consumer [0x55d0]", false, "", "", ""}, Parsed{"[0x55d0]", false, "", "", ""},
        Parsed{"m(f) [0x55d0]", false, "", "", ""}, Parsed{"m(f+1 [0x55d0]", false, "", "", ""},
        Parsed{"m f+1) [0x55d0]", false, "", "", ""}, Parsed{"m+1(f) [0x55d0]", false, "", "", ""},
        Parsed{"(", false, "", "", ""}, Parsed{"+", false, "", "", ""},
        Parsed{")", false, "", "", ""}, Parsed{"+)", false, "", "", ""},
        Parsed{"()", false, "", "", ""}));

// The trace, of stacks made up.

class StackTrace : public testing::Test {
 protected:
  void SetUp() override {
    clear_journal();
    stack = {true, {"print_stacktrace's own"}, {1}};
  }
  void TearDown() override { stack = {}; }

  static void add(const std::string& line, std::uintptr_t address) {
    stack.lines.push_back(line);
    stack.addresses.push_back(address);
  }

  /// The frames' lines of the trace.
  static Journal frames() {
    print_stacktrace();
    Journal lines = journal("syslog ");
    EXPECT_EQ(lines.front(), "syslog 3 [ST]:----- stack trace start 1770109500------\n");
    EXPECT_EQ(lines.back(), "syslog 3 [ST]:----- stack trace end ------\n");
    return {lines.begin() + 1, lines.end() - 1};
  }

  test_support::FakeTime clock_{1'770'109'500};
};

TEST_F(StackTrace, NamesAreDemangled) {
  add("./log_consumer(_ZN11LogConsumer7executeEv+0x41) [0x10]", 0x10);
  EXPECT_EQ(frames(), Journal{"syslog 3 [ST]:  ./log_consumer : LogConsumer::execute()+0x41, "
                              "Addr: 10\n"});
}

TEST_F(StackTrace, NameThatDoesNotDemangleStandsAsItIs) {
  add("./log_consumer(main+0x1a) [0x20]", 0x20);
  add("libc.so.6(+0x3c050) [0x30]", 0x30);
  add("./log_consumer(_ZN11LogConsumer+0x1) [0x40]", 0x40);
  EXPECT_EQ(frames(), (Journal{"syslog 3 [ST]:  ./log_consumer : main()+0x1a, Addr: 20\n",
                               "syslog 3 [ST]:  libc.so.6 : ()+0x3c050, Addr: 30\n",
                               "syslog 3 [ST]:  ./log_consumer : _ZN11LogConsumer()+0x1, "
                               "Addr: 40\n"}));
}

TEST_F(StackTrace, LineWithoutANameAndOffsetIsLoggedWhole) {
  add("./log_consumer() [0x10]", 0x10);
  add("[0x20]", 0x20);
  add("", 0x30);
  add("100%s%n", 0x40);
  EXPECT_EQ(frames(), (Journal{"syslog 3 [ST]:  ./log_consumer() [0x10], Addr: 10\n",
                               "syslog 3 [ST]:  [0x20], Addr: 20\n", "syslog 3 [ST]:  , Addr: 30\n",
                               "syslog 3 [ST]:  100%s%n, Addr: 40\n"}));
}

TEST_F(StackTrace, AddressesAreTheLow32Bits) {
  add("m(main+0x1)", UINTPTR_MAX - 0x10);
  EXPECT_EQ(frames(), Journal{"syslog 3 [ST]:  m : main()+0x1, Addr: ffffffef\n"});
}

// 256 bytes are set aside for a demangled name.
TEST_F(StackTrace, LongNamesGrowTheBufferForThoseBehindThem) {
  std::string mangled = "_ZN";
  std::string demangled;
  for (int i = 0; i < 40; ++i) {
    mangled += "20" + std::string(20, static_cast<char>('a' + i % 26));
    demangled += std::string(20, static_cast<char>('a' + i % 26)) + "::";
  }
  add("m(_Z5shortv+0x1)", 1);
  add("m(" + mangled + "4longEv+0x2)", 2);
  add("m(main+0x3)", 3);
  add("m(_Z5shorti+0x4)", 4);
  add("m(" + mangled + "6longerEv+0x5)", 5);
  EXPECT_EQ(frames(), (Journal{"syslog 3 [ST]:  m : short()+0x1, Addr: 1\n",
                               "syslog 3 [ST]:  m : " + demangled + "long()+0x2, Addr: 2\n",
                               "syslog 3 [ST]:  m : main()+0x3, Addr: 3\n",
                               "syslog 3 [ST]:  m : short(int)+0x4, Addr: 4\n",
                               "syslog 3 [ST]:  m : " + demangled + "longer()+0x5, Addr: 5\n"}));
}

TEST_F(StackTrace, HasAtMost64Frames) {
  for (unsigned i = 1; i < 100; ++i)
    add("m(main+0x1)", i);
  const Journal lines = frames();
  EXPECT_EQ(lines.size(), 63U);
  EXPECT_EQ(lines.back(), "syslog 3 [ST]:  m : main()+0x1, Addr: 3f\n");
}

TEST_F(StackTrace, OfOneFrameHasNoLines) {
  EXPECT_EQ(frames(), Journal{});
}

TEST_F(StackTrace, WithoutFramesSaysSoAndHasNoEnd) {
  stack = {true, {}, {}};
  print_stacktrace();
  EXPECT_EQ(journal("syslog "), (Journal{"syslog 3 [ST]:----- stack trace start 1770109500------\n",
                                         "syslog 3 [ST]:  <empty, possibly corrupt>\n"}));
}

}  // namespace
