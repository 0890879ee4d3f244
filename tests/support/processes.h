// Other processes and the surroundings that they see, for tests.
#ifndef TESTS_SUPPORT_PROCESSES_H
#define TESTS_SUPPORT_PROCESSES_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

namespace test_support {

/// A second process that holds a file open for as long as this lives.
class FileHolder {
 public:
  explicit FileHolder(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY);
    if (file < 0) throw std::system_error(errno, std::generic_category(), path);
    pid_ = fork();
    if (pid_ == 0) {
      for (;;)
        pause();
    }
    close(file);
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
  }
  ~FileHolder() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  FileHolder(const FileHolder&) = delete;
  FileHolder& operator=(const FileHolder&) = delete;

  std::string pid() const { return std::to_string(pid_); }

 private:
  pid_t pid_;
};

/// Sets an environment variable for the scope.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::string& value) : name_(std::move(name)) {
    const char* before = getenv(name_.c_str());
    had_value_ = before != nullptr;
    if (had_value_) before_ = before;
    setenv(name_.c_str(), value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    if (had_value_) {
      setenv(name_.c_str(), before_.c_str(), 1);
    } else {
      unsetenv(name_.c_str());
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::string before_;
  bool had_value_;
};

/// Makes a folder the working directory for the scope.
class ScopedWorkingDirectory {
 public:
  explicit ScopedWorkingDirectory(const std::string& path)
      : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~ScopedWorkingDirectory() {
    std::error_code ignored;
    std::filesystem::current_path(before_, ignored);
  }
  ScopedWorkingDirectory(const ScopedWorkingDirectory&) = delete;
  ScopedWorkingDirectory& operator=(const ScopedWorkingDirectory&) = delete;

 private:
  std::filesystem::path before_;
};

/// How many descriptors this process has open.
inline long open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

}  // namespace test_support

#endif
