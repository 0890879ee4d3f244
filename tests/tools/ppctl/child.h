// A program that runs beside the test.
#ifndef TESTS_TOOLS_PPCTL_CHILD_H
#define TESTS_TOOLS_PPCTL_CHILD_H

#include <sys/types.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ppctl_test {

/// What a program that has ended left behind.
struct Ended {
  int status = -1;  ///< exit status, -1 when a signal ended it
  int signal = 0;   ///< that signal
  std::string out;
  std::string err;
};

class Child {
 public:
  struct Setup {
    std::string input = {};                     ///< what it reads on stdin, then the end
    bool keep_stdin_open = false;               ///< no end after that
    bool terminal = false;                      ///< stdout is a terminal
    std::vector<std::string> environment = {};  ///< "NAME=value", besides this process's own
  };

  /// Starts a program. @param command  its path and arguments   @throws std::system_error
  explicit Child(const std::vector<std::string>& command);
  Child(const std::vector<std::string>& command, const Setup& setup);
  ~Child();  ///< kills what still runs
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  std::string out() const;  ///< so far
  std::string err() const;

  void send_signal(int signal) const;
  void close_stdout();  ///< reads no more of it: the reader has gone
  Ended wait();         ///< until it has ended

 private:
  void collect(int out, int err);

  pid_t pid_ = -1;
  int input_ = -1;
  int stop_[2] = {-1, -1};
  mutable std::mutex mutex_;
  std::string out_;
  std::string err_;
  std::thread collector_;
};

/// Runs the program under test to its end.
Ended run_ppctl(const std::vector<std::string>& arguments);
Ended run_ppctl(const std::vector<std::string>& arguments, const Child::Setup& setup);

/// Its command line, for a Child.
std::vector<std::string> ppctl_command(const std::vector<std::string>& arguments);

}  // namespace ppctl_test

#endif
