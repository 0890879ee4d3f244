// The program itself, unchanged, with its real pauses: started as a child beside a store's queues
// and a real upload server, watched through syslog, systemd's socket, its files and its exit.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "lab/upload_server/upload_server.h"
#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/message_queue.h"

namespace {

namespace fs = std::filesystem;
using test_support::eventually;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constexpr char kWifiUp[] = R"({"interfaces":[{"id":1,"wifiStatus":{"status":"associated"}}]})";
constexpr char kSystemId[] = R"({"serverAssigned":{"identities":{"sysId":"AB12345678"}}})";

// Records the datagrams that come to a path, as a daemon at "/dev/log" does. Reads all the time: a
// socket that is full holds its senders up.
class DatagramSink {
 public:
  explicit DatagramSink(const std::string& path)
      : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (bind(socket_, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
    reader_ = std::thread([this] { read(); });
  }
  ~DatagramSink() {
    shutdown(socket_, SHUT_RDWR);
    reader_.join();
    close(socket_);
  }
  DatagramSink(const DatagramSink&) = delete;
  DatagramSink& operator=(const DatagramSink&) = delete;

  // All that came so far, oldest first.
  std::vector<std::string> lines() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

  bool has(const std::string& text) const {
    for (const std::string& line : lines()) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

 private:
  void read() {
    std::array<char, 65536> text;
    for (;;) {
      const ssize_t size = recv(socket_, text.data(), text.size(), 0);
      if (size <= 0) return;
      const std::lock_guard<std::mutex> lock(mutex_);
      lines_.emplace_back(text.data(), static_cast<std::size_t>(size));
    }
  }

  int socket_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::thread reader_;
};

// The store's side of the queues: a place for requests, and documents into the service's queue.
class StoreQueues {
 public:
  // Waits for the service's last request at start, so that nothing is flushed, then sends.
  void publish(const std::vector<std::string>& documents) {
    ASSERT_TRUE(eventually([&] { return takesRequest("\"/interfaces\""); }));
    for (const std::string& document : documents)
      documents_.send_text(document);
  }

 private:
  bool takesRequest(const std::string& text) {
    while (const auto request = requests_.take()) {
      if (request->bytes.find(text) != std::string::npos) return true;
    }
    return false;
  }

  test_support::MessageQueue requests_{"/pushpull", 10, 8192};
  test_support::MessageQueue documents_{"/log_consumer", 10, 8192};
};

// The running service. Killed at the end of the scope if it has not ended.
class Service {
 public:
  explicit Service(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), LOG_CONSUMER_PROGRAM);
    std::vector<char*> argv;
    for (std::string& argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, "/tmp/stdout", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int error = posix_spawn(&pid_, argv[0], &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw std::system_error(error, std::generic_category(), argv[0]);
  }
  ~Service() {
    if (pid_ == -1) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  bool running() const {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
  }

  // The exit status, or minus the signal that ended it.
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  void signal(int number) const { kill(pid_, number); }

  // CPU time of the process and its finished children, in seconds.
  double cpuSeconds() const {
    const std::string text = test_support::read_file("/proc/" + std::to_string(pid_) + "/stat");
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    // Behind the name: eleven fields, then user and system time, own and of the children.
    std::string passed_over;
    for (int field = 0; field < 11; ++field)
      fields >> passed_over;
    long ticks = 0;
    for (int field = 0; field < 4; ++field) {
      long value = 0;
      fields >> value;
      ticks += value;
    }
    return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }

 private:
  pid_t pid_ = -1;
};

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

  std::vector<std::string> options(const lab::UploadServer& server) const {
    return {"-d1", "-s127.0.0.1", "-p" + std::to_string(server.port())};
  }

  DatagramSink syslog_{"/dev/log"};
  DatagramSink notify_{"/tmp/notify"};
};

TEST_F(ServiceProcess, UploadsMarksAndEndsAfterOnePass) {
  const std::string clp = makeLog("/tarv/data/logs/clp", "c.gz", "contents of c");
  lab::UploadServer server({});
  StoreQueues store;
  Service service(options(server));
  store.publish({kSystemId, kWifiUp});
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
            "-d1\n-s127.0.0.1\n-p" + std::to_string(server.port()) + "\n");
  EXPECT_TRUE(syslog_.has("LogConsumer"));
  EXPECT_TRUE(syslog_.has("Exiting socket thread"));
  EXPECT_THAT(notify_.lines(), Contains("READY=1").Times(1));
  EXPECT_THAT(notify_.lines(), Contains("WATCHDOG=1"));
}

TEST_F(ServiceProcess, EndsCleanlyWhileItsThreadsAreInTheirLastPoll) {
  for (int round = 0; round < 3; ++round) {
    lab::UploadServer server({});
    StoreQueues store;
    Service service({"-d0", "-s127.0.0.1", "-p" + std::to_string(server.port())});
    store.publish({kWifiUp});
    EXPECT_EQ(service.wait(), 0);
  }
}

TEST_F(ServiceProcess, WithoutStoreServerOrDirectoriesItLivesAndFeedsTheWatchdog) {
  setenv("PATH", "/tmp/nothing", 1);  // no find, no fuser
  Service service({"-d1"});
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
  Service service({"-d1"});
  store.publish({kWifiUp});
  const double before = service.cpuSeconds();
  constexpr int kSeconds = 10;
  std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
  EXPECT_LE(service.cpuSeconds() - before, 0.05 * kSeconds);
}

TEST_F(ServiceProcess, SigtermEndsItWithStatusZeroAndALine) {
  StoreQueues store;
  Service service({"-d1"});
  store.publish({kWifiUp});
  service.signal(SIGTERM);
  EXPECT_EQ(service.wait(), 0);
  EXPECT_TRUE(syslog_.has("[ST]: signal received 15"));
  EXPECT_FALSE(syslog_.has("stack trace"));
}

TEST_F(ServiceProcess, ACrashLeavesATraceThatNamesTheFunction) {
  StoreQueues store;
  Service service({"-d1"});
  store.publish({kWifiUp});
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
  Service service(options(server));
  store.publish({kWifiUp});
  EXPECT_EQ(service.wait(), 0);
  Service again(options(server));
  store.publish({kWifiUp});
  EXPECT_EQ(again.wait(), 0);
  EXPECT_EQ(modeOf(clp), 0400U);
}

}  // namespace
