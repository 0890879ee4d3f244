// The program itself as a child process, and what stands around it: the store's queues, the system
// log, the service manager. For tests in the sandbox.
#ifndef TESTS_SUPPORT_SERVICE_PROCESS_H
#define TESTS_SUPPORT_SERVICE_PROCESS_H

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/journal.h"
#include "tests/support/message_queue.h"

namespace test_support {

/// Records the datagrams that come to a path, as a daemon at "/dev/log" does. Reads all the time: a
/// socket that is full holds its senders up.
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

  /// All that came so far, oldest first.
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

/// The store's side of the queues: a place for requests, and documents into the service's queue.
class StoreQueues {
 public:
  /// Waits for the service's last request at start, so that nothing is flushed, then sends.
  /// @return false when that request does not come
  bool publish(const std::vector<std::string>& documents) {
    if (!eventually([&] { return takesRequest("\"/interfaces\""); })) return false;
    for (const std::string& document : documents)
      documents_.send_text(document);
    return true;
  }

  /// Whether a request with this text was among those that lay there. Never waits.
  bool takesRequest(const std::string& text) {
    while (const auto request = requests_.take()) {
      if (request->bytes.find(text) != std::string::npos) return true;
    }
    return false;
  }

  MessageQueue& documents() { return documents_; }

 private:
  // Small: the queues of four tests at once have to fit the user's budget of 819,200 bytes.
  MessageQueue requests_{"/pushpull", 10, 2048};
  MessageQueue documents_{"/log_consumer", 4, 8192};
};

/// The running service. Killed at the end of the scope if it has not ended. What it prints is in
/// the file "/tmp/stdout".
class Service {
 public:
  /// @param command      the program and its arguments
  /// @param environment  "NAME=value" besides this process's
  explicit Service(std::vector<std::string> command, std::vector<std::string> environment = {}) {
    std::vector<char*> argv = pointersTo(command);
    std::vector<char*> variables = pointersTo(environment);
    for (char** variable = environ; *variable != nullptr; ++variable)
      variables.insert(variables.end() - 1, *variable);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, "/tmp/stdout", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int error = posix_spawn(&pid_, argv[0], &files, nullptr, argv.data(), variables.data());
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

  /// The exit status, or minus the signal that ended it.
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  void signal(int number) const { kill(pid_, number); }

  /// CPU time of the process and its finished children, in seconds.
  double cpuSeconds() const {
    const std::string text = read_file("/proc/" + std::to_string(pid_) + "/stat");
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

  pid_t pid() const { return pid_; }

 private:
  static std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers(texts.size() + 1, nullptr);
    std::transform(texts.begin(), texts.end(), pointers.begin(),
                   [](std::string& text) { return text.data(); });
    return pointers;
  }

  pid_t pid_ = -1;
};

}  // namespace test_support

#endif
