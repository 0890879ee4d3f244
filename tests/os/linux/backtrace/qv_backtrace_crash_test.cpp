// Children that really die, watched through the system log's socket and their exit status.
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using Lines = std::vector<std::string>;

/// The sandbox's /dev/log.
class SystemLog {
 public:
  SystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string("/dev/log").copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(address.sun_path);
    if (bind(socket_, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
      throw std::system_error(errno, std::generic_category(), "bind /dev/log");
    }
  }
  ~SystemLog() { close(socket_); }
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;

  /// Appends what arrives within `milliseconds` of silence, as "PRIORITY TEXT".
  void read_into(Lines& lines, int milliseconds) const {
    struct pollfd event = {socket_, POLLIN, 0};
    while (poll(&event, 1, milliseconds) > 0) {
      std::array<char, 8192> packet = {};
      const ssize_t size = recv(socket_, packet.data(), packet.size(), 0);
      if (size > 0) lines.push_back(simplify({packet.data(), static_cast<std::size_t>(size)}));
    }
  }

 private:
  // "<11>Nov 21 01:41:15 crash_child: text": facility user, priority 3.
  static std::string simplify(const std::string& packet) {
    constexpr int kUser = 1 << 3;
    const std::string tag = " crash_child: ";
    const std::size_t text = packet.find(tag);
    EXPECT_NE(text, std::string::npos) << packet;
    if (text == std::string::npos || packet[0] != '<') return packet;
    return std::to_string(std::stoi(packet.substr(1)) - kUser) + " " +
           packet.substr(text + tag.size());
  }

  int socket_;
};

struct Death {
  int exit_status = -1;  // of exit(), -1 when a signal ended it
  int signal = 0;        // that ended it
  Lines log;

  /// The lines between start and end of the trace.
  Lines frames() const {
    const auto start = std::find_if(log.begin(), log.end(), [](const std::string& line) {
      return line.find("stack trace start") != std::string::npos;
    });
    const auto end = std::find(start, log.end(), "3 [ST]:----- stack trace end ------\n");
    if (start == log.end() || end == log.end()) return {};
    return {start + 1, end};
  }
};

// ThreadSanitizer objects to a handler that allocates, which this one does knowingly.
void allow_unsafe_calls_in_handlers() {
  const char* before = getenv("TSAN_OPTIONS");
  const std::string options = before == nullptr ? "" : std::string(before) + ":";
  setenv("TSAN_OPTIONS", (options + "report_signal_unsafe=0").c_str(), 1);
}

/// The parameter is what is added to the name of the child's program.
class Crash : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override { allow_unsafe_calls_in_handlers(); }

  /// Lets a child die. `meanwhile` is called after each look at the log.
  Death die(
      std::string way,
      const std::function<void(pid_t, const Lines&)>& meanwhile = [](pid_t, const Lines&) {}) {
    const SystemLog log;
    std::string path = program();
    char* arguments[] = {path.data(), way.data(), nullptr};
    pid_t child = 0;
    EXPECT_EQ(posix_spawn(&child, path.c_str(), nullptr, nullptr, arguments, environ), 0);
    Death death;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
      log.read_into(death.log, 20);
      meanwhile(child, death.log);
    }
    log.read_into(death.log, 0);
    if (WIFEXITED(status)) death.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) death.signal = WTERMSIG(status);
    return death;
  }

  static std::string program() { return std::string(CRASH_CHILD) + GetParam(); }

  static void expect_frames_to_have_their_form(const Lines& frames) {
    for (const std::string& frame : frames) {
      EXPECT_THAT(frame, MatchesRegex("3 \\[ST\\]:  .*, Addr: [0-9a-f]+\n"));
    }
  }
  /// The program's own functions in the trace, innermost first, without the handler; "()" is one
  /// without a name. Frames of libraries are left out: a sanitizer's runtime adds some of its own.
  Lines functions_behind_the_handler(const Lines& frames) const {
    const std::string module = "3 [ST]:  " + program() + " : ";
    Lines functions;
    for (const std::string& frame : frames) {
      if (frame.compare(0, module.size(), module) != 0) continue;
      const std::string rest = frame.substr(module.size());
      functions.push_back(rest.substr(0, rest.find("+0x")));
      if (functions.back() == "qv_bt_signal_handler()") functions.clear();
    }
    return functions;
  }

  const std::string kInstalled = "7 [ST]:BT installed for crash_child\n";
  const std::string kReadNull = "crash::readNull(crash::Record const&, int)";
};

TEST_P(Crash, NullReadLeavesATraceAndEndsThroughExitWithStatus0) {
  const Death death = die("null");
  ASSERT_GE(death.log.size(), 7U);
  EXPECT_EQ(death.log[0], kInstalled);
  EXPECT_THAT(death.log[1], MatchesRegex("3 \\[ST\\]:----- stack trace start [0-9]+------\n"));
  const Lines last(death.log.end() - 3, death.log.end());
  EXPECT_THAT(last, ElementsAre("3 [ST]:----- stack trace end ------\n",
                                "3 [ST]: signal received 11 \n", "5 exit() ran"));
  EXPECT_EQ(death.log.size(), death.frames().size() + 5);
  EXPECT_EQ(death.exit_status, 0);
}

TEST_P(Crash, FirstFramesNameTheFunctionThatCrashed) {
  const Lines frames = die("null").frames();
  expect_frames_to_have_their_form(frames);
  const Lines functions = functions_behind_the_handler(frames);
  ASSERT_GE(functions.size(), 2U);
  EXPECT_EQ(functions.front(), kReadNull);
  EXPECT_THAT(functions, Contains("main()")) << "a name of C linkage, with parentheses";
}

TEST_P(Crash, HandlerLeavesItselfOutOfTheTrace) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer puts frames of its own before the handler's";
#endif
  EXPECT_THAT(die("null").frames(), Each(Not(HasSubstr("qv_bt_signal_handler"))));
}

TEST_P(Crash, AbortIsLoggedWithoutATrace) {
  const Death death = die("abort");
  EXPECT_THAT(death.log, ElementsAre(kInstalled, "3 [ST]: signal received 6 \n", "5 exit() ran"));
  EXPECT_EQ(death.exit_status, 0);
}

TEST_P(Crash, IllegalInstructionIsLoggedWithoutATrace) {
  const Death death = die("illegal");
  EXPECT_THAT(death.log, ElementsAre(kInstalled, "3 [ST]: signal received 4 \n", "5 exit() ran"));
  EXPECT_EQ(death.exit_status, 0);
}

TEST_P(Crash, TerminationIsLoggedWithoutATraceAndEndsWithStatus0) {
  bool sent = false;
  const Death death = die("wait", [&](pid_t child, const Lines& lines) {
    if (lines.empty() || sent) return;
    sent = true;
    kill(child, SIGTERM);
  });
  EXPECT_THAT(death.log, ElementsAre(kInstalled, "3 [ST]: signal received 15 \n", "5 exit() ran"));
  EXPECT_EQ(death.exit_status, 0);
}

// The handler needs a stack, and there is none left: see the header.
TEST_P(Crash, StackOverflowEndsByItsSignalWithoutALine) {
  const Death death = die("overflow");
  EXPECT_EQ(death.signal, SIGSEGV);
  EXPECT_THAT(death.log, ElementsAre(kInstalled));
}

TEST_P(Crash, OnAThreadOtherThanMainTracesThatThread) {
  const Death death = die("thread");
  const Lines frames = death.frames();
  EXPECT_EQ(functions_behind_the_handler(frames).at(0), kReadNull);
  EXPECT_THAT(functions_behind_the_handler(frames), Not(Contains("main()")));
  EXPECT_THAT(death.log, Contains("3 [ST]: signal received 11 \n"));
  EXPECT_EQ(death.exit_status, 0);
}

TEST_P(Crash, DeepStackIsCutAt64Frames) {
  const Lines frames = die("deep").frames();
  EXPECT_EQ(frames.size(), 63U) << "the first of them is left out";
  expect_frames_to_have_their_form(frames);
  EXPECT_EQ(functions_behind_the_handler(frames).back(), "crash::descend(int)");
}

TEST_P(Crash, FunctionThatIsNotExportedIsAnOffsetInItsModule) {
  const Lines frames = die("unnamed").frames();
  const Lines functions = functions_behind_the_handler(frames);
  ASSERT_GE(functions.size(), 2U);
  EXPECT_EQ(functions[0], kReadNull);
  EXPECT_EQ(functions[1], "()");
}

TEST_P(Crash, TraceWithoutACallbackEndsWithStatus1) {
  const Death death = die("trace only");
  EXPECT_FALSE(death.frames().empty());
  EXPECT_THAT(death.log, Not(Contains("3 callback 10")));
  EXPECT_EQ(death.exit_status, 1);
}

TEST_P(Crash, SignalThatNoListNamesAnyMoreEndsWithStatus1) {
  const Death death = die("forgotten");
  EXPECT_THAT(death.log, ElementsAre(kInstalled, kInstalled, kInstalled, "5 exit() ran"));
  EXPECT_EQ(death.exit_status, 1);
}

TEST_P(Crash, CallbackThatReturnsLetsTheProcessGoOn) {
  const Death death = die("call only");
  EXPECT_THAT(death.log, ElementsAre(kInstalled, kInstalled, "3 callback 10", "5 exit() ran"));
  EXPECT_EQ(death.exit_status, 42);
}

TEST_P(Crash, SignalWithoutAFunctionIsIgnored) {
  const Death death = die("ignored");
  EXPECT_THAT(death.log, ElementsAre(kInstalled, kInstalled, "5 exit() ran"));
  EXPECT_EQ(death.exit_status, 42);
}

TEST_P(Crash, TraceGoesBeforeTheCallback) {
  const Death death = die("trace and call");
  EXPECT_FALSE(death.frames().empty());
  const Lines last(death.log.end() - 3, death.log.end());
  EXPECT_THAT(
      last, ElementsAre("3 [ST]:----- stack trace end ------\n", "3 callback 10", "5 exit() ran"));
  EXPECT_EQ(death.exit_status, 42);
}

TEST_P(Crash, TraceWithACallbackThatIsNotSetLetsTheProcessGoOn) {
  const Death death = die("trace and no function");
  EXPECT_FALSE(death.frames().empty());
  EXPECT_EQ(death.exit_status, 42);
}

INSTANTIATE_TEST_SUITE_P(Programs, Crash, testing::Values("", "_stripped"), [](const auto& suffix) {
  return suffix.param.empty() ? "AsBuilt" : "Stripped";
});

}  // namespace
