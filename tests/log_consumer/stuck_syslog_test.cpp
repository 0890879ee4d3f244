// What a system log that is not read does to the service, and a signal in that moment.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <system_error>

#include "gtest/gtest.h"
#include "tests/support/journal.h"

namespace {

using test_support::eventually;

// "/dev/log" of which lines are taken only one at a time.
class SlowSystemLog {
 public:
  SlowSystemLog() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string("/dev/log").copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(socket_, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
      throw std::system_error(errno, std::generic_category(), "/dev/log");
    }
  }
  ~SlowSystemLog() { close(socket_); }
  SlowSystemLog(const SlowSystemLog&) = delete;
  SlowSystemLog& operator=(const SlowSystemLog&) = delete;

  // False when there is none.
  bool take_line() const {
    char line[8192];
    return recv(socket_, line, sizeof line, 0) > 0;
  }

 private:
  int socket_;
};

class Service {
 public:
  Service() {
    std::string program = LOG_CONSUMER_PROGRAM;
    std::string pause = "-d1";
    char* const arguments[] = {program.data(), pause.data(), nullptr};
    const int error = posix_spawn(&pid_, arguments[0], nullptr, nullptr, arguments, environ);
    if (error != 0) throw std::system_error(error, std::generic_category(), program);
  }
  ~Service() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // The system call that the main thread waits in; -1 while it runs or when nobody may look.
  long waits_in() const {
    std::ifstream file("/proc/" + std::to_string(pid_) + "/syscall");
    long number = -1;
    return file >> number ? number : -1;
  }

  void send(int signal) const { kill(pid_, signal); }

  bool running() const {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
  }

 private:
  pid_t pid_ = -1;
};

// Sends the signal while the main thread is inside syslog().
void expect_hang(int signal) {
  const SlowSystemLog log;
  const Service service;
  // Either thread may be the one that has filled the log's socket: one line at a time, until it is
  // the main thread.
  const bool main_waits = eventually([&] {
    if (service.waits_in() == SYS_sendto) return true;
    if (service.waits_in() == SYS_futex) log.take_line();
    return false;
  });
  if (!main_waits && service.waits_in() == -1) GTEST_SKIP() << "/proc/PID/syscall cannot be read";
  ASSERT_TRUE(main_waits);
  service.send(signal);
  ASSERT_TRUE(eventually([&] { return service.waits_in() == SYS_futex; }));
  while (log.take_line()) {
  }
  for (int looks = 0; looks < 100; ++looks) {
    ASSERT_EQ(service.waits_in(), SYS_futex);
    test_support::wait_a_little();
  }
  EXPECT_TRUE(service.running());
}

// syslog() holds its lock while it waits for the daemon; the signal's handler wants the same lock
// on the same thread. SIGKILL, which a service manager sends behind its SIGTERM, ends it.
TEST(Hazard, SigtermInsideSyslogHangsUntilTheServiceIsKilled) {
  expect_hang(SIGTERM);
}

// Its handler writes to syslog too.
TEST(Hazard, ACrashInsideSyslogHangsUntilTheServiceIsKilled) {
  expect_hang(SIGSEGV);
}

}  // namespace
