// Options, and the order in which the service starts and ends.
#include "log_consumer/qv_log_consumer_main.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/log_consumer/fake_connection.h"
#include "tests/support/fake_time.h"
#include "tests/support/journal.h"

// The linker turns calls of backtrace() into calls of this.
extern "C" {
int __real_backtrace(void** addresses, int size);
int __wrap_backtrace(void** addresses, int size);
int __wrap_backtrace(void** addresses, int size) {
  test_support::note("backtrace " + std::to_string(size));
  return __real_backtrace(addresses, size);
}
}

namespace {

using Shared = logConsumerSharedStruct;
using test_support::count;
using test_support::FakeTime;
using test_support::journal;
using test_support::Journal;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// Standard output as a text, for one test.
class CapturedOutput {
 public:
  CapturedOutput() : before_(std::cout.rdbuf(text_.rdbuf())) {}
  ~CapturedOutput() {
    std::cout.clear();
    std::cout.rdbuf(before_);
  }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* before_;
};

class Options : public testing::Test {
 protected:
  void SetUp() override {
    storeSharedDefaults();
    test_support::clear_journal();
  }

  LogConsumerOptions read(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "log_consumer");
    return readOptions(static_cast<int>(arguments.size()), arguments.data());
  }

  // What start-up stored before the options: both bypasses off, to see them being set.
  static void clearFlags() {
    shared_set(&Shared::alwaysBypassRandomDelay, false);
    shared_set(&Shared::skipPerFileDelay, false);
  }

  CapturedOutput output_;
};

TEST_F(Options, NoneGiveTheDefaults) {
  const LogConsumerOptions options = read({});
  EXPECT_EQ(options.sleepSeconds, 5);
  EXPECT_EQ(options.server, "");
  EXPECT_EQ(options.port, 0);
  EXPECT_TRUE(logConsumerShared.alwaysBypassRandomDelay);
  EXPECT_TRUE(logConsumerShared.skipPerFileDelay);
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Options, ValuesAreJoinedToTheLetter) {
  const LogConsumerOptions options = read({"-d10", "-s10.0.0.5", "-p8080"});
  EXPECT_EQ(options.sleepSeconds, 10);
  EXPECT_EQ(options.server, "10.0.0.5");
  EXPECT_EQ(options.port, 8080);
}

TEST_F(Options, TheFirstCharacterIsNotLookedAt) {
  EXPECT_EQ(read({"/d3"}).sleepSeconds, 3);
  EXPECT_EQ(read({"dd4"}).sleepSeconds, 4);
}

TEST_F(Options, TheLastOfAKindWins) {
  EXPECT_EQ(read({"-p1", "-p2"}).port, 2);
}

TEST_F(Options, PortWithoutDigitsIsZero) {
  EXPECT_EQ(read({"-p9", "-p"}).port, 0);
  EXPECT_EQ(read({"-phttps"}).port, 0);
}

TEST_F(Options, NumbersAreReadAsFarAsTheyGo) {
  EXPECT_EQ(read({"-p80x"}).port, 80);
  EXPECT_EQ(read({"-d-3"}).sleepSeconds, -3);
}

TEST_F(Options, RandomDelayBypassIsSetByZero) {
  clearFlags();
  read({"-r0"});
  EXPECT_TRUE(logConsumerShared.alwaysBypassRandomDelay);
  EXPECT_FALSE(logConsumerShared.skipPerFileDelay);
  EXPECT_THAT(journal(), ElementsAre("syslog 6 Bypassing all random delays"));
}

TEST_F(Options, FileDelayBypassIsSetByZero) {
  clearFlags();
  read({"-f0"});
  EXPECT_TRUE(logConsumerShared.skipPerFileDelay);
  EXPECT_FALSE(logConsumerShared.alwaysBypassRandomDelay);
  EXPECT_THAT(journal(), ElementsAre("syslog 6 Bypassing delay between files"));
}

TEST_F(Options, NoDigitsCountAsZero) {
  clearFlags();
  read({"-r", "-fx"});
  EXPECT_TRUE(logConsumerShared.alwaysBypassRandomDelay);
  EXPECT_TRUE(logConsumerShared.skipPerFileDelay);
}

TEST_F(Options, BypassesCanOnlyBeSetNeverCleared) {
  read({"-r1", "-f1"});
  EXPECT_TRUE(logConsumerShared.alwaysBypassRandomDelay);
  EXPECT_TRUE(logConsumerShared.skipPerFileDelay);
  EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(Options, ActivityLogIsEnabledByOneOnly) {
  read({"-l2", "-l0", "-l"});
  EXPECT_FALSE(logConsumerShared.loggingEnabled);
  read({"-l1"});
  EXPECT_TRUE(logConsumerShared.loggingEnabled);
  EXPECT_THAT(journal(), ElementsAre("syslog 6 Enabling logging"));
}

TEST_F(Options, EachIsEchoedOnALineIgnoredOnesToo) {
  read({"-d10", "-x7", "word", "-"});
  EXPECT_EQ(output_.text(), "-d10\n-x7\nword\n-\n");
}

TEST_F(Options, EchoComesBeforeTheInterpretation) {
  std::string seen;
  class Watcher : public std::stringbuf {
   public:
    explicit Watcher(std::string& text) : text_(text) {}
    int sync() override {
      text_ += str() + (logConsumerShared.loggingEnabled ? "enabled" : "not yet");
      return 0;
    }

   private:
    std::string& text_;
  } watcher(seen);
  std::streambuf* before = std::cout.rdbuf(&watcher);
  read({"-l1"});
  std::cout.rdbuf(before);
  EXPECT_EQ(seen, "-l1\nnot yet");
}

TEST_F(Options, AnEmptyArgumentIsAnEmptyLineAndIgnored) {
  EXPECT_EQ(read({"", "-p7"}).port, 7);
  EXPECT_EQ(output_.text(), "\n-p7\n");
}

TEST_F(Options, ANullArgumentFailsTheEchoOnly) {
  EXPECT_EQ(read({"-d2", nullptr, "-p7"}).port, 7);
  EXPECT_TRUE(std::cout.bad());
  EXPECT_EQ(output_.text(), "-d2\n");
}

// The whole service in this process: real configuration thread without a store, the connections
// and the clock replaced.
class StartUp : public testing::Test {
 protected:
  int run(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "/usr/bin/log_consumer");
    test_support::clear_journal();
    test_support::fake_servers() = {};
    // Wi-Fi is associated by the time of the first pause: a pass then connects and ends.
    time_.on_sleep([](std::int64_t) { shared_set(&Shared::wifiAssociated, true); });
    return log_consumer_main(static_cast<int>(arguments.size()), arguments.data());
  }

  CapturedOutput output_;
  FakeTime time_;
};

TEST_F(StartUp, EndsWithZeroAfterOnePass) {
  EXPECT_EQ(run({"-d1", "-slogs.example", "-p80"}), 0);
  EXPECT_EQ(output_.text(), "-d1\n-slogs.example\n-p80\n");
  EXPECT_EQ(count("connect data logs.example:80"), 1U);
  EXPECT_EQ(count("syslog 6 Exiting socket thread"), 1U);
  EXPECT_EQ(count("syslog 6 PushpullLC thread: Exiting thread"), 1U) << "joined before the end";
}

TEST_F(StartUp, InstallsTheCrashHandlerOpensSyslogAndNamesTheBuildBeforeTheOptions) {
  run({"-d1", "-slogs.example", "-l0", "-r0"});
  const Journal lines = journal();
  ASSERT_GE(lines.size(), 5U);
  EXPECT_EQ(lines[0], "backtrace 64") << "loads the unwinder, which a handler should not";
  EXPECT_EQ(lines[1], "syslog 7 [ST]:BT installed for /usr/bin/log_consumer\n");
  EXPECT_EQ(lines[2], "openlog LogConsumer 4 8");
  EXPECT_THAT(lines[3], StartsWith("syslog 7 Build@ "));
  EXPECT_EQ(lines[4], "syslog 6 Bypassing all random delays");
}

TEST_F(StartUp, StoresTheDefaultsFirst) {
  shared_set(&Shared::resetLogConsumer, true);
  shared_set(&Shared::sysId, std::string("stale"));
  run({"-d0", "-slogs.example"});
  EXPECT_EQ(logConsumerShared.sysId, "NUVSerialNumber");
  EXPECT_EQ(logConsumerShared.sleepSeconds, 0);
  EXPECT_EQ(logConsumerShared.relayServerPort, 0) << "absent option p";
}

TEST_F(StartUp, HandsTheTableToTheEngine) {
  run({"-d1", "-slogs.example"});
  EXPECT_EQ(count("syslog 6 Bypassing random delay values for all log types\n"), 15U);
}

}  // namespace
