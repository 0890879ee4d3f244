// The program itself, unchanged, with its real pauses: started as a child beside a store's queues
// and a real upload server, watched through syslog, systemd's socket, its files and its exit.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "lab/upload_server/upload_server.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/service_process.h"

namespace {

namespace fs = std::filesystem;
using test_support::DatagramSink;
using test_support::eventually;
using test_support::Service;
using test_support::StoreQueues;
using testing::Contains;

constexpr char kWifiUp[] = R"({"interfaces":[{"id":1,"wifiStatus":{"status":"associated"}}]})";
constexpr char kSystemId[] = R"({"serverAssigned":{"identities":{"sysId":"AB12345678"}}})";

// The service with these arguments.
std::vector<std::string> program(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), LOG_CONSUMER_PROGRAM);
  return arguments;
}

class ServiceProcess : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories("/tmp/find");
    fs::create_symlink("/usr/bin/busybox", "/tmp/find/find");
    setenv("PATH", "/tmp/find:/usr/bin:/bin", 1);
    setenv("NOTIFY_SOCKET", "/tmp/notify", 1);
    // The crash handler logs, which ThreadSanitizer is right to dislike: the process ends then.
    setenv("TSAN_OPTIONS", "report_signal_unsafe=0", 1);
  }

  static std::string makeLog(const std::string& directory, const std::string& name,
                             const std::string& contents) {
    fs::create_directories(directory);
    test_support::write_file(directory + "/" + name, contents);
    chmod((directory + "/" + name).c_str(), 0644);
    return directory + "/" + name;
  }

  static mode_t modeOf(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  // With less a pass may find one of its connections still being made and leave its kinds.
  std::vector<std::string> options(const lab::UploadServer& server) const {
    return {"-d5", "-s127.0.0.1", "-p" + std::to_string(server.port())};
  }

  DatagramSink syslog_{"/dev/log"};
  DatagramSink notify_{"/tmp/notify"};
};

TEST_F(ServiceProcess, UploadsMarksAndEndsAfterOnePass) {
  const std::string clp = makeLog("/tarv/data/logs/clp", "c.gz", "contents of c");
  lab::UploadServer server({});
  StoreQueues store;
  Service service(program(options(server)));
  ASSERT_TRUE(store.publish({kSystemId, kWifiUp}));
  EXPECT_EQ(service.wait(), 0) << "a leak, a race or a crash of the service shows here too";
  EXPECT_EQ(modeOf(clp), 0400U);
  const std::vector<lab::UploadReport> reports = server.reports();
  ASSERT_GE(reports.size(), 1U);
  bool clpArrived = false;
  for (const lab::UploadReport& upload : reports) {
    clpArrived = clpArrived || (upload.upload.file_name == "c.gz" &&
                                upload.upload.file == "contents of c" && upload.accepted());
  }
  EXPECT_TRUE(clpArrived);
  EXPECT_EQ(test_support::read_file("/tmp/stdout"),
            "-d5\n-s127.0.0.1\n-p" + std::to_string(server.port()) + "\n");
  EXPECT_TRUE(syslog_.has("LogConsumer"));
  EXPECT_TRUE(syslog_.has("Exiting socket thread"));
  EXPECT_THAT(notify_.lines(), Contains("READY=1").Times(1));
  EXPECT_THAT(notify_.lines(), Contains("WATCHDOG=1"));
}

TEST_F(ServiceProcess, EndsCleanlyWhileItsThreadsAreInTheirLastPoll) {
  for (int round = 0; round < 3; ++round) {
    lab::UploadServer server({});
    StoreQueues store;
    Service service(program({"-d0", "-s127.0.0.1", "-p" + std::to_string(server.port())}));
    ASSERT_TRUE(store.publish({kWifiUp}));
    EXPECT_EQ(service.wait(), 0);
  }
}

TEST_F(ServiceProcess, WithoutStoreServerOrDirectoriesItLivesAndFeedsTheWatchdog) {
  setenv("PATH", "/tmp/nothing", 1);  // no find, no fuser
  Service service(program({"-d1"}));
  ASSERT_TRUE(eventually([&] { return notify_.has("WATCHDOG=1"); }, 240));
  const auto fed = [&] {
    const std::vector<std::string> lines = notify_.lines();
    return std::count(lines.begin(), lines.end(), "WATCHDOG=1");
  };
  EXPECT_TRUE(eventually([&] { return fed() >= 3; }));
  EXPECT_TRUE(service.running());
  EXPECT_TRUE(syslog_.has("PushpullLC thread: Unable to register with pushpull"));
}

TEST_F(ServiceProcess, TakesAtMostAFewPercentOfACoreWhileItWaits) {
  StoreQueues store;
  Service service(program({"-d1"}));
  ASSERT_TRUE(store.publish({kWifiUp}));
  const double before = service.cpuSeconds();
  constexpr int kSeconds = 10;
  std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
  EXPECT_LE(service.cpuSeconds() - before, 0.05 * kSeconds);
}

TEST_F(ServiceProcess, SigtermEndsItWithStatusZeroAndALine) {
  StoreQueues store;
  Service service(program({"-d1"}));
  ASSERT_TRUE(store.publish({kWifiUp}));
  service.signal(SIGTERM);
  EXPECT_EQ(service.wait(), 0);
  EXPECT_TRUE(syslog_.has("[ST]: signal received 15"));
  EXPECT_FALSE(syslog_.has("stack trace"));
}

TEST_F(ServiceProcess, ACrashLeavesATraceThatNamesTheFunction) {
  StoreQueues store;
  Service service(program({"-d1"}));
  ASSERT_TRUE(store.publish({kWifiUp}));
  // ThreadSanitizer runs the handler wherever it interrupts, inside its own code too: in a pause.
  ASSERT_TRUE(
      eventually([this] { return syslog_.has("relay server connection not done con = 0"); }));
  service.signal(SIGSEGV);
  EXPECT_EQ(service.wait(), 0);
  EXPECT_TRUE(syslog_.has("[ST]:----- stack trace start"));
  EXPECT_TRUE(syslog_.has("log_consumer_main(int, char const* const*)+"));
  EXPECT_TRUE(syslog_.has("[ST]: signal received 11"));
}

TEST_F(ServiceProcess, AServerThatDropsEveryConnectionStopsNothing) {
  const std::string clp = makeLog("/tarv/data/logs/clp", "c.gz", "contents");
  lab::UploadServer server({});
  server.refuse_connections(3);
  StoreQueues store;
  Service service(program(options(server)));
  ASSERT_TRUE(store.publish({kWifiUp}));
  EXPECT_EQ(service.wait(), 0);
  Service again(program(options(server)));
  ASSERT_TRUE(store.publish({kWifiUp}));
  EXPECT_EQ(again.wait(), 0);
  EXPECT_EQ(modeOf(clp), 0400U);
}

}  // namespace
